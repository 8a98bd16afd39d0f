// SPDX-License-Identifier: BSD-3-Clause
// The data-tree printer behind tov_gpb_datatree_trace_internal, with both ways of rendering a child.
#pragma once

#include <cstdint>

#include "tov/gpb.h"

namespace tov::detail {

enum class ChildMode {
    Plain,     // name, value, edit operation and attributes: what the exported printer uses
    Qualified, // name (qualifier) and value
};

uint32_t print_tree(DebugContext *dctx, const DataTree *tree, const char *title, ChildMode mode);

} // namespace tov::detail
