#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "tov/kor_alloc.h"
#include "tov/kor_hashmap.h"
#include "tov/strings.h"

namespace {

const char *const kKeyLabel = "test: hash map keys";

kor_named_stats stats(const char *label) {
    kor_named_stats s{};
    kor_named_get_stats(label, &s);
    return s;
}

// Only 64 distinct hashes: most lookups meet keys of the same hash that are not equal.
uint32_t crowded_hash(const void *key) { return tov_string_hash_calc(key) % 64; }

void *as_value(uintptr_t v) { return reinterpret_cast<void *>(v); }

using Model = std::unordered_map<std::string, uintptr_t>;

// Every entry, walked with first/next; each key must come exactly once.
Model walk(const kor_hashmap *map) {
    Model seen;
    for (kor_hashmap_tuple *t = kor_hashmap_first(map); t; t = kor_hashmap_next(map, t)) {
        bool fresh = seen.emplace(static_cast<const char *>(kor_hashmap_key(t)),
                                  reinterpret_cast<uintptr_t>(kor_hashmap_value(t)))
                         .second;
        EXPECT_TRUE(fresh);
    }
    return seen;
}

struct Sweep {
    Model *model;
    std::mt19937 *rng;
    size_t visited = 0;
};

// Removes about a third of the entries while the map is being iterated, freeing each key before
// its tuple goes, as owners of string keys do.
int remove_some(kor_hashmap *map, kor_hashmap_tuple *tuple, void *ctx) {
    auto *sweep = static_cast<Sweep *>(ctx);
    ++sweep->visited;
    if ((*sweep->rng)() % 3 != 0) return 0;
    auto *key = static_cast<char *>(kor_hashmap_key(tuple));
    EXPECT_EQ(sweep->model->erase(key), 1u);
    kor_named_free(key);
    EXPECT_EQ(kor_hashmap_remove_tuple(map, tuple), 0);
    return 0;
}

int remove_all(kor_hashmap *map, kor_hashmap_tuple *tuple, void *) {
    kor_named_free(kor_hashmap_key(tuple));
    return kor_hashmap_remove_tuple(map, tuple);
}

TEST(HashMap, RandomOperationsAgreeWithStdUnorderedMap) {
    const uint64_t live = stats(nullptr).live_blocks;
    for (kor_hashmap_hash_fn hash : {tov_string_hash_calc, crowded_hash}) {
        kor_hashmap *map = nullptr;
        ASSERT_EQ(kor_hashmap_create(&map, KOR_HASHMAP_DEFAULT_SIZE, hash, tov_string_hash_cmp), 0);
        Model model;
        std::mt19937 rng(7 + (hash == crowded_hash));
        for (uint32_t op = 0; op < 150000; ++op) {
            std::string key = "key-" + std::to_string(rng() % 4000);
            uint32_t dice = rng() % 100;
            if (dice < 50) {
                char *copy = tov_strdup(key.c_str(), kKeyLabel);
                int rc = kor_hashmap_insert(map, copy, as_value(op));
                bool fresh = model.emplace(key, op).second;
                ASSERT_EQ(rc, fresh ? 0 : EEXIST);
                if (!fresh) kor_named_free(copy);
            } else if (dice < 99) {
                void *value = nullptr;
                int rc = kor_hashmap_get(map, key.c_str(), &value);
                auto it = model.find(key);
                ASSERT_EQ(rc, it == model.end() ? ENOENT : 0);
                if (rc == 0) {
                    ASSERT_EQ(value, as_value(it->second));
                }
            } else {
                Sweep sweep{&model, &rng};
                size_t before = model.size();
                ASSERT_EQ(kor_hashmap_iterate(map, remove_some, &sweep), 0);
                EXPECT_EQ(sweep.visited, before);
                ASSERT_EQ(kor_hashmap_size(map), model.size());
                ASSERT_EQ(walk(map), model);
            }
        }
        EXPECT_EQ(kor_hashmap_iterate(map, remove_all, nullptr), 0);
        EXPECT_EQ(kor_hashmap_size(map), 0u);
        kor_hashmap_free(map);
    }
    EXPECT_EQ(stats(kKeyLabel).live_blocks, 0u);
    EXPECT_EQ(stats(nullptr).live_blocks, live);
}

int stop_at_second(kor_hashmap *, kor_hashmap_tuple *, void *ctx) {
    return ++*static_cast<int *>(ctx) == 2 ? 42 : 0;
}

TEST(HashMap, HandlesAndArgumentsAreChecked) {
    kor_hashmap *map = reinterpret_cast<kor_hashmap *>(1), *other = nullptr;
    EXPECT_EQ(kor_hashmap_create(&map, 0, nullptr, tov_string_hash_cmp), EINVAL);
    EXPECT_EQ(map, nullptr);
    ASSERT_EQ(kor_hashmap_create(&map, 100, tov_string_hash_calc, tov_string_hash_cmp), 0);
    ASSERT_EQ(kor_hashmap_create(&other, 0, tov_string_hash_calc, tov_string_hash_cmp), 0);
    EXPECT_EQ(kor_hashmap_first(map), nullptr);
    char a[] = "urn:a", b[] = "urn:b", a_again[] = "urn:a";
    EXPECT_EQ(kor_hashmap_insert(map, a, nullptr), 0); // a null value is a value
    EXPECT_EQ(kor_hashmap_insert(map, a_again, b), EEXIST);
    EXPECT_EQ(kor_hashmap_insert(map, b, b), 0);
    EXPECT_EQ(kor_hashmap_insert(map, nullptr, b), EINVAL);
    EXPECT_EQ(kor_hashmap_insert(other, a, b), 0); // the same key pointer in another map
    void *value = b;
    EXPECT_EQ(kor_hashmap_get(map, a_again, &value), 0);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(kor_hashmap_get(map, "urn:c", nullptr), ENOENT);

    kor_hashmap_tuple *foreign = kor_hashmap_first(other);
    EXPECT_EQ(kor_hashmap_next(map, foreign), nullptr);
    EXPECT_EQ(kor_hashmap_remove_tuple(map, foreign), ENOENT);
    EXPECT_EQ(kor_hashmap_size(map), 2u);
    int calls = 0;
    EXPECT_EQ(kor_hashmap_iterate(map, stop_at_second, &calls), 42);
    EXPECT_EQ(kor_hashmap_iterate(nullptr, stop_at_second, &calls), EINVAL);
    kor_hashmap_free(map);
    kor_hashmap_free(other);

    EXPECT_EQ(kor_hash_calculate("a", 1), 0xe40c292cu); // FNV-1a reference values
    EXPECT_EQ(kor_hash_calculate("foobar", 6), 0xbf9cf968u);
}

TEST(HashMap, OutOfMemoryLeavesTheMapUnchanged) {
    std::vector<std::string> keys;
    for (int i = 0; i < 40; ++i) keys.push_back("k" + std::to_string(i));
    const uint64_t live = stats(nullptr).live_blocks;
    for (uint64_t k = 1;; ++k) {
        kor_named_fail_nth(k);
        bool failed = false;
        kor_hashmap *map = nullptr;
        if (kor_hashmap_create(&map, 0, tov_string_hash_calc, tov_string_hash_cmp) == ENOMEM) {
            EXPECT_EQ(map, nullptr);
            failed = true;
        } else {
            for (uint32_t i = 0; i < keys.size(); ++i) {
                int rc = kor_hashmap_insert(map, keys[i].data(), nullptr);
                if (rc == ENOMEM) {
                    failed = true;
                    EXPECT_EQ(kor_hashmap_size(map), i);
                    EXPECT_EQ(kor_hashmap_get(map, keys[i].c_str(), nullptr), ENOENT);
                    rc = kor_hashmap_insert(map, keys[i].data(), nullptr); // only one call fails
                }
                ASSERT_EQ(rc, 0);
            }
            EXPECT_EQ(walk(map).size(), keys.size());
            kor_hashmap_free(map);
        }
        kor_named_fail_nth(0);
        EXPECT_EQ(stats(nullptr).live_blocks, live);
        if (!failed) break;
    }
}

} // namespace
