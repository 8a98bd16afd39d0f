/* SPDX-License-Identifier: BSD-3-Clause */
/* The platform's balanced binary search tree, as the host supplies it.
 *
 * The tree is intrusive: a record embeds one or more link headers (`kor_wavl_node`), one per tree
 * it can belong to, placed one after another. A tree orders the links of one key index; the
 * comparison receives those links and finds its records with kor_wavl_normalize. The host keeps the
 * tree AVL-balanced; an AVL tree meets every rank rule of a WAVL tree, so height and search costs
 * are those the platform promises (height below 1.45 log2(n + 2)).
 *
 * Return conventions of the platform: insert and delete give a non-null link on success and NULL
 * on failure; the initialisers and kor_wavl_tree_finish give 0 or an errno value. */
#ifndef TOV_KOR_WAVL_H
#define TOV_KOR_WAVL_H

#include <stdint.h>

#include "tov/export.h"

#define KOR_WAVL_MAX_KEYS 8

typedef struct kor_wavl_node {
    struct kor_wavl_node *parent;
    struct kor_wavl_node *left;
    struct kor_wavl_node *right;
    int32_t balance; /* height(right) - height(left): -1, 0 or 1 */
    uint32_t linked; /* 1 while the link is in a tree */
} kor_wavl_node;

/* Orders two links: 0 when `a` sorts after `b`, 1 when before, 2 when equal. */
typedef uint32_t (*kor_wavl_compare_fn)(const kor_wavl_node *a, const kor_wavl_node *b);

typedef struct kor_wavl_tree {
    kor_wavl_node header; /* parent: root; left: leftmost; right: rightmost */
    kor_wavl_compare_fn compare;
    uint32_t unique;    /* 1: an equal key is refused by insert */
    uint32_t key_index; /* which link of a record this tree orders */
    uint32_t count;     /* links in the tree */
} kor_wavl_tree;

TOV_BEGIN_DECLS

/* Prepares a tree. Returns 0, or EINVAL for a null tree or comparison or a key index of
 * KOR_WAVL_MAX_KEYS or more. */
TOV_API uint32_t kor_wavl_tree_init(kor_wavl_tree *tree, uint32_t unique, uint32_t key_index,
                                    kor_wavl_compare_fn compare);
/* Marks the `key_count` consecutive links starting at `node` as belonging to no tree. Returns 0,
 * or EINVAL for a null node or a count of 0 or above KOR_WAVL_MAX_KEYS. */
TOV_API uint32_t kor_wavl_init(kor_wavl_node *node, uint32_t key_count);
/* Inserts the record whose first link is `node` (its link `key_index` goes into the tree).
 * Returns that link, or NULL when the tree is not set up, the link is already in a tree, or
 * (unique trees) an equal key is present. */
TOV_API kor_wavl_node *kor_wavl_insert(kor_wavl_tree *tree, kor_wavl_node *node);
/* Finds the link equal to the record `key` (its link `key_index`), or NULL. */
TOV_API kor_wavl_node *kor_wavl_search(kor_wavl_tree *tree, kor_wavl_node *key, uint32_t key_index);
/* Removes `link` from the tree. Returns it, or NULL when it is not in this tree. */
TOV_API kor_wavl_node *kor_wavl_delete(kor_wavl_tree *tree, kor_wavl_node *link);
/* The smallest link of the tree, or NULL when it is empty or `key_index` is not the tree's. */
TOV_API kor_wavl_node *kor_wavl_get_first(kor_wavl_tree *tree, uint32_t key_index);
/* The link following `link` in key order, or NULL after the last. */
TOV_API kor_wavl_node *kor_wavl_get_next(kor_wavl_tree *tree, kor_wavl_node *link);
/* The record's first link, given its link number `key_index`; NULL stays NULL. */
TOV_API kor_wavl_node *kor_wavl_normalize(kor_wavl_node *link, uint32_t key_index);
/* Retires a tree: 0 when it was empty, EBUSY (and nothing changes) when links remain, EINVAL for a
 * null or retired tree. */
TOV_API uint32_t kor_wavl_tree_finish(kor_wavl_tree *tree);

TOV_END_DECLS

#endif
