// SPDX-License-Identifier: BSD-3-Clause
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <unordered_map>

#include "support/alloc.hpp"
#include "tov/kor_hashmap.h"
#include "tov/strings.h"

namespace {

using tov::test::live_blocks;
using Model = std::unordered_map<std::string, uintptr_t>;
struct Sweep {
    Model *model;
    std::mt19937 *rng;
    size_t visited = 0;
};

// 64 distinct hashes only: most lookups meet keys of the same hash that are not equal. strcmp is
// checked by AddressSanitizer, so a comparison with a freed key would not go unnoticed.
uint32_t crowded_hash(const void *key) { return tov_string_hash_calc(key) % 64; }
int plain_cmp(const void *a, const void *b) {
    return std::strcmp(static_cast<const char *>(a), static_cast<const char *>(b)) == 0;
}

// Removes about a third of the tuples it is given (all of them without a sweep), freeing each key
// before its tuple, as owners of string keys do.
int remove_some(kor_hashmap *map, kor_hashmap_tuple *tuple, void *ctx) {
    auto *sweep = static_cast<Sweep *>(ctx);
    if (sweep && (++sweep->visited, (*sweep->rng)() % 3 != 0)) return 0;
    auto *key = static_cast<char *>(kor_hashmap_key(tuple));
    if (sweep && sweep->model->erase(key) != 1) ADD_FAILURE() << "visited twice: " << key;
    kor_named_free(key);
    return kor_hashmap_remove_tuple(map, tuple);
}

TEST(HashMap, RandomOperationsAgreeWithStdUnorderedMap) {
    const uint64_t live = live_blocks();
    kor_hashmap *map = nullptr;
    for (kor_hashmap_hash_fn hash : {tov_string_hash_calc, crowded_hash}) {
        kor_hashmap_cmp_fn cmp = hash == crowded_hash ? plain_cmp : tov_string_hash_cmp;
        ASSERT_EQ(kor_hashmap_create(&map, KOR_HASHMAP_DEFAULT_SIZE, hash, cmp), 0);
        Model model;
        std::mt19937 rng(hash == crowded_hash ? 8 : 7);
        for (uint32_t op = 0; op < 150000; ++op) {
            std::string key = "key-" + std::to_string(rng() % 4000);
            uint32_t dice = rng() % 100;
            void *value = nullptr;
            if (dice < 50) {
                char *copy = tov_strdup(key.c_str(), "test: hash map keys");
                bool fresh = model.emplace(key, op).second;
                ASSERT_EQ(kor_hashmap_insert(map, copy, reinterpret_cast<void *>(op)),
                          fresh ? 0 : EEXIST);
                if (!fresh) kor_named_free(copy);
            } else if (dice < 99) {
                auto it = model.find(key);
                ASSERT_EQ(kor_hashmap_get(map, key.c_str(), &value),
                          it == model.end() ? ENOENT : 0);
                ASSERT_EQ(reinterpret_cast<uintptr_t>(value), it == model.end() ? 0 : it->second);
            } else { // removals during iteration, then a walk that must meet each key once
                Sweep sweep{&model, &rng};
                size_t before = model.size();
                ASSERT_EQ(kor_hashmap_iterate(map, remove_some, &sweep), 0);
                EXPECT_EQ(sweep.visited, before);
                ASSERT_EQ(kor_hashmap_size(map), model.size());
                Model seen;
                for (kor_hashmap_tuple *t = kor_hashmap_first(map); t; t = kor_hashmap_next(map, t))
                    seen.emplace(static_cast<const char *>(kor_hashmap_key(t)),
                                 reinterpret_cast<uintptr_t>(kor_hashmap_value(t)));
                ASSERT_EQ(seen, model);
            }
        }
        EXPECT_EQ(kor_hashmap_iterate(map, remove_some, nullptr), 0);
        EXPECT_EQ(kor_hashmap_size(map), 0u);
        kor_hashmap_free(map);
    }
    EXPECT_EQ(live_blocks(), live);
    EXPECT_EQ(kor_hash_calculate("foobar", 6), 0xbf9cf968u); // FNV-1a reference value
}

TEST(HashMap, FailedAllocationsLeaveTheMapUnchanged) {
    std::vector<std::string> keys;
    for (int i = 0; i < 40; ++i) keys.push_back(std::string("k") + std::to_string(i));
    EXPECT_GT(tov::test::allocation_points([&] { // the map, its buckets as they grow, each node
                  kor_hashmap *map = nullptr;
                  if (kor_hashmap_create(&map, 0, tov_string_hash_calc, tov_string_hash_cmp) != 0)
                      return false;
                  bool all = true;
                  for (std::string &k : keys) {
                      if (kor_hashmap_insert(map, k.data(), nullptr) == 0) continue;
                      all = false;
                      EXPECT_EQ(kor_hashmap_get(map, k.c_str(), nullptr), ENOENT);
                  }
                  all = all && kor_hashmap_size(map) == keys.size();
                  kor_hashmap_free(map);
                  return all;
              }),
              41u);
}

} // namespace
