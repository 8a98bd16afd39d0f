// SPDX-License-Identifier: BSD-3-Clause
// Debug contexts: set-up and release, the level filter, component lookup and the naming helpers.
#include <cstdio>
#include <cstring>
#include <iterator>
#include <safe_mem_lib.h>
#include <safe_str_lib.h>

#include "debug/debug_internal.hpp"
#include "debug/log.hpp"
#include "tov/result.h"
#include "tov/strings.h"

namespace tov::detail {
namespace {

char g_agent_name[TOV_DEBUG_AGENT_NAME_SIZE];

#define TOV_NAME_(name, id, text, ...) text,
constexpr const char *kComponentNames[] = {TOV_COMPONENTS(TOV_NAME_)};
constexpr const char *kOperationNames[] = {TOV_OPERATIONS(TOV_NAME_)};
#undef TOV_NAME_
static_assert(std::size(kComponentNames) == TOV_COMPONENT_END && std::size(kOperationNames) == TOV_DEBUG_OP_COUNT);

uint32_t init_root(DebugContext *ctx, const char *name) {
    if (kor_dt_flag_init(&ctx->root_flag, name, 0, 0, 0) != 0) {
        ctx->root_flag = 0;
        return TOV_RC_INIT_FAILED;
    }
    if (kor_dt_flag_enable(ctx->root_flag, 0) != 0) {
        kor_dt_flag_destroy(ctx->root_flag);
        ctx->root_flag = 0;
        return TOV_RC_INIT_FAILED;
    }
    if (kor_dt_flag_init(&ctx->error_flag, "error", ctx->root_flag, 0, 0) != 0 ||
        kor_dt_flag_enable(ctx->error_flag, 0) != 0) {
        ctx->error_flag = 0;
        return TOV_RC_INIT_FAILED;
    }

    // Lines about the set-up go only where the context can already log: each goes through a copy
    // of the context as it stood at that step.
    DebugContext snapshot;
    if (errno_t rc = memcpy_s(&snapshot, sizeof snapshot, ctx, sizeof *ctx)) return static_cast<uint32_t>(rc);
    TOV_DBG(&snapshot, "%s: Error logging initialized", name);

    if (uint32_t rc = tov_init_trace_buffer(ctx)) return rc;

    if (kor_dt_flag_init(&ctx->debug_flag, "debug", ctx->root_flag, 0, 0) != 0 ||
        kor_dt_flag_enable(ctx->debug_flag, 0) != 0) {
        ctx->debug_flag = 0;
        TOV_ERR(&snapshot, "%s: Debug log init failed!", name);
        return TOV_RC_INIT_FAILED;
    }
    if (errno_t rc = memcpy_s(&snapshot, sizeof snapshot, ctx, sizeof *ctx)) return static_cast<uint32_t>(rc);
    TOV_DBG(&snapshot, "%s: Debug logging initialized", name);

    if (kor_dt_flag_init(&ctx->trace_flag, "trace", ctx->root_flag, 0, 0) != 0 ||
        kor_dt_flag_enable(ctx->trace_flag, 0) != 0) {
        ctx->trace_flag = 0;
        TOV_ERR(&snapshot, "%s: Trace log init failed!", name);
        return TOV_RC_INIT_FAILED;
    }
    TOV_DBG(&snapshot, "%s: Trace logging initialized", name);
    return TOV_RC_OK;
}

uint32_t init_child(DebugContext *ctx, const char *name, DebugContext *parent) {
    DebugContext snapshot;
    if (errno_t rc = memcpy_s(&snapshot, sizeof snapshot, parent, sizeof *parent))
        return static_cast<uint32_t>(rc);
    ctx->parent = parent;
    parent->ref_count++;
    ctx->root_flag = parent->root_flag;
    ctx->debug_flag = parent->debug_flag;
    ctx->error_flag = parent->error_flag;
    ctx->trace_flag = parent->trace_flag;

    uint32_t result = tov_init_trace_buffer(ctx);
    TOV_DBG(&snapshot, "%s: Using existing DT flags", name);
    if (parent->child_count < 0 || parent->child_count >= TOV_DEBUG_MAX_CHILDREN) {
        TOV_WRN(&snapshot,
                "%s: Maximum logging subcomponent count reached! This component will not be available "
                "for log filtering.",
                name);
    } else {
        parent->children[parent->child_count++] = ctx;
    }
    return result;
}

} // namespace

const TraceTableEntry trace_table[TOV_COMPONENT_END + 1] = {
#define TOV_RING_(name, id, text, ring, slots, bytes) {TOV_COMPONENT_##name, ring, slots, bytes},
    TOV_COMPONENTS(TOV_RING_)
#undef TOV_RING_
    {TOV_COMPONENT_END, nullptr, 0, 0},
};

const TraceTableEntry &trace_row(uint32_t component_id) {
    return trace_table[component_id < TOV_COMPONENT_END ? component_id : uint32_t{TOV_COMPONENT_END}];
}

const char *agent_name() { return g_agent_name; }

} // namespace tov::detail

