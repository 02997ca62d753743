// The tree of platform/avl_tree.h: AVL trees in a hash table.
//
// Up to few_entries entries lie in one AVL tree, whose root is the handle's.  A larger
// tree is split by a hash of the keys' bytes into 2^k AVL trees, the buckets, so that
// most operations look at one or two entries.  Whatever the keys are, no operation costs
// more than in a single AVL tree: if all keys fall into one bucket, that bucket is one.
//
// Buckets that hold entries are in a list, in the order in which they got their first
// entry.  The root is an entry of the first bucket in the list, so that deleting the root
// until the tree is empty frees entries in about the order of their insertion.  That is
// what makes the allocator fast.
//
// The array of buckets is allocated on growth and freed when the tree becomes empty.
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

constexpr uint32_t few_entries = 16;
constexpr uint32_t first_num_buckets = 32;
constexpr uint32_t max_num_buckets = uint32_t{1} << 30;
constexpr uint32_t growth = 8;             // times as many buckets
constexpr uint32_t entries_per_bucket = 1; // on average, before the next growth

struct Bucket {
    Link root;
    uint32_t next; // index in the list of buckets that hold entries
    uint32_t previous;
};

// The bucket at index 0 has no entries: it is the start and the end of the list.
constexpr uint32_t list_head = 0;

// How the tree uses the words of ravl_tree_t.
struct [[gnu::may_alias]] Tree {
    Link root; // of the AVL tree, or any entry when there are buckets
    avl::KeyOrder order;
    uintptr_t num_entries;
    uintptr_t grow_above; // number of entries above which the tree grows
    Bucket *buckets;      // num_buckets and the list's head
    uint32_t num_buckets; // a power of two; 0: a single AVL tree
    uint32_t key_size;
};
static_assert(sizeof(Tree) <= sizeof(ravl_tree_t));

Tree &as_tree(ravl_tree *tree) { return *reinterpret_cast<Tree *>(tree); }

uint32_t word_at(const void *bytes, uint32_t offset)
{
    uint32_t word;
    std::memcpy(&word, static_cast<const char *>(bytes) + offset, sizeof word);
    return word;
}

uint32_t combine(uint32_t hash, uint32_t next) { return hash * 0x9e3779b1 + next; }

uint32_t hash_of_any(const void *key, uint32_t size)
{
    uint32_t hash = 0;
    uint32_t at = 0;
    for (; size - at >= sizeof(uint32_t); at += sizeof(uint32_t))
        hash = combine(hash, word_at(key, at));
    for (; at != size; ++at)
        hash = combine(hash, static_cast<const unsigned char *>(key)[at]);
    return hash;
}

// Adjacent values of a key's last word give adjacent hashes, and so adjacent buckets:
// ids that count up are entered and freed in the order of memory.
uint32_t hash_of(const void *key, uint32_t size)
{
    constexpr uint32_t three_words = 12; // the library's keys
    const uint32_t hash = expect(size == three_words)
                              ? combine(combine(word_at(key, 0), word_at(key, 4)), word_at(key, 8))
                              : hash_of_any(key, size);
    return hash ^ hash >> 16; // the lower bits choose the bucket
}

Bucket &bucket_of(const Tree &tree, const void *key)
{
    return tree.buckets[1 + (hash_of(key, tree.key_size) & (tree.num_buckets - 1))];
}

// ---- The list of buckets that hold entries

void append(Tree &tree, Bucket &bucket)
{
    Bucket &head = tree.buckets[list_head];
    const auto index = static_cast<uint32_t>(&bucket - tree.buckets);
    bucket.next = list_head;
    bucket.previous = head.previous;
    tree.buckets[head.previous].next = index;
    head.previous = index;
}

void unlink(Tree &tree, const Bucket &bucket)
{
    tree.buckets[bucket.previous].next = bucket.next;
    tree.buckets[bucket.next].previous = bucket.previous;
}

// The head's root is null, and so is the tree's when the list is empty.
void update_root(Tree &tree) { tree.root = tree.buckets[tree.buckets[list_head].next].root; }

