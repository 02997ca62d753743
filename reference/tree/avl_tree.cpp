// The balanced tree.  For the library's own keys it is a table, which costs a fraction
// of what any tree does; see there.
//
// A node is the two links at the start of an entry: pointers whose lowest bit
// says that the subtree on this side is the taller one.  There is no way up, so
// a change walks down once and remembers what it needs.
#include "reference/contract.hpp"
#include "reference/tree/key_table.hpp"
#include "zel.h"

// Absent from a program without the library.
#pragma weak zel_mat_cache_comp_func

namespace {

using Word [[gnu::may_alias]] = uintptr_t;

constexpr uintptr_t lean_bit = 1;

enum Side : unsigned { left = 0, right = 1 };

struct [[gnu::may_alias]] Node {
    uintptr_t link[2];
};
static_assert(sizeof(Node) <= 16);

// How the tree uses the words of ravl_tree_t.
struct [[gnu::may_alias]] Tree {
    uintptr_t root;
    ravl_compare_t compare; // null in a table
    uintptr_t key_offset;
};

Node *target(uintptr_t link)
{
    // The tag lives in the pointer, so it has to be an integer now and then.
    return reinterpret_cast<Node *>(link & ~lean_bit); // NOLINT(performance-no-int-to-ptr)
}

Side other(Side side) { return side == left ? right : left; }

// Makes a link lead elsewhere.  Its lean bit belongs to the node that it is in.
void redirect(Word *link, const Node *node) { *link = reinterpret_cast<uintptr_t>(node) | (*link & lean_bit); }

bool leans(const Node *node, Side side) { return (node->link[side] & lean_bit) != 0; }

bool is_even(const Node *node) { return ((node->link[left] | node->link[right]) & lean_bit) == 0; }

void lean(Node *node, Side side) { node->link[side] |= lean_bit; }

void straighten(Node *node, Side side) { node->link[side] &= ~lean_bit; }

const void *key_of(const Tree &tree, const Node *node)
{
    return reinterpret_cast<const char *>(node) + tree.key_offset;
}

enum Order : uint32_t { equal = 0, sorts_after = 1, sorts_before = 2 };

// ---- Balance

// Brings a node into balance whose subtree on a side is taller by two.  Returns
// the node that takes its place; that is even unless the height stays the same.
Node *rotate(Node *top, Side side)
{
    const Side opposite = other(side);
    Node *const child = target(top->link[side]);
    if (!leans(child, opposite)) {
        const uintptr_t still_leaning = is_even(child) ? lean_bit : 0;
        top->link[side] = reinterpret_cast<uintptr_t>(target(child->link[opposite])) | still_leaning;
        child->link[opposite] = reinterpret_cast<uintptr_t>(top) | still_leaning;
        straighten(child, side);
        return child;
    }
    Node *const grandchild = target(child->link[opposite]);
    child->link[opposite] = reinterpret_cast<uintptr_t>(target(grandchild->link[side]));
    top->link[side] = reinterpret_cast<uintptr_t>(target(grandchild->link[opposite]));
    if (leans(grandchild, side))
        lean(top, opposite);
    else if (leans(grandchild, opposite))
        lean(child, side);
    grandchild->link[side] = reinterpret_cast<uintptr_t>(child);
    grandchild->link[opposite] = reinterpret_cast<uintptr_t>(top);
    return grandchild;
}

// ---- Looking up and inserting

[[gnu::noinline]] Node *find(const Tree &tree, const void *key)
{
    Node *node = target(tree.root);
    while (node != nullptr) {
        const uint32_t order = tree.compare(key, key_of(tree, node));
        if (order == equal)
            return node;
        node = target(node->link[order == sorts_after ? right : left]);
    }
    return nullptr;
}

// All nodes between the deepest leaning one, which a link leads to, and a new leaf were
// even and lean now.
void rebalance_above(const Tree &tree, Word *leaning, const Node *leaf)
{
    const void *const key = key_of(tree, leaf);
    const auto way_down = [&](const Node *node) {
        return tree.compare(key, key_of(tree, node)) == sorts_after ? right : left;
    };
    Node *const top = target(*leaning);
    const Side side = way_down(top);
    for (Node *node = target(top->link[side]); node != leaf;) {
        const Side next = way_down(node);
        lean(node, next);
        node = target(node->link[next]);
    }
    if (leans(top, other(side)))
        straighten(top, other(side));
    else if (!leans(top, side))
        lean(top, side);
    else
        redirect(leaning, rotate(top, side));
}

[[gnu::noinline]] bool insert(Tree &tree, Node *entry)
{
    Word *link = &tree.root;
    Word *leaning = link;
    while (Node *const node = target(*link)) {
        const uint32_t order = tree.compare(key_of(tree, entry), key_of(tree, node));
        if (order == equal)
            return false;
        if (!is_even(node))
            leaning = link;
        link = &node->link[order == sorts_after ? right : left];
    }
    *entry = {};
    redirect(link, entry);
    if (link != &tree.root)
        rebalance_above(tree, leaning, entry);
    return true;
}

// ---- Deleting

// The links from the root down to a node.
struct Path {
    // A tree of height 96 has more nodes than an address space has room for.
    Word *links[96];
    unsigned length = 0;

