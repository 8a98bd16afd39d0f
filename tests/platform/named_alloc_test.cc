// SPDX-License-Identifier: BSD-3-Clause
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/alloc.hpp"
#include "tov/kor_alloc.h"

namespace {

using tov::test::stats;

// Peaks and totals accumulate per label for the life of the process, so each run of a test counts
// under a label of its own: repeated runs then see the same figures.
std::string fresh_label(const char *what) {
    static int runs = 0;
    return std::string(what) + " #" + std::to_string(++runs);
}

// Live blocks, live bytes, peak blocks and peak bytes of a label.
std::array<uint64_t, 4> figures(const char *label) {
    const kor_named_stats s = stats(label);
    return {s.live_blocks, s.live_bytes, s.peak_blocks, s.peak_bytes};
}

TEST(NamedAlloc, CountsLiveAndPeakPerLabel) {
    const std::string name = fresh_label("test: live and peak");
    const char *label = name.c_str();
    void *a = kor_named_malloc(10, label, 0);
    void *b = kor_named_calloc(4, 8, label, 0);
    ASSERT_TRUE(a && b);
    for (int i = 0; i < 32; ++i) EXPECT_EQ(static_cast<unsigned char *>(b)[i], 0);
    EXPECT_EQ(figures(label), (std::array<uint64_t, 4>{2, 42, 2, 42}));
    kor_named_free(a);
    EXPECT_EQ(figures(label), (std::array<uint64_t, 4>{1, 32, 2, 42}));

    // Growing keeps the contents and moves the bytes to the new size.
    std::memset(b, 0x5a, 32);
    void *c = kor_named_realloc(b, 100, label, 0);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(static_cast<unsigned char *>(c)[31], 0x5a);
    EXPECT_EQ(figures(label), (std::array<uint64_t, 4>{1, 100, 2, 100}));
    EXPECT_EQ(kor_named_realloc(c, 0, label, 0), nullptr);
    EXPECT_EQ(stats(label).live_blocks, 0u);
    EXPECT_EQ(kor_named_free(nullptr), 0u);
    kor_named_stats unknown;
    EXPECT_EQ(kor_named_get_stats("test: never used", &unknown), -1);
    EXPECT_EQ(unknown.total_blocks, 0u);
}

TEST(NamedAlloc, FailsTheNthCallOnlyAndKeepsReallocBlock) {
    const char *label = "test: fail nth";
    kor_named_fail_nth(2);
    void *a = kor_named_malloc(1, label, 0), *b = kor_named_malloc(1, label, 0), *c = kor_named_malloc(1, label, 0);
    EXPECT_TRUE(a && !b && c);
    kor_named_fail_nth(1);
    EXPECT_EQ(kor_named_realloc(a, 64, label, 0), nullptr); // old block stays valid and counted
    EXPECT_EQ(stats(label).live_blocks, 2u);
    kor_named_free(a);
    kor_named_free(c);
    kor_named_fail_nth(0);
    EXPECT_EQ(stats(label).live_blocks, 0u);
    EXPECT_EQ(kor_named_calloc(SIZE_MAX / 2, 4, label, 0), nullptr); // overflow, not a short block
}

TEST(NamedAlloc, AccountingHoldsAcrossThreads) {
    const std::string name = fresh_label("test: threads");
    const char *label = name.c_str();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([label] {
            for (int i = 0; i < 2000; ++i) kor_named_free(kor_named_malloc(16, label, 0));
        });
    for (auto &t : threads) t.join();
    EXPECT_EQ(stats(label).live_blocks, 0u);
    EXPECT_EQ(stats(label).total_blocks, 8000u);
    void *left = kor_named_malloc(3, label, 0);
    EXPECT_GE(kor_named_report_live(nullptr), 1u);
    kor_named_free(left);
}

} // namespace
