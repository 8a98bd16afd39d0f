// SPDX-License-Identifier: BSD-3-Clause
// The wire details particular to some messages: defaults, booleans, and edit_config's field order.
// Everything else a message does is the engine's, checked once in engine_test, and every message
// round trips through the corpus, the interop and the fuzz tests.
#include <gtest/gtest.h>

#include "support/records.hpp"
#include "public_codecs.hpp"

namespace tov::test {
namespace {

using namespace detail;

// Decodes into a record full of garbage, to show that decoding starts from the defaults.
template <class T> int32_t decode(const char *message, T &record, const Bytes &in) {
    std::memset(&record, 0xAB, sizeof record);
    return public_codec(message).decode(&record, in.data(), static_cast<uint32_t>(in.size()), nullptr, 0);
}

TEST(Messages, DefaultsBooleansAndFieldOrder) {
    Commit commit;
    ASSERT_EQ(decode("commit", commit, {}), 0);
    EXPECT_EQ(commit.confirm_timeout, 600u);
    EXPECT_EQ(commit.confirmed, 0);
    EXPECT_EQ(commit.persist, nullptr);
    EXPECT_EQ(commit.present[0], 0);
    EXPECT_EQ(encode(kCommit, &commit), Bytes{}) << "a default is not sent";
    ASSERT_EQ(decode("commit", commit, {0x08, 0x02}), 0);
    EXPECT_EQ(commit.confirmed, 1) << "a boolean is kept as 0 or 1";
    EXPECT_EQ(encode(kCommit, &commit), (Bytes{0x08, 0x01}));

    LoggingSet ls;
    ASSERT_EQ(decode("logging_set", ls, {}), 0);
    EXPECT_EQ(ls.value_3, 1u);
    Request r;
    ASSERT_EQ(decode("request", r, {}), 0);
    EXPECT_EQ(r.present[0] | r.present[1] | r.present[2], 0);
    EXPECT_EQ(r.commit.confirm_timeout, 600u) << "payload defaults without the payload";
    EXPECT_EQ(r.logging_set.value_3, 1u);

    // edit_config goes out as fields 1, 2, 4, 3, 5 (protobuf reads it all the same: see interop).
    EditConfig ec{};
    ec.option_2 = 1;
    ec.option_3 = 3;
    ec.option_4 = 4;
    for (unsigned b : {TOV_EDIT_CONFIG_BIT_OPTION_2, TOV_EDIT_CONFIG_BIT_OPTION_3, TOV_EDIT_CONFIG_BIT_OPTION_4})
        tov_bit_set(ec.present, b);
    EXPECT_EQ(encode(kEditConfig, &ec), (Bytes{0x10, 0x01, 0x20, 0x04, 0x18, 0x03}));
}

} // namespace
} // namespace tov::test
