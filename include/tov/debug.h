/* SPDX-License-Identifier: BSD-3-Clause */
/* Debug contexts, components, levels, trace rings and run-time level control.
 *
 * Every framework process logs through DebugContexts: one per debug component, each holding the
 * debug-flag handles its filtered lines go through, its own trace ring (which receives every line,
 * unfiltered), a component log level and one log level per request operation. A sub-component
 * shares the flags of its parent and is reachable from it for level control. */
#ifndef TOV_DEBUG_H
#define TOV_DEBUG_H

#include <stdint.h>

#include "tov/export.h"
#include "tov/kor_debug_flags.h"
#include "tov/operations.h"
#include "tov/trace_buffer.h"

/* Message levels: the level of one log line. */
#define TOV_MSG_ERROR 0u   /* "ERR:" */
#define TOV_MSG_WARNING 1u /* "WRN:" */
#define TOV_MSG_DEBUG 2u   /* "DBG:" */
#define TOV_MSG_TRACE 3u   /* "TRC:" */

/* Setting levels: the value of a component's `level`, `op_level_max` and each `op_levels` entry.
 * A line of message level L is written when the setting is at least L + 1. */
#define TOV_LEVEL_NONE 0u
#define TOV_LEVEL_ERROR 1u
#define TOV_LEVEL_WARNING 2u
#define TOV_LEVEL_DEBUG 3u
#define TOV_LEVEL_TRACE 4u

/* Number of request operation codes (0 "get-config" to 18 "invoke-rpc"), the size of `op_levels`.
 * The codes themselves are the request's operation numbers. */
#define TOV_DEBUG_OP_COUNT ((uint32_t)TOV_OP_COUNT)
/* Most sub-components one context keeps reachable for level control. */
#define TOV_DEBUG_MAX_CHILDREN 16
/* Longest flag name tov_debug_init accepts, in bytes. */
#define TOV_DEBUG_NAME_MAX 127u
/* Room for the agent name, its terminator included. */
#define TOV_DEBUG_AGENT_NAME_SIZE 20u
/* Bytes of a trace-ring line, its terminator included; longer lines are cut. */
#define TOV_DEBUG_TRACE_LINE_SIZE 1024u

/* The debug components: X(NAME, id, "name", "ring path", ring slots, ring bytes). "none" and "all"
 * are not components of their own ("none" asks tov_debug_get_component_ctx for the context it
 * starts from; "all" means every component in level control) and have no ring. A ring's file name
 * is the agent name, "-" and the ring path. */
#define TOV_COMPONENTS(X)                                                                          \
    X(NONE, 0, "none", NULL, 0u, 0u)                                                               \
    X(ALL, 1, "all", NULL, 0u, 0u)                                                                 \
    X(TOV, 2, "TOV", "tov/processor.trace", 0x8000u, 0x800000u)                                    \
    X(ME, 3, "ME", "tov/me.trace", 0x8000u, 0x800000u)                                             \
    X(QT, 4, "QT", "tov/qt.trace", 0x8000u, 0x800000u)                                             \
    X(BK, 5, "BK", "tov/bk.trace", 0x8000u, 0x800000u)                                             \
    X(MAP, 6, "MAP", "tov/map.trace", 0x8000u, 0x2000000u)                                         \
    X(MORVANTE, 7, "MORVANTE", "tov/morvante.trace", 0x4000u, 0x400000u)                           \
    X(VASKE, 8, "VASKE", "tov/vaske.trace", 0x4000u, 0x400000u)

#define TOV_COMPONENT_ENUM_(name, id, text, ring, slots, bytes) TOV_COMPONENT_##name = id,
typedef enum DebugComponent {
    TOV_COMPONENTS(TOV_COMPONENT_ENUM_)
    TOV_COMPONENT_END /* end of the table; named "unknown" */
} DebugComponent;
#undef TOV_COMPONENT_ENUM_

/* The logging context of one debug component. The owner hands it in zero-filled. */
typedef struct DebugContext {
    kor_dt_flag_t root_flag;  /* the component's top flag, or the parent's */
    kor_dt_flag_t debug_flag; /* child "debug": DBG lines */
    kor_dt_flag_t error_flag; /* child "error": ERR and WRN lines */
    kor_dt_flag_t trace_flag; /* child "trace": TRC lines */
    trace_buffer_t trace_handle; /* the component's ring, 0 when none */
    uint32_t trace_open;         /* 1 while trace_handle is a usable open ring */
    struct DebugContext *parent; /* whose flags this one shares; NULL for a root */
    int32_t ref_count;           /* holders: 1 after init, +1 per attached sub-component */
    uint32_t level;              /* component setting level; ERROR after init */
    uint32_t op_level_max;       /* highest of op_levels, kept by the level control */
    uint32_t op_levels[TOV_DEBUG_OP_COUNT];
    uint32_t component_id;
    struct DebugContext *children[TOV_DEBUG_MAX_CHILDREN]; /* packed from the front */
    int32_t child_count;
} DebugContext;

