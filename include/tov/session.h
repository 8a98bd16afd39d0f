/* SPDX-License-Identifier: BSD-3-Clause */
/* The session store.
 *
 * Each framework process keeps its open management sessions in a SessionStore, a balanced tree of
 * Session records keyed by a random, non-zero 32-bit session id that is unique among the live
 * sessions. The store, the root DebugContext and the id generator's state live together in the
 * process's FrameworkContext (tov/framework.h). Nothing here is locked: one thread uses a store. */
#ifndef TOV_SESSION_H
#define TOV_SESSION_H

#include <stdint.h>

#include "tov/export.h"
#include "tov/framework.h"

typedef struct Session {
    void *owned_data;    /* freed with kor_named_free when the store destroys the session */
    uint32_t session_id; /* never 0 */
    uint32_t user[6];    /* zero at creation; the session's user owns them */
} Session;

TOV_BEGIN_DECLS

/* Seeds the generator (srand48 from the clock, then four lrand48 values) and prepares an empty
 * store. Returns 0 or the failing call's code. `ctx->debug` should be initialised first. */
TOV_API uint32_t tov_session_store_init(FrameworkContext *ctx);
/* Releases every session record (not their owned_data) and retires the tree. Returns the tree's
 * retirement code: 0 once it is empty. */
TOV_API uint32_t tov_session_store_cleanup(FrameworkContext *ctx);
/* A new session with a fresh id, or NULL (allocation failure, or no unused id after 15 tries). */
TOV_API Session *tov_session_create(FrameworkContext *ctx);
/* The live session with `session_id`, or NULL (always NULL for id 0). */
TOV_API Session *tov_session_find(FrameworkContext *ctx, uint32_t session_id);
/* Removes `session` from the store and frees it with its owned_data. A session that is not in the
 * store is freed without its owned_data. NULL does nothing. */
TOV_API void tov_session_destroy(FrameworkContext *ctx, Session *session);

TOV_END_DECLS

#endif
