// SPDX-License-Identifier: BSD-3-Clause
// The framework's codec allocator pair, arrays of empty data trees, and the printers that render
// a data tree or a schema list as indented text into a component's trace ring.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "core/walk_stack.hpp"
#include "debug/gpb_internal.hpp"
#include "debug/log.hpp"
#include "tov/kor_alloc.h"
#include "tov/result.h"

namespace tov::detail {
namespace {

constexpr const char *kGpbLabel = "TOV GPB";
// Allocation reports have always grouped these arrays under this name; it stays.
constexpr const char *kDatatreeLabel = "GPB datatree (tov_req_datatree_create)";

constexpr int32_t kTextSize = TOV_DEBUG_TRACE_LINE_SIZE;
// Lines wait until this many bytes can go out as one record.
constexpr int32_t kFlushAt = 160;
constexpr char kTruncated[] = "[TRUNCATED...]";
// The marker and its terminator end on the buffer's last byte.
constexpr int32_t kTruncatedAt = kTextSize - static_cast<int32_t>(sizeof kTruncated);

// Several lines collected before they go to the ring as one record.
struct TraceText {
    char text[kTextSize];
    int32_t fill;
};

void mark_truncated(TraceText &t) {
    std::memcpy(t.text + kTruncatedAt, kTruncated, sizeof kTruncated);
    t.fill = kTextSize - 1;
}

__attribute__((format(printf, 2, 3))) uint32_t append(TraceText &t, const char *format, ...) {
    if (t.fill >= kTextSize)
        return TOV_RC_BAD_ARGUMENT;
    const int32_t room = kTextSize - t.fill;
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(t.text + t.fill, static_cast<size_t>(room), format, args);
    va_end(args);
    if (n >= 0 && n < room)
        t.fill += n;
    else
        mark_truncated(t);
    return 0;
}

// The bytes of appending "%*s" over "" with `width`, without producing padding that can never
// fit: a node a million levels down costs no more than one near the root.
uint32_t append_indent(TraceText &t, size_t width) {
    if (t.fill >= kTextSize)
        return TOV_RC_BAD_ARGUMENT;
    const size_t room = static_cast<size_t>(kTextSize - t.fill);
    const size_t n = std::min(width, room - 1);
    std::memset(t.text + t.fill, ' ', n);
    t.text[static_cast<size_t>(t.fill) + n] = '\0';
    if (width < room)
        t.fill += static_cast<int32_t>(width);
    else
        mark_truncated(t);
    return 0;
}

void write_out(const DebugContext &dctx, const TraceText &t) {
    char out[kTextSize];
    std::snprintf(out, sizeof out, "%s", t.text);
    trace_buffer_write(dctx.trace_handle, kTraceRecordFlags, kTraceRecordType, out);
}

// Sends the waiting lines once there are enough of them; a closed ring discards them. Emptying
// the text too means a final write with nothing waiting is an empty record, not a repeat.
void flush(const DebugContext *dctx, TraceText &t) {
    if (!dctx || t.fill < kFlushAt || t.fill > kTextSize)
        return;
    if (dctx->trace_open)
        write_out(*dctx, t);
    t.fill = 0;
    t.text[0] = '\0';
}

const char *or_empty(const char *s) {
    return s ? s : "";
}

bool has(const DataTree &node, unsigned bit) {
    return tov_bit_is_set(node.present, bit);
}

constexpr const char *kEditOperations[] = {" (merge)", " (replace)", " (create)", " (delete)", " (remove)"};

// One child's line; a non-zero result ends the walk of its remaining siblings.
uint32_t child_line(const DebugContext *dctx, TraceText &t, const DataTree &c, size_t depth, ChildMode mode) {
    uint32_t rc = append_indent(t, depth * 4);
    if (rc == 0)
        rc = mode == ChildMode::Qualified ? append(t, "%s (%s)", or_empty(c.name), or_empty(c.qualifier))
                                          : append(t, "%s", or_empty(c.name));
    if (rc == 0 && has(c, TOV_DATATREE_BIT_VALUE))
        rc = append(t, " : %s", or_empty(c.value));
    if (mode == ChildMode::Plain) {
        if (rc == 0 && has(c, TOV_DATATREE_BIT_OPERATION))
            rc = append(t, "%s",
                        c.operation < std::size(kEditOperations) ? kEditOperations[c.operation] : " (-)");
        if (rc == 0 && has(c, TOV_DATATREE_BIT_ATTRIBUTES) && c.attributes) {
            for (uint32_t i = 0; i < c.attributes_count; ++i)
                if (append(t, " %s=%s", or_empty(c.attributes[i].name), or_empty(c.attributes[i].value)) != 0)
                    break;
        }
    }
    if (rc == 0)
        rc = append(t, "\n");
    if (rc == 0)
        flush(dctx, t);
    return rc;
}

// The children of one parent, and the result of the last one handled.
struct Level {
    const DataTree *children;
    uint32_t count;
    uint32_t next;
    uint32_t result;
};

// Children in array order, each followed by its own subtree, the root's children at depth 2.
// Depth lives on the walk stack, not the C stack.
uint32_t walk_children(const DebugContext *dctx, TraceText &t, const DataTree &root, ChildMode mode) {
    if (!root.children || root.children_count < 1)
        return 0;
    WalkStack<Level, 64> stack;
    (void)stack.push(Level{root.children, root.children_count, 0, 0});
    for (;;) {
        Level &level = stack.top();
        if (level.next >= level.count) {
            const uint32_t result = level.result;
            stack.pop();
            if (stack.empty())
                return result;
            stack.top().result = result; // a failed subtree does not stop its parent's siblings
            continue;
        }
        const DataTree &child = level.children[level.next++];
        level.result = child_line(dctx, t, child, stack.size() + 1, mode);
        if (level.result != 0) {
            level.next = level.count;
        } else if (has(child, TOV_DATATREE_BIT_CHILDREN) && child.children && child.children_count >= 1) {
            // On failure the stack is unchanged, so `level` is still valid.
            if (!stack.push(Level{child.children, child.children_count, 0, 0}))
                level.result = TOV_RC_NO_MEMORY;
        }
    }
}

} // namespace

uint32_t print_tree(DebugContext *dctx, const DataTree *tree, const char *title, ChildMode mode) {
    if (!dctx || !tree)
        return TOV_RC_BAD_ARGUMENT;
    TraceText t{};
    uint32_t rc = title ? append(t, "%s:\n", title) : 0;
    if (rc == 0 && has(*tree, TOV_DATATREE_BIT_NAME)) {
        // The root's operation and attributes are never printed.
        const char *name = or_empty(tree->name), *qualifier = or_empty(tree->qualifier);
        if (!has(*tree, TOV_DATATREE_BIT_QUALIFIER))
            rc = append(t, "    %s\n", name);
        else if (has(*tree, TOV_DATATREE_BIT_VALUE))
            rc = append(t, "    %s (%s) : %s\n", name, qualifier, or_empty(tree->value));
        else
            rc = append(t, "    %s (%s)\n", name, qualifier);
        flush(dctx, t);
        if (rc == 0)
            rc = walk_children(dctx, t, *tree, mode);
    }
    if (t.fill >= 1 && dctx->trace_open)
        write_out(*dctx, t);
    return rc;
}

} // namespace tov::detail

