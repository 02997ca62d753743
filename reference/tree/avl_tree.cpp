// The tree of zel/platform/avl_tree.h: a hash table with chaining, and an AVL tree where
// hashing fails.
//
// Few entries are a single chain.  More are in a hash table with two buckets per
// entry or more.  When a chain becomes long nevertheless, because the keys were chosen so or there
// is no memory for a larger table, all entries move into one AVL tree, until that is empty.
// So no choice of keys costs more than a balanced tree, and this move, once.
//
// The root is the oldest entry, so that deleting the root until the tree is empty frees
// entries in the order of their insertion.  That is what makes the allocator fast.
#include "reference/contract.hpp"
#include "reference/expect.hpp"
#include "reference/tree/avl.hpp"
#include "zel.h"

#include <cstdlib>
#include <cstring>

using namespace zel::platform;
using avl::Link;
using avl::Node;

namespace {

constexpr uint32_t longest_chain = 16;
constexpr uint32_t first_num_buckets = 128;
constexpr uint32_t buckets_per_entry = 2; // or more
constexpr uint32_t max_num_buckets = uint32_t{1} << 28;
constexpr uint32_t growth = 4; // times as many buckets

// How a chain uses the first bytes of an entry.
struct [[gnu::may_alias]] Entry {
    Entry *next;
    uint32_t hash;
    uint32_t place; // in the order of insertion
};
static_assert(sizeof(Entry) <= 16);

// The order of insertion follows the buckets in memory; places of deleted entries are null.
struct Table {
    uint32_t num_places;
    uint32_t first; // place of the oldest entry
    uint32_t end;   // behind the newest
    Entry **order;
    Entry *buckets[];
};

// How the tree uses the words of ravl_tree_t.
struct [[gnu::may_alias]] Tree {
    uintptr_t root; // the oldest entry, or the root of the AVL tree
    avl::KeyOrder order;
    Entry **buckets; // null: an AVL tree, or nothing
    Table *table;    // null: the root is the only bucket
    uint32_t mask;   // of hashes, gives the bucket
    uint32_t key_size;
};
static_assert(sizeof(Tree) <= sizeof(ravl_tree_t));

Tree &as_tree(ravl_tree *tree) { return *reinterpret_cast<Tree *>(tree); }

// NOLINTNEXTLINE(performance-no-int-to-ptr)
Entry *root_entry(const Tree &tree) { return reinterpret_cast<Entry *>(tree.root); }
void set_root(Tree &tree, const Entry *entry) { tree.root = reinterpret_cast<uintptr_t>(entry); }

const void *key_of(const Tree &tree, const Entry *entry)
{
    return reinterpret_cast<const char *>(entry) + tree.order.key_offset;
}

// ---- Keys

constexpr uint32_t library_key_size = 12;

uint32_t word_at(const void *bytes, uint32_t offset)
{
    uint32_t word;
    std::memcpy(&word, static_cast<const char *>(bytes) + offset, sizeof word);
    return word;
}

uint32_t combine(uint32_t hash, uint32_t next) { return hash * 0x9e3779b1 + next; }

// Adjacent values of a key's last word mostly give adjacent hashes, and so adjacent buckets:
// ids that count up are entered and deleted in the order of memory.
uint32_t mix(uint32_t hash) { return hash ^ hash >> 5 ^ hash >> 16; } // the lower bits choose the bucket

bool has_library_keys(const Tree &tree) { return expect(tree.key_size == library_key_size); }

// Library keys are hashed and compared without a call, and word by word as they are written.
struct LibraryKeys {
    static uint32_t hash(const Tree &, const void *key)
    {
        return mix(combine(combine(word_at(key, 0), word_at(key, 4)), word_at(key, 8)));
    }

    static bool are_equal(const Tree &, const void *a, const void *b)
    {
        return word_at(a, 0) == word_at(b, 0) && word_at(a, 4) == word_at(b, 4) && word_at(a, 8) == word_at(b, 8);
    }
};

struct AnyKeys {
    static uint32_t hash(const Tree &tree, const void *key)
    {
        uint32_t hash = 0;
        uint32_t at = 0;
        for (; tree.key_size - at >= sizeof(uint32_t); at += sizeof(uint32_t))
            hash = combine(hash, word_at(key, at));
        for (; at != tree.key_size; ++at)
            hash = combine(hash, static_cast<const unsigned char *>(key)[at]);
        return mix(hash);
    }

