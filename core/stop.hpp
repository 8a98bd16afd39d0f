// SPDX-License-Identifier: BSD-3-Clause
// The one way the library stops the process on a programming error (a null context where one is
// required): store the source line to an invalid address, so a crash record shows where, then abort.
#pragma once

namespace tov::detail {

[[noreturn]] void stop_process(int source_line) noexcept;

} // namespace tov::detail

#define TOV_REQUIRE_CONTEXT(pointer)                                                               \
    do {                                                                                           \
        if ((pointer) == nullptr) ::tov::detail::stop_process(__LINE__);                           \
    } while (0)
