// SPDX-License-Identifier: BSD-3-Clause
// The named allocator's accounting, which every leak check relies on, and its fault injection,
// which every allocation sweep drives (and so checks in every mode).
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

#include "support/alloc.hpp"

namespace {

using tov::test::stats;

// Peaks and totals accumulate per label for the life of the process, so each run of a test counts
// under a label of its own: repeated runs then see the same figures.
std::string fresh_label(const char *what) {
    static int runs = 0;
    return std::string(what) + " #" + std::to_string(++runs);
}

// Live blocks and bytes, peak blocks and bytes; only the chosen call fails, a failed realloc keeps
// the block, a good one the contents, and calloc refuses an overflowing size, not a short block.
TEST(NamedAlloc, CountsLiveAndPeakPerLabelAndKeepsABlockItCannotGrow) {
    const std::string name = fresh_label("test: live and peak");
    const char *label = name.c_str();
    auto figures = [label] {
        const kor_named_stats s = stats(label);
        return std::array<uint64_t, 4>{s.live_blocks, s.live_bytes, s.peak_blocks, s.peak_bytes};
    };
    void *a = kor_named_malloc(10, label, 0), *b = kor_named_calloc(4, 8, label, 0);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(std::memcmp(b, std::array<char, 32>{}.data(), 32), 0);
    kor_named_free(a);
    EXPECT_EQ(figures(), (std::array<uint64_t, 4>{1, 32, 2, 42}));
    std::memset(b, 0x5a, 32);
    kor_named_fail_nth(2); // the second call only: the realloc, whose block stays
    void *d = kor_named_malloc(1, label, 0);
    EXPECT_EQ(kor_named_realloc(b, 64, label, 0), nullptr);
    kor_named_free(d);
    void *c = kor_named_realloc(b, 100, label, 0);
    kor_named_fail_nth(0);
    ASSERT_TRUE(d && c);
    EXPECT_EQ(static_cast<unsigned char *>(c)[31], 0x5a);
    EXPECT_EQ(figures(), (std::array<uint64_t, 4>{1, 100, 2, 100}));
    EXPECT_EQ(kor_named_realloc(c, 0, label, 0), nullptr);
    EXPECT_EQ(stats(label).live_blocks, 0u);
    EXPECT_EQ(kor_named_calloc(SIZE_MAX / 2, 4, label, 0), nullptr);
    kor_named_stats unknown;
    EXPECT_EQ(kor_named_get_stats("test: never used", &unknown), -1);
}

} // namespace
