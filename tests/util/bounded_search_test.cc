// SPDX-License-Identifier: BSD-3-Clause
#include <gtest/gtest.h>

#include <safe_str_lib.h>

#include <functional>
#include <string>
#include <vector>

#include "tov/strings.h"

namespace {

// What reaches libsafec's string constraint handler, as "message/code".
std::vector<std::string> reports;
void capture_reports() {
    set_str_constraint_handler_s([](const char *msg, void *, errno_t code) {
        reports.push_back(std::string(msg) + "/" + std::to_string(code));
    });
    reports.clear();
}

struct Args {
    const char *dest = "abc", *src = "b";
    size_t dmax = 4, slen = 2;
    char ch = 'b';
    bool out_null = false;
};
struct Check {
    std::function<void(Args &)> breaks;
    std::string report; // "message/code"
};
const size_t kBig = size_t{TOV_STR_SEARCH_MAX} + 1;
const Check kOut{[](Args &a) { a.out_null = true; }, ""},
    kDest{[](Args &a) { a.dest = nullptr; }, ""}, kSrc{[](Args &a) { a.src = nullptr; }, ""},
    kDmax0{[](Args &a) { a.dmax = 0; }, ""}, kDmaxBig{[](Args &a) { a.dmax = kBig; }, ""},
    kSlen0{[](Args &a) { a.slen = 0; }, ""}, kSlenBig{[](Args &a) { a.slen = kBig; }, ""};
Check with(Check c, std::string report) { return c.report = std::move(report), c; }

// Case k breaks check k and every later one: only check k may be reported, which proves the
// message, the code and the order of the checks. The out pointer is NULL after every failure.
void expect_in_order(const std::function<int(const Args &, char **)> &routine,
                     const std::vector<Check> &checks) {
    capture_reports();
    for (size_t k = 0; k < checks.size(); ++k) {
        Args args;
        for (size_t j = checks.size(); j-- > k;) checks[j].breaks(args);
        char *out = const_cast<char *>("untouched");
        int rc = routine(args, args.out_null ? nullptr : &out);
        EXPECT_EQ(std::to_string(rc), checks[k].report.substr(checks[k].report.rfind('/') + 1));
        EXPECT_EQ(std::exchange(reports, {}), std::vector{checks[k].report});
        EXPECT_TRUE(args.out_null || out == nullptr) << checks[k].report;
    }
}

TEST(BoundedSearch, EveryViolationIsReportedInOrder) {
    expect_in_order([](const Args &a, char **o) { return strchar_s_tmp(a.dest, a.dmax, a.ch, o); },
                    {with(kOut, "strfirstchar_s: index is null/400"), with(kDest, "strfirstchar_s: dest is null/400"),
                     with(kDmax0, "strfirstchar_s: dmax is 0/401"), with(kDmaxBig, "strfirstchar_s: dmax exceeds max/403"),
                     {[](Args &a) { a.dest = "abc", a.dmax = 2, a.ch = 'c'; }, "strfirstchar_s: dest is unterminated/407"}});
    expect_in_order(
        [](const Args &a, char **o) { return strpbrk_s_tmp(a.dest, a.dmax, a.src, a.slen, o); },
        {with(kOut, "strpbrk_s: count is null/400"), with(kDest, "strpbrk_s: dest is null/400"),
         with(kSrc, "strpbrk_s: src is null/400"), with(kDmax0, "strpbrk_s: dmax is 0/401"),
         with(kDmaxBig, "strpbrk_s: dmax exceeds max/403"), with(kSlen0, "strpbrk_s: slen is 0/401"),
         with(kSlenBig, "strpbrk_s: slen exceeds max/403"),
         {[](Args &a) { a.src = "xyz", a.slen = 2; }, "strpbrk_s: src is unterminated/407"},
         {[](Args &a) { a.dest = "abcz", a.dmax = 3, a.src = "z"; }, "strpbrk_s: dest is unterminated/407"}});
    expect_in_order([](const Args &a, char **o) { return strrchar_s_tmp(a.dest, a.dmax, a.ch, o); },
                    {with(kOut, "strlastchar_s: last is null/400"), with(kDest, "strlastchar_s: dest is null/400"),
                     with(kDmax0, "strlastchar_s: dmax is 0/401"), with(kDmaxBig, "strlastchar_s: dmax exceeds max/403"),
                     {[](Args &a) { a.dest = "abab", a.dmax = 3; }, // a match does not count
                      "strlastchar_s: dest is unterminated/407"}});
    expect_in_order(
        [](const Args &a, char **o) { return strstr_s_tmp(a.dest, a.dmax, a.src, a.slen, o); },
        {with(kOut, "strstr_s: substring is null/400"), with(kDest, "strstr_s: dest is null/400"),
         with(kDmax0, "strstr_s: dmax is 0/401"), with(kDmaxBig, "strstr_s: dmax exceeds max/403"),
         with(kSrc, "strstr_s: src is null/400"), with(kSlen0, "strstr_s: slen is 0/401"),
         with(kSlenBig, "strstr_s: slen exceeds max/403"),
         {[](Args &a) { a.dest = "aaaa", a.dmax = 2; }, "strstr_s: dest is unterminated/407"},
         {[](Args &a) { a.dest = "xxbbyy", a.dmax = 10, a.src = "bbb"; }, "strstr_s: src is unterminated/407"}});
}

TEST(BoundedSearch, FindsWithoutReporting) {
    capture_reports();
    const char s[] = "a/b/c";
    char *o = nullptr;
    EXPECT_TRUE(strchar_s_tmp(s, 6, '\0', &o) == 0 && o == s + 5); // the terminator
    EXPECT_TRUE(strrchar_s_tmp(s, 6, '/', &o) == 0 && o == s + 3);
    EXPECT_TRUE(strpbrk_s_tmp(s, 6, "cb", 3, &o) == 0 && o == s + 2);
    EXPECT_TRUE(strstr_s_tmp(s, 5, "b/c", 4, &o) == 0 && o == s + 2); // ends at the bound
    EXPECT_EQ(strchar_s_tmp("", 1, 'a', &o) + strstr_s_tmp(s, 6, "c/", 3, &o), 2 * 409);
    EXPECT_TRUE(o == nullptr && reports.empty());
}

} // namespace
