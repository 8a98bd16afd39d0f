/* SPDX-License-Identifier: BSD-3-Clause */
/* Data-tree helpers of the sample engine. Trees hold their children by value, one array per
 * parent, all from the framework's allocator pair, so a tree is released with
 * kesh_tov_datatree_free_ext(tree, tov_gpb_free, 0, 0). */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <string.h>

#include "agent.h"
#include "tov/gpb.h"

char *tree_strdup(const char *text) {
    size_t n = strlen(text);
    char *copy = tov_gpb_alloc((uint32_t)n + 1, 0);
    if (copy) memcpy(copy, text, n + 1);
    return copy;
}

void tree_clear(DataTree *tree) {
    kesh_tov_datatree_free_ext(tree, tov_gpb_free, 0, 0);
    memset(tree, 0, sizeof *tree);
}

int tree_copy(DataTree *dst, const DataTree *src) {
    memset(dst, 0, sizeof *dst);
    return kesh_tov_datatree_duplicate(dst, src, tov_gpb_alloc, 0) == 0 ? 0 : -1;
}

int tree_copy_shell(DataTree *dst, const DataTree *src) {
    DataTree shell = *src;
    shell.children = NULL;
    shell.children_count = 0;
    tov_bit_clear(shell.present, TOV_DATATREE_BIT_CHILDREN);
    tov_bit_clear(shell.present, TOV_DATATREE_BIT_OPERATION);
    return tree_copy(dst, &shell);
}

/* Room is reserved by moving the children to an array of count + extra records; the spare ones
 * stay zero and are not counted, so the codec and the release never see them. */
int tree_reserve(DataTree *parent, uint32_t extra) {
    if (extra == 0) return 0;
    uint64_t size = ((uint64_t)parent->children_count + extra) * sizeof(DataTree);
    if (size > UINT32_MAX) return -1;
    DataTree *array = tov_gpb_alloc((uint32_t)size, 0);
    if (!array) return -1;
    if (parent->children_count) memcpy(array, parent->children, parent->children_count * sizeof(DataTree));
    tov_gpb_free(parent->children, 0);
    parent->children = array;
    tov_bit_set(parent->present, TOV_DATATREE_BIT_CHILDREN);
    return 0;
}

DataTree *tree_append(DataTree *parent) {
    DataTree *child = &parent->children[parent->children_count++];
    memset(child, 0, sizeof *child);
    tov_bit_set(parent->present, TOV_DATATREE_BIT_CHILDREN);
    return child;
}

void tree_remove_child(DataTree *parent, uint32_t index) {
    kesh_tov_datatree_free_ext(&parent->children[index], tov_gpb_free, 0, 0);
    memmove(&parent->children[index], &parent->children[index + 1],
            (parent->children_count - index - 1) * sizeof(DataTree));
    if (--parent->children_count == 0) {
        tov_gpb_free(parent->children, 0);
        parent->children = NULL;
        tov_bit_clear(parent->present, TOV_DATATREE_BIT_CHILDREN);
    }
}

static const char *text_of(const DataTree *node, unsigned bit, const char *text) {
    return tov_bit_is_set(node->present, bit) ? text : NULL;
}

const char *tree_child_value(const DataTree *node, const char *name) {
    for (uint32_t i = 0; i < node->children_count; ++i) {
        const DataTree *c = &node->children[i];
        const char *n = text_of(c, TOV_DATATREE_BIT_NAME, c->name);
        if (n && strcmp(n, name) == 0) return text_of(c, TOV_DATATREE_BIT_VALUE, c->value);
    }
    return NULL;
}

static const char *key_attribute(const DataTree *node) {
    for (uint32_t i = 0; i < node->attributes_count; ++i) {
        const Attribute *a = &node->attributes[i];
        if (a->name && a->value && strcmp(a->name, AGENT_KEY_ATTRIBUTE) == 0) return a->value;
    }
    return NULL;
}

uint32_t tree_keys(const DataTree *node, const char **names, const char **values, char *scratch, size_t size) {
    const char *keys = key_attribute(node);
    if (!keys || snprintf(scratch, size, "%s", keys) >= (int)size) return 0;
    uint32_t count = 0;
    char *save = NULL;
    for (char *k = strtok_r(scratch, " ", &save); k && count < AGENT_MAX_KEYS; k = strtok_r(NULL, " ", &save)) {
        names[count] = k;
        values[count++] = tree_child_value(node, k);
    }
    return count;
}

static int same_text(const char *a, const char *b) { return (!a && !b) || (a && b && strcmp(a, b) == 0); }

