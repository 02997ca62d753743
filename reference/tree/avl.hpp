// An intrusive AVL tree: all operations on one tree, given the link to its root.
//
// A node is two pointers at the start of an entry.  The lowest bit of a pointer says
// that the subtree on this side is the taller one by one level.  Nodes have no parent
// pointer: a change walks down from the root once and remembers the links that it needs.
#pragma once

#include "zel/platform/avl_tree.h"

#include <cstddef>
#include <stdint.h>

namespace zel::platform::avl {

// A pointer to a node and the taller-side bit.  A root is a link whose bit is never set.
using Link [[gnu::may_alias]] = uintptr_t;

enum Side : unsigned { left = 0, right = 1 };

struct [[gnu::may_alias]] Node {
    uintptr_t link[2]; // by Side
};
static_assert(sizeof(Node) <= 16);

// Where an entry has its key, and how two keys are compared.
struct KeyOrder {
    ravl_compare_t compare;
    uintptr_t key_offset;

    const void *key_of(const Node *node) const { return reinterpret_cast<const char *>(node) + key_offset; }
};

// The node that a link points to, or null.
Node *target(uintptr_t link);

// As find(), insert() and remove(), for a tree that is not empty.
Node *find_below(uintptr_t root, const KeyOrder &order, const void *key);
bool insert_below(Link &root, const KeyOrder &order, Node *entry);
bool remove_below(Link &root, const KeyOrder &order, Node *entry);

// The entry with a key, or null.
inline Node *find(uintptr_t root, const KeyOrder &order, const void *key)
{
    return root == 0 ? nullptr : find_below(root, order, key);
}

// False when an entry with this key is there already.
inline bool insert(Link &root, const KeyOrder &order, Node *entry)
{
    if (root != 0)
        return insert_below(root, order, entry);
    *entry = {};
    root = reinterpret_cast<uintptr_t>(entry);
    return true;
}

// False when the entry is not in this tree.
inline bool remove(Link &root, const KeyOrder &order, Node *entry)
{
    const bool is_last = root == reinterpret_cast<uintptr_t>(entry) && (entry->link[left] | entry->link[right]) == 0;
    if (!is_last)
        return root != 0 && remove_below(root, order, entry);
    root = 0;
    return true;
}

} // namespace zel::platform::avl
