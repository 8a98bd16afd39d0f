// SPDX-License-Identifier: BSD-3-Clause
// The library's logging statement, in four levels:
//
//   TOV_ERR(ctx, "mem init failure: %s", error_code_text(rc));          plain
//   TOV_DBG_OP(ctx, session, op, "ME request success.");                  about a request operation
//   TOV_DBG(&snapshot, "%s: Debug logging initialized", name);            flag-name shape
//
// `ctx` is a DebugContext* or a FrameworkContext*; the line prints that pointer as "ctx=%p" and is
// filtered and traced through the DebugContext (for a FrameworkContext, its embedded one). A null
// ctx stops the process. A line the level filter admits goes to the platform debug facility as
//   "<TAG> TOV: ctx=%p,<message>"
// through the flag of its level (ERR and WRN: error_flag, DBG: debug_flag, TRC: trace_flag);
// every line, admitted or not, is copied to the component's trace ring while one is open as
//   "<TAG> <function>:<line> ctx=%p,<message>"
// cut to 1023 bytes. The _OP forms prepend "ses=%p,op=%u," and are admitted by the component level
// or by the level of that operation. Formats are checked at compile time like printf's; arguments
// are evaluated once, and only when the line goes somewhere; nothing is allocated.
#pragma once

#include <cstdint>
#include <type_traits>

#include "core/stop.hpp"
#include "tov/debug.h"
#include "tov/kor_debug_flags.h"
#include "tov/framework.h"

namespace tov::detail {

// Marks the records the library writes: text lines of the debug-line kind.
inline constexpr uint32_t kTraceRecordFlags = 0x1000000;
inline constexpr uint32_t kTraceRecordType = 257;

inline DebugContext *log_target(DebugContext *c) { return c; }
inline const DebugContext *log_target(const DebugContext *c) { return c; }
inline DebugContext *log_target(FrameworkContext *c) { return &c->debug; }
inline const DebugContext *log_target(const FrameworkContext *c) { return &c->debug; }

// Formats the trace-ring copy into a 1024-byte stack buffer and writes it to dctx's ring.
void trace_line(const DebugContext *dctx, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Never called: lets the compiler check a statement's format against its arguments.
void check_format(const char *format, ...) __attribute__((format(printf, 1, 2)));

template <class T>
inline constexpr bool kPrintfScalar = std::is_arithmetic_v<T> || std::is_pointer_v<T> ||
                                      std::is_enum_v<T> || std::is_null_pointer_v<T>;

template <class... A>
void log_emit(const DebugContext *dctx, kor_dt_flag_t flag, bool admitted, int32_t *cell,
              const char *platform_format, const char *trace_format, const char *function, int line,
              const void *ctx, A... args) {
    static_assert((kPrintfScalar<A> && ...), "log arguments must be numbers or pointers");
    if (admitted) _kor_dt_log_filter_adv(flag, 0, 0, 0, 0, 0, cell, platform_format, ctx, args...);
    if (dctx->trace_open) trace_line(dctx, trace_format, function, line, ctx, args...);
}

} // namespace tov::detail

// One statement: check the context, decide, and only then evaluate the arguments and format.
// `declare` introduces locals that `admit` and the arguments may use (the operation forms).
#define TOV_LOG_STATEMENT_(tag, flag_member, context, declare, admit, format, ...)                \
    do {                                                                                           \
        auto *const tov_log_context_ = (context);                                                  \
        TOV_REQUIRE_CONTEXT(tov_log_context_);                                                     \
        auto *const tov_log_dctx_ = ::tov::detail::log_target(tov_log_context_);                  \
        declare;                                                                                   \
        static int32_t tov_log_cell_ = -1;                                                         \
        const bool tov_log_admitted_ = (admit);                                                    \
        if (tov_log_admitted_ || tov_log_dctx_->trace_open) {                                      \
            if (false)                                                                             \
                ::tov::detail::check_format(tag " TOV: ctx=%p," format,                            \
                                            static_cast<const void *>(tov_log_context_)            \
                                                __VA_OPT__(, ) __VA_ARGS__);                       \
            ::tov::detail::log_emit(tov_log_dctx_, tov_log_dctx_->flag_member, tov_log_admitted_,  \
                                    &tov_log_cell_, tag " TOV: ctx=%p," format,                    \
                                    tag " %s:%d ctx=%p," format, __func__, __LINE__,               \
                                    static_cast<const void *>(tov_log_context_)                    \
                                        __VA_OPT__(, ) __VA_ARGS__);                               \
        }                                                                                          \
    } while (0)

#define TOV_LOG_PLAIN_(tag, level, flag_member, context, format, ...)                              \
    TOV_LOG_STATEMENT_(tag, flag_member, context, (void)0,                                         \
                       tov_debug_should_log(tov_log_dctx_, level), format __VA_OPT__(, ) __VA_ARGS__)

#define TOV_LOG_OP_(tag, level, flag_member, context, session, operation, format, ...)             \
    TOV_LOG_STATEMENT_(tag, flag_member, context,                                                  \
                       const void *const tov_log_session_ = (session);                             \
                       const unsigned tov_log_op_ = (operation),                                   \
                       tov_debug_should_log_op(tov_log_dctx_, level, tov_log_op_),                 \
                       "ses=%p,op=%u," format, tov_log_session_,                                   \
                       tov_log_op_ __VA_OPT__(, ) __VA_ARGS__)

#define TOV_ERR(context, format, ...)                                                              \
    TOV_LOG_PLAIN_("ERR:", TOV_MSG_ERROR, error_flag, context, format __VA_OPT__(, ) __VA_ARGS__)
#define TOV_WRN(context, format, ...)                                                              \
    TOV_LOG_PLAIN_("WRN:", TOV_MSG_WARNING, error_flag, context, format __VA_OPT__(, ) __VA_ARGS__)
#define TOV_DBG(context, format, ...)                                                              \
    TOV_LOG_PLAIN_("DBG:", TOV_MSG_DEBUG, debug_flag, context, format __VA_OPT__(, ) __VA_ARGS__)
#define TOV_TRC(context, format, ...)                                                              \
    TOV_LOG_PLAIN_("TRC:", TOV_MSG_TRACE, trace_flag, context, format __VA_OPT__(, ) __VA_ARGS__)

#define TOV_ERR_OP(context, session, op, format, ...)                                              \
    TOV_LOG_OP_("ERR:", TOV_MSG_ERROR, error_flag, context, session, op, format __VA_OPT__(, ) __VA_ARGS__)
#define TOV_WRN_OP(context, session, op, format, ...)                                              \
    TOV_LOG_OP_("WRN:", TOV_MSG_WARNING, error_flag, context, session, op, format __VA_OPT__(, ) __VA_ARGS__)
#define TOV_DBG_OP(context, session, op, format, ...)                                              \
    TOV_LOG_OP_("DBG:", TOV_MSG_DEBUG, debug_flag, context, session, op, format __VA_OPT__(, ) __VA_ARGS__)
#define TOV_TRC_OP(context, session, op, format, ...)                                              \
    TOV_LOG_OP_("TRC:", TOV_MSG_TRACE, trace_flag, context, session, op, format __VA_OPT__(, ) __VA_ARGS__)

// A DBG line that skips the level filter (announcements the operator asked for).
#define TOV_DBG_UNFILTERED(context, format, ...)                                                   \
    TOV_LOG_STATEMENT_("DBG:", debug_flag, context, (void)0, true, format __VA_OPT__(, ) __VA_ARGS__)
