// SPDX-License-Identifier: BSD-3-Clause
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "support/alloc.hpp"
#include "tov/kor_hashmap.h"
#include "tov/strings.h"

namespace {

TEST(HashMap, FailedAllocationsLeaveTheMapUnchanged) {
    std::vector<std::string> keys;
    for (int i = 0; i < 40; ++i) keys.push_back(std::string("k") + std::to_string(i));
    EXPECT_GT(tov::test::allocation_points([&] { // the map, its buckets as they grow, each node
                  kor_hashmap *map = nullptr;
                  if (kor_hashmap_create(&map, 0, tov_string_hash_calc, tov_string_hash_cmp) != 0)
                      return false;
                  bool all = true;
                  for (std::string &k : keys) {
                      const bool in = kor_hashmap_insert(map, k.data(), nullptr) == 0;
                      all = all && in;
                      EXPECT_EQ(kor_hashmap_get(map, k.c_str(), nullptr), in ? 0 : ENOENT);
                  }
                  all = all && kor_hashmap_size(map) == keys.size();
                  kor_hashmap_free(map);
                  return all;
              }),
              41u);
    EXPECT_EQ(kor_hash_calculate("foobar", 6), 0xbf9cf968u); // FNV-1a reference value
}

} // namespace
