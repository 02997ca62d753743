// The tree against std::map; its shape, where it is a tree, is checked after every change.
#include "bytes.hpp"
#include "platform/avl_tree.h"
#include "zel.h"

#include <algorithm>
#include <cstring>
#include <map>

namespace {

// Keys of an order that the tree does not know.
struct AnyKeys {
    using Key = uint32_t;
    static constexpr bool is_tree = true;
    static Key make(uint32_t n) { return n; }
    static uint32_t compare(const void *a, const void *b)
    {
        const Key x = *static_cast<const Key *>(a);
        const Key y = *static_cast<const Key *>(b);
        return x > y ? 1 : x < y ? 2 : 0;
    }
    static constexpr ravl_compare_t order = compare;
};

// The library's, for which it is a table; sixteen neighbours here meet in one bucket, and
// the next sixteen in one far away.
struct LibraryKeys {
    // As bytes: compilers copy a record without what lies behind its fields.
    struct alignas(zel_mat_cache_key_t) Key {
        unsigned char bytes[sizeof(zel_mat_cache_key_t)];
    };
    static constexpr bool is_tree = false;
    static Key make(uint32_t n)
    {
        // Four parts of the range of ids, two applications and two types.
        const zel_mat_cache_key_t fields{n / 4 % 2 * 256, 4 * (n / 8 % 2),
                                         static_cast<uint16_t>(n % 4 * 16384 + n / 16 * 67)};
        static unsigned char behind = 0; // the fields lies something else each time, which nobody reads
        Key key;
        std::memset(key.bytes, ++behind, sizeof key.bytes);
        std::memcpy(key.bytes, &fields, offsetof(zel_mat_cache_key_t, mat_id) + sizeof fields.mat_id);
        return key;
    }
    static constexpr ravl_compare_t order = zel_mat_cache_comp_func;
};

template <class Keys> struct Entry {
    uintptr_t side[16 / sizeof(uintptr_t)] = {~uintptr_t{0}, ~uintptr_t{0}};
    typename Keys::Key key{};
};

// Height of a subtree whose keys must lie between two bounds; counts its entries.
int checked_height(uintptr_t link, int64_t low, int64_t high, std::size_t &count)
{
    const auto *const entry = reinterpret_cast<const Entry<AnyKeys> *>(link & ~uintptr_t{1}); // without the tree's tag
    if (entry == nullptr)
        return 0;
    EXPECT_TRUE(low < entry->key && entry->key < high);
    ++count;
    const int left = checked_height(entry->side[0], low, entry->key, count);
    const int right = checked_height(entry->side[1], entry->key, high, count);
    EXPECT_EQ(left - right, static_cast<int>(entry->side[0] & 1) - static_cast<int>(entry->side[1] & 1));
    EXPECT_EQ(entry->side[0] & entry->side[1] & 1, 0U);
    return std::max(left, right) + 1;
}

template <class Keys> struct Tree {
    Tree() { EXPECT_EQ(ravl_init(tree.get(), sizeof(typename Keys::Key), offsetof(Entry<Keys>, key), Keys::order), 0); }

    void insert(uint32_t n)
    {
        const auto [place, is_new] = model.try_emplace(n);
        Entry<Keys> duplicate;
        Entry<Keys> &entry = is_new ? place->second : duplicate;
        entry.key = Keys::make(n);
        EXPECT_EQ(ravl_insert(tree.get(), &entry) != 0, is_new);
    }

    void lookup(uint32_t n)
    {
        const auto key = Keys::make(n);
        EXPECT_EQ(ravl_lookup(tree.get(), &key), model.contains(n) ? &model[n] : nullptr);
    }

    void erase(uint32_t n)
    {
        Entry<Keys> stranger; // an equal key is not enough
        stranger.key = Keys::make(n);
        ravl_delete(tree.get(), &stranger);
        if (model.contains(n))
            erase(model.find(n));
    }

    void erase_root()
    {
        const auto is_root = [&](const auto &item) { return &item.second == tree->root; };
        if (!model.empty())
            erase(std::ranges::find_if(model, is_root));
    }

    void erase(typename std::map<uint32_t, Entry<Keys>>::iterator item)
    {
        ASSERT_NE(item, model.end());
        ravl_delete(tree.get(), &item->second);
        model.erase(item);
    }

    void check()
    {
        if (model.empty()) // then the tree may move
            tree = std::make_unique<ravl_tree_t>(*tree);
        EXPECT_EQ(ravl_is_empty(tree.get()) != 0, model.empty());
        if constexpr (Keys::is_tree) {
            std::size_t count = 0;
            const auto root = reinterpret_cast<uintptr_t>(tree->root);
            checked_height(root, -1, int64_t{1} << 32, count);
            EXPECT_EQ(count, model.size());
        }
    }

    std::unique_ptr<ravl_tree_t> tree = std::make_unique<ravl_tree_t>();
    std::map<uint32_t, Entry<Keys>> model;
};

template <class Keys> struct AvlTree : testing::Test {};
using Orders = testing::Types<AnyKeys, LibraryKeys>;
TYPED_TEST_SUITE(AvlTree, Orders);

TYPED_TEST(AvlTree, AgreesWithAMapUnderRandomOperations)
{
    for (const uint32_t range : {4U, 16U, 100U, 400U}) {
        Random random(range);
        Tree<TypeParam> tree;
        uint32_t missed = 0;
        const auto make_empty = [&] {
            while (!tree.model.empty() && !this->HasFailure())
                tree.erase_root();
            tree.check();
        };
        for (int step = 0; step < 20000; ++step) {
            const bool only_roots_go = step / 1000 % 2 == 0; // which a table takes note of until it is empty
            if (step % 1000 == 0)
                make_empty();
            const auto n = static_cast<uint32_t>(random() % range);
            const auto choice = random() % 6;
            if (choice <= 1)
                tree.lookup(missed = n);
            if (choice == 1 || choice == 2)
                tree.insert(missed);
            if (choice == 3 && !only_roots_go)
                tree.erase(n);
            if (choice >= 4) // grows and shrinks, by turns
                step / 300 % 2 == 0 ? tree.insert(n) : tree.erase_root();
            tree.check();
            ASSERT_FALSE(this->HasFailure()) << "range " << range << ", step " << step;
        }
        make_empty();
    }
}

} // namespace
