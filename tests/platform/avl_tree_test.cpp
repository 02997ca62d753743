// The tree against std::map, for keys of several sizes, places and orders; and the
// number of comparisons, which no choice of keys may drive up.
#include "bytes.hpp"
#include "zel.h"
#include "zel/platform/avl_tree.h"

#include <cmath>
#include <map>

namespace {

static_assert(sizeof(ravl_tree_t) == 8 * sizeof(void *) && sizeof(zel_api_handle_t) <= 512);

uint32_t key_size = 0; // a comparator has no other way to learn it
uint64_t num_comparisons = 0;

uint32_t order_of(int difference) { return difference > 0 ? 1 : difference < 0 ? 2 : 0; }

uint32_t ascending(const void *a, const void *b)
{
    ++num_comparisons;
    return order_of(std::memcmp(a, b, key_size));
}

uint32_t descending(const void *a, const void *b) { return ascending(b, a); }

uint32_t by_last_byte_first(const void *a, const void *b)
{
    ++num_comparisons;
    const auto *const x = static_cast<const unsigned char *>(a);
    const auto *const y = static_cast<const unsigned char *>(b);
    uint32_t i = key_size;
    while (i > 0 && x[i - 1] == y[i - 1])
        --i;
    return i == 0 ? 0 : order_of(x[i - 1] - y[i - 1]);
}

struct Shape {
    uint32_t size;
    uint32_t offset;
    ravl_compare_t compare;
    uint32_t at; // position of the four bytes of a key that differ from key to key
};

constexpr Shape library_shape{sizeof(zel_mat_cache_key_t), offsetof(zel_mat_cache_entry_t, key), ascending, 8};

// A tree, and a map with the same entries.
struct Trees {
    explicit Trees(const Shape &given) : shape(given)
    {
        key_size = shape.size;
        EXPECT_EQ(ravl_init(tree.get(), shape.size, shape.offset, shape.compare), 0);
    }
    ~Trees() { erase_all(); }

    Bytes key(uint32_t n) const
    {
        Bytes bytes(shape.size, 0x5a);
        const auto length = std::min<std::size_t>(sizeof n, shape.size - shape.at);
        std::memcpy(&bytes[shape.at], &n, length);
        return bytes;
    }

    Bytes entry(const Bytes &of_key) const
    {
        Bytes bytes(shape.offset, 0xee); // what lies in the links does not matter
        bytes.insert(bytes.end(), of_key.begin(), of_key.end());
        return bytes;
    }

    void insert(const Bytes &of_key)
    {
        const auto [place, is_new] = model.try_emplace(of_key, entry(of_key));
        Bytes duplicate = entry(of_key);
        EXPECT_EQ(ravl_insert(tree.get(), is_new ? place->second.data() : duplicate.data()) != 0, is_new);
        expect_root();
    }

    void lookup(const Bytes &of_key)
    {
        const auto place = model.find(of_key);
        EXPECT_EQ(ravl_lookup(tree.get(), of_key.data()), place != model.end() ? place->second.data() : nullptr);
    }

    void erase(const Bytes &of_key)
    {
        Bytes stranger = entry(of_key); // an equal key is not enough
        ravl_delete(tree.get(), stranger.data());
        if (const auto place = model.find(of_key); place != model.end()) {
            ravl_delete(tree.get(), place->second.data());
            model.erase(place);
        }
        expect_root();
    }

    void erase_root()
    {
        if (model.empty())
            return;
        const auto *const root = static_cast<const unsigned char *>(tree->root);
        const Bytes root_key(root + shape.offset, root + shape.offset + shape.size);
        ASSERT_TRUE(model.contains(root_key) && model[root_key].data() == root);
        ravl_delete(tree.get(), tree->root);
        model.erase(root_key);
        expect_root();
    }

    void erase_all()
    {
        while (!model.empty() && !testing::Test::HasFatalFailure())
            erase_root();
    }

