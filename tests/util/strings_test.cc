#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tov/kor_alloc.h"
#include "tov/kor_hashmap.h"
#include "tov/result.h"
#include "tov/strings.h"

namespace {

const char *const kLabel = "test: strings";

uint64_t live_blocks() {
    kor_named_stats s{};
    kor_named_get_stats(nullptr, &s);
    return s.live_blocks;
}

// Takes a returned string and releases it.
std::optional<std::string> take(char *s) {
    if (s == nullptr) return std::nullopt;
    std::string copy(s);
    kor_named_free(s);
    return copy;
}

// Blanks at both ends around a body of letters and commas, exactly `len` characters long.
std::string limit_text(size_t len) {
    std::string s(len, ' ');
    for (size_t i = 2; i + 2 < len; ++i) s[i] = "ab,c"[i % 4];
    return s;
}

std::string trimmed(std::string s, bool left) {
    auto not_space = [](unsigned char c) { return !std::isspace(c); };
    s.erase(std::find_if(s.rbegin(), s.rend(), not_space).base(), s.end());
    if (left) s.erase(s.begin(), std::find_if(s.begin(), s.end(), not_space));
    return s;
}

struct LimitCase {
    const char *name;
    std::function<std::optional<std::string>(std::string &)> run; // nullopt: refused
    std::function<std::string(std::string)> model;
};

TEST(StringLimit, OneUnderTheLimitIsWholeAndAtTheLimitIsRefused) {
    auto same = [](std::string s) { return s; };
    std::vector<LimitCase> cases = {
        {"tov_strdup", [](std::string &s) { return take(tov_strdup(s.c_str(), kLabel)); }, same},
        {"tov_strdup_concat",
         [](std::string &s) -> std::optional<std::string> {
             std::string a = s.substr(0, 100), b = s.substr(100);
             char *joined = reinterpret_cast<char *>(1);
             uint32_t rc = tov_strdup_concat(a.c_str(), b.c_str(), kLabel, &joined);
             if (rc != 0) {
                 EXPECT_EQ(rc, TOV_RC_BAD_ARGUMENT);
             }
             return take(joined);
         },
         same},
        {"tov_stpcpy",
         [](std::string &s) -> std::optional<std::string> {
             std::string dest(s.size() + 1, '#');
             char *end = tov_stpcpy(dest.data(), s.c_str());
             if (end == nullptr) return std::nullopt;
             EXPECT_EQ(end, dest.data() + s.size());
             return dest.c_str();
         },
         same},
        {"str_replace_multi",
         [](std::string &s) {
             str_pair pair = {"  ", "__"};
             return take(str_replace_multi(s.c_str(), &pair, 1, kLabel));
         },
         [](std::string s) { return "__" + s.substr(2, s.size() - 4) + "__"; }},
        {"tov_string_hash_calc",
         [](std::string &s) -> std::optional<std::string> {
             uint32_t h = tov_string_hash_calc(s.c_str());
             return h == 0 ? std::nullopt : std::optional(std::to_string(h));
         },
         [](std::string s) { return std::to_string(kor_hash_calculate(s.data(), s.size())); }},
        {"tov_safe_strcmp and tov_string_hash_cmp",
         [](std::string &s) -> std::optional<std::string> {
             std::string same_text = s, last_differs = s;
             last_differs.back() = 'x';
             int d_same = 0, d_last = 0;
             uint32_t rc1 = tov_safe_strcmp(s.c_str(), TOV_STR_MAX, same_text.c_str(), &d_same);
             uint32_t rc2 = tov_safe_strcmp(s.c_str(), TOV_STR_MAX, last_differs.c_str(), &d_last);
             int eq = tov_string_hash_cmp(s.c_str(), same_text.c_str());
             if (rc1 != 0 || rc2 != 0) {
                 EXPECT_EQ(rc1, TOV_RC_BAD_ARGUMENT);
                 EXPECT_NE(d_same, 0); // a refused comparison never reads as equal
                 EXPECT_EQ(eq, 0);
                 return std::nullopt;
             }
             return std::to_string(d_same) + (d_last < 0 ? "<" : "?") + std::to_string(eq);
         },
         [](std::string) { return std::string("0<1"); }},
        {"str_trim",
         [](std::string &s) -> std::optional<std::string> {
             int rc = str_trim(s.data());
             if (rc != 0) {
                 EXPECT_EQ(rc, TOV_ESUNTERM);
             }
             return rc == 0 ? std::optional(std::string(s.c_str())) : std::nullopt;
         },
         [](std::string s) { return trimmed(s, true); }},
        {"str_rtrim",
         [](std::string &s) {
             return str_rtrim(s.data()) ? std::optional(std::string(s.c_str())) : std::nullopt;
         },
         [](std::string s) { return trimmed(s, false); }},
        {"str_to_upper",
         [](std::string &s) { return str_to_upper(s.data()) ? std::optional(s) : std::nullopt; },
         [](std::string s) {
             for (char &c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
             return s;
         }},
        {"chr_replace",
         [](std::string &s) {
             int rc = chr_replace(s.data(), ',', ';');
             if (rc != 0) {
                 EXPECT_EQ(rc, TOV_ESUNTERM);
             }
             return rc == 0 ? std::optional(s) : std::nullopt;
         },
         [](std::string s) { return std::replace(s.begin(), s.end(), ',', ';'), s; }},
        {"str_arr_tokenize",
         [](std::string &s) -> std::optional<std::string> {
             uint32_t n = 99;
             char **tokens = str_arr_tokenize(s.data(), ",", &n);
             if (tokens == nullptr) {
                 EXPECT_EQ(n, 0u);
                 return std::nullopt;
             }
             std::string joined;
             for (uint32_t i = 0; i < n; ++i) joined += std::string(tokens[i]) + "|";
             kor_named_free(tokens);
             return joined;
         },
         [](std::string s) {
             std::replace(s.begin(), s.end(), ',', '|');
             return s + "|";
         }},
    };
    const uint64_t live = live_blocks();
    for (const LimitCase &c : cases) {
        SCOPED_TRACE(c.name);
        std::string under = limit_text(TOV_STR_MAX - 1), at = limit_text(TOV_STR_MAX);
        std::string expected = c.model(under);
        EXPECT_EQ(c.run(under), expected);
        EXPECT_EQ(c.run(at), std::nullopt);
        EXPECT_EQ(at, limit_text(TOV_STR_MAX)); // refused in place means untouched
        EXPECT_EQ(live_blocks(), live);
    }
}

TEST(Strings, DocumentedEdgeCases) {
    char *joined = reinterpret_cast<char *>(1);
    EXPECT_EQ(tov_strdup_concat("a", nullptr, kLabel, &joined), 0u);
    EXPECT_EQ(joined, nullptr);
    EXPECT_EQ(tov_strdup_concat("a", "b", kLabel, nullptr), TOV_RC_BAD_ARGUMENT);

    char blanks[] = "   ", left[] = "  a ", mixed[] = "\t\v x y\r\n\f";
    EXPECT_STREQ(str_rtrim(blanks), "");
    EXPECT_EQ(str_ltrim(left), 0);
    EXPECT_STREQ(left, "a ");
    EXPECT_EQ(str_trim(mixed), 0);
    EXPECT_STREQ(mixed, "x y");

    EXPECT_EQ(tov_count_char_occurences("a,b,,c", 0), 0u);
    EXPECT_EQ(tov_count_char_occurences("a,b,,c", ','), 3u);

    char *token = nullptr;
    tov_tokenize_and_get_token("a,b,c", ",", 2, &token);
    EXPECT_EQ(take(token), "c");
    tov_tokenize_and_get_token("a,b,c", ",", 3, &token);
    EXPECT_EQ(token, nullptr);

    char buf[16];
    EXPECT_STREQ(tov_stpcpy(tov_stpcpy(tov_stpcpy(buf, "ns1"), ":"), "if"), "");
    EXPECT_STREQ(buf, "ns1:if");
    EXPECT_EQ(tov_stpcpy(buf, nullptr), buf);

    int diff = 0; // libsafec zeroes the difference when it fails; the wrapper must not
    EXPECT_EQ(tov_safe_strcmp(nullptr, 8, "a", &diff), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(diff, 1);
    EXPECT_EQ(tov_safe_strcmp("abc", 2, "abc", &diff), TOV_RC_BAD_ARGUMENT); // unterminated
    EXPECT_EQ(tov_safe_strcmp("abc", 4, "abd", &diff), 0u);
    EXPECT_LT(diff, 0);
    char small[4] = "ab";
    EXPECT_EQ(tov_safe_strncat(small, sizeof small, "cd", 0), 0u);
    EXPECT_EQ(tov_safe_strncat(small, sizeof small, "cd", 2), TOV_RC_BAD_ARGUMENT); // no room
    EXPECT_EQ(tov_safe_strncpy(small, sizeof small, "xyz", 3), 0u);
    EXPECT_STREQ(small, "xyz");
}

// Fails each allocation of `call` in turn until it gets through; every failure must give the
// function's failure result and leave nothing allocated. Returns the number of allocations.
uint64_t allocation_points(const std::function<bool()> &call) {
    const uint64_t live = live_blocks();
    for (uint64_t k = 1; k < 1000; ++k) {
        kor_named_fail_nth(k);
        bool succeeded = call();
        kor_named_fail_nth(0);
        EXPECT_EQ(live_blocks(), live) << "after failing allocation " << k;
        if (succeeded) return k - 1;
    }
    return 0;
}

TEST(Strings, EveryAllocationFailureIsReportedAndLeaksNothing) {
    EXPECT_EQ(allocation_points([] { return take(tov_strdup("abc", kLabel)).has_value(); }), 1u);
    EXPECT_EQ(allocation_points([] {
                  char *j = nullptr;
                  uint32_t rc = tov_strdup_concat("ab", "cd", kLabel, &j);
                  if (rc != 0) {
                      EXPECT_EQ(rc, TOV_RC_NO_MEMORY);
                  }
                  return take(j) == "abcd";
              }),
              1u);
    EXPECT_EQ(allocation_points([] {
                  char *t = nullptr;
                  tov_tokenize_and_get_token("x y z", " ", 1, &t);
                  return take(t) == "y";
              }),
              2u);
    // Five slots, then five more at a time: eleven tokens need the array grown twice.
    EXPECT_EQ(allocation_points([] {
                  char text[] = "a b c d e f g h i j k";
                  uint32_t n = 0;
                  char **tokens = str_arr_tokenize(text, " ", &n);
                  kor_named_free(tokens);
                  return tokens != nullptr && n == 11;
              }),
              3u);
    // Beyond the stack table the work table is one more allocation.
    for (uint32_t pairs : {3u, 60u}) {
        std::vector<str_pair> p(pairs, str_pair{"b", "B"});
        EXPECT_EQ(allocation_points([&] {
                      return take(str_replace_multi("abc", p.data(), pairs, kLabel)) == "aBc";
                  }),
                  pairs > 54 ? 2u : 1u);
    }
}

} // namespace
