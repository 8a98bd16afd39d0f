// The platform tree's own promises, beyond what the session store exercises.
#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "tov/kor_wavl.h"

namespace {

// A record that sits in two trees: by key (link 0) and by tag (link 1).
struct Item {
    kor_wavl_node links[2];
    int key;
    int tag;
};

uint32_t order(int a, int b) { return a > b ? 0 : a < b ? 1 : 2; }
uint32_t by_key(const kor_wavl_node *a, const kor_wavl_node *b) {
    return order(reinterpret_cast<const Item *>(kor_wavl_normalize(const_cast<kor_wavl_node *>(a), 0))->key,
                 reinterpret_cast<const Item *>(kor_wavl_normalize(const_cast<kor_wavl_node *>(b), 0))->key);
}
uint32_t by_tag(const kor_wavl_node *a, const kor_wavl_node *b) {
    return order(reinterpret_cast<const Item *>(kor_wavl_normalize(const_cast<kor_wavl_node *>(a), 1))->tag,
                 reinterpret_cast<const Item *>(kor_wavl_normalize(const_cast<kor_wavl_node *>(b), 1))->tag);
}

TEST(Wavl, RecordsInTwoTreesAndTheReturnConventions) {
    kor_wavl_tree keys, tags;
    ASSERT_EQ(kor_wavl_tree_init(&keys, 1, 0, by_key), 0u);
    ASSERT_EQ(kor_wavl_tree_init(&tags, 0, 1, by_tag), 0u); // tags may repeat
    std::vector<Item> items(6);
    for (int i = 0; i < 6; ++i) {
        ASSERT_EQ(kor_wavl_init(items[i].links, 2), 0u);
        items[i].key = 10 - i;
        items[i].tag = i % 2;
        EXPECT_EQ(kor_wavl_insert(&keys, items[i].links), &items[i].links[0]);
        EXPECT_EQ(kor_wavl_insert(&tags, items[i].links), &items[i].links[1]);
    }
    EXPECT_EQ(kor_wavl_insert(&keys, items[0].links), nullptr); // already linked
    Item twin{};
    kor_wavl_init(twin.links, 2);
    twin.key = 7;
    EXPECT_EQ(kor_wavl_insert(&keys, twin.links), nullptr); // equal key in a unique tree
    EXPECT_EQ(kor_wavl_search(&keys, twin.links, 0), &items[3].links[0]);
    EXPECT_EQ(kor_wavl_search(&keys, twin.links, 1), nullptr); // not this tree's key index

    std::vector<int> seen;
    for (kor_wavl_node *n = kor_wavl_get_first(&tags, 1); n; n = kor_wavl_get_next(&tags, n))
        seen.push_back(reinterpret_cast<Item *>(kor_wavl_normalize(n, 1))->tag);
    EXPECT_EQ(seen, (std::vector<int>{0, 0, 0, 1, 1, 1}));

    // Deleting needs the link of this very tree.
    EXPECT_EQ(kor_wavl_delete(&keys, &items[2].links[1]), nullptr);
    EXPECT_EQ(kor_wavl_delete(&keys, twin.links), nullptr);
    EXPECT_EQ(kor_wavl_delete(&keys, &items[2].links[0]), &items[2].links[0]);
    EXPECT_EQ(kor_wavl_delete(&keys, &items[2].links[0]), nullptr);
    EXPECT_EQ(keys.count, 5u);
    EXPECT_EQ(kor_wavl_tree_finish(&keys), static_cast<uint32_t>(EBUSY));

    for (kor_wavl_tree *tree : {&keys, &tags}) {
        while (kor_wavl_node *n = kor_wavl_get_first(tree, tree->key_index)) ASSERT_EQ(kor_wavl_delete(tree, n), n);
        EXPECT_EQ(kor_wavl_tree_finish(tree), 0u);
        EXPECT_EQ(kor_wavl_insert(tree, items[0].links), nullptr); // retired
        EXPECT_EQ(kor_wavl_tree_finish(tree), static_cast<uint32_t>(EINVAL));
    }
    EXPECT_EQ(kor_wavl_tree_init(&keys, 1, KOR_WAVL_MAX_KEYS, by_key), static_cast<uint32_t>(EINVAL));
    EXPECT_EQ(kor_wavl_init(twin.links, 0), static_cast<uint32_t>(EINVAL));
    EXPECT_EQ(kor_wavl_normalize(nullptr, 1), nullptr);
}

} // namespace
