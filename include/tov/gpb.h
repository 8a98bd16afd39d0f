/* SPDX-License-Identifier: BSD-3-Clause */
/* Data trees for the framework: the allocator pair every codec call of a framework process gets,
 * arrays of empty DataTree records, and the printers that write a data tree or a schema list into
 * a component's trace ring as indented text. */
#ifndef TOV_GPB_H
#define TOV_GPB_H

#include <stdint.h>

#include "tov/codec.h"
#include "tov/debug.h"
#include "tov/export.h"
#include "tov/framework.h"

TOV_BEGIN_DECLS

/* The codec's alloc_fn and free_fn for framework processes: zero-filled blocks from the named
 * allocator under the label "TOV GPB", released with kor_named_free (NULL is ignored). The context
 * word is ignored; pass 0. */
TOV_API void *tov_gpb_alloc(uint32_t size, uintptr_t alloc_ctx);
TOV_API void tov_gpb_free(void *pointer, uintptr_t free_ctx);

/* An array of `count` cleared DataTree records from the named allocator, or NULL after an ERR line
 * on ctx's debug context. The caller releases each record with kesh_tov_datatree_free_ext(...,
 * tov_gpb_free, 0, 0) and the array with kor_named_free. A null ctx stops the process when the
 * allocation fails. */
TOV_API DataTree *tov_gpb_datatree_create(FrameworkContext *ctx, unsigned count);

/* Writes `title` and the tree (the root, then its children indented four spaces a level, with
 * values, edit operations and attributes) into dctx's trace ring. Lines are gathered until 160
 * bytes wait and then written as one record; a line that would pass 1024 bytes is cut and marked
 * "[TRUNCATED...]". A closed ring makes it format and discard. Any depth, without C stack per
 * level; no heap use for ordinary trees. Returns 0, TOV_RC_BAD_ARGUMENT (null dctx or tree) or
 * TOV_RC_NO_MEMORY (a tree so deep that its walk found no memory: that subtree is skipped). */
TOV_API uint32_t tov_gpb_datatree_trace_internal(DebugContext *dctx, const DataTree *tree, const char *title);
/* Writes `title` and one line per schema of the array into dctx's trace ring, batched like the
 * tree printer; while the ring is open a final record is written even when nothing waits (an
 * empty one for an empty list). Returns 0 or TOV_RC_BAD_ARGUMENT (null dctx or schemas). */
TOV_API uint32_t tov_gpb_schemas_trace_internal(DebugContext *dctx, const Schema *schemas, unsigned count,
                                                const char *title);

TOV_END_DECLS

#endif
