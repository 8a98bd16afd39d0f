// SPDX-License-Identifier: BSD-3-Clause
#include "core/stop.hpp"

#include <cstdint>
#include <cstdlib>

namespace tov::detail {

void stop_process(int source_line) noexcept {
    // A low address that no process maps; volatile so the store is neither folded nor dropped.
    volatile int *volatile invalid = reinterpret_cast<int *>(static_cast<uintptr_t>(16));
    *invalid = source_line;
    std::abort();
}

} // namespace tov::detail
