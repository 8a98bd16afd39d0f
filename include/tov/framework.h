/* SPDX-License-Identifier: BSD-3-Clause */
/* The per-process and per-request contexts that request support, sessions and level control take.
 *
 * A framework process keeps one FrameworkContext: its session store, its root debug component and
 * the session-id generator's state. A RequestContext pairs it with the request being answered, so
 * that request checks can log "ses=%p,op=%u," lines filtered by the request's operation. */
#ifndef TOV_FRAMEWORK_H
#define TOV_FRAMEWORK_H

#include <stdint.h>

#include "tov/codec.h"
#include "tov/debug.h"
#include "tov/kor_wavl.h"

typedef struct SessionStore {
    kor_wavl_tree tree; /* of Session records ordered by session_id */
} SessionStore;

/* Log lines about a FrameworkContext print its address and are filtered and traced through its
 * `debug` context. */
typedef struct FrameworkContext {
    SessionStore sessions;
    DebugContext debug;   /* the process's root debug component */
    uint32_t id_state[4]; /* session-id generator (xorshift128) state: x, y, z, w */
} FrameworkContext;

/* What the request checks are handed: the process's context and the decoded request. Neither is
 * owned by the RequestContext. */
typedef struct RequestContext {
    FrameworkContext *framework;
    const Request *request;
} RequestContext;

#endif