// ---- Operations on the buckets

bool insert_into_buckets(Tree &tree, Node *entry)
{
    Bucket &bucket = bucket_of(tree, tree.order.key_of(entry));
    const bool was_empty = bucket.root == 0;
    if (!avl::insert(bucket.root, tree.order, entry))
        return false;
    if (was_empty)
        append(tree, bucket);
    update_root(tree);
    return true;
}

bool remove_from_buckets(Tree &tree, Node *entry)
{
    // The root lies in the first bucket.
    const bool is_root = tree.root == reinterpret_cast<uintptr_t>(entry);
    Bucket &bucket = is_root ? tree.buckets[tree.buckets[list_head].next] : bucket_of(tree, tree.order.key_of(entry));
    if (!avl::remove(bucket.root, tree.order, entry))
        return false;
    if (bucket.root == 0)
        unlink(tree, bucket);
    update_root(tree);
    return true;
}

// ---- Growth

void move_into_buckets(Tree &tree, Node *node)
{
    if (node == nullptr)
        return;
    const Node links = *node; // insertion overwrites them
    move_into_buckets(tree, avl::target(links.link[avl::left]));
    insert_into_buckets(tree, node);
    move_into_buckets(tree, avl::target(links.link[avl::right]));
}

// Allocates more buckets and moves all entries there.  Without memory, the tree stays as it
// is and tries again when it holds twice as many entries.
void grow(Tree &tree)
{
    const Tree before = tree;
    tree.grow_above = 2 * before.grow_above;
    if (before.num_buckets > max_num_buckets / growth)
        return;
    const uint32_t num_buckets = before.num_buckets == 0 ? first_num_buckets : growth * before.num_buckets;
    auto *const buckets = static_cast<Bucket *>(std::calloc(std::size_t{num_buckets} + 1, sizeof(Bucket)));
    if (buckets == nullptr)
        return;
    tree.buckets = buckets;
    tree.num_buckets = num_buckets;
    tree.grow_above = uintptr_t{entries_per_bucket} * num_buckets;
    if (before.num_buckets == 0)
        return move_into_buckets(tree, avl::target(before.root));
    for (uint32_t i = before.buckets[list_head].next; i != list_head; i = before.buckets[i].next)
        move_into_buckets(tree, avl::target(before.buckets[i].root));
    std::free(before.buckets);
}

// Frees the buckets of an empty tree, because nothing tears a handle down.
void shrink(Tree &tree)
{
    std::free(tree.buckets);
    tree.buckets = nullptr;
    tree.num_buckets = 0;
    tree.grow_above = few_entries;
}

} // namespace

int32_t ravl_init(ravl_tree *tree, uint32_t key_size, uint32_t key_offset, ravl_compare_t compare)
{
    *tree = {};
    as_tree(tree) = {0, {compare, key_offset}, 0, few_entries, nullptr, 0, key_size};
    return 0;
}

int32_t ravl_insert(ravl_tree *tree, void *entry)
{
    Tree &self = as_tree(tree);
    auto *const node = static_cast<Node *>(entry);
    const bool is_new =
        self.num_buckets == 0 ? avl::insert(self.root, self.order, node) : insert_into_buckets(self, node);
    if (!is_new)
        return 0;
    if (!expect(++self.num_entries <= self.grow_above))
        grow(self);
    return 1;
}

void *ravl_lookup(ravl_tree *tree, const void *key)
{
    const Tree &self = as_tree(tree);
    return avl::find(self.num_buckets == 0 ? self.root : bucket_of(self, key).root, self.order, key);
}

void ravl_delete(ravl_tree *tree, void *entry)
{
    Tree &self = as_tree(tree);
    auto *const node = static_cast<Node *>(entry);
    const bool was_there =
        self.num_buckets == 0 ? avl::remove(self.root, self.order, node) : remove_from_buckets(self, node);
    if (was_there && --self.num_entries == 0)
        shrink(self);
}

int32_t ravl_is_empty(ravl_tree *tree) { return tree->root == nullptr ? 1 : 0; }
