/*
 * The tree: a treap.  Keys are ordered from left to right, and priorities from the root down.
 * A priority is computed from the address of an entry, which no message chooses: the tree is
 * balanced as if the keys came in random order, and a link is two words.
 */
#include "zel/platform/avl_tree.h"

#include <stddef.h>
#include <stdint.h>

typedef struct node {
    struct node *before, *after;
} node_t;

typedef struct {
    node_t *root;
    ravl_compare_t compare;
    uintptr_t key_offset;
} tree_t;

static const void *key_of(const tree_t *tree, const node_t *node) { return (const char *)node + tree->key_offset; }

static uint64_t priority(const node_t *node)
{
    const uint64_t product = (uint64_t)(uintptr_t)node * UINT64_C(0x9e3779b97f4a7c15);
    return (product ^ product >> 32) * UINT64_C(0xd6e8feb86659fd93);
}

int32_t ravl_init(struct ravl_tree *tree, uint32_t key_size, uint32_t key_offset, ravl_compare_t compare)
{
    (void)key_size;
    *(tree_t *)tree = (tree_t){NULL, compare, key_offset};
    return 0;
}

void *ravl_lookup(struct ravl_tree *tree, const void *key)
{
    const tree_t *own = (const tree_t *)tree;
    node_t *node = own->root;
    uint32_t order;
    while (node != NULL && (order = own->compare(key, key_of(own, node))) != 0)
        node = order == 1 ? node->after : node->before;
    return node;
}

/* Goes down to the first entry of lower priority, and splits that subtree around the key. */
int32_t ravl_insert(struct ravl_tree *tree, void *entry)
{
    tree_t *own = (tree_t *)tree;
    node_t *added = entry, **link = &own->root;
    const void *key = key_of(own, added);
    if (ravl_lookup(tree, key) != NULL)
        return 0;
    while (*link != NULL && priority(*link) > priority(added))
        link = own->compare(key, key_of(own, *link)) == 1 ? &(*link)->after : &(*link)->before;
    node_t *rest = *link, **before = &added->before, **after = &added->after;
    *link = added;
    while (rest != NULL) {
        if (own->compare(key, key_of(own, rest)) == 1) {
            *before = rest;
            before = &rest->after;
            rest = rest->after;
        } else {
            *after = rest;
            after = &rest->before;
            rest = rest->before;
        }
    }
    *before = *after = NULL;
    return 1;
}

/* Joins the two subtrees of the entry in its place. */
void ravl_delete(struct ravl_tree *tree, void *entry)
{
    tree_t *own = (tree_t *)tree;
    const void *key = key_of(own, entry);
    if (ravl_lookup(tree, key) != entry)
        return;
    node_t **link = &own->root;
    while (*link != entry)
        link = own->compare(key, key_of(own, *link)) == 1 ? &(*link)->after : &(*link)->before;
    node_t *before = (*link)->before, *after = (*link)->after;
    while (before != NULL && after != NULL) {
        if (priority(before) > priority(after)) {
            *link = before;
            link = &before->after;
            before = before->after;
        } else {
            *link = after;
            link = &after->before;
            after = after->before;
        }
    }
    *link = before != NULL ? before : after;
}

int32_t ravl_is_empty(struct ravl_tree *tree) { return ((const tree_t *)tree)->root == NULL; }
