// SPDX-License-Identifier: BSD-3-Clause
// The trace-ring half of the logging statement.
#include "debug/log.hpp"

#include <cstdarg>
#include <cstdio>

#include "tov/trace_buffer.h"

namespace tov::detail {

void trace_line(const DebugContext *dctx, const char *format, ...) {
    char line[TOV_DEBUG_TRACE_LINE_SIZE];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    trace_buffer_write(dctx->trace_handle, kTraceRecordFlags, kTraceRecordType, line);
}

void check_format(const char *, ...) {}

} // namespace tov::detail