    void push(Word *link) { links[length++] = link; }
    Word *pop() { return links[--length]; }
};

// The link to an entry, or null when this tree does not hold it.
Word *descend_to(Tree &tree, const Node *entry, Path &path)
{
    Word *link = &tree.root;
    for (Node *node = target(*link); node != entry; node = target(*link)) {
        const uint32_t order = node == nullptr ? equal : tree.compare(key_of(tree, entry), key_of(tree, node));
        if (order == equal)
            return nullptr;
        path.push(link);
        link = &node->link[order == sorts_after ? right : left];
    }
    return link;
}

// Takes the entry's neighbour out of its taller subtree and puts it in the entry's
// place.  Returns the link behind which the tree has become lower.
Word *replace_by_neighbour(Word *link, Node *entry, Path &path)
{
    const Side side = leans(entry, right) ? right : left;
    path.push(link);
    const unsigned below_entry = path.length;
    Word *shrunk = &entry->link[side];
    Node *neighbour = target(*shrunk);
    while (Node *const nearer = target(neighbour->link[other(side)])) {
        path.push(shrunk);
        shrunk = &neighbour->link[other(side)];
        neighbour = nearer;
    }
    redirect(shrunk, target(neighbour->link[side]));
    *neighbour = *entry;
    redirect(link, neighbour);
    // The path ran through the entry's link and runs through the neighbour's now.
    if (path.length == below_entry)
        return &neighbour->link[side];
    path.links[below_entry] = &neighbour->link[side];
    return shrunk;
}

void rebalance_up(Path &path, const Word *shrunk)
{
    while (path.length != 0) {
        Word *const link = path.pop();
        Node *const node = target(*link);
        const Side side = shrunk == &node->link[right] ? right : left;
        if (leans(node, side)) {
            straighten(node, side);
        } else if (!leans(node, other(side))) {
            lean(node, other(side));
            return;
        } else {
            Node *const top = rotate(node, other(side));
            redirect(link, top);
            if (!is_even(top))
                return;
        }
        shrunk = link;
    }
}

[[gnu::noinline]] void remove(Tree &tree, Node *entry)
{
    Path path;
    Word *link = descend_to(tree, entry, path);
    if (link == nullptr)
        return;
    Node *const left_child = target(entry->link[left]);
    Node *const right_child = target(entry->link[right]);
    if (left_child != nullptr && right_child != nullptr)
        link = replace_by_neighbour(link, entry, path);
    else
        redirect(link, left_child != nullptr ? left_child : right_child);
    rebalance_up(path, link);
}

// ---- A tree or a table

Tree &as_tree(ravl_tree *tree) { return *reinterpret_cast<Tree *>(tree); }
KeyTable &as_table(ravl_tree *tree) { return *reinterpret_cast<KeyTable *>(tree); }

// Nearly always a table, and a few instructions then, among which a tree's would cost
// registers: hence the hints below, and functions of their own for the tree.
bool is_table(ravl_tree *tree) { return as_table(tree).is_table(); }

} // namespace

int32_t ravl_init(ravl_tree *tree, uint32_t, uint32_t key_offset, ravl_compare_t compare)
{
    *tree = {};
    if (compare == zel_mat_cache_comp_func && key_offset == offsetof(KeyTable::Entry, key))
        return 0;
    as_tree(tree).compare = compare;
    as_tree(tree).key_offset = key_offset;
    return 0;
}

// These two in place wherever this is compiled together with the library.
[[gnu::used, gnu::always_inline]] inline int32_t ravl_insert(ravl_tree *tree, void *entry)
{
    if (is_table(tree)) [[likely]]
        return as_table(tree).insert(static_cast<KeyTable::Entry *>(entry));
    return insert(as_tree(tree), static_cast<Node *>(entry));
}

[[gnu::used, gnu::always_inline]] inline void *ravl_lookup(ravl_tree *tree, const void *key)
{
    if (is_table(tree)) [[likely]]
        return as_table(tree).find(*static_cast<const zel_mat_cache_key_t *>(key));
    return find(as_tree(tree), key);
}

void ravl_delete(ravl_tree *tree, void *entry)
{
    if (is_table(tree)) [[likely]]
        return as_table(tree).remove(static_cast<KeyTable::Entry *>(entry));
    remove(as_tree(tree), static_cast<Node *>(entry));
}

int32_t ravl_is_empty(ravl_tree *tree) { return tree->root == nullptr ? 1 : 0; }
