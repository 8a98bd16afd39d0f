// SPDX-License-Identifier: BSD-3-Clause
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>

#include "tov/result.h"

TEST(ErrorText, EveryCodeFamilyHasItsOwnText) {
    std::set<std::string> library;
#define TOV_COLLECT_(name, text) library.insert(error_code_text(name));
    TOV_RESULT_CODES(TOV_COLLECT_)
#undef TOV_COLLECT_
    EXPECT_EQ(library.size(), 7u); // no two library codes share a text
    for (int32_t codec = -1; codec >= -4; --codec)
        EXPECT_EQ(std::string(error_code_text(static_cast<uint32_t>(codec))).rfind("codec: ", 0), 0u) << codec;
    EXPECT_STREQ(error_code_text(ENOENT), "No such file or directory");
    EXPECT_STREQ(error_code_text(0x12345678u), "unknown error code");
}
