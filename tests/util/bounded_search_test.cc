#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tests/util/constraint_capture.hpp"
#include "tov/strings.h"

namespace {

using tov_test::ConstraintCapture;
using tov_test::Report;

char *const kUntouched = reinterpret_cast<char *>(static_cast<uintptr_t>(0x1));

// Arguments of every routine in one record, so a case can break several of them at once.
struct Args {
    const char *dest = "abc";
    size_t dmax = 4;
    const char *src = "b";
    size_t slen = 2;
    char ch = 'b';
    bool out_null = false;
};
using Breaker = std::function<void(Args &)>;
struct Check {
    Breaker apply;
    Report expected;
};
using Routine = std::function<int(const Args &, char **)>;

// Case k breaks check k and every check after it; each case must report only check k, which
// proves both the message and the order in which the checks run.
void expect_checks_in_order(const Routine &routine, const std::vector<Check> &checks) {
    ConstraintCapture capture;
    for (size_t k = 0; k < checks.size(); ++k) {
        SCOPED_TRACE("check " + std::to_string(k) + ": " + checks[k].expected.message);
        Args args;
        for (size_t j = checks.size(); j-- > k;) checks[j].apply(args);
        char *out = kUntouched;
        int rc = routine(args, args.out_null ? nullptr : &out);
        EXPECT_EQ(rc, checks[k].expected.code);
        EXPECT_EQ(capture.take(), std::vector<Report>{checks[k].expected});
        if (!args.out_null) {
            EXPECT_EQ(out, nullptr);
        }
    }
}

const size_t kAboveMax = size_t{TOV_STR_SEARCH_MAX} + 1;
Breaker out_null = [](Args &a) { a.out_null = true; };
Breaker dest_null = [](Args &a) { a.dest = nullptr; };
Breaker src_null = [](Args &a) { a.src = nullptr; };
Breaker dmax_zero = [](Args &a) { a.dmax = 0; };
Breaker dmax_big = [](Args &a) { a.dmax = kAboveMax; };
Breaker slen_zero = [](Args &a) { a.slen = 0; };
Breaker slen_big = [](Args &a) { a.slen = kAboveMax; };

TEST(BoundedSearch, StrcharReportsEveryViolationInOrder) {
    expect_checks_in_order(
        [](const Args &a, char **out) { return strchar_s_tmp(a.dest, a.dmax, a.ch, out); },
        {{out_null, {"strfirstchar_s: index is null", 400}},
         {dest_null, {"strfirstchar_s: dest is null", 400}},
         {dmax_zero, {"strfirstchar_s: dmax is 0", 401}},
         {dmax_big, {"strfirstchar_s: dmax exceeds max", 403}},
         {[](Args &a) { a.dest = "abc", a.dmax = 2, a.ch = 'c'; },
          {"strfirstchar_s: dest is unterminated", 407}}});
}

TEST(BoundedSearch, StrpbrkReportsEveryViolationInOrder) {
    expect_checks_in_order(
        [](const Args &a, char **out) { return strpbrk_s_tmp(a.dest, a.dmax, a.src, a.slen, out); },
        {{out_null, {"strpbrk_s: count is null", 400}},
         {dest_null, {"strpbrk_s: dest is null", 400}},
         {src_null, {"strpbrk_s: src is null", 400}},
         {dmax_zero, {"strpbrk_s: dmax is 0", 401}},
         {dmax_big, {"strpbrk_s: dmax exceeds max", 403}},
         {slen_zero, {"strpbrk_s: slen is 0", 401}},
         {slen_big, {"strpbrk_s: slen exceeds max", 403}},
         {[](Args &a) { a.src = "xyz", a.slen = 2; }, {"strpbrk_s: src is unterminated", 407}},
         {[](Args &a) { a.dest = "abcz", a.dmax = 3, a.src = "z"; },
          {"strpbrk_s: dest is unterminated", 407}}});
}

TEST(BoundedSearch, StrrcharReportsEveryViolationInOrder) {
    expect_checks_in_order(
        [](const Args &a, char **out) { return strrchar_s_tmp(a.dest, a.dmax, a.ch, out); },
        {{out_null, {"strlastchar_s: last is null", 400}},
         {dest_null, {"strlastchar_s: dest is null", 400}},
         {dmax_zero, {"strlastchar_s: dmax is 0", 401}},
         {dmax_big, {"strlastchar_s: dmax exceeds max", 403}},
         // A match within dmax does not count while the terminator lies beyond it.
         {[](Args &a) { a.dest = "abab", a.dmax = 3; },
          {"strlastchar_s: dest is unterminated", 407}}});
}

TEST(BoundedSearch, StrstrReportsEveryViolationInOrder) {
    expect_checks_in_order(
        [](const Args &a, char **out) { return strstr_s_tmp(a.dest, a.dmax, a.src, a.slen, out); },
        {{out_null, {"strstr_s: substring is null", 400}},
         {dest_null, {"strstr_s: dest is null", 400}},
         {dmax_zero, {"strstr_s: dmax is 0", 401}},
         {dmax_big, {"strstr_s: dmax exceeds max", 403}},
         {src_null, {"strstr_s: src is null", 400}},
         {slen_zero, {"strstr_s: slen is 0", 401}},
         {slen_big, {"strstr_s: slen exceeds max", 403}},
         {[](Args &a) { a.dest = "aaaa", a.dmax = 2; }, {"strstr_s: dest is unterminated", 407}},
         {[](Args &a) { a.dest = "xxbbyy", a.dmax = 10, a.src = "bbb", a.slen = 2; },
          {"strstr_s: src is unterminated", 407}}});
}

TEST(BoundedSearch, FindsCharactersAndReportsNothingWhenNotFound) {
    ConstraintCapture capture;
    const char s[] = "a/b/c";
    char *out = kUntouched;
    EXPECT_EQ(strchar_s_tmp(s, sizeof s, '/', &out), 0);
    EXPECT_EQ(out, s + 1);
    EXPECT_EQ(strchar_s_tmp(s, sizeof s, '\0', &out), 0); // the terminator itself
    EXPECT_EQ(out, s + 5);
    EXPECT_EQ(strchar_s_tmp(s, 2, 'a', &out), 0); // found before the bound, terminator unseen
    EXPECT_EQ(out, s);
    EXPECT_EQ(strchar_s_tmp(s, sizeof s, 'z', &out), 409);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(strchar_s_tmp("", 1, '\0', &out), 0);
    EXPECT_NE(out, nullptr);
    EXPECT_EQ(strchar_s_tmp("", 1, 'a', &out), 409);

    EXPECT_EQ(strrchar_s_tmp(s, sizeof s, '/', &out), 0);
    EXPECT_EQ(out, s + 3);
    EXPECT_EQ(strrchar_s_tmp(s, sizeof s, '\0', &out), 409);
    EXPECT_EQ(strrchar_s_tmp("", 1, 'a', &out), 409);
    EXPECT_EQ(out, nullptr);

    const char hi[] = "key\xff=value";
    EXPECT_EQ(strpbrk_s_tmp(hi, sizeof hi, "=\xff", 3, &out), 0); // bytes above 127 are members
    EXPECT_EQ(out, hi + 3);
    EXPECT_EQ(strpbrk_s_tmp(hi, sizeof hi, "", 1, &out), 409);
    EXPECT_EQ(strpbrk_s_tmp("", 1, "a", 2, &out), 409);
    EXPECT_EQ(out, nullptr);

    EXPECT_EQ(strstr_s_tmp(s, sizeof s, "", 1, &out), 0);
    EXPECT_EQ(out, s);
    EXPECT_EQ(strstr_s_tmp(s, 2, s, 2, &out), 0); // the same pointer, even unterminated in dmax
    EXPECT_EQ(out, s);
    EXPECT_EQ(strstr_s_tmp(s, sizeof s, "b/c", 4, &out), 0);
    EXPECT_EQ(out, s + 2);
    EXPECT_EQ(strstr_s_tmp(s, 5, "b/c", 4, &out), 0); // the match ends exactly at the bound
    EXPECT_EQ(strstr_s_tmp(s, sizeof s, "c/", 3, &out), 409);
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(capture.take().empty());
}

// The substring search, position by position, as the routine is described: a model to compare the
// routine with on strings and bounds where the two unterminated cases interleave.
int strstr_model(const char *dest, size_t dmax, const char *src, size_t slen, size_t *at) {
    if (*src == '\0') return *at = 0, 0;
    for (size_t pos = 0;; ++pos) {
        if (pos == dmax) return 4071; // string unterminated
        if (dest[pos] == '\0') return 409;
        for (size_t i = 0;; ++i) {
            if (i == slen) return 4072; // substring unterminated
            if (src[i] == '\0') return *at = pos, 0;
            if (pos + i == dmax) return 4071;
            if (dest[pos + i] != src[i]) break;
        }
    }
}

TEST(BoundedSearch, StrstrAgreesWithAPositionByPositionScan) {
    ConstraintCapture capture;
    std::mt19937 rng(20240611);
    auto text = [&](size_t max_len) {
        std::string t(std::uniform_int_distribution<size_t>(0, max_len)(rng), 'a');
        for (char &c : t) c = "ab"[rng() % 2];
        return t;
    };
    for (int round = 0; round < 20000; ++round) {
        std::string dest = text(12), src = text(4);
        size_t dmax = 1 + rng() % (dest.size() + 2), slen = 1 + rng() % (src.size() + 2);
        size_t at = SIZE_MAX;
        int expected = strstr_model(dest.c_str(), dmax, src.c_str(), slen, &at);
        char *out = kUntouched;
        int rc = strstr_s_tmp(dest.c_str(), dmax, src.c_str(), slen, &out);
        std::vector<Report> reports = capture.take();
        SCOPED_TRACE(dest + " " + std::to_string(dmax) + " " + src + " " + std::to_string(slen));
        if (expected == 4071 || expected == 4072) {
            ASSERT_EQ(rc, 407);
            ASSERT_EQ(reports.size(), 1u);
            EXPECT_EQ(reports[0].message, expected == 4071 ? "strstr_s: dest is unterminated"
                                                           : "strstr_s: src is unterminated");
        } else {
            ASSERT_EQ(rc, expected);
            EXPECT_TRUE(reports.empty());
            EXPECT_EQ(out, rc == 0 ? dest.c_str() + at : nullptr);
        }
    }
}

} // namespace
