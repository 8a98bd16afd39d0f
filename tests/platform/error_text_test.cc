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
    EXPECT_STREQ(error_code_text(TOV_RC_NO_MEMORY), "out of memory");
    for (int32_t codec = -1; codec >= -4; --codec) {
        std::string text = error_code_text(static_cast<uint32_t>(codec));
        EXPECT_EQ(text.rfind("codec: ", 0), 0u) << codec;
    }
    EXPECT_STREQ(error_code_text(ENOMEM), "Cannot allocate memory");
    EXPECT_STREQ(error_code_text(ENOENT), "No such file or directory");
    EXPECT_STREQ(error_code_text(0x12345678u), "unknown error code");
}
