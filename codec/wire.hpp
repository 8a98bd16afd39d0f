// SPDX-License-Identifier: BSD-3-Clause
// Varint reading, shared by the decoder and protoc99_decode_var32.
#pragma once

#include <cstdint>

namespace tov::detail {

// Reads a varint into T (32 or 64 bits): up to five or ten bytes carry bits; further bytes are
// skipped until one ends the varint (an over-long varint is accepted and truncated, deliberately;
// in 32 bits the fifth byte keeps only its low four bits). False when the buffer ends first.
// Returns the position behind the varint, or 0 when the buffer ends first (a varint takes at least
// one byte, so 0 is never a position behind one). The position goes in and out by value, so that
// the caller's copy can stay in a register.
template <class T>
[[gnu::noinline]] uint32_t read_varint_long(const uint8_t *buffer, uint32_t pos, uint32_t end, T &value) {
    T v = 0;
    for (unsigned shift = 0; shift < 8 * sizeof(T) + 7 - (8 * sizeof(T)) % 7; shift += 7) {
        if (pos >= end) return 0;
        const uint8_t byte = buffer[pos++];
        v |= static_cast<T>(byte & 0x7f) << shift;
        if (!(byte & 0x80)) {
            value = v;
            return pos;
        }
    }
    for (;;) {
        if (pos >= end) return 0;
        if (!(buffer[pos++] & 0x80)) break;
    }
    value = v;
    return pos;
}
// One-byte varints (keys, most lengths and values) are read inline; longer ones out of line.
template <class T>
[[gnu::always_inline]] inline bool read_varint(const uint8_t *buffer, uint32_t &pos, uint32_t end, T &value) {
    if (pos < end && buffer[pos] < 0x80) [[likely]] {
        value = buffer[pos++];
        return true;
    }
    const uint32_t next = read_varint_long(buffer, pos, end, value);
    if (next == 0) return false;
    pos = next;
    return true;
}
// The length of a nested message often takes two bytes: those are read inline too.
[[gnu::always_inline]] inline bool read_size(const uint8_t *buffer, uint32_t &pos, uint32_t end,
                                              uint32_t &value) {
    if (pos < end && buffer[pos] < 0x80) [[likely]] {
        value = buffer[pos++];
        return true;
    }
    if (pos < end && end - pos >= 2 && buffer[pos + 1] < 0x80) {
        value = (buffer[pos] & 0x7fu) | uint32_t{buffer[pos + 1]} << 7;
        pos += 2;
        return true;
    }
    const uint32_t next = read_varint_long(buffer, pos, end, value);
    if (next == 0) return false;
    pos = next;
    return true;
}
[[gnu::always_inline]] inline bool read_varint32(const uint8_t *b, uint32_t &pos, uint32_t end, uint32_t &v) {
    return read_varint(b, pos, end, v);
}
[[gnu::always_inline]] inline bool read_varint64(const uint8_t *b, uint32_t &pos, uint32_t end, uint64_t &v) {
    return read_varint(b, pos, end, v);
}

} // namespace tov::detail
