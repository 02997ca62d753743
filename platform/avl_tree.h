/*
 * avl_tree.h - the balanced tree behind the object cache.
 *
 * Intrusive: an entry begins with 16 bytes, on every ABI, that belong to the
 * tree; the rest is the library's.  The library gives zeroed link bytes on
 * insertion and never looks at them.  The storage of the tree itself is
 * ravl_tree_t in zel.h: its first word is the root, null or the address of an
 * entry, and the library reads it to find something to delete.
 *
 * The tree allocates nothing.  The library enters every match and action of a
 * message once per pass and deletes from the root until the tree is empty, so
 * insertion after a failed lookup and deletion of the root are what to make fast.
 */
#ifndef ZEL_PLATFORM_AVL_TREE_H
#define ZEL_PLATFORM_AVL_TREE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct ravl_tree;

/* Compares two keys: 1 when a sorts after b, 2 when it sorts before b, 0 when equal. */
typedef uint32_t (*ravl_compare_t)(const void *a, const void *b);

/*
 * Makes the tree empty.  key_size and key_offset are the bytes of a key and its
 * position in an entry; the library gives 12 and 16.  The result is passed to
 * the caller of zel_api_init(); 0 by convention.
 */
int32_t ravl_init(struct ravl_tree *tree, uint32_t key_size, uint32_t key_offset, ravl_compare_t compare);

/* Links an entry.  Non-zero when it did, 0 when an entry with this key is there already. */
int32_t ravl_insert(struct ravl_tree *tree, void *entry);

/* The entry with a key, or null.  The key is bare: it need not lie in an entry. */
void *ravl_lookup(struct ravl_tree *tree, const void *key);

/* Unlinks an entry of this tree.  The caller frees it. */
void ravl_delete(struct ravl_tree *tree, void *entry);

/* Non-zero when the tree holds nothing. */
int32_t ravl_is_empty(struct ravl_tree *tree);

#ifdef __cplusplus
}
#endif

#endif
