// The tree against std::map, with its shape checked after every change.
#include "platform/avl_tree.h"
#include "random.hpp"
#include "zel.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <numeric>

namespace {

uint64_t comparisons = 0;

uint32_t compare_keys(const void *a, const void *b)
{
    ++comparisons;
    const auto x = *static_cast<const uint32_t *>(a);
    const auto y = *static_cast<const uint32_t *>(b);
    return x > y ? 1 : x < y ? 2 : 0;
}

struct Entry {
    uint64_t link[2] = {};
    uint32_t key = 0;
};

struct Links {
    uintptr_t side[2];
};

const Entry *entry_at(uintptr_t link)
{
    return reinterpret_cast<const Entry *>(link & ~uintptr_t{1}); // NOLINT(performance-no-int-to-ptr): the tree's tag
}

// Height of a subtree whose keys must lie between two bounds; counts its entries.
int checked_height(const Entry *entry, int64_t low, int64_t high, std::size_t &count)
{
    if (entry == nullptr)
        return 0;
    EXPECT_LT(low, entry->key);
    EXPECT_GT(high, entry->key);
    ++count;
    const auto &links = reinterpret_cast<const Links &>(*entry);
    const int left = checked_height(entry_at(links.side[0]), low, entry->key, count);
    const int right = checked_height(entry_at(links.side[1]), entry->key, high, count);
    EXPECT_EQ((links.side[0] & 1) != 0, left == right + 1);
    EXPECT_EQ((links.side[1] & 1) != 0, right == left + 1);
    EXPECT_LE(std::abs(left - right), 1);
    return std::max(left, right) + 1;
}

class Tree {
public:
    Tree() { EXPECT_EQ(ravl_init(&tree, sizeof(uint32_t), offsetof(Entry, key), compare_keys), 0); }

    bool insert(uint32_t key)
    {
        auto entry = std::make_unique<Entry>();
        entry->key = key;
        const bool inserted = ravl_insert(&tree, entry.get()) != 0;
        EXPECT_EQ(inserted, !model.contains(key));
        if (inserted)
            model[key] = std::move(entry);
        return inserted;
    }

    void lookup(uint32_t key)
    {
        const auto found = model.find(key);
        EXPECT_EQ(ravl_lookup(&tree, &key), found == model.end() ? nullptr : found->second.get());
    }

    void erase(uint32_t key)
    {
        const auto found = model.find(key);
        if (found == model.end())
            return;
        ravl_delete(&tree, found->second.get());
        model.erase(found);
    }

    void erase_root() { erase(static_cast<const Entry *>(tree.root)->key); }

    void check()
    {
        std::size_t count = 0;
        checked_height(static_cast<const Entry *>(tree.root), -1, int64_t{1} << 32, count);
        EXPECT_EQ(count, model.size());
        EXPECT_EQ(ravl_is_empty(&tree) != 0, model.empty());
        EXPECT_EQ(tree.root == nullptr, model.empty());
    }

    ravl_tree_t tree;
    std::map<uint32_t, std::unique_ptr<Entry>> model;
};

std::vector<uint32_t> keys(uint32_t count)
{
    std::vector<uint32_t> all(count);
    std::iota(all.begin(), all.end(), 0);
    return all;
}

// Fills with a sequence of keys the way the library does, empties, and fills again.
void fill_and_empty(const std::vector<uint32_t> &sequence)
{
    Tree tree;
    for (int round = 0; round < 2; ++round) {
        for (const uint32_t key : sequence) {
            tree.lookup(key);
            tree.insert(key);
            tree.check();
        }
        for (const uint32_t key : sequence)
            EXPECT_FALSE(tree.insert(key));
        while (!tree.model.empty()) {
            tree.erase_root();
            tree.check();
        }
    }
}

TEST(AvlTree, HoldsItsShapeInAnyOrderOfKeys)
{
    Random random(2);
    for (const uint32_t count : {1u, 2u, 3u, 7u, 64u, 300u}) {
        auto sequence = keys(count);
        fill_and_empty(sequence);
        std::reverse(sequence.begin(), sequence.end());
        fill_and_empty(sequence);
        std::shuffle(sequence.begin(), sequence.end(), random);
        fill_and_empty(sequence);
    }
}

// Every mixture of operations, so that what a lookup remembers meets every change.
TEST(AvlTree, AgreesWithAMapUnderRandomOperations)
{
    for (const uint32_t range : {4u, 16u, 100u, 2000u}) {
        Random random(range);
        Tree tree;
        uint32_t last_missed = 0;
        for (int step = 0; step < 20000; ++step) {
            const auto key = static_cast<uint32_t>(random() % range);
            // Growing and shrinking take turns.
            const bool growing = step / 2500 % 2 == 0;
            switch (random() % 8) {
            case 0:
            case 1:
                tree.lookup(key);
                last_missed = key;
                break;
            case 2:
                tree.insert(last_missed);
                break;
            case 3:
                tree.lookup(key);
                tree.insert(key);
                break;
            case 4:
                growing ? static_cast<void>(tree.insert(key)) : tree.erase(key);
                break;
            case 5:
                growing ? static_cast<void>(tree.insert(key + 1)) : tree.erase(last_missed);
                break;
            case 6:
                tree.erase(key);
                break;
            case 7:
                if (!growing && !tree.model.empty())
                    tree.erase_root();
                break;
            }
            if (range <= 100 || step % 64 == 0)
                tree.check();
            ASSERT_FALSE(testing::Test::HasFailure()) << "range " << range << ", step " << step;
        }
    }
}

TEST(AvlTree, DeletesNothingThatIsNotItsOwn)
{
    Tree tree;
    for (const uint32_t key : {1U, 2U, 3U})
        tree.insert(key);
    Entry twin;
    twin.key = 2;
    Entry stranger;
    stranger.key = 9;
    ravl_delete(&tree.tree, &twin);
    ravl_delete(&tree.tree, &stranger);
    tree.check();
}

// The tree's words may be copied while it is empty, whatever it remembers then.
TEST(AvlTree, MovesWhileEmpty)
{
    Tree tree;
    tree.lookup(5);
    const ravl_tree_t original = tree.tree;
    Tree moved;
    moved.tree = original;
    moved.insert(5);
    moved.check();
    EXPECT_NE(ravl_is_empty(&tree.tree), 0);
}

TEST(AvlTree, AscendingKeysCostOneComparisonACall)
{
    Tree tree;
    const uint32_t count = 1000;
    comparisons = 0;
    for (const uint32_t key : keys(count)) {
        ravl_lookup(&tree.tree, &key);
        tree.insert(key);
    }
    EXPECT_LE(comparisons, 2 * count);
}

TEST(AvlTree, InsertionAfterAFailedLookupDoesNotSearchAgain)
{
    Tree tree;
    auto sequence = keys(4096);
    std::shuffle(sequence.begin(), sequence.end(), Random(3));
    uint64_t inserting = 0;
    for (const uint32_t key : sequence) {
        tree.lookup(key);
        comparisons = 0;
        tree.insert(key);
        inserting += comparisons;
    }
    EXPECT_LT(inserting, 5 * sequence.size());
}

TEST(AvlTree, DeletingTheRootComparesNothing)
{
    Tree tree;
    for (const uint32_t key : keys(1000))
        tree.insert(key);
    comparisons = 0;
    while (!tree.model.empty())
        tree.erase_root();
    EXPECT_EQ(comparisons, 0u);
}

} // namespace
