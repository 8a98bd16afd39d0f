// SPDX-License-Identifier: BSD-3-Clause
// State and tables shared by the diagnostics sources.
#pragma once

#include <cstdint>

#include "tov/debug.h"

namespace tov::detail {

// One row of the static ring table: ring path and the ring's geometry handed to trace_buffer_open.
struct TraceTableEntry {
    uint32_t component_id;
    const char *trace_path; // nullptr for components without a ring
    uint32_t slot_count;    // records the ring holds
    uint32_t total_size;    // bytes of all slots together
};

// Indexed by component id, made from TOV_COMPONENTS; the rows of "none", "all" and the end are empty.
extern const TraceTableEntry trace_table[TOV_COMPONENT_END + 1];

// The row for `component_id`, or the empty end row for ids past the table.
const TraceTableEntry &trace_row(uint32_t component_id);

// The saved agent name (empty until tov_debug_save_agent_name).
const char *agent_name();

// Threshold of the setting level that admits message level `msg_level`; 0 for levels above 3.
constexpr uint32_t level_threshold(uint32_t msg_level) { return msg_level <= 3 ? msg_level + 1 : 0; }

} // namespace tov::detail
