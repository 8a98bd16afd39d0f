// Helpers shared by the string and hash map tests.
#pragma once

#include <safe_str_lib.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tov/kor_alloc.h"

namespace tov_test {

inline uint64_t live_blocks(const char *label = nullptr) {
    kor_named_stats s{};
    kor_named_get_stats(label, &s);
    return s.live_blocks;
}

// The text of a returned string, which is released; nullopt for NULL.
inline std::optional<std::string> take(char *s) {
    std::optional<std::string> text = s ? std::optional<std::string>(s) : std::nullopt;
    kor_named_free(s);
    return text;
}

// What reaches libsafec's string constraint handler, as "message/code".
inline std::vector<std::string> reports;
inline void capture_reports() {
    set_str_constraint_handler_s([](const char *msg, void *, errno_t code) {
        reports.push_back(std::string(msg) + "/" + std::to_string(code));
    });
    reports.clear();
}

// Fails each allocation of `call` in turn until it gets through; each failure must leave nothing
// allocated. Returns the number of allocations `call` makes.
inline uint64_t allocation_points(const std::function<bool()> &call) {
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

} // namespace tov_test
