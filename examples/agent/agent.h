/* SPDX-License-Identifier: BSD-3-Clause */
/* tov-agent: a sample framework process. Shared declarations of its parts: logging (main.c), the
 * data-tree helpers (tree.c), the management engine (engine.c) and persistence (store.c). */
#ifndef TOV_AGENT_H
#define TOV_AGENT_H

#include <stdint.h>
#include <time.h>

#include "tov/codec.h"
#include "tov/debug.h"
#include "tov/framework.h"
#include "tov/request.h"
#include "tov/session.h"

/* ---- logging: one line to the debug facility when the level admits it, always to the ring ---- */

void agent_log(DebugContext *dctx, uint32_t msg_level, uint32_t op, int32_t *cell, const char *function, int line,
               const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 7, 8)))
#endif
    ;
/* op is the request's operation, or TOV_DEBUG_OP_COUNT for lines about no request. */
#define AGENT_LOG(dctx, level, op, ...)                                                            \
    do {                                                                                           \
        static int32_t agent_cell_ = -1;                                                          \
        agent_log((dctx), (level), (op), &agent_cell_, __func__, __LINE__, __VA_ARGS__);          \
    } while (0)

/* ---- data trees ---- */

/* Name of the attribute by which a list entry names its key leaves, separated by blanks. */
#define AGENT_KEY_ATTRIBUTE "key"
#define AGENT_MAX_KEYS 8
#define AGENT_MAX_DEPTH 256

char *tree_strdup(const char *text);
void tree_clear(DataTree *tree);
/* Deep copy into a cleared destination; 0 or -1 (out of memory; dst holds what was copied). */
int tree_copy(DataTree *dst, const DataTree *src);
/* The node alone: everything but its children and its edit operation. */
int tree_copy_shell(DataTree *dst, const DataTree *src);
/* Makes room for `extra` more children without moving them again while they are added. */
int tree_reserve(DataTree *parent, uint32_t extra);
/* A cleared child at the end (room must have been reserved), or NULL. */
DataTree *tree_append(DataTree *parent);
void tree_remove_child(DataTree *parent, uint32_t index);
/* Index of the child that names the same node as `like` (name, namespace, key values), or -1. */
int64_t tree_find(const DataTree *parent, const DataTree *like);
/* The key leaf names and values of a list entry; returns their count (0 for other nodes). */
uint32_t tree_keys(const DataTree *node, const char **names, const char **values, char *scratch, size_t size);
const char *tree_child_value(const DataTree *node, const char *name);
/* A node with `name` and, when given, `value` appended to parent (which needs reserved room). */
DataTree *tree_add_leaf(DataTree *parent, const char *name, const char *value);
/* The subtree filter: copies of the nodes of `data` that `filter` selects into out's children. */
int tree_filter(DataTree *out, const DataTree *data, const DataTree *filter);

/* ---- persistence ---- */

/* Loads DIR/NAME (absent: an empty tree, 1 returned). 0 loaded, 1 absent, -1 unreadable. */
int store_load(const char *dir, const char *name, DataTree *tree);
/* Writes the tree to a temporary file, flushes it, renames it over DIR/NAME and flushes DIR. */
int store_save(const char *dir, const char *name, const DataTree *tree);

/* ---- the management engine ---- */

#define AGENT_MAX_SESSIONS 4096

enum { DS_RUNNING, DS_CANDIDATE, DS_STARTUP, DS_COUNT };

typedef struct Engine {
    FrameworkContext *framework;
    DebugContext *me;
    const char *dir;
    DataTree ds[DS_COUNT];      /* each a root named "data" whose children are the top-level nodes */
    uint32_t lock_holder[DS_COUNT]; /* session id, 0 when unlocked */
    int candidate_dirty;        /* candidate differs from running */
    /* a confirmed commit waiting for its confirmation */
    int confirm_pending;
    DataTree rollback;
    uint32_t confirm_session;
    char *persist;
    struct timespec confirm_deadline;
    /* settings */
    uint32_t default_confirm_timeout;
    int save_startup_on_commit;
    /* live sessions, for "get" */
    uint32_t session_ids[AGENT_MAX_SESSIONS];
    uint32_t session_count;
    /* a tree lent to the response being written, and get's frame around running's nodes */
    int data_lent;
    DataTree scratch;
    uint32_t scratch_borrowed;
    /* counters for "get" */
    uint64_t requests, failures, commits, rollbacks;
    uint32_t clients;
} Engine;

/* Handler result: 0 or an ME result code for tov_me_request_result_check, or this one when the
 * handler filled the error record itself. */
#define AGENT_ERROR_SET 0xffffffffu
#define AGENT_ME_INVALID_VALUE 0xaaf2aa00u
#define AGENT_ME_RESOURCE_DENIED 0xaaf2b000u
#define AGENT_ME_NOT_SUPPORTED 0xaaf2be00u

int engine_init(Engine *engine, FrameworkContext *framework, DebugContext *me, const char *dir);
void engine_cleanup(Engine *engine);
/* Answers one checked request. *session may be NULL for start-session; it is set to NULL when
 * the request ended it. `client` is the connection's id, kept in the sessions it starts. */
uint32_t engine_handle(Engine *engine, RequestContext *rctx, Session **session, uint32_t client,
                       RequestResult *result, Response *response);
/* The response is written: takes back what the engine lent it. Call before freeing it. */
void engine_response_sent(Engine *engine, Response *response);
/* A session ends (stop-session, kill, its client left): its locks go, its unconfirmed commit is
 * rolled back. Destroys the session. */
void engine_session_end(Engine *engine, Session *session);
/* A connection closed: the sessions bound to it end. */
void engine_client_gone(Engine *engine, uint32_t client);
/* Rolls back a confirmed commit whose time ran out. Milliseconds until the next deadline, or -1. */
int engine_tick(Engine *engine);

#endif