static int same_node(const DataTree *a, const DataTree *b) {
    const char *an = text_of(a, TOV_DATATREE_BIT_NAME, a->name), *bn = text_of(b, TOV_DATATREE_BIT_NAME, b->name);
    if (!same_text(an, bn)) return 0;
    const char *aq = text_of(a, TOV_DATATREE_BIT_QUALIFIER, a->qualifier);
    const char *bq = text_of(b, TOV_DATATREE_BIT_QUALIFIER, b->qualifier);
    if (aq && bq && strcmp(aq, bq) != 0) return 0;
    const char *keys = key_attribute(a) ? key_attribute(a) : key_attribute(b);
    if (!keys) return 1;
    char scratch[256];
    if (snprintf(scratch, sizeof scratch, "%s", keys) >= (int)sizeof scratch) return 0;
    char *save = NULL;
    for (char *k = strtok_r(scratch, " ", &save); k; k = strtok_r(NULL, " ", &save))
        if (!same_text(tree_child_value(a, k), tree_child_value(b, k))) return 0;
    return 1;
}

int64_t tree_find(const DataTree *parent, const DataTree *like) {
    for (uint32_t i = 0; i < parent->children_count; ++i)
        if (same_node(&parent->children[i], like)) return i;
    return -1;
}

DataTree *tree_add_leaf(DataTree *parent, const char *name, const char *value) {
    DataTree *n = tree_append(parent);
    n->name = tree_strdup(name);
    if (!n->name) return NULL;
    tov_bit_set(n->present, TOV_DATATREE_BIT_NAME);
    if (value) {
        if (!(n->value = tree_strdup(value))) return NULL;
        tov_bit_set(n->present, TOV_DATATREE_BIT_VALUE);
    }
    return n;
}

/* Subtree filtering as NETCONF describes it: a filter node without value or children selects the
 * whole subtree; one with a value and no children is a content match that the data node's sibling
 * must equal; one with children is a containment node, filtered further. */
static int is_content_match(const DataTree *f) {
    return tov_bit_is_set(f->present, TOV_DATATREE_BIT_VALUE) && f->children_count == 0;
}
static int names_match(const DataTree *f, const DataTree *d) {
    if (!f->name || !d->name || strcmp(f->name, d->name) != 0) return 0;
    const char *fq = text_of(f, TOV_DATATREE_BIT_QUALIFIER, f->qualifier);
    const char *dq = text_of(d, TOV_DATATREE_BIT_QUALIFIER, d->qualifier);
    return !fq || !dq || strcmp(fq, dq) == 0;
}

/* 1 when `data` passes the content matches among filter's children. */
static int content_matches(const DataTree *filter, const DataTree *data) {
    for (uint32_t i = 0; i < filter->children_count; ++i) {
        const DataTree *f = &filter->children[i];
        if (!is_content_match(f)) continue;
        int found = 0;
        for (uint32_t k = 0; k < data->children_count && !found; ++k) {
            const DataTree *d = &data->children[k];
            found = names_match(f, d) && d->value && strcmp(d->value, f->value) == 0;
        }
        if (!found) return 0;
    }
    return 1;
}

int tree_filter(DataTree *out, const DataTree *data, const DataTree *filter) {
    int only_content = 1;
    for (uint32_t i = 0; i < filter->children_count; ++i) only_content &= is_content_match(&filter->children[i]);
    if (tree_reserve(out, data->children_count) != 0) return -1;
    if (only_content && filter->children_count) { /* the content matches chose this node: all of it */
        for (uint32_t k = 0; k < data->children_count; ++k)
            if (tree_copy(tree_append(out), &data->children[k]) != 0) return -1;
        return 0;
    }
    for (uint32_t k = 0; k < data->children_count; ++k) {
        const DataTree *d = &data->children[k];
        for (uint32_t i = 0; i < filter->children_count; ++i) {
            const DataTree *f = &filter->children[i];
            if (!names_match(f, d)) continue;
            if (is_content_match(f)) {
                if (!d->value || strcmp(d->value, f->value) != 0) continue;
            } else if (f->children_count) {
                if (!content_matches(f, d)) continue;
                DataTree *copy = tree_append(out);
                if (tree_copy_shell(copy, d) != 0 || tree_filter(copy, d, f) != 0) return -1;
                /* a containment node that selected nothing below it is left out */
                if (copy->children_count == 0 && d->children_count != 0) {
                    tree_clear(copy);
                    out->children_count--;
                }
                break;
            }
            if (tree_copy(tree_append(out), d) != 0) return -1;
            break;
        }
    }
    if (out->children_count == 0 && out->children) {
        tov_gpb_free(out->children, 0);
        out->children = NULL;
        tov_bit_clear(out->present, TOV_DATATREE_BIT_CHILDREN);
    }
    return 0;
}
