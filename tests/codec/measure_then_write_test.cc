// SPDX-License-Identifier: BSD-3-Clause
// A writing call that follows a measuring call on the same record starts from the length just
// measured. The record may change in between; what is written must still be that record, as a
// fresh encoding of a copy at another address (which cannot reuse the measurement) writes it.
#include <gtest/gtest.h>

#include "support/records.hpp"

namespace tov::test {
namespace {

uint32_t encode_tree(const DataTree &t, uint8_t *out, uint32_t capacity, TovSpan *spans = nullptr,
                     uint32_t *count = nullptr) {
    return kesh_tov_datatree_encode_ext(&t, out, capacity, spans, count, 0);
}

TEST(Encode, ARecordChangedBetweenMeasuringAndWritingIsWrittenAsItIsNow) {
    DataTree kids[2]{}, root{};
    kids[1].name = text("mtu");
    tov_bit_set(kids[1].present, TOV_DATATREE_BIT_NAME);
    tov_bit_set(kids[1].present, TOV_DATATREE_BIT_VALUE);
    root.children = kids;
    root.children_count = 2;
    tov_bit_set(root.present, TOV_DATATREE_BIT_CHILDREN);

    // The value written after measuring: the same length, shorter, longer; and last, an empty
    // first child that gains two bytes while the value loses two, so that only the number of
    // non-empty encodings differs.
    for (const char *now : {"9000", "", "65535 bytes", "15"}) {
        SCOPED_TRACE(now);
        auto change = [&](bool changed) {
            kids[1].value = text(changed ? now : "1500");
            if (changed && std::string(now) == "15")
                tov_bit_set(kids[0].present, TOV_DATATREE_BIT_OPERATION);
            else
                tov_bit_clear(kids[0].present, TOV_DATATREE_BIT_OPERATION);
        };
        change(false);
        const uint32_t measured = encode_tree(root, nullptr, 0);

        // The reference: a copy elsewhere, written twice over two fillings to tell which bytes
        // a short capacity leaves alone.
        change(true);
        const DataTree copy = root;
        const uint32_t total = encode_tree(copy, nullptr, 0);
        Bytes want(measured + 8, 0x11), alone(measured + 8, 0x22), got(measured + 8, 0x11);
        TovSpan want_spans[4], got_spans[4];
        uint32_t want_count = 4, got_count = 4;
        encode_tree(copy, want.data(), measured, want_spans, &want_count);
        encode_tree(copy, alone.data(), measured);

        change(false);
        ASSERT_EQ(encode_tree(root, nullptr, 0), measured);
        change(true);
        ASSERT_EQ(encode_tree(root, got.data(), measured, got_spans, &got_count), total);
        ASSERT_EQ(got_count, want_count);
        for (uint32_t i = 0; i < std::min(total, measured); ++i)
            if (want[i] == alone[i]) {
                EXPECT_EQ(got[i], want[i]) << i;
            }
        for (uint32_t i = measured; i < got.size(); ++i) EXPECT_EQ(got[i], 0x11) << "wrote past the capacity";
        for (uint32_t i = 0; i < std::min(want_count, 4u); ++i) {
            EXPECT_EQ(got_spans[i].length, want_spans[i].length) << i;
            EXPECT_EQ(got_spans[i].start ? got_spans[i].start - got.data() : -1,
                      want_spans[i].start ? want_spans[i].start - want.data() : -1) << i;
        }
    }
}

} // namespace
} // namespace tov::test
