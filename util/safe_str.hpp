// SPDX-License-Identifier: BSD-3-Clause
// The safe-string library as the string helpers use it: its headers, the one entry point it
// exports without declaring, and the string limit checks built on its cap.
#pragma once

#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#include <cstddef>
#include <optional>
#include <string_view>

#include "tov/strings.h"

// Exported by libsafec but absent from its public headers.
extern "C" void invoke_safe_str_constraint_handler(const char *msg, void *ptr, errno_t error);

// libsafec refuses any string bound above its own cap, so the library's limit must be exactly it.
static_assert(TOV_STR_MAX == RSIZE_MAX_STR, "TOV_STR_MAX must equal the installed RSIZE_MAX_STR");

namespace tov::detail {

inline constexpr rsize_t kStrMax = TOV_STR_MAX;

// The string as a view when it ends within the library's limit; nothing for null or for a string
// that reaches the limit without its terminator, which callers refuse instead of truncating.
inline std::optional<std::string_view> bounded(const char *s) noexcept {
    if (s == nullptr) return std::nullopt;
    rsize_t len = strnlen_s(s, kStrMax);
    if (len >= kStrMax) return std::nullopt;
    return std::string_view(s, len);
}

} // namespace tov::detail
