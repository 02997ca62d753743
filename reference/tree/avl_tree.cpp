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
    uint32_t position; // in the order of insertion
};
static_assert(sizeof(Entry) <= 16);

// The order of insertion follows the buckets in memory; places of deleted entries are null.
struct Table {
    uint32_t num_buckets; // a power of two
    uint32_t num_places;
    uint32_t first; // place of the oldest entry
    uint32_t end;   // behind the newest
    Entry **order;
    Entry *buckets[];
};

// How the tree uses the words of ravl_tree_t.
struct [[gnu::may_alias]] Tree {
    uintptr_t root; // of the AVL tree, or the oldest entry
    avl::KeyOrder order;
    Table *table; // null: a single chain or an AVL tree
    uint32_t key_size;
    uint32_t num_entries;
    uint32_t is_avl;
};
static_assert(sizeof(Tree) <= sizeof(ravl_tree_t));

Tree &as_tree(ravl_tree *tree) { return *reinterpret_cast<Tree *>(tree); }

Entry *oldest(const Tree &tree) { return reinterpret_cast<Entry *>(tree.root); } // NOLINT(performance-no-int-to-ptr)
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

[[gnu::noinline]] uint32_t hash_of_any(const void *key, uint32_t size)
{
    uint32_t hash = 0;
    uint32_t at = 0;
    for (; size - at >= sizeof(uint32_t); at += sizeof(uint32_t))
        hash = combine(hash, word_at(key, at));
    for (; at != size; ++at)
        hash = combine(hash, static_cast<const unsigned char *>(key)[at]);
    return hash;
}

// Adjacent values of a key's last word mostly give adjacent hashes, and so adjacent buckets:
// ids that count up are entered and deleted in the order of memory.
[[gnu::always_inline]] inline uint32_t hash_of(const Tree &tree, const void *key)
{
    const uint32_t hash = expect(tree.key_size == library_key_size)
                              ? combine(combine(word_at(key, 0), word_at(key, 4)), word_at(key, 8))
                              : hash_of_any(key, tree.key_size);
    return hash ^ hash >> 5 ^ hash >> 16; // the lower bits choose the bucket
}

// ---- Chains

// The link to the entry with a key, or the link at the end of the chain.
struct Found {
    Entry **link;
    uint32_t passed; // entries before it
};

template <class IsKey> [[gnu::always_inline]] inline Found find_in_chain(Entry **link, uint32_t hash, IsKey is_key)
{
    uint32_t passed = 0;
    while (*link != nullptr && ((*link)->hash != hash || !is_key(*link))) {
        link = &(*link)->next;
        ++passed;
    }
    return {link, passed};
}

[[gnu::noinline]] Found find_any_key(const Tree &tree, Entry **link, uint32_t hash, const void *key)
{
    const auto is_key = [&](const Entry *entry) { return std::memcmp(key_of(tree, entry), key, tree.key_size) == 0; };
    return find_in_chain(link, hash, is_key);
}

// Library keys are compared without a call, and word by word as they are written.
[[gnu::always_inline]] inline Found find_key(const Tree &tree, Entry **link, uint32_t hash, const void *key)
{
    if (!expect(tree.key_size == library_key_size))
        return find_any_key(tree, link, hash, key);
    return find_in_chain(link, hash, [&](const Entry *entry) {
        const void *const other = key_of(tree, entry);
        return word_at(other, 0) == word_at(key, 0) && word_at(other, 4) == word_at(key, 4) &&
               word_at(other, 8) == word_at(key, 8);
    });
}

// Where the chain of a hash begins.
Entry **chain_of(Tree &tree, uint32_t hash)
{
    if (tree.table != nullptr)
        return &tree.table->buckets[hash & (tree.table->num_buckets - 1)];
    return reinterpret_cast<Entry **>(&tree.root);
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
    table->num_buckets = num_buckets;
    table->num_places = num_places;
    table->first = 0;
    table->end = 0;
    table->order = table->buckets + num_buckets;
    std::memset(table->buckets, 0, num_buckets * sizeof(Entry *));
    return table;
}

Entry **end_of_chain(Tree &tree, uint32_t hash)
{
    Entry **link = chain_of(tree, hash);
    while (*link != nullptr)
        link = &(*link)->next;
    return link;
}

// At the end of its chain.
void append(const Tree &tree, Entry **link, Entry *entry)
{
    *link = entry;
    entry->next = nullptr;
    if (Table *const table = tree.table) {
        entry->position = table->end;
        table->order[table->end++] = entry;
    }
}

