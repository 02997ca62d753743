// The duties of the tree, with the entries, keys and operations of the library's object cache.
#include "conformance/check.hpp"
#include "zel/platform/avl_tree.h"

#include <bit>
#include <cstddef>
#include <cstdlib>

namespace zel::conformance {
namespace {

constexpr uint32_t max_entries = 4096;
constexpr unsigned char canary = 0xc5;

uint32_t num_comparisons = 0;

// An entry, with bytes before and behind it that are nobody's.
struct Slot {
    unsigned char before[16];
    zel_mat_cache_entry_t entry;
    unsigned char behind[16];
};

// The padding of a key is 0, which no assignment of keys promises.
void set_key(zel_mat_cache_key_t &key, uint32_t n)
{
    std::memset(&key, 0, sizeof key);
    key.app_type = 3;
    key.mat_type = ZEL_MAT_TYPE_MATCH;
    key.mat_id = static_cast<uint16_t>(n);
}

// Storage of a tree with bytes behind it, and entries.  Static, because tests have no heap.
struct Trees {
    ravl_tree_t tree;
    unsigned char behind_tree[16];
    Slot slots[max_entries];
    bool is_in[max_entries];
    uint32_t count;

    void *entry(uint32_t n) { return &slots[n].entry; }

    void *lookup(uint32_t n)
    {
        zel_mat_cache_key_t key;
        set_key(key, n);
        return ravl_lookup(&tree, &key);
    }

    // As the library: the link is zero-filled.
    bool insert(uint32_t n)
    {
        now("insertion of entry %u into a tree of %u", n, count);
        std::memset(&slots[n], canary, sizeof slots[n]);
        std::memset(&slots[n].entry, 0, sizeof slots[n].entry);
        set_key(slots[n].entry.key, n);
        slots[n].entry.obj = &slots[n];
        const bool is_inserted = ravl_insert(&tree, entry(n)) != 0;
        is_in[n] = is_in[n] || is_inserted;
        count += is_inserted ? 1 : 0;
        return is_inserted;
    }

    void erase(uint32_t n)
    {
        now("deletion of entry %u from a tree of %u", n, count);
        ravl_delete(&tree, entry(n));
        forget(n);
    }

    // The library frees an entry as soon as it is deleted: nothing may lead to it.
    void forget(uint32_t n)
    {
        is_in[n] = false;
        --count;
        std::memset(&slots[n].entry, 0xdd, sizeof slots[n].entry);
    }

