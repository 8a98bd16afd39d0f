// SPDX-License-Identifier: BSD-3-Clause
// Host balanced tree: Boost.Intrusive's AVL algorithms over the platform's C link header.
#include <boost/intrusive/avltree_algorithms.hpp>
#include <cerrno>

#include "tov/kor_wavl.h"

namespace tov::detail {
namespace {

struct LinkTraits {
    using node = kor_wavl_node;
    using node_ptr = kor_wavl_node *;
    using const_node_ptr = const kor_wavl_node *;
    using balance = int32_t;

    static node_ptr get_parent(const_node_ptr n) { return n->parent; }
    static void set_parent(node_ptr n, node_ptr p) { n->parent = p; }
    static node_ptr get_left(const_node_ptr n) { return n->left; }
    static void set_left(node_ptr n, node_ptr l) { n->left = l; }
    static node_ptr get_right(const_node_ptr n) { return n->right; }
    static void set_right(node_ptr n, node_ptr r) { n->right = r; }
    static balance get_balance(const_node_ptr n) { return n->balance; }
    static void set_balance(node_ptr n, balance b) { n->balance = b; }
    static balance negative() { return -1; }
    static balance zero() { return 0; }
    static balance positive() { return 1; }
};

using Algo = boost::intrusive::avltree_algorithms<LinkTraits>;

// Strict ordering for Boost from the platform's three-way comparison (1 means "a before b").
struct Before {
    kor_wavl_compare_fn compare;
    bool operator()(const kor_wavl_node *a, const kor_wavl_node *b) const { return compare(a, b) == 1; }
};

bool usable(const kor_wavl_tree *tree) { return tree && tree->compare; }

// Whether `link` hangs below this tree's header. The walk is bounded by the greatest AVL height a
// 32-bit count allows, so a link of another tree (whose root points back at its own header)
// cannot keep it going.
bool in_tree(const kor_wavl_tree *tree, const kor_wavl_node *link) {
    const kor_wavl_node *n = link;
    for (int steps = 0; steps < 64 && n; ++steps) {
        const kor_wavl_node *p = n->parent;
        if (p == &tree->header) return tree->header.parent == n;
        n = p;
    }
    return false;
}

} // namespace
} // namespace tov::detail

using tov::detail::Algo;
using tov::detail::Before;
using tov::detail::usable;

extern "C" {

TOV_API uint32_t kor_wavl_tree_init(kor_wavl_tree *tree, uint32_t unique, uint32_t key_index,
                                    kor_wavl_compare_fn compare) {
    if (!tree || !compare || key_index >= KOR_WAVL_MAX_KEYS) return EINVAL;
    Algo::init_header(&tree->header);
    tree->header.linked = 0;
    tree->compare = compare;
    tree->unique = unique ? 1 : 0;
    tree->key_index = key_index;
    tree->count = 0;
    return 0;
}

TOV_API uint32_t kor_wavl_init(kor_wavl_node *node, uint32_t key_count) {
    if (!node || key_count == 0 || key_count > KOR_WAVL_MAX_KEYS) return EINVAL;
    for (uint32_t i = 0; i < key_count; ++i) node[i] = kor_wavl_node{nullptr, nullptr, nullptr, 0, 0};
    return 0;
}

TOV_API kor_wavl_node *kor_wavl_insert(kor_wavl_tree *tree, kor_wavl_node *node) {
    if (!usable(tree) || !node) return nullptr;
    kor_wavl_node *link = node + tree->key_index;
    if (link->linked) return nullptr;
    Before before{tree->compare};
    if (tree->unique) {
        Algo::insert_commit_data commit;
        if (!Algo::insert_unique_check(&tree->header, static_cast<const kor_wavl_node *>(link), before, commit).second)
            return nullptr;
        Algo::insert_unique_commit(&tree->header, link, commit);
    } else {
        Algo::insert_equal_upper_bound(&tree->header, link, before);
    }
    link->linked = 1;
    ++tree->count;
    return link;
}

TOV_API kor_wavl_node *kor_wavl_search(kor_wavl_tree *tree, kor_wavl_node *key, uint32_t key_index) {
    if (!usable(tree) || !key || key_index != tree->key_index) return nullptr;
    kor_wavl_node *found =
        Algo::find(&tree->header, static_cast<const kor_wavl_node *>(key + key_index), Before{tree->compare});
    return found == &tree->header ? nullptr : found;
}

TOV_API kor_wavl_node *kor_wavl_delete(kor_wavl_tree *tree, kor_wavl_node *link) {
    if (!usable(tree) || !link || !link->linked || !tov::detail::in_tree(tree, link)) return nullptr;
    Algo::erase(&tree->header, link);
    *link = kor_wavl_node{nullptr, nullptr, nullptr, 0, 0};
    --tree->count;
    return link;
}

TOV_API kor_wavl_node *kor_wavl_get_first(kor_wavl_tree *tree, uint32_t key_index) {
    if (!usable(tree) || key_index != tree->key_index || tree->count == 0) return nullptr;
    return Algo::begin_node(&tree->header);
}

TOV_API kor_wavl_node *kor_wavl_get_next(kor_wavl_tree *tree, kor_wavl_node *link) {
    if (!usable(tree) || !link || !link->linked) return nullptr;
    kor_wavl_node *next = Algo::next_node(link);
    return next == &tree->header ? nullptr : next;
}

TOV_API kor_wavl_node *kor_wavl_normalize(kor_wavl_node *link, uint32_t key_index) {
    return link ? link - key_index : nullptr;
}

TOV_API uint32_t kor_wavl_tree_finish(kor_wavl_tree *tree) {
    if (!usable(tree)) return EINVAL;
    if (tree->count != 0) return EBUSY;
    tree->compare = nullptr;
    return 0;
}

} // extern "C"
