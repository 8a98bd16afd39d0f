/* SPDX-License-Identifier: BSD-3-Clause */
/* The platform's named allocator, as the host supplies it. Every block carries a label, and live
 * and peak counts are kept per label so that leaks show up by name. */
#ifndef TOV_KOR_ALLOC_H
#define TOV_KOR_ALLOC_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "tov/export.h"

TOV_BEGIN_DECLS

/* `flags` is kept for the platform's argument convention; pass 0. A NULL label is accounted as
 * "(unlabelled)". */
TOV_API void *kor_named_malloc(size_t size, const char *label, uint32_t flags);
TOV_API void *kor_named_calloc(size_t count, size_t size, const char *label, uint32_t flags);
/* A NULL pointer allocates; size 0 frees and returns NULL. On failure the old block is kept. */
TOV_API void *kor_named_realloc(void *pointer, size_t size, const char *label, uint32_t flags);
/* Returns 0; NULL is accepted and ignored. */
TOV_API uint32_t kor_named_free(void *pointer);

/* Host-only accounting, for tests and leak reports. */
typedef struct kor_named_stats {
    uint64_t live_blocks;
    uint64_t live_bytes;
    uint64_t peak_blocks;
    uint64_t peak_bytes;
    uint64_t total_blocks; /* allocations ever made under the label */
} kor_named_stats;

/* Figures for one label, or for all labels together when `label` is NULL. Returns 0, or -1 when
 * the label was never used (the figures are then all zero). */
TOV_API int kor_named_get_stats(const char *label, kor_named_stats *out);
/* Writes one line per label that still has live blocks; returns the number of live blocks. */
TOV_API uint64_t kor_named_report_live(FILE *out);
/* Failure injection, for tests: in the static archives only, never exported by libtov-host. */

/* Makes the n-th allocation from now fail (1 = the next one); 0 switches failure off. Counts
 * malloc, calloc and growing realloc calls of every label, in every thread. */
TOV_API void kor_named_fail_nth(uint64_t n);
/* The same with a mode, as SQLite's fault simulator has: `persistent` 0 fails the n-th call once,
 * non-zero fails it and every call after it, until the next configuration. Resets the two
 * figures below. */
TOV_API void kor_named_fail_config(uint64_t n, uint32_t persistent);
/* Failures injected since the last configuration, and the label of the latest one (NULL when
 * none): a test tells a benign failure (one the code is meant to survive, such as an optional
 * copy) from the others by its label. */
TOV_API uint64_t kor_named_fail_count(void);
TOV_API const char *kor_named_last_failed_label(void);
/* Number of allocation calls made so far (successful or failed), for counting allocation points. */
TOV_API uint64_t kor_named_call_count(void);

TOV_END_DECLS

#endif