using namespace tov::detail;

extern "C" {

TOV_API void *tov_gpb_alloc(uint32_t size, uintptr_t) {
    return kor_named_calloc(1, size, kGpbLabel, 0);
}

TOV_API void tov_gpb_free(void *pointer, uintptr_t) {
    if (pointer)
        kor_named_free(pointer);
}

TOV_API DataTree *tov_gpb_datatree_create(FrameworkContext *ctx, unsigned count) {
    DataTree *nodes = nullptr;
    size_t bytes = 0; // a size that does not fit is a failed allocation
    if (!__builtin_mul_overflow(size_t{count}, sizeof(DataTree), &bytes))
        nodes = static_cast<DataTree *>(kor_named_malloc(bytes, kDatatreeLabel, 0));
    if (!nodes) {
        TOV_ERR(ctx, "TOV datatree allocation failed");
        return nullptr;
    }
    if (bytes != 0) std::memset(nodes, 0, bytes);
    return nodes;
}

TOV_API uint32_t tov_gpb_datatree_trace_internal(DebugContext *dctx, const DataTree *tree,
                                                 const char *title) {
    return print_tree(dctx, tree, title, ChildMode::Plain);
}

TOV_API uint32_t tov_gpb_schemas_trace_internal(DebugContext *dctx, const Schema *schemas, unsigned count,
                                                const char *title) {
    if (!dctx || !schemas)
        return TOV_RC_BAD_ARGUMENT;
    TraceText t{};
    uint32_t rc = 0;
    if (title && (rc = append(t, "%s:\n", title)) != 0)
        return rc;
    auto text = [](const Schema &s, unsigned bit, const char *value) {
        return tov_bit_is_set(s.present, bit) && value ? value : "";
    };
    for (unsigned i = 0; i < count && rc == 0; ++i) {
        const Schema &s = schemas[i];
        rc = append(t, "    [%d]: %s, %s, %s, %s, %d\n", static_cast<int>(i),
                    text(s, TOV_SCHEMA_BIT_TEXT_2, s.text_2), text(s, TOV_SCHEMA_BIT_TEXT_1, s.text_1),
                    text(s, TOV_SCHEMA_BIT_TEXT_5, s.text_5), text(s, TOV_SCHEMA_BIT_TEXT_3, s.text_3),
                    tov_bit_is_set(s.present, TOV_SCHEMA_BIT_FLAG_4) ? s.flag_4 : 0);
        flush(dctx, t);
    }
    // Unlike the tree printer, a final record goes out even when nothing waits.
    if (dctx->trace_open)
        write_out(*dctx, t);
    return rc;
}

} // extern "C"