    void expect_root()
    {
        EXPECT_EQ(ravl_is_empty(tree.get()) != 0, model.empty());
        EXPECT_EQ(tree->root == nullptr, model.empty());
        if (model.empty()) // then the tree may move
            tree = std::make_unique<ravl_tree_t>(*tree);
    }

    Shape shape;
    std::unique_ptr<ravl_tree_t> tree = std::make_unique<ravl_tree_t>();
    std::map<Bytes, Bytes> model; // nodes of a map do not move
};

TEST(AvlTree, AgreesWithAMapUnderRandomOperations)
{
    constexpr Shape shapes[] = {
        library_shape,         {12, 16, by_last_byte_first, 0}, {4, 16, descending, 0},
        {1, 16, ascending, 0}, {7, 19, by_last_byte_first, 3},  {40, 64, descending, 20},
    };
    for (const Shape &shape : shapes) {
        for (const uint32_t range : {8U, 60U, 3000U}) {
            SCOPED_TRACE(testing::Message() << shape.size << " byte keys at " << shape.offset << ", range " << range);
            Random random(range);
            Trees trees(shape);
            for (uint32_t step = 0; step < 20000; ++step) {
                if (step % 5000 == 0)
                    trees.erase_all();
                const Bytes key = trees.key(static_cast<uint32_t>(random() % range));
                const bool grows = step / 1000 % 2 == 0;
                switch (random() % 6) {
                case 0:
                    trees.lookup(key);
                    break;
                case 1:
                    trees.erase(key);
                    break;
                case 2:
                    trees.erase_root();
                    break;
                default:
                    grows ? trees.insert(key) : trees.erase(key);
                }
                ASSERT_FALSE(HasFailure()) << "step " << step;
            }
        }
    }
}

// Keys of which every hash is the same, as long as the tree hashes as it does.
Bytes colliding_key(uint32_t n)
{
    constexpr uint32_t multiplier = 0x9e3779b1;
    const uint32_t words[] = {n, 8, 0U - (n * multiplier + 8) * multiplier};
    Bytes key(sizeof words);
    std::memcpy(key.data(), words, sizeof words);
    return key;
}

// The height of the highest AVL tree with so many entries.
double avl_height(std::size_t num_entries) { return 1.4405 * std::log2(static_cast<double>(num_entries) + 2); }

uint64_t comparisons_of(const auto &operation)
{
    num_comparisons = 0;
    operation();
    return num_comparisons;
}

TEST(AvlTree, NoChoiceOfKeysCostsMoreThanABalancedTree)
{
    constexpr uint32_t n = 40000;
    Trees trees(library_shape);
    const auto fill = [&] {
        for (uint32_t i = 0; i < n; ++i)
            trees.insert(colliding_key(i));
    };
    const auto height = static_cast<uint64_t>(avl_height(n));
    // An insertion searches twice.  Growing the table inserts about a seventh of all entries again.
    const uint64_t filling = comparisons_of(fill);
    EXPECT_LE(filling, 3 * n * height);
    EXPECT_GE(filling, n * 10) << "the keys do not collide any more: choose others";
    Random random(1);
    const auto expect_balance = [&] {
        const auto highest = static_cast<uint64_t>(avl_height(trees.model.size()));
        for (const auto &entry : trees.model)
            ASSERT_LE(comparisons_of([&] { trees.lookup(entry.first); }), highest);
    };
    expect_balance();
    for (const std::size_t left : {n / 2, n / 100, 10U}) {
        while (trees.model.size() > left)
            trees.erase(colliding_key(static_cast<uint32_t>(random() % n)));
        expect_balance();
    }
    fill();
    expect_balance();
    EXPECT_LE(comparisons_of([&] { trees.erase_all(); }), n * height);
}

TEST(AvlTree, IdsThatCountUpAreHardlyCompared)
{
    constexpr uint32_t n = 40000;
    Trees trees(library_shape);
    const auto pass = [&] {
        for (uint32_t i = 0; i < n; ++i) {
            trees.lookup(trees.key(i));
            trees.insert(trees.key(i));
        }
        trees.erase_all();
    };
    EXPECT_LE(comparisons_of(pass), n);
}

} // namespace