using namespace tov::detail;

extern "C" {

TOV_API uint32_t tov_debug_init(DebugContext *ctx, const char *name, uint32_t component_id,
                                DebugContext *parent) {
    if (!ctx || !name || strnlen_s(name, TOV_DEBUG_NAME_MAX + 1) > TOV_DEBUG_NAME_MAX)
        return TOV_RC_BAD_ARGUMENT;
    ctx->parent = nullptr;
    ctx->level = TOV_LEVEL_ERROR;
    ctx->ref_count = 1;
    ctx->component_id = component_id;
    return parent ? init_child(ctx, name, parent) : init_root(ctx, name);
}

TOV_API uint32_t tov_debug_cleanup(DebugContext *ctx) {
    if (!ctx) return TOV_RC_BAD_ARGUMENT;
    if (--ctx->ref_count > 0) return TOV_RC_OK;
    DebugContext *parent = ctx->parent;
    if (!parent) return kor_dt_flag_destroy(ctx->root_flag) != 0 ? TOV_RC_FLAG_DESTROY_FAILED : TOV_RC_OK;
    // Detach; order among the children does not matter, so the last one fills the gap.
    for (int32_t i = 0; i < parent->child_count && i < TOV_DEBUG_MAX_CHILDREN; ++i) {
        if (parent->children[i] == ctx) {
            parent->children[i] = parent->children[parent->child_count - 1];
            parent->children[parent->child_count - 1] = nullptr;
            parent->child_count--;
            break;
        }
    }
    return tov_debug_cleanup(parent) != 0 ? TOV_RC_FLAG_DESTROY_FAILED : TOV_RC_OK;
}

TOV_API DebugContext *tov_debug_get_component_ctx(DebugContext *root, uint32_t component_id) {
    if (!root) return nullptr;
    if (component_id == TOV_COMPONENT_NONE || root->component_id == component_id) return root;
    DebugContext *found = nullptr;
    for (int32_t i = 0; i < root->child_count && i < TOV_DEBUG_MAX_CHILDREN; ++i) {
        DebugContext *child = root->children[i];
        if (!child) continue;
        if (child->component_id == component_id) return child;
        found = tov_debug_get_component_ctx(child, component_id);
        if (found) return found;
    }
    return found;
}

TOV_API uint32_t *tov_get_op_debug_settings(DebugContext *ctx, uint32_t op) {
    if (!ctx || op >= TOV_DEBUG_OP_COUNT) return nullptr;
    return &ctx->op_levels[op];
}

TOV_API uint32_t tov_debug_should_log(const DebugContext *ctx, uint32_t msg_level) {
    TOV_REQUIRE_CONTEXT(ctx);
    uint32_t threshold = level_threshold(msg_level);
    return threshold != 0 && ctx->level >= threshold ? 1 : 0;
}

TOV_API uint32_t tov_debug_should_log_op(const DebugContext *ctx, uint32_t msg_level, uint32_t op) {
    TOV_REQUIRE_CONTEXT(ctx);
    if (tov_debug_should_log(ctx, msg_level)) return 1;
    uint32_t threshold = level_threshold(msg_level);
    // No operation of the component logs this low: skip the lookup.
    if (ctx->op_level_max != 0 && threshold != 0 && ctx->op_level_max < threshold) return 0;
    const uint32_t *op_level = tov_get_op_debug_settings(const_cast<DebugContext *>(ctx), op);
    if (!op_level) return 0;
    return threshold != 0 && *op_level >= threshold ? 1 : 0;
}

TOV_API const char *tov_log_component_str(uint32_t component_id) {
    return component_id < TOV_COMPONENT_END ? kComponentNames[component_id] : "unknown";
}

TOV_API const char *tov_debug_op_name(uint32_t op) {
    return op < TOV_DEBUG_OP_COUNT ? kOperationNames[op] : "unknown";
}

TOV_API const char *tov_debug_short_file(DebugContext *ctx, const char *path) {
    char *slash = nullptr;
    int rc = strrchar_s_tmp(path, TOV_STR_SEARCH_MAX, '/', &slash);
    if (rc == 0) return slash + 1;
    if (rc != TOV_ESNOTFND) {
        TOV_REQUIRE_CONTEXT(ctx);
        // A bare line: no level tag, no trace-ring copy.
        static int32_t filter_cell = -1;
        _kor_dt_log_filter_adv(ctx->error_flag, 0, 0, 0, 0, 0, &filter_cell,
                               "Error while processing filename, rc=%d: %s", rc,
                               error_code_text(static_cast<uint32_t>(rc)));
    }
    return path;
}

TOV_API int tov_debug_save_agent_name(const char *name) {
    if (!name) return -1;
    // The name is the format on purpose: callers pass plain process names (see debug.h).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    return std::snprintf(g_agent_name, sizeof g_agent_name, name);
#pragma GCC diagnostic pop
}

} // extern "C"
