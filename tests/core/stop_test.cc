// SPDX-License-Identifier: BSD-3-Clause
#include <gtest/gtest.h>

#include "core/stop.hpp"

namespace {

TEST(StopDeathTest, NullContextStopsTheProcess) {
    const void *context = nullptr;
    EXPECT_DEATH(TOV_REQUIRE_CONTEXT(context), "");
}

} // namespace
