// Varint reading and writing, shared by the engine and protoc99_decode_var32.
#pragma once

#include <cstdint>
#include <cstring>

namespace tov::detail {

// Reads a varint into T (32 or 64 bits): up to five or ten bytes carry bits; further bytes are
// skipped until one ends the varint (an over-long varint is accepted and truncated, deliberately;
// in 32 bits the fifth byte keeps only its low four bits). False when the buffer ends first.
template <class T> bool read_varint(const uint8_t *buffer, uint32_t &pos, uint32_t end, T &value) {
    if (pos < end && buffer[pos] < 0x80) {
        value = buffer[pos++];
        return true;
    }
    T v = 0;
    for (unsigned shift = 0; shift < 8 * sizeof(T) + 7 - (8 * sizeof(T)) % 7; shift += 7) {
        if (pos >= end) return false;
        const uint8_t byte = buffer[pos++];
        v |= static_cast<T>(byte & 0x7f) << shift;
        if (!(byte & 0x80)) {
            value = v;
            return true;
        }
    }
    for (;;) {
        if (pos >= end) return false;
        if (!(buffer[pos++] & 0x80)) break;
    }
    value = v;
    return true;
}
inline bool read_varint32(const uint8_t *b, uint32_t &pos, uint32_t end, uint32_t &v) { return read_varint(b, pos, end, v); }
inline bool read_varint64(const uint8_t *b, uint32_t &pos, uint32_t end, uint64_t &v) { return read_varint(b, pos, end, v); }

constexpr uint32_t varint_size(uint64_t value) {
    uint32_t n = 1;
    while (value >= 0x80) {
        value >>= 7;
        ++n;
    }
    return n;
}

// Writes at absolute positions; bytes at or past the capacity are counted, not written, which
// is all that measuring with capacity 0 and writing into a short buffer need.
struct Writer {
    uint8_t *buffer;
    uint32_t capacity;
    uint32_t pos;

    void byte(uint8_t b) {
        if (pos < capacity) buffer[pos] = b;
        ++pos;
    }
    void varint(uint64_t value) {
        if (pos < capacity && capacity - pos >= 10) { // room for any varint: no per-byte checks
            uint8_t *p = buffer + pos;
            while (value >= 0x80) {
                *p++ = static_cast<uint8_t>(value | 0x80);
                value >>= 7;
            }
            *p++ = static_cast<uint8_t>(value);
            pos = static_cast<uint32_t>(p - buffer);
            return;
        }
        while (value >= 0x80) {
            byte(static_cast<uint8_t>(value | 0x80));
            value >>= 7;
        }
        byte(static_cast<uint8_t>(value));
    }
    // A string's bytes are written whole or not at all.
    void bytes(const void *data, uint32_t n) {
        if (pos <= capacity && n <= capacity - pos && n != 0) std::memcpy(buffer + pos, data, n);
        pos += n;
    }
};

} // namespace tov::detail
