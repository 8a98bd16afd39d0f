// SPDX-License-Identifier: BSD-3-Clause
// Trace rings of the components, run-time level control and trace clearing.
#include <cstdio>
#include <unistd.h>

#include "debug/debug_internal.hpp"
#include "debug/log.hpp"
#include "tov/result.h"
#include "tov/trace_buffer.h"

namespace tov::detail {
namespace {

// Agent name (19 bytes), hyphen, trace path, terminator.
constexpr size_t kRingNameSize = TOV_DEBUG_AGENT_NAME_SIZE + 64;

void ring_name(const DebugContext *dctx, char (&out)[kRingNameSize]) {
    const char *path = trace_row(dctx->component_id).trace_path;
    std::snprintf(out, sizeof out, "%s-%s", agent_name(), path ? path : "");
}

uint32_t open_ring(DebugContext *dctx, const char *name) {
    const TraceTableEntry &row = trace_row(dctx->component_id);
    int rc = trace_buffer_open(name, 0, 0, row.slot_count, row.total_size, 0, &dctx->trace_handle);
    if (rc == 0) {
        dctx->trace_open = 1;
        return TOV_RC_OK;
    }
    std::fprintf(stderr, "Init trace buffer (%s) failed! (%s)\n", name, error_code_text(static_cast<uint32_t>(rc)));
    dctx->trace_handle = 0;
    dctx->trace_open = 0;
    return TOV_RC_INIT_FAILED;
}

const char *level_name(uint32_t level) {
    static constexpr const char *kNames[] = {"NONE", "ERROR", "WARNING", "DEBUG", "TRACE"};
    return level < sizeof kNames / sizeof *kNames ? kNames[level] : "";
}

// The order in which "all" visits the components.
constexpr uint32_t kAllOrder[] = {TOV_COMPONENT_TOV, TOV_COMPONENT_MAP,      TOV_COMPONENT_ME,   TOV_COMPONENT_QT,
                                  TOV_COMPONENT_BK,  TOV_COMPONENT_MORVANTE, TOV_COMPONENT_VASKE};

} // namespace
} // namespace tov::detail

using namespace tov::detail;

extern "C" {

TOV_API uint32_t tov_init_trace_buffer(DebugContext *dctx) {
    if (!dctx) return TOV_RC_BAD_ARGUMENT;
    char name[kRingNameSize];
    ring_name(dctx, name);
    return open_ring(dctx, name);
}

TOV_API uint32_t tov_reinit_trace_buffer(DebugContext *dctx) {
    if (!dctx) return TOV_RC_BAD_ARGUMENT;
    char name[kRingNameSize];
    ring_name(dctx, name);
    if (dctx->trace_handle != 0) trace_buffer_close(dctx->trace_handle);
    if (int rc = trace_buffer_delete(name)) {
        // The handle is closed already but left as it is; writes through it are refused.
        std::fprintf(stderr, "trace_buffer_delete (%s) failed! (%s)\n", name,
                     error_code_text(static_cast<uint32_t>(rc)));
        return static_cast<uint32_t>(rc);
    }
    return open_ring(dctx, name);
}

TOV_API uint32_t tov_debug_logging_set_level(FrameworkContext *ctx, uint32_t component_id, uint32_t per_operation,
                                             uint32_t op, uint32_t level, uint32_t announce) {
    TOV_REQUIRE_CONTEXT(ctx);
    // An operation past the table would write outside op_levels.
    if (per_operation && op >= TOV_DEBUG_OP_COUNT) return TOV_RC_BAD_ARGUMENT;
    const bool all = component_id == TOV_COMPONENT_ALL;
    const uint32_t *ids = all ? kAllOrder : &component_id;
    const size_t count = all ? sizeof kAllOrder / sizeof *kAllOrder : 1;
    for (size_t i = 0; i < count; ++i) {
        DebugContext *component = tov_debug_get_component_ctx(&ctx->debug, ids[i]);
        if (!component) {
            if (all) continue;
            TOV_ERR_OP(ctx, nullptr, TOV_OP_LOGGING_SET, "Cannot find specified debug component: %s.",
                       tov_log_component_str(ids[i]));
            return TOV_RC_BAD_ARGUMENT;
        }
        if (per_operation) component->op_levels[op] = level;
        else component->level = level;
        if (announce == 1) {
            TOV_DBG_UNFILTERED(&ctx->debug, "Log level set to %s for %s %s%s", level_name(level),
                               tov_log_component_str(ids[i]), per_operation ? tov_debug_op_name(op) : "",
                               per_operation ? " operation" : "general");
        }
        if (per_operation) {
            uint32_t highest = 0;
            for (uint32_t op_level : component->op_levels) highest = op_level > highest ? op_level : highest;
            component->op_level_max = highest;
        }
    }
    return TOV_RC_OK;
}

TOV_API uint32_t tov_clear_trace(FrameworkContext *ctx) {
    TOV_REQUIRE_CONTEXT(ctx);
    for (uint32_t id = TOV_COMPONENT_TOV; id <= TOV_COMPONENT_VASKE; ++id)
        tov_clear_trace_update_component(&ctx->debug, id, 0, 1, 0);
    // Lets statements already past their trace_open check finish writing.
    usleep(100000);
    for (uint32_t id = TOV_COMPONENT_TOV; id <= TOV_COMPONENT_VASKE; ++id)
        tov_clear_trace_update_component(&ctx->debug, id, 1, 1, 1);
    return TOV_RC_OK;
}

TOV_API void tov_clear_trace_update_component(DebugContext *root, uint32_t component_id, uint32_t reinit,
                                              uint32_t set_open, uint32_t open_value) {
    DebugContext *component = tov_debug_get_component_ctx(root, component_id);
    if (!component) return;
    if (reinit) tov_reinit_trace_buffer(component);
    if (set_open) component->trace_open = open_value;
}

} // extern "C"