// Calls visit for all entries that are not in an AVL tree, from the oldest on.  visit may
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
    Entry *const chain = oldest(tree);
    tree.root = 0;
    tree.table = nullptr;
    tree.is_avl = 1;
    for_each_entry(table, chain,
                   [&](Entry *entry) { avl::insert(tree.root, tree.order, reinterpret_cast<Node *>(entry)); });
    std::free(table);
}

// Makes room for one entry more: in a larger table, or in one without the places of deleted entries.
[[gnu::noinline]] void make_room(Tree &tree)
{
    const Table *const before = tree.table;
    const bool is_crowded = before != nullptr && tree.num_entries > before->num_places / 2;
    tree.table = make_table(before == nullptr ? first_num_buckets : before->num_buckets * (is_crowded ? growth : 1));
    if (tree.table == nullptr) {
        tree.table = const_cast<Table *>(before);
        return become_avl(tree);
    }
    for_each_entry(before, oldest(tree), [&](Entry *entry) { append(tree, end_of_chain(tree, entry->hash), entry); });
    std::free(const_cast<Table *>(before));
}

bool is_full(const Tree &tree)
{
    return tree.table != nullptr ? tree.table->end == tree.table->num_places : tree.num_entries == longest_chain;
}

void remove(Tree &tree, Entry **link)
{
    Entry *const entry = *link;
    *link = entry->next;
    if (tree.table == nullptr)
        return; // the root is the first link
    Table &table = *tree.table;
    table.order[entry->position] = nullptr;
    while (table.first != table.end && table.order[table.first] == nullptr)
        ++table.first;
    set_root(tree, table.first != table.end ? table.order[table.first] : nullptr);
}

// ---- An AVL tree or not

// Inserts an entry that there is no room for, or whose chain is long.
[[gnu::noinline]] bool insert_rarely(Tree &tree, Entry *entry, bool is_chain_short)
{
    if (tree.table == nullptr || is_chain_short)
        make_room(tree);
    else
        become_avl(tree);
    if (tree.is_avl != 0)
        return avl::insert(tree.root, tree.order, reinterpret_cast<Node *>(entry));
    append(tree, end_of_chain(tree, entry->hash), entry);
    return true;
}

bool insert_hashed(Tree &tree, Entry *entry)
{
    const void *const key = key_of(tree, entry);
    const uint32_t hash = hash_of(tree, key);
    const Found found = find_key(tree, chain_of(tree, hash), hash, key);
    if (*found.link != nullptr)
        return false;
    entry->hash = hash;
    if (!expect(found.passed < longest_chain) || !expect(!is_full(tree)))
        return insert_rarely(tree, entry, found.passed < longest_chain);
    append(tree, found.link, entry);
    return true;
}

bool remove_hashed(Tree &tree, const Entry *entry)
{
    // The link bytes of an entry mean something only while it is in the tree.
    const uint32_t hash = entry == oldest(tree) ? entry->hash : hash_of(tree, key_of(tree, entry));
    for (Entry **link = chain_of(tree, hash); *link != nullptr; link = &(*link)->next) {
        if (*link == entry) {
            remove(tree, link);
            return true;
        }
    }
    return false;
}

} // namespace

int32_t ravl_init(ravl_tree *tree, uint32_t key_size, uint32_t key_offset, ravl_compare_t compare)
{
    *tree = {};
    as_tree(tree) = {0, {compare, key_offset}, nullptr, key_size, 0, 0};
    return 0;
}

int32_t ravl_insert(ravl_tree *tree, void *entry)
{
    Tree &self = as_tree(tree);
    const bool is_new = self.is_avl != 0 ? avl::insert(self.root, self.order, static_cast<Node *>(entry))
                                         : insert_hashed(self, static_cast<Entry *>(entry));
    self.num_entries += is_new ? 1 : 0;
    if (self.root == 0)
        set_root(self, static_cast<Entry *>(entry));
    return is_new ? 1 : 0;
}

void *ravl_lookup(ravl_tree *tree, const void *key)
{
    Tree &self = as_tree(tree);
    if (self.is_avl != 0)
        return avl::find(self.root, self.order, key);
    if (self.root == 0)
        return nullptr;
    const uint32_t hash = hash_of(self, key);
    return *find_key(self, chain_of(self, hash), hash, key).link;
}

void ravl_delete(ravl_tree *tree, void *entry)
{
    Tree &self = as_tree(tree);
    const bool was_there = self.is_avl != 0 ? avl::remove(self.root, self.order, static_cast<Node *>(entry))
                                            : remove_hashed(self, static_cast<Entry *>(entry));
    if (!was_there || --self.num_entries != 0)
        return;
    // Nothing tears a handle down.
    std::free(self.table);
    self.table = nullptr;
    self.is_avl = 0;
}

int32_t ravl_is_empty(ravl_tree *tree) { return tree->root == nullptr ? 1 : 0; }
