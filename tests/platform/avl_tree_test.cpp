// The tree against std::map, with its shape checked after every change.
#include "bytes.hpp"
#include "platform/avl_tree.h"
#include "zel.h"

#include <map>

namespace {

uint32_t compare_keys(const void *a, const void *b)
{
    const auto x = *static_cast<const uint32_t *>(a);
    const auto y = *static_cast<const uint32_t *>(b);
    return x > y ? 1 : x < y ? 2 : 0;
}

struct Entry {
    uintptr_t side[2] = {};
    uint32_t key = 0;
};

// Height of a subtree whose keys must lie between two bounds; counts its entries.
int checked_height(uintptr_t link, int64_t low, int64_t high, bool is_balanced, std::size_t &count)
{
    const auto *const entry = reinterpret_cast<const Entry *>(link & ~uintptr_t{1}); // without the tree's tag
    if (entry == nullptr)
        return 0;
    EXPECT_TRUE(low < entry->key && entry->key < high);
    ++count;
    const int left = checked_height(entry->side[0], low, entry->key, is_balanced, count);
    const int right = checked_height(entry->side[1], entry->key, high, is_balanced, count);
    if (is_balanced) {
        EXPECT_EQ(left - right, static_cast<int>(entry->side[0] & 1) - static_cast<int>(entry->side[1] & 1));
        EXPECT_EQ(entry->side[0] & entry->side[1] & 1, 0U);
    }
    return std::max(left, right) + 1;
}

struct Tree {
    Tree() { EXPECT_EQ(ravl_init(tree.get(), sizeof(uint32_t), offsetof(Entry, key), compare_keys), 0); }

    void insert(uint32_t key)
    {
        const auto [place, is_new] = model.try_emplace(key);
        Entry duplicate;
        Entry &entry = is_new ? place->second : duplicate;
        is_dying = false;
        entry.key = key;
        EXPECT_EQ(ravl_insert(tree.get(), &entry) != 0, is_new);
    }

    void lookup(uint32_t key) { EXPECT_EQ(ravl_lookup(tree.get(), &key), model.contains(key) ? &model[key] : nullptr); }

    void erase(uint32_t key)
    {
        Entry stranger; // an equal key is not enough
        stranger.key = key;
        ravl_delete(tree.get(), &stranger);
        is_dying = false;
        if (model.contains(key))
            erase(&model[key]);
    }

    void erase_root()
    {
        if (!model.empty())
            erase(static_cast<Entry *>(tree->root));
    }

    // Without a root, the tree need not be in balance, but no higher than twice what it was.
    void erase(Entry *entry)
    {
        is_dying = entry == tree->root;
        ravl_delete(tree.get(), entry);
        model.erase(entry->key);
    }

    void check()
    {
        if (model.empty()) // then the tree may move, whatever it remembers
            tree = std::make_unique<ravl_tree_t>(*tree);
        std::size_t count = 0;
        const int height =
            checked_height(reinterpret_cast<uintptr_t>(tree->root), -1, int64_t{1} << 32, !is_dying, count);
        balanced_height = is_dying ? balanced_height : height;
        EXPECT_LE(height, 2 * balanced_height);
        EXPECT_EQ(count, model.size());
        EXPECT_EQ(ravl_is_empty(tree.get()) != 0, model.empty());
    }

    std::unique_ptr<ravl_tree_t> tree = std::make_unique<ravl_tree_t>();
    std::map<uint32_t, Entry> model;
    bool is_dying = false;
    int balanced_height = 0;
};

// Every mixture of operations, so that what a lookup remembers meets every change.
TEST(AvlTree, AgreesWithAMapUnderRandomOperations)
{
    for (const uint32_t range : {4U, 16U, 100U, 400U}) {
        Random random(range);
        Tree tree;
        uint32_t missed = 0;
        for (int step = 0; step < 20000; ++step) {
            const auto key = static_cast<uint32_t>(random() % range);
            const auto choice = random() % 6;
            if (choice <= 1)
                tree.lookup(missed = key);
            if (choice == 1 || choice == 2)
                tree.insert(missed);
            if (choice == 3)
                tree.erase(key);
            if (choice >= 4) // grows and shrinks, by turns
                step / 2500 % 2 == 0 ? tree.insert(key) : tree.erase_root();
            tree.check();
            ASSERT_FALSE(HasFailure()) << "range " << range << ", step " << step;
        }
    }
}

} // namespace
