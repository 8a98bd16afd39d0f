// SPDX-License-Identifier: BSD-3-Clause
// The one codec engine behind every kesh_tov_<message>_* function: one walk per operation
// (decode.cc, encode.cc, copy.cc, release.cc), each over its own explicit stack, so the depth of a
// data tree never costs C stack.
#pragma once

#include <cstdint>
#include <cstring>
#include <utility>

#include "codec/descriptor.hpp"
#include "core/walk_stack.hpp"
#include "tov/codec.h"

namespace tov::detail {

// The engine's outcome; the C boundary turns it into the -1..-4 codes.
enum class [[nodiscard]] Status : int32_t {
    ok = TOV_CODEC_OK,
    malformed = TOV_CODEC_MALFORMED,
    bad_wire_type = TOV_CODEC_BAD_WIRE_TYPE,
    wrong_wire_type = TOV_CODEC_WRONG_WIRE_TYPE,
    no_memory = TOV_CODEC_NO_MEMORY,
};
constexpr int32_t code(Status s) { return static_cast<int32_t>(s); }

// Tree levels every walk keeps off the C heap. Only a data tree's children nest without a bound;
// the envelopes around a tree and the records inside a node are walked by ordinary calls, their
// depth fixed by the schema. The frames are small (16 or 24 bytes), so a thousand levels cost at
// most 24 KiB of C stack, far cheaper than taking and copying heap memory on every call.
inline constexpr size_t kWalkFrames = 1024;
template <class Frame> using CodecStack = WalkStack<Frame, kWalkFrames>;

template <class T> inline T load(const uint8_t *p) {
    T value;
    std::memcpy(&value, p, sizeof value);
    return value;
}
template <class T> inline void store(uint8_t *p, T value) { std::memcpy(p, &value, sizeof value); }

// The presence bits of a record as one mask (bit i for the i-th field).
inline uint32_t present_mask(const MessageDesc &d, const uint8_t *record) {
    const uint8_t *p = record + d.present_offset;
    switch (d.present_bytes) {
    case 0: return 0;
    case 1: return p[0];
    case 2: return p[0] | uint32_t{p[1]} << 8;
    case 3: return p[0] | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16;
    default: return p[0] | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
    }
}

// False when no presence bit is set in the record or its inline records: it then sends nothing.
inline bool any_presence(const MessageDesc &d, const uint8_t *record) {
    uint8_t any = 0;
    for (unsigned k = 0; k < d.closure_count; ++k) any |= record[d.closure[k]];
    return any != 0;
}

// False when every owning pointer of rows [From, To) is null (one test for all of them): the walks
// that copy and release skip such rows, which for a data tree's rarer members is nearly always.
template <const MessageDesc &D, unsigned From, unsigned To> inline constexpr Offsets kOwnedPointers =
    owned_pointers(D, From, To);
template <const MessageDesc &D, unsigned From, unsigned To>
[[gnu::always_inline]] inline bool owns_any(const uint8_t *record) {
    return [record]<size_t... K>(std::index_sequence<K...>) {
        return (uintptr_t{0} | ... | load<uintptr_t>(record + kOwnedPointers<D, From, To>.at[K])) != 0;
    }(std::make_index_sequence<kOwnedPointers<D, From, To>.count>{});
}

// Every scalar, pointer and count 0, every presence bit clear, the non-zero defaults stored;
// nothing the record pointed to is freed.
void apply_defaults(const MessageDesc &desc, uint8_t *record);
inline void reset(const MessageDesc &desc, void *record) {
    if (!record || desc.size == 0) return;
    std::memset(record, 0, desc.size);
    if (desc.has_defaults) apply_defaults(desc, static_cast<uint8_t *>(record));
}

// The walks of one message, generated from its table (what the exported functions call).
template <const MessageDesc &D>
Status decode_message(void *record, const uint8_t *buffer, uint32_t length, tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
template <const MessageDesc &D>
uint32_t encode_message(const void *record, uint8_t *buffer, uint32_t capacity, TovSpan *spans,
                        uint32_t *span_count);
template <const MessageDesc &D>
Status duplicate_message(void *destination, const void *source, tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
template <const MessageDesc &D> void release_message(void *record, tov_free_fn free_fn, uintptr_t free_ctx);

// The same for a table known only at run time (the tools hold one): its generated walks are found
// by the table's address.
Status decode(const MessageDesc &desc, void *record, const uint8_t *buffer, uint32_t length, tov_alloc_fn alloc_fn,
              uintptr_t alloc_ctx);
uint32_t encode(const MessageDesc &desc, const void *record, uint8_t *buffer, uint32_t capacity, TovSpan *spans,
                uint32_t *span_count);
Status duplicate(const MessageDesc &desc, void *destination, const void *source, tov_alloc_fn alloc_fn,
                 uintptr_t alloc_ctx);
void release(const MessageDesc &desc, void *record, tov_free_fn free_fn, uintptr_t free_ctx);

// Walks whose contract says they cannot fail (encode, free) have no way to report that the heap
// refused working memory for a tree deeper than kWalkFrames; such a tree could not have been
// decoded or duplicated either, so this only happens to records built by hand.
[[noreturn]] void out_of_working_memory();
template <class Stack, class Frame> inline void must_push(Stack &stack, const Frame &frame) {
    if (!stack.push(frame)) out_of_working_memory();
}

} // namespace tov::detail
