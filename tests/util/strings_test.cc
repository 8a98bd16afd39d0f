// SPDX-License-Identifier: BSD-3-Clause
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "support/alloc.hpp"
#include "tov/kor_hashmap.h"
#include "tov/result.h"
#include "tov/strings.h"

namespace {

using tov::test::allocation_points;
using tov::test::take;
const char *const kLabel = "test: strings";

TEST(StringLimit, OneUnderTheLimitIsWholeAndAtTheLimitIsRefused) {
    for (size_t len : {size_t{TOV_STR_MAX} - 1, size_t{TOV_STR_MAX}}) {
        SCOPED_TRACE(len);
        const bool fits = len < TOV_STR_MAX;
        std::string s = "  " + std::string(len - 4, 'a') + " \n", other = s; // trimmable ends
        other.back() = 'b';
        char *joined = nullptr;
        EXPECT_EQ(take(tov_strdup(s.c_str(), kLabel)), fits ? std::optional(s) : std::nullopt);
        EXPECT_EQ(tov_strdup_concat("", s.c_str(), kLabel, &joined),
                  fits ? 0 : TOV_RC_BAD_ARGUMENT);
        EXPECT_EQ(take(joined), fits ? std::optional(s) : std::nullopt);
        EXPECT_EQ(tov_string_hash_calc(s.c_str()), fits ? kor_hash_calculate(s.data(), len) : 0);
        int diff = 0; // a difference in the last character counts, also in a string at the limit
        EXPECT_EQ(tov_safe_strcmp(s.c_str(), TOV_STR_MAX, other.c_str(), &diff), 0u);
        EXPECT_EQ(diff, '\n' - 'b');
        EXPECT_EQ(tov_string_hash_cmp(s.c_str(), std::string(s).c_str()), fits ? 1 : 0);
        std::string t = s; // in place, the whole string changes or nothing does
        EXPECT_EQ(str_trim(t.data()), fits ? 0 : TOV_ESUNTERM);
        EXPECT_EQ(t.c_str(), fits ? s.substr(2, len - 4) : s);
        EXPECT_EQ(str_rtrim(t.data()) != nullptr, fits);
        EXPECT_EQ(chr_replace(t.data(), 'a', 'b'), fits ? 0 : TOV_ESUNTERM);
        EXPECT_EQ(t.c_str(), fits ? std::string(len - 4, 'b') : s);
    }
}

// dest ends at a page that cannot be read: a comparison that looked at dest[dmax] would crash.
TEST(Strings, SafeStrcmpAnswersAsStrcmpSWithoutReadingPastTheBound) {
    const long page = sysconf(_SC_PAGESIZE);
    auto *map = static_cast<char *>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(map, MAP_FAILED);
    ASSERT_EQ(mprotect(map + page, page, PROT_NONE), 0);
    char *abc = map + page - 3;
    std::memcpy(abc, "abc", 3); // unterminated within its 3 bytes
    struct Case {
        const char *dest;
        size_t dmax;
        const char *src;
        uint32_t rc;
        int diff;
    } cases[] = {
        {abc, 3, "abc", 0, 0},           {abc, 3, "abcd", 0, -'d'}, {abc, 3, "abd", 0, 'c' - 'd'},
        {abc, 3, "ab", 0, 'c'},          {"abc", 4, "abc", 0, 0},   {abc, 0, "abc", TOV_RC_BAD_ARGUMENT, 1},
        {nullptr, 3, "abc", TOV_RC_BAD_ARGUMENT, 1},
    };
    for (const Case &c : cases) {
        int diff = 7;
        EXPECT_EQ(tov_safe_strcmp(c.dest, c.dmax, c.src, &diff), c.rc) << c.src;
        EXPECT_EQ(diff, c.diff) << c.src;
    }
    munmap(map, 2 * page);
}

// Every allocation failure is reported and leaks nothing; then the documented edge cases.
TEST(Strings, AllocationFailuresAndEdgeCases) {
    const auto concat = []() -> int64_t {
        char *j = nullptr;
        const uint32_t rc = tov_strdup_concat("ab", "cd", kLabel, &j);
        EXPECT_EQ(take(j), rc ? std::nullopt : std::optional<std::string>("abcd"));
        return rc;
    };
    EXPECT_EQ(allocation_points({concat, 0, TOV_RC_NO_MEMORY}), 1u);
    EXPECT_EQ(allocation_points([] {
                  char *t = nullptr;
                  tov_tokenize_and_get_token("x y z", " ", 2, &t);
                  return take(t) == "z";
              }),
              2u);
    EXPECT_EQ(allocation_points([] { // five slots, then five more at a time: grown twice
                  char text[] = "a b c d e f g h i j k";
                  uint32_t n = 0;
                  char **tokens = str_arr_tokenize(text, " ", &n);
                  kor_named_free(tokens);
                  return tokens != nullptr && n == 11;
              }),
              3u);
    for (uint32_t pairs : {3u, 60u}) { // beyond 54 pairs the work table is allocated too
        std::vector<str_pair> p(pairs, str_pair{"b", "B"});
        EXPECT_EQ(allocation_points([&] { return take(str_replace_multi("abc", p.data(), pairs, kLabel)) == "aBc"; }),
                  pairs > 54 ? 2u : 1u);
    }
    char blanks[] = "   ", *out = blanks; // a token past the last, a NULL part: NULL, and no failure
    tov_tokenize_and_get_token("x y z", " ", 3, &out);
    EXPECT_EQ(out, nullptr);
    out = blanks;
    EXPECT_EQ(tov_strdup_concat("a", nullptr, kLabel, &out), 0u);
    EXPECT_EQ(out, nullptr);
    EXPECT_STREQ(str_rtrim(blanks), "");
    EXPECT_EQ(tov_count_char_occurences("a,b", 0), 0u);
    EXPECT_EQ(tov_string_hash_calc("foobar"), 0xbf9cf968u); // FNV-1a reference value
}

} // namespace
