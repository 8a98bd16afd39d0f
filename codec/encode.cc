// SPDX-License-Identifier: BSD-3-Clause
// Encoding. One emit routine walks a record back to front (fields from the last to the first,
// elements from the last to the first) and is run with two outputs: a counter, which measures, and
// a writer, which lays the bytes down from the end of the encoding towards its start. Written back
// to front, a nested message's length is known as soon as its body is written, so no list of
// nested sizes is kept and every message is visited once per walk. The writer puts each byte at
// the absolute position it has in the complete encoding, so a buffer shorter than the encoding
// receives exactly the bytes below its capacity (a string whole or not at all), and the span list
// comes out in the same order as if the message had been written front to back.
#include "codec/engine.hpp"
#include "codec/wire.hpp"

#include <cstdio>
#include <cstdlib>

namespace tov::detail {

void out_of_working_memory() {
    std::fputs("tov codec: no working memory for the depth of this message tree\n", stderr);
    std::abort();
}

namespace {

inline uint32_t varint_size32(uint32_t v) { return (static_cast<uint32_t>(31 - __builtin_clz(v | 1)) * 9 + 73) / 64; }
inline uint32_t varint_size64(uint64_t v) {
    return (static_cast<uint32_t>(63 - __builtin_clzll(v | 1)) * 9 + 73) / 64;
}
inline uint8_t highest(uint32_t mask) { return static_cast<uint8_t>(31 - __builtin_clz(mask)); }

// Measures: `at` grows by every byte emitted.
struct Counter {
    static constexpr bool kBackward = false; // any order measures; front to back reads memory in order
    uint64_t at = 0; // the caller sees 32 bits; 64 here tell that a hand-built record went past them
    uint32_t spans = 0; // non-empty message encodings
    void byte(uint8_t) { ++at; }
    void varint32(uint32_t v) { at += varint_size32(v); }
    void varint64(uint64_t v) { at += varint_size64(v); }
    void key(const FieldDesc &f) { at += f.key_size; }
    void bytes(const void *, uint32_t n) { at += n; }
    uint32_t mark() const { return static_cast<uint32_t>(at); }
    uint32_t since(uint32_t mark) const { return static_cast<uint32_t>(at) - mark; }
    void claim(uint32_t, uint32_t, size_t) { ++spans; }
};

// Writes towards the start: `at` is the absolute position of the first byte written so far. With
// Clip, only positions below the capacity are written, a string only when it fits whole.
template <bool Clip> struct Writer {
    static constexpr bool kBackward = true;
    uint8_t *buffer;
    uint32_t capacity;
    uint32_t at;
    TovSpan *spans = nullptr;
    uint32_t span_room = 0;
    uint32_t span_total = 0; // spans the whole encoding claims
    uint32_t claimed = 0;

    void byte(uint8_t b) {
        --at;
        if (!Clip || at < capacity) buffer[at] = b;
    }
    void varint32(uint32_t v) { varint(v, varint_size32(v)); }
    void varint64(uint64_t v) { varint(v, varint_size64(v)); }
    void key(const FieldDesc &f) {
        if (f.key_size == 1)
            byte(static_cast<uint8_t>(f.key));
        else
            varint(f.key, 2);
    }
    void varint(uint64_t v, uint32_t size) {
        at -= size;
        if (!Clip || (at <= capacity && size <= capacity - at)) {
            uint8_t *p = buffer + at;
            for (; v >= 0x80; v >>= 7) *p++ = static_cast<uint8_t>(v | 0x80);
            *p = static_cast<uint8_t>(v);
            return;
        }
        for (uint32_t i = 0; i < size; ++i, v >>= 7)
            if (at + i < capacity) buffer[at + i] = static_cast<uint8_t>(i + 1 < size ? (v | 0x80) : v);
    }
    void bytes(const void *data, uint32_t n) {
        at -= n;
        if ((!Clip || (at <= capacity && n <= capacity - at)) && n != 0) std::memcpy(buffer + at, data, n);
    }
    uint32_t mark() const { return at; }
    uint32_t since(uint32_t mark) const { return mark - at; }
    // The message just written (at `at`, n bytes) takes the span that front-to-back writing would
    // give it: after it come its enclosing messages and everything written before it here.
    void claim(uint32_t n, uint32_t claimed_before, size_t enclosing) {
        const uint32_t index = span_total - 1 - claimed_before - static_cast<uint32_t>(enclosing);
        if (index < span_room)
            spans[index] = TovSpan{enclosing == 0 ? buffer : (at < capacity ? buffer + at : nullptr), n};
        ++claimed;
    }
};

struct EmitFrame {
    const MessageDesc *desc;
    const uint8_t *record;
    uint32_t bits;    // presence bits
    uint32_t pending; // fields still to emit: the present ones and the inline records
    uint32_t remaining; // elements of the current run still to emit
    uint32_t count;     // elements of the current run
    uint32_t mark;    // where this message's body ends
    uint32_t claimed; // spans claimed before this message was entered
    bool in_run;
};

template <class Out> uint32_t claimed_of(const Out &out) {
    if constexpr (requires { out.claimed; })
        return out.claimed;
    else
        return 0;
}

// The fields to visit: the present ones, and the inline records when any presence bit is set in
// one of them (most data tree nodes carry neither node_info nor insert).
template <class Out> EmitFrame frame_of(const MessageDesc &d, const uint8_t *record, const Out &out) {
    const uint32_t bits = present_mask(d, record);
    uint8_t inline_bits = 0;
    for (unsigned k = d.present_bytes; k < d.closure_count; ++k) inline_bits |= record[d.closure[k]];
    return EmitFrame{&d, record, bits, inline_bits ? bits | d.inline_mask : bits, 0, 0, out.mark(), claimed_of(out),
                     false};
}

template <class Out> void emit(const MessageDesc &root, const uint8_t *root_record, Out &out) {
    // The field to emit next: the last pending one when writing back to front, else the first.
    auto next = [](uint32_t pending) -> uint8_t {
        if constexpr (Out::kBackward)
            return highest(pending);
        else
            return static_cast<uint8_t>(__builtin_ctz(pending));
    };
    CodecStack<EmitFrame> stack;
    must_push(stack, frame_of(root, root_record, out));
    for (;;) {
    resume:
        EmitFrame &f = stack.top();
        const MessageDesc &d = *f.desc;
        const uint8_t *record = f.record;
        for (uint32_t pending = f.pending; pending; pending &= ~(1u << next(pending)), f.pending = pending) {
            const uint8_t i = next(pending);
            const FieldDesc &fd = d.fields[i];
            const bool present = (f.bits >> i) & 1u;
            switch (fd.kind) {
            case Kind::Varint32:
                out.varint32(load<uint32_t>(record + fd.offset));
                out.key(fd);
                break;
            case Kind::Bool:
                out.varint32(load<uint8_t>(record + fd.offset));
                out.key(fd);
                break;
            case Kind::Varint64:
                out.varint64(load<uint64_t>(record + fd.offset));
                out.key(fd);
                break;
            case Kind::String:
                if (const char *s = load<const char *>(record + fd.offset)) {
                    const uint32_t n = static_cast<uint32_t>(std::strlen(s));
                    out.bytes(s, n);
                    out.varint32(n);
                    out.key(fd);
                }
                break;
            case Kind::Flag:
                out.byte(0);
                out.key(fd);
                break;
            case Kind::Strings: // measured in any order, written back to front
                if (auto *const *items = load<char *const *>(record + fd.offset)) {
                    for (uint32_t k = load<uint32_t>(record + fd.count_offset); k-- > 0;) {
                        const uint32_t n = items[k] ? static_cast<uint32_t>(std::strlen(items[k])) : 0;
                        out.bytes(items[k], n);
                        out.varint32(n);
                        out.key(fd);
                    }
                }
                break;
            case Kind::Message: {
                // Sent when present or when it has content: a record with no presence bit set in
                // it sends nothing, so it is not entered.
                const uint8_t *sub = record + fd.offset;
                if (any_presence(*fd.sub, sub)) {
                    must_push(stack, frame_of(*fd.sub, sub, out));
                    goto resume;
                }
                if (present) {
                    out.byte(0);
                    out.key(fd);
                }
                break;
            }
            case Kind::Messages: {
                const auto *elements = load<const uint8_t *>(record + fd.offset);
                if (!elements) break;
                if (!f.in_run) {
                    f.in_run = true;
                    f.remaining = f.count = load<uint32_t>(record + fd.count_offset);
                }
                if (f.remaining > 0) {
                    const MessageDesc &sub = sub_of(d, fd);
                    const uint32_t k = Out::kBackward ? f.remaining - 1 : f.count - f.remaining;
                    --f.remaining;
                    must_push(stack, frame_of(sub, elements + size_t{k} * sub.size, out));
                    goto resume;
                }
                f.in_run = false;
                break;
            }
            }
        }
        // The message is written: claim its span, then its parent sends its key and length.
        const uint32_t n = out.since(f.mark), claimed = f.claimed;
        stack.pop();
        if (n != 0) out.claim(n, claimed, stack.size());
        if (stack.empty()) return;
        EmitFrame &p = stack.top();
        const uint8_t i = next(p.pending);
        const FieldDesc &pf = p.desc->fields[i];
        if (pf.kind == Kind::Message) {
            if (n != 0 || ((p.bits >> i) & 1u)) {
                out.varint32(n);
                out.key(pf);
            }
            p.pending &= ~(1u << i);
        } else {
            out.varint32(n);
            out.key(pf);
        }
    }
}

} // namespace

uint32_t encode(const MessageDesc &root, const void *root_record, uint8_t *buffer, uint32_t capacity, TovSpan *spans,
                uint32_t *span_count) {
    if (!root_record) {
        if (span_count) *span_count = 0;
        return 0;
    }
    const auto *record = static_cast<const uint8_t *>(root_record);
    Counter counter;
    emit(root, record, counter);
    // Past 4 GiB positions wrap around; only the writer that checks every position stays inside.
    const uint32_t total = static_cast<uint32_t>(counter.at);
    const bool whole = counter.at <= UINT32_MAX;
    if (span_count) {
        Writer<true> w{buffer, buffer ? capacity : 0, total, spans, spans ? *span_count : 0, counter.spans};
        emit(root, record, w);
        *span_count = counter.spans;
    } else if (buffer && capacity >= total && whole) {
        Writer<false> w{buffer, capacity, total};
        emit(root, record, w);
    } else if (buffer && capacity != 0) {
        Writer<true> w{buffer, capacity, total};
        emit(root, record, w);
    }
    return total;
}

} // namespace tov::detail
