/* SPDX-License-Identifier: BSD-3-Clause */
/* The platform's debug-flag facility, as the host supplies it.
 *
 * Flags are named and form a parent/child hierarchy (a component's flag with "error", "debug" and
 * "trace" below it). A flag starts disabled; a line given to _kor_dt_log_filter_adv is written only
 * when its flag and every ancestor are enabled. Written lines go to one sink for the process:
 * standard error (the default), syslog, or an in-memory capture that tests read back.
 *
 * Handles are small numbers, 0 meaning "no flag". A handle that was never issued or whose flag was
 * destroyed is refused with EBADF: a stale handle can never reach freed memory. Codes are errno
 * values; error_code_text turns them into text. */
#ifndef TOV_KOR_DEBUG_FLAGS_H
#define TOV_KOR_DEBUG_FLAGS_H

#include <stddef.h>
#include <stdint.h>

#include "tov/export.h"

#define KOR_DT_FLAG_NAME_MAX 127 /* longest flag name, in bytes */

typedef uint32_t kor_dt_flag_t;

typedef enum kor_dt_sink {
    KOR_DT_SINK_STDERR = 0, /* one line per call on standard error */
    KOR_DT_SINK_SYSLOG = 1, /* syslog, priority taken from the line's tag (ERR:, WRN:, else debug) */
    KOR_DT_SINK_CAPTURE = 2 /* kept in memory for kor_dt_capture_read */
} kor_dt_sink;

TOV_BEGIN_DECLS

/* Creates a disabled flag named `name` below `parent` (0 for a top-level flag) and stores its
 * handle in `*out`. `reserved1` and `reserved2` must be 0. On failure `*out` is 0 and the code is
 * EINVAL (null or empty name, name too long, non-zero reserved word), EBADF (unknown parent),
 * EEXIST (the parent already has a child of that name) or ENOMEM. */
TOV_API int kor_dt_flag_init(kor_dt_flag_t *out, const char *name, kor_dt_flag_t parent,
                             uint32_t reserved1, uint32_t reserved2);
/* Enables a flag. `options` must be 0. Returns 0, EBADF or EINVAL. */
TOV_API int kor_dt_flag_enable(kor_dt_flag_t flag, uint32_t options);
/* Disables a flag; its children fall silent with it. Returns 0 or EBADF. */
TOV_API int kor_dt_flag_disable(kor_dt_flag_t flag);
/* Destroys a flag together with all of its descendants. Returns 0 or EBADF. */
TOV_API int kor_dt_flag_destroy(kor_dt_flag_t flag);

/* Formats and writes one line through `flag` when the flag and its ancestors are enabled.
 * `filter_cell` is a per-call-site cell owned by this facility: the caller keeps it in static
 * storage, initialised to -1, and never touches it; the facility records there the call site's
 * number, under which it counts the site's lines (kor_dt_site_lines). The four words and the
 * 64-bit word are reserved and ignored. Returns 1 when the line was written, 0 when the flag is
 * disabled, -EBADF for an unknown flag and -EINVAL for a null cell or format. */
TOV_API int _kor_dt_log_filter_adv(kor_dt_flag_t flag, uint32_t reserved1, uint32_t reserved2,
                                   uint32_t reserved3, uint32_t reserved4, uint64_t reserved5,
                                   int32_t *filter_cell, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 8, 9)))
#endif
    ;

/* Host-only controls, for tests: in the static archives only, never exported by libtov-host. */

/* Chooses where written lines go. `ident` names the process in syslog (NULL: the program name);
 * it is only used with KOR_DT_SINK_SYSLOG. Returns 0 or EINVAL. */
TOV_API int kor_dt_set_sink(kor_dt_sink sink, const char *ident);
/* Copies the captured lines, each ending in '\n', into `out` (NUL-terminated, cut to `capacity`)
 * and returns the full length they need without the NUL, like snprintf. */
TOV_API size_t kor_dt_capture_read(char *out, size_t capacity);
/* Forgets every captured line. */
TOV_API void kor_dt_capture_clear(void);
/* Number of distinct call sites seen so far and, for the site whose cell is given, how many of its
 * lines were written (-1 for a cell that no call has registered yet). */
TOV_API int32_t kor_dt_site_count(void);
TOV_API int64_t kor_dt_site_lines(const int32_t *filter_cell);

TOV_END_DECLS

#endif
