/*
 * avl_tree.h - the search tree behind the object cache.
 *
 * The storage of a tree is ravl_tree_t in zel.h.  Its first word is the root: null
 * exactly when the tree is empty, otherwise the address of some entry.  The library
 * reads the root to find an entry to delete.  The other words are the platform's.
 *
 * An entry is the library's memory.  It begins with 16 bytes, on every ABI, that
 * belong to the tree while the entry is in it; the key follows at a fixed offset.
 * The library gives zeroed link bytes on insertion and never reads them.
 *
 * Keys that compare equal are equal in all their bytes, so a tree may hash the
 * bytes of a key.
 *
 * Keys come from received messages, so an operation must not take more than the
 * logarithm of the number of entries, whatever the keys are.
 *
 * Nothing tears a tree down.  A tree may allocate memory when it holds many entries.
 * It must release that memory when it becomes empty, and work on when it gets none.
 *
 * The library looks up and then inserts every match and action of a message, once
 * in each pass over it.  At the end of the pass it deletes the root until the tree
 * is empty.  These are the operations to make fast.  Freeing entries in about the
 * order of their insertion makes most allocators faster.
 *
 * One thread at a time uses a tree.
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
 * Makes the tree empty, whatever its bytes were.  key_size is the number of bytes of
 * a key, key_offset its position in an entry; the library gives 12 and 16.  The
 * result is passed to the caller of zel_api_init(); 0 by convention.
 */
int32_t ravl_init(struct ravl_tree *tree, uint32_t key_size, uint32_t key_offset, ravl_compare_t compare);

/*
 * Inserts an entry.  Non-zero when it was inserted; 0 when an entry with this key is in
 * the tree already, and then the tree is unchanged.
 */
int32_t ravl_insert(struct ravl_tree *tree, void *entry);

/* The entry with a key, or null.  key points to the key alone, which need not lie in an entry. */
void *ravl_lookup(struct ravl_tree *tree, const void *key);

/* Takes an entry out of the tree; nothing happens when it is not in there.  The caller frees it. */
void ravl_delete(struct ravl_tree *tree, void *entry);

/* Non-zero when the tree holds nothing. */
int32_t ravl_is_empty(struct ravl_tree *tree);

#ifdef __cplusplus
}
#endif

#endif