    static bool are_equal(const Tree &tree, const void *a, const void *b)
    {
        return std::memcmp(a, b, tree.key_size) == 0;
    }
};

// ---- Chains

// The link to the entry with a key, or the link at the end of the chain.
struct Found {
    Entry **link;
    uint32_t hash;
    uint32_t passed; // entries before it
};

// In a tree that has buckets.
template <class Keys> [[gnu::always_inline]] inline Found find(const Tree &tree, const void *key)
{
    const uint32_t hash = Keys::hash(tree, key);
    Entry **link = &tree.buckets[hash & tree.mask];
    uint32_t passed = 0;
    while (*link != nullptr && ((*link)->hash != hash || !Keys::are_equal(tree, key_of(tree, *link), key))) {
        link = &(*link)->next;
        ++passed;
    }
    return {link, hash, passed};
}

// ---- The table

Table *make_table(uint32_t num_buckets)
{
    if (num_buckets > max_num_buckets)
        return nullptr;
    const uint32_t num_places = num_buckets / buckets_per_entry;
    const std::size_t size = (std::size_t{num_buckets} + num_places) * sizeof(Entry *);
    auto *const table = static_cast<Table *>(std::malloc(sizeof(Table) + size));
    if (table == nullptr)
        return nullptr;
    table->num_places = num_places;
    table->first = 0;
    table->end = 0;
    table->order = table->buckets + num_buckets;
    std::memset(table->buckets, 0, num_buckets * sizeof(Entry *));
    return table;
}

// At the end of its chain.
void append(Table *table, Entry **link, Entry *entry)
{
    *link = entry;
    entry->next = nullptr;
    if (table != nullptr) {
        entry->place = table->end;
        table->order[table->end++] = entry;
    }
}

void append_to_chain(Tree &tree, Entry *entry)
{
    Entry **link = &tree.buckets[entry->hash & tree.mask];
    while (*link != nullptr)
        link = &(*link)->next;
    append(tree.table, link, entry);
}

// Calls visit for the entries of a table, or else of a chain, from the oldest on.  visit may
// change the links of its entry.
template <class Visit> void for_each_entry(const Table *table, Entry *chain, Visit visit)
{
    if (table == nullptr) {
        while (chain != nullptr) {
            Entry *const next = chain->next;
            visit(chain);
            chain = next;
        }
        return;
    }
    for (uint32_t i = table->first; i != table->end; ++i)
        if (table->order[i] != nullptr)
            visit(table->order[i]);
}

[[gnu::cold, gnu::noinline]] void become_avl(Tree &tree)
{
    Table *const table = tree.table;
    Entry *const chain = root_entry(tree);
    tree.root = 0;
    tree.buckets = nullptr;
    tree.table = nullptr;
    for_each_entry(table, chain,
                   [&](Entry *entry) { avl::insert(tree.root, tree.order, reinterpret_cast<Node *>(entry)); });
    std::free(table);
}

// Several times as many buckets, or the same number when most places are those of deleted entries.
uint32_t num_buckets_with_room(const Tree &tree)
{
    const Table *const table = tree.table;
    if (table == nullptr)
        return first_num_buckets;
    uint32_t num_entries = 0;
    for_each_entry(table, nullptr, [&](const Entry *) { ++num_entries; });
    return (tree.mask + 1) * (num_entries > table->num_places / 2 ? growth : 1);
}

[[gnu::noinline]] void make_room(Tree &tree)
{
    Table *const before = tree.table;
    const uint32_t num_buckets = num_buckets_with_room(tree);
    Table *const table = make_table(num_buckets);
    if (table == nullptr)
        return become_avl(tree);
    tree.table = table;
    tree.buckets = table->buckets;
    tree.mask = num_buckets - 1;
    for_each_entry(before, root_entry(tree), [&](Entry *entry) { append_to_chain(tree, entry); });
    std::free(before);
}

// ---- Insertion

int32_t insert_into_avl(Tree &tree, Entry *entry)
{
    return avl::insert(tree.root, tree.order, reinterpret_cast<Node *>(entry)) ? 1 : 0;
}

// The first entry of a chain, or one of an AVL tree.
template <class Keys> int32_t insert_without_buckets(Tree &tree, Entry *entry)
{
    if (tree.root != 0)
        return insert_into_avl(tree, entry);
    tree.buckets = reinterpret_cast<Entry **>(&tree.root); // the tree does not move until it is empty
    tree.mask = 0;
    entry->hash = Keys::hash(tree, key_of(tree, entry));
    append(nullptr, tree.buckets, entry);
    return 1;
}

// An entry that there is no room for, or whose chain is long.
[[gnu::noinline]] int32_t insert_into_full(Tree &tree, Entry *entry, bool is_chain_short)
{
    if (tree.table == nullptr || is_chain_short)
        make_room(tree);
    else
        become_avl(tree);
    if (tree.buckets == nullptr)
        return insert_into_avl(tree, entry);
    append_to_chain(tree, entry);
    return 1;
}

template <class Keys> [[gnu::always_inline]] inline int32_t insert(Tree &tree, Entry *entry)
{
    if (tree.buckets == nullptr)
        return insert_without_buckets<Keys>(tree, entry);
    const Found found = find<Keys>(tree, key_of(tree, entry));
    if (*found.link != nullptr)
        return 0;
    entry->hash = found.hash;
    Table *const table = tree.table;
    const bool is_chain_short = found.passed < longest_chain;
    if (!expect(is_chain_short) || !expect(table == nullptr || table->end != table->num_places))
        return insert_into_full(tree, entry, is_chain_short);
    append(table, found.link, entry);
    return 1;
}

// ---- Deletion

// Nothing tears a handle down.
void become_empty(Tree &tree)
{
    tree.buckets = nullptr;
    std::free(tree.table);
    tree.table = nullptr;
}

// The oldest entry is the first in its chain.
void delete_oldest(Tree &tree, const Entry *entry)
{
    Table *const table = tree.table;
    tree.buckets[entry->hash & tree.mask] = entry->next; // the root itself, if there is no table
    if (table != nullptr) {
        uint32_t first = table->first + 1;
        while (first != table->end && table->order[first] == nullptr)
            ++first;
        table->first = first;
        set_root(tree, first != table->end ? table->order[first] : nullptr);
    }
    if (tree.root == 0)
        become_empty(tree);
}

// An entry that is in an AVL tree, or not the oldest, or not in the tree at all: its link
// bytes mean something only while it is in there.
template <class Keys> [[gnu::noinline]] void delete_other(Tree &tree, Entry *entry)
{
    if (tree.buckets == nullptr) {
        avl::remove(tree.root, tree.order, reinterpret_cast<Node *>(entry));
        return;
    }
    Entry **const link = find<Keys>(tree, key_of(tree, entry)).link;
    if (*link == nullptr || *link != entry)
        return; // nothing with this key, or another entry
    *link = entry->next;
    if (tree.table != nullptr)
        tree.table->order[entry->place] = nullptr;
}

// ---- Keys of any size, out of line

[[gnu::noinline]] int32_t insert_any_key(Tree &tree, Entry *entry) { return insert<AnyKeys>(tree, entry); }

[[gnu::noinline]] Entry *find_any_key(const Tree &tree, const void *key) { return *find<AnyKeys>(tree, key).link; }

} // namespace