struct FrameworkContext;

TOV_BEGIN_DECLS

/* Sets up `ctx` for `component_id`. A root (parent NULL) creates the flag `name` with its children
 * "error", "debug" and "trace"; a sub-component shares its parent's flags and attaches to it.
 * Either opens the component's own trace ring. Returns 0, TOV_RC_BAD_ARGUMENT (null ctx or name,
 * name of 128 bytes or more), TOV_RC_INIT_FAILED, or a failing memcpy_s code. */
TOV_API uint32_t tov_debug_init(DebugContext *ctx, const char *name, uint32_t component_id,
                                DebugContext *parent);
/* Drops one reference; the last one of a root destroys its flags, the last one of a
 * sub-component detaches it and releases the parent. Never closes the trace ring. Returns 0 or
 * TOV_RC_FLAG_DESTROY_FAILED. */
TOV_API uint32_t tov_debug_cleanup(DebugContext *ctx);
/* The context of `component_id` at or below `root` (`root` itself for id 0), or NULL. */
TOV_API DebugContext *tov_debug_get_component_ctx(DebugContext *root, uint32_t component_id);
/* Address of the level of operation `op`, or NULL for a null ctx or op >= TOV_DEBUG_OP_COUNT. */
TOV_API uint32_t *tov_get_op_debug_settings(DebugContext *ctx, uint32_t op);
/* 1 when the component level admits a line of message level `msg_level`, else 0. A null ctx
 * stops the process. */
TOV_API uint32_t tov_debug_should_log(const DebugContext *ctx, uint32_t msg_level);
/* 1 when the component level or the level of operation `op` admits the line, else 0. A null ctx
 * stops the process. */
TOV_API uint32_t tov_debug_should_log_op(const DebugContext *ctx, uint32_t msg_level, uint32_t op);
/* "none", "all", "TOV", ... by component id; "unknown" past the table. */
TOV_API const char *tov_log_component_str(uint32_t component_id);
/* "get-config" ... "invoke-rpc" by operation code; "unknown" otherwise. */
TOV_API const char *tov_debug_op_name(uint32_t op);
/* Keeps the agent name that prefixes every ring name. `name` is used as a format (a '%' in it is
 * interpreted), and at most 19 bytes are kept: pass a plain process name. Returns snprintf's
 * count, or -1 for a null name. */
TOV_API int tov_debug_save_agent_name(const char *name);
/* The part of `path` after its last '/', or `path` itself when it has none. */
TOV_API const char *tov_debug_short_file(DebugContext *ctx, const char *path);

/* Opens the ring of `dctx`'s component, named "<agent name>-<trace path>". Returns 0 or
 * TOV_RC_INIT_FAILED (reported on standard error, handle cleared). */
TOV_API uint32_t tov_init_trace_buffer(DebugContext *dctx);
/* Closes, deletes and re-opens the ring, leaving it empty. Returns 0, the delete's errno code, or
 * TOV_RC_INIT_FAILED. */
TOV_API uint32_t tov_reinit_trace_buffer(DebugContext *dctx);
/* Sets the level of one component or of all (TOV_COMPONENT_ALL), or with `per_operation` the
 * level of operation `op` only; `announce` 1 writes a change line per component. Returns 0 or
 * TOV_RC_BAD_ARGUMENT (unknown single component, or op out of range with per_operation). */
TOV_API uint32_t tov_debug_logging_set_level(struct FrameworkContext *ctx, uint32_t component_id,
                                             uint32_t per_operation, uint32_t op, uint32_t level,
                                             uint32_t announce);
/* Empties the ring of every component (writes to the rings pause meanwhile). Returns 0. */
TOV_API uint32_t tov_clear_trace(struct FrameworkContext *ctx);
/* Re-creates one component's ring (`reinit`) and/or stores `open_value` in its trace_open
 * (`set_open`); does nothing when the component has no context. */
TOV_API void tov_clear_trace_update_component(DebugContext *root, uint32_t component_id,
                                              uint32_t reinit, uint32_t set_open,
                                              uint32_t open_value);

TOV_END_DECLS

#endif