    // The number of the entry that the root is; max_entries when it is none.
    uint32_t root_number()
    {
        const auto at = static_cast<std::size_t>(static_cast<char *>(tree.root) - static_cast<char *>(entry(0)));
        const bool is_entry = at % sizeof(Slot) == 0 && at / sizeof(Slot) < max_entries && is_in[at / sizeof(Slot)];
        return is_entry ? static_cast<uint32_t>(at / sizeof(Slot)) : max_entries;
    }
};

Trees trees;

uint32_t compare(const void *a, const void *b)
{
    ++num_comparisons;
    return zel_mat_cache_comp_func(a, b);
}

int32_t init()
{
    std::memset(&trees, canary, sizeof trees.tree + sizeof trees.behind_tree);
    std::memset(trees.is_in, 0, sizeof trees.is_in);
    trees.count = 0;
    return ravl_init(&trees.tree, sizeof(zel_mat_cache_key_t), offsetof(zel_mat_cache_entry_t, key), compare);
}

// The n-th number below count in one of three orders.
enum class Order { ascending, descending, mixed };
constexpr Order orders[] = {Order::ascending, Order::descending, Order::mixed};

uint32_t number(Order order, uint32_t i, uint32_t count)
{
    if (order == Order::mixed)
        return i * 2683 % count; // a prime, so that each number comes once
    return order == Order::ascending ? i : count - 1 - i;
}

Outcome fill(Order order, uint32_t count)
{
    init();
    for (uint32_t i = 0; i < count; ++i)
        if (!trees.insert(number(order, i, count)))
            return broken("an entry with a new key was refused, in a tree of %u", i);
    return kept("");
}

// Null, or what is wrong with an entry that is expected to be in the tree, or not to be.
const char *fault_of(uint32_t n)
{
    void *const found = trees.lookup(n);
    if (trees.is_in[n])
        return found == trees.entry(n) ? nullptr : found == nullptr ? "is not found" : "is found as another one";
    return found == nullptr ? nullptr : "is found, and not in the tree";
}

} // namespace

Outcome check_tree_empty()
{
    const int32_t status = init();
    const bool is_empty = ravl_is_empty(&trees.tree) != 0;
    if (!is_empty || trees.tree.root != nullptr || trees.lookup(1) != nullptr)
        return broken("after ravl_init(): ravl_is_empty() %s, root %s", is_empty ? "not 0" : "0",
                      trees.tree.root != nullptr ? "not null" : "null");
    return kept("empty whatever its bytes were; ravl_init() gives %d", status);
}

Outcome check_tree_root()
{
    init();
    Random random(3);
    for (uint32_t step = 0; step < 5000; ++step) {
        const uint32_t n = random.below(60);
        if (trees.is_in[n])
            trees.erase(n);
        else
            trees.insert(n);
        const bool is_empty = ravl_is_empty(&trees.tree) != 0;
        if (is_empty != (trees.count == 0))
            return broken("ravl_is_empty() is %s, expected the opposite, for %u entries", is_empty ? "not 0" : "0",
                          trees.count);
        if ((trees.tree.root == nullptr) != (trees.count == 0))
            return broken("the first word is %s for %u entries", trees.tree.root == nullptr ? "null" : "not null",
                          trees.count);
        if (trees.count != 0 && trees.root_number() == max_entries)
            return broken("the first word is no entry of the tree, which has %u", trees.count);
    }
    return kept("null without entries, otherwise an entry, in 5000 steps");
}

Outcome check_tree_lookup()
{
    constexpr uint32_t count = 2000;
    for (const Order order : orders) {
        if (const Outcome filled = fill(order, count); filled.state == State::broken)
            return filled;
        for (uint32_t n = 0; n < max_entries; ++n) {
            now("lookup of key %u among %u", n, count);
            if (const char *const fault = fault_of(n))
                return broken("entry %u %s", n, fault);
        }
    }
    return kept("%u entries in three orders found, and no other", count);
}

Outcome check_tree_equal()
{
    constexpr uint32_t count = 300;
    fill(Order::mixed, count);
    for (uint32_t n = 0; n < count; ++n) {
        zel_mat_cache_entry_t twin{};
        set_key(twin.key, n);
        now("insertion of a second entry with key %u", n);
        if (ravl_insert(&trees.tree, &twin) != 0)
            return broken("a second entry with an equal key: found not 0, expected 0");
        std::memset(&twin, 0xdd, sizeof twin);
        if (const char *const fault = fault_of(n))
            return broken("after the second entry was refused, the first %s", fault);
    }
    return kept("refused %u times, and the first one stayed", count);
}

Outcome check_tree_delete()
{
    constexpr uint32_t count = 200;
    fill(Order::mixed, count);
    Random random(5);
    for (uint32_t step = 0; step < 4000; ++step) {
        const uint32_t n = random.below(count);
        zel_mat_cache_entry_t stranger{};
        set_key(stranger.key, n);
        now("deletion of an entry that is not in the tree, with key %u", n);
        ravl_delete(&trees.tree, &stranger);
        if (!trees.is_in[n] ? !trees.insert(n) : false)
            return broken("an entry cannot be inserted again after it was deleted");
        if (const char *const fault = fault_of(n))
            return broken("entry %u %s, after an entry with its key that was not in the tree was deleted", n, fault);
        if (random.below(2) == 0)
            trees.erase(n);
        for (uint32_t other = step % 7; other < count; other += 7)
            if (const char *const fault = fault_of(other))
                return broken("after a deletion, entry %u %s", other, fault);
    }
    return kept("4000 insertions and deletions; a stranger with an equal key changes nothing");
}

Outcome check_tree_drain()
{
    for (const Order order : orders) {
        for (const uint32_t count : {1U, 2U, 17U, 33U, max_entries}) {
            fill(order, count);
            while (ravl_is_empty(&trees.tree) == 0) {
                const uint32_t root = trees.root_number();
                if (root == max_entries)
                    return broken("the root is no entry of the tree, when %u of %u are left", trees.count, count);
                trees.erase(root);
            }
            if (trees.count != 0)
                return broken("the tree is empty, and %u of %u entries were never its root", trees.count, count);
        }
    }
    return kept("each of 4096 entries was the root once, and could be freed at once");
}

Outcome check_tree_links()
{
    constexpr uint32_t count = 1000;
    fill(Order::mixed, count);
    for (uint32_t n = 0; n < count; n += 2)
        trees.erase(n);
    for (uint32_t n = 1; n < count; n += 2) {
        const Slot &slot = trees.slots[n];
        const zel_mat_cache_key_t &key = slot.entry.key;
        bool is_intact =
            key.app_type == 3 && key.mat_type == ZEL_MAT_TYPE_MATCH && key.mat_id == n && slot.entry.obj == &slot;
        for (std::size_t i = 0; i < sizeof slot.before; ++i)
            is_intact = is_intact && slot.before[i] == canary && slot.behind[i] == canary;
        if (!is_intact)
            return broken("bytes of entry %u outside its link of 16 bytes have changed", n);
    }
    for (const unsigned char byte : trees.behind_tree)
        if (byte != canary)
            return broken("bytes behind ravl_tree_t, which has %zu, have changed", sizeof(ravl_tree_t));
    return kept("nothing but links of 16 bytes and ravl_tree_t was written");
}

Outcome check_tree_cost()
{
    constexpr uint32_t count = max_entries;
    const auto limit = static_cast<uint32_t>(4 * std::bit_width(count)); // comparisons on the average
    uint32_t most = 0;
    for (const Order order : orders) {
        fill(order, count);
        num_comparisons = 0;
        for (uint32_t n = 0; n < count; ++n)
            (void)trees.lookup(n);
        most = num_comparisons / count > most ? num_comparisons / count : most;
    }
    if (most > limit)
        return broken("found %u comparisons per lookup in %u entries, expected less than %u", most, count, limit);
    if (most == 0)
        return kept("keys are not compared; the speed below says how time grows with the entries");
    return kept("found %u comparisons per lookup in %u entries, at most, in three orders", most, count);
}

Outcome check_tree_memory()
{
    constexpr uint32_t count = 2000;
    if (!heap_is_watched())
        return unchecked("link with -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=free");
    for (const bool is_exhausted : {false, true}) {
        init();
        const int32_t before = live_blocks();
        exhaust_heap(is_exhausted);
        for (uint32_t n = 0; n < count; ++n)
            if (!trees.insert(n))
                return broken("without memory, entry %u was refused", n);
        for (uint32_t n = 0; n < count; ++n)
            if (const char *const fault = fault_of(n))
                return broken("%s memory, entry %u %s", is_exhausted ? "without" : "with", n, fault);
        for (uint32_t n = 0; n < count; ++n)
            trees.erase(trees.root_number());
        exhaust_heap(false);
        if (live_blocks() != before)
            return broken("found %d blocks when the tree is empty again, expected 0", live_blocks() - before);
    }
    return kept("works when %u requests for memory are refused, and returns all", refused_requests());
}

} // namespace zel::conformance