int32_t ravl_init(ravl_tree *tree, uint32_t key_size, uint32_t key_offset, ravl_compare_t compare)
{
    *tree = {};
    as_tree(tree) = {0, {compare, key_offset}, nullptr, nullptr, 0, key_size};
    return 0;
}

int32_t ravl_insert(ravl_tree *tree, void *entry)
{
    Tree &self = as_tree(tree);
    auto *const added = static_cast<Entry *>(entry);
    return has_library_keys(self) ? insert<LibraryKeys>(self, added) : insert_any_key(self, added);
}

void *ravl_lookup(ravl_tree *tree, const void *key)
{
    const Tree &self = as_tree(tree);
    if (self.buckets == nullptr)
        return avl::find(self.root, self.order, key);
    return has_library_keys(self) ? *find<LibraryKeys>(self, key).link : find_any_key(self, key);
}

void ravl_delete(ravl_tree *tree, void *entry)
{
    Tree &self = as_tree(tree);
    auto *const deleted = static_cast<Entry *>(entry);
    if (expect(deleted == root_entry(self)) && expect(self.buckets != nullptr))
        delete_oldest(self, deleted);
    else if (has_library_keys(self))
        delete_other<LibraryKeys>(self, deleted);
    else
        delete_other<AnyKeys>(self, deleted);
}

int32_t ravl_is_empty(ravl_tree *tree) { return tree->root == nullptr ? 1 : 0; }
