// SPDX-License-Identifier: BSD-3-Clause
// Decoding, generated per message from its table: one branch per row, taken on the row's whole key.
// Nesting that the tables bound (inline records, runs of another message, payload flags) is a
// call into the nested message's walk over exactly its bytes; only a message that repeats itself
// (a data tree's children) keeps an explicit stack, of ancestors, so a tree's depth costs no C stack.
#include <utility>

#include "codec/engine.hpp"
#include "codec/envelope_tables.hpp"
#include "codec/text.hpp"
#include "codec/wire.hpp"

namespace tov::detail {

void apply_defaults(const MessageDesc &d, uint8_t *record) {
    for (unsigned i = 0; i < d.field_count; ++i) {
        const FieldDesc &f = d.fields[i];
        if (f.default_value != 0) {
            switch (f.kind) {
            case Kind::Varint32: store<uint32_t>(record + f.offset, f.default_value); break;
            case Kind::Bool: store<uint8_t>(record + f.offset, 1); break;
            case Kind::Varint64: store<uint64_t>(record + f.offset, f.default_value); break;
            default: break;
            }
        } else if (f.kind == Kind::Message && f.sub->has_defaults) {
            apply_defaults(*f.sub, record + f.offset);
        }
    }
}

namespace {

// Reads a length and checks it against the end of the message: -1 when it runs past it.
inline bool read_length(const uint8_t *buffer, uint32_t &pos, uint32_t end, uint32_t &n) {
    return read_varint32(buffer, pos, end, n) && n <= end - pos;
}
inline bool read_message_length(const uint8_t *buffer, uint32_t &pos, uint32_t end, uint32_t &n) {
    return read_size(buffer, pos, end, n) && n <= end - pos;
}

// Skips an unknown field. Skips of fixed and length-delimited fields are not checked against the
// end: one that runs past it simply ends the message (deliberately lenient).
Status skip_field(const uint8_t *buffer, uint32_t &pos, uint32_t end, uint32_t wire_type) {
    auto advance = [&](uint32_t n) { pos = n >= end - pos ? end : pos + n; };
    uint32_t n;
    switch (wire_type) {
    case 0: return read_varint32(buffer, pos, end, n) ? Status::ok : Status::malformed;
    case 1: advance(8); return Status::ok;
    case 2:
        if (!read_varint32(buffer, pos, end, n)) return Status::malformed;
        advance(n);
        return Status::ok;
    case 5: advance(4); return Status::ok;
    default: return Status::bad_wire_type;
    }
}

// Counts the run of consecutive elements of one repeated field, starting at the length of the
// first element (its key already read). Each element's length is checked against the end.
[[gnu::always_inline]] inline Status count_run(const uint8_t *buffer, uint32_t pos, uint32_t end, uint32_t key,
                                               uint32_t &count) {
    count = 0;
    for (;;) {
        uint32_t n;
        if (!read_message_length(buffer, pos, end, n)) return Status::malformed;
        pos += n;
        ++count;
        if (pos >= end) return Status::ok;
        uint32_t next;
        if (!read_varint32(buffer, pos, end, next)) return Status::malformed;
        if (next != key) return Status::ok; // another field, or this one with another wire type
    }
}

// An array of count zero-filled slots of size bytes, or nullptr (-4) when it cannot be had.
void *alloc_array(uint32_t count, size_t size, tov_alloc_fn alloc_fn, uintptr_t alloc_ctx) {
    const uint64_t bytes = uint64_t{count} * size;
    if (bytes > UINT32_MAX) return nullptr;
    void *array = alloc_fn(static_cast<uint32_t>(bytes), alloc_ctx);
    if (array) std::memset(array, 0, static_cast<size_t>(bytes));
    return array;
}

Status decode_strings(const FieldDesc &f, uint8_t *record, const uint8_t *buffer, uint32_t &pos, uint32_t end,
                      uint32_t key, tov_alloc_fn alloc_fn, uintptr_t alloc_ctx) {
    uint32_t count;
    if (Status s = count_run(buffer, pos, end, key, count); s != Status::ok) return s;
    auto **items = static_cast<char **>(alloc_array(count, sizeof(char *), alloc_fn, alloc_ctx));
    if (!items) return Status::no_memory;
    store<char **>(record + f.offset, items);
    store<uint32_t>(record + f.count_offset, count);
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t n = 0;
        if (i > 0) (void)read_varint32(buffer, pos, end, n); // the key, checked by count_run
        (void)read_size(buffer, pos, end, n);
        char *s = static_cast<char *>(alloc_fn(n + 1, alloc_ctx));
        if (!s) return Status::no_memory;
        std::memcpy(s, buffer + pos, n);
        s[n] = '\0';
        items[i] = s;
        pos += n;
    }
    return Status::ok;
}

struct Input {
    const uint8_t *buffer;
    tov_alloc_fn alloc_fn;
    uintptr_t alloc_ctx;
};

// A field's outcome when it begins a run of the record's own message (a data tree's children):
// not a failure, but a sign to the tree walk that the first element's bytes start at the position.
constexpr Status kDescend = static_cast<Status>(1);
struct Run {
    uint8_t *elements;
    uint32_t first_length;
};

// A key that matches no row exactly: a known field with the wrong wire type, or an unknown field.
[[gnu::noinline]] Status other_key(const MessageDesc &d, const uint8_t *buffer, uint32_t &pos, uint32_t end,
                                   uint32_t key) {
    const uint32_t number = key >> 3;
    if (number <= kMaxFieldNumber && d.lookup[number] != kUnknownField) return Status::wrong_wire_type;
    return skip_field(buffer, pos, end, key & 7u);
}

using Walk = Status (*)(const Input &, uint8_t *record, uint32_t pos, uint32_t end);

// A singular string into its member.
[[gnu::always_inline]] inline Status string_field(const Input &in, uint8_t *member, uint32_t &pos,
                                                  uint32_t end) {
    // A singular string may occur once: stricter than last-one-wins, deliberately.
    if (load<char *>(member)) return Status::malformed;
    if (!in.alloc_fn) return Status::no_memory;
    uint32_t n;
    if (!read_length(in.buffer, pos, end, n)) return Status::malformed;
    // n < length here (the key took at least one byte), so n + 1 cannot wrap.
    char *s = static_cast<char *>(in.alloc_fn(n + 1, in.alloc_ctx));
    if (!s) return Status::no_memory;
    copy_bytes(reinterpret_cast<uint8_t *>(s), reinterpret_cast<const char *>(in.buffer + pos), n);
    s[n] = '\0';
    store<char *>(member, s);
    pos += n;
    return Status::ok;
}
// The same, out of line: a tree's walk, where nearly every string is, has its own copies inline;
// every other table shares this one.
[[gnu::noinline]] Status string_field_call(const Input &in, uint8_t *member, uint32_t &pos, uint32_t end) {
    return string_field(in, member, pos, end);
}

// The start of a run of elements (its key read): the array, sized by counting the run, zero-filled
// and stored with its count.
[[gnu::always_inline]] inline Status start_run(const Input &in, uint8_t *member, uint8_t *count_member,
                                               size_t size, uint32_t pos, uint32_t end, uint32_t key,
                                               uint8_t *&elements) {
    // Elements must stand together: a second run of the same field is refused.
    if (load<void *>(member)) return Status::malformed;
    if (!in.alloc_fn) return Status::no_memory;
    uint32_t count;
    if (Status s = count_run(in.buffer, pos, end, key, count); s != Status::ok) return s;
    elements = static_cast<uint8_t *>(alloc_array(count, size, in.alloc_fn, in.alloc_ctx));
    if (!elements) return Status::no_memory;
    store<void *>(member, elements);
    store<uint32_t>(count_member, count);
    return Status::ok;
}

// A run of another message's elements, each decoded by that message's walk. Each element's key
// and length were checked by count_run.
[[gnu::noinline]] Status run_of(const Input &in, const MessageDesc &sub, Walk walk, uint8_t *member,
                                uint8_t *count_member, uint32_t &pos, uint32_t end, uint32_t key) {
    uint8_t *elements;
    if (Status s = start_run(in, member, count_member, sub.size, pos, end, key, elements); s != Status::ok)
        return s;
    for (uint32_t i = 0, count = load<uint32_t>(count_member); i < count; ++i) {
        uint32_t n = 0;
        if (i > 0) (void)read_varint32(in.buffer, pos, end, n);
        (void)read_size(in.buffer, pos, end, n);
        uint8_t *element = elements + size_t{i} * sub.size;
        if (sub.has_defaults) apply_defaults(sub, element);
        const uint32_t at = pos;
        pos += n;
        if (Status s = walk(in, element, at, at + n); s != Status::ok) return s;
    }
    return Status::ok;
}

// An embedded message (record nullptr for a payload flag): its length, then its walk over exactly
// those bytes. A second occurrence decodes into the same record again; its reset drops (does not
// free) what the first one allocated. Out of line: one copy serves every row of every table.
[[gnu::noinline]] Status embedded(const Input &in, const MessageDesc &sub, Walk walk, uint8_t *record,
                                  uint32_t &pos, uint32_t end) {
    uint32_t n;
    if (!read_message_length(in.buffer, pos, end, n)) return Status::malformed;
    reset(sub, record);
    const uint32_t at = pos;
    pos += n;
    return walk(in, record, at, at + n);
}

// The decoder of one message, generated from its table: one branch per row, compared against the
// row's whole key (number and wire type at once), with the row's kind, member and bit as constants.
template <const MessageDesc &D> struct Decoder {
    static constexpr unsigned kSelf = self_field(D);
    static constexpr bool kHot = in_tree(D, kAllMessages);

    template <unsigned I> static void set_bit(uint8_t *record) {
        record[D.present_offset + I / 8] |= static_cast<uint8_t>(1u << (I % 8));
    }

    template <unsigned I>
    [[gnu::always_inline]] static Status field(const Input &in, uint8_t *record, uint32_t &pos, uint32_t end,
                                               uint32_t key, Run &run) {
        constexpr const FieldDesc &f = D.fields[I];
        const uint8_t *buffer = in.buffer;
        if constexpr (f.kind == Kind::Varint32 || f.kind == Kind::Bool) {
            uint32_t v;
            if (!read_varint32(buffer, pos, end, v)) return Status::malformed;
            if constexpr (f.kind == Kind::Bool)
                store<uint8_t>(record + f.offset, v != 0);
            else
                store<uint32_t>(record + f.offset, v);
            set_bit<I>(record);
        } else if constexpr (f.kind == Kind::Varint64) {
            uint64_t v;
            if (!read_varint64(buffer, pos, end, v)) return Status::malformed;
            store<uint64_t>(record + f.offset, v);
            set_bit<I>(record);
        } else if constexpr (f.kind == Kind::String) {
            Status s;
            if constexpr (kHot) {
                s = string_field(in, record + f.offset, pos, end);
            } else {
                uint32_t at = pos;
                s = string_field_call(in, record + f.offset, at, end);
                pos = at;
            }
            if (s != Status::ok) return s;
            set_bit<I>(record);
        } else if constexpr (f.kind == Kind::Message || f.kind == Kind::Flag) {
            uint32_t at = pos;
            const Status s = embedded(in, *f.sub, &Decoder<*f.sub>::run,
                                      f.kind == Kind::Message ? record + f.offset : nullptr, at, end);
            pos = at;
            if (s != Status::ok) return s;
            set_bit<I>(record);
        } else if constexpr (f.kind == Kind::Messages && I == kSelf) {
            if (Status s = start_run(in, record + f.offset, record + f.count_offset, D.size, pos, end, key,
                                     run.elements);
                s != Status::ok)
                return s;
            (void)read_size(buffer, pos, end, run.first_length); // checked by count_run
            return kDescend;
        } else if constexpr (f.kind == Kind::Messages && kHot) {
            uint8_t *elements;
            if (Status s = start_run(in, record + f.offset, record + f.count_offset, f.sub->size, pos, end, key,
                                     elements);
                s != Status::ok)
                return s;
            for (uint32_t i = 0, count = load<uint32_t>(record + f.count_offset); i < count; ++i) {
                uint32_t n = 0; // each element's key and length were checked by count_run
                if (i > 0) (void)read_varint32(buffer, pos, end, n);
                (void)read_size(buffer, pos, end, n);
                uint8_t *element = elements + size_t{i} * f.sub->size;
                if constexpr (f.sub->has_defaults) apply_defaults(*f.sub, element);
                const uint32_t at = pos;
                pos += n;
                if (Status s = Decoder<*f.sub>::run(in, element, at, at + n); s != Status::ok) return s;
            }
            set_bit<I>(record);
        } else if constexpr (f.kind == Kind::Messages) {
            uint32_t at = pos;
            const Status s =
                run_of(in, *f.sub, &Decoder<*f.sub>::run, record + f.offset, record + f.count_offset, at, end, key);
            pos = at;
            if (s != Status::ok) return s;
            set_bit<I>(record);
        } else if constexpr (f.kind == Kind::Strings) {
            if (load<void *>(record + f.offset)) return Status::malformed;
            if (!in.alloc_fn) return Status::no_memory;
            uint32_t at = pos;
            const Status s = decode_strings(f, record, buffer, at, end, key, in.alloc_fn, in.alloc_ctx);
            pos = at;
            if (s != Status::ok) return s;
            set_bit<I>(record);
        }
        return Status::ok;
    }

    // One field whose key has been read.
    [[gnu::always_inline]] static Status dispatch(const Input &in, uint8_t *record, uint32_t &pos, uint32_t end,
                                                  uint32_t key, Run &run) {
        Status s = Status::ok;
        const bool known = [&]<unsigned... I>(std::integer_sequence<unsigned, I...>) {
            return ((key == D.fields[I].key && (s = field<I>(in, record, pos, end, key, run), true)) || ...);
        }(std::make_integer_sequence<unsigned, D.field_count>{});
        if (known) return s;
        uint32_t at = pos; // a copy, so that the hot position can stay in a register
        s = other_key(D, in.buffer, at, end, key);
        pos = at;
        return s;
    }

    // Decodes the bytes [pos, end) into a record that has been reset.
    [[gnu::noinline]] static Status run(const Input &input, uint8_t *record, uint32_t pos, uint32_t end) {
        const Input in = input; // a local copy: no callback can change it, so it stays in registers
        if constexpr (kSelf < D.field_count) {
            return tree(in, record, pos, end);
        } else {
            Run unused;
            while (pos < end) {
                uint32_t key;
                if (!read_varint32(in.buffer, pos, end, key)) return Status::malformed;
                if (Status s = dispatch(in, record, pos, end, key, unused); s != Status::ok) return s;
            }
            return Status::ok;
        }
    }

    // A message that repeats itself: the record being read stays in registers, and the stack holds
    // its ancestors, each with the run of its own kind that it is in the middle of.
    static Status tree(const Input &in, uint8_t *record, uint32_t pos, uint32_t end) {
        // A waiting ancestor: its run's array and count are in the record itself, and its bytes go
        // on where those of the element being read end.
        struct Frame {
            uint8_t *record;
            uint32_t end;
            uint32_t index; // of the element being read
        };
        static constexpr FieldDesc self = D.fields[kSelf];
        CodecStack<Frame> stack;
        for (;;) {
            while (pos < end) {
                uint32_t key;
                if (!read_varint32(in.buffer, pos, end, key)) return Status::malformed;
                Run run;
                const Status s = dispatch(in, record, pos, end, key, run);
                if (s == Status::ok) continue;
                if (s != kDescend) return s;
                if constexpr (D.has_defaults) apply_defaults(D, run.elements);
                if (!stack.push(Frame{record, end, 0}))
                    return Status::no_memory;
                record = run.elements;
                end = pos + run.first_length;
            }
            // This record is complete: on to the next element of its parent's run, or back to the
            // parent itself once the run is done.
            if (stack.empty()) return Status::ok;
            Frame &parent = stack.top();
            if (++parent.index < load<uint32_t>(parent.record + self.count_offset)) {
                uint32_t n = 0; // the element's key and length were checked by count_run
                (void)read_varint32(in.buffer, pos, parent.end, n);
                (void)read_size(in.buffer, pos, parent.end, n);
                record = load<uint8_t *>(parent.record + self.offset) + size_t{parent.index} * D.size;
                if constexpr (D.has_defaults) apply_defaults(D, record);
                end = pos + n;
                continue;
            }
            set_bit<kSelf>(parent.record);
            record = parent.record;
            end = parent.end;
            stack.pop();
        }
    }
};

} // namespace

template <const MessageDesc &D>
[[gnu::noinline]] Status decode_message(void *record, const uint8_t *buffer, uint32_t length,
                                        tov_alloc_fn alloc_fn, uintptr_t alloc_ctx) {
    reset(D, record);
    if (length == 0) return Status::ok;
    if (!buffer) return Status::malformed;
    return Decoder<D>::run(Input{buffer, alloc_fn, alloc_ctx}, static_cast<uint8_t *>(record), 0, length);
}

#define TOV_INSTANTIATE_(m, T, ...)                                                                    \
    template Status decode_message<k##T>(void *, const uint8_t *, uint32_t, tov_alloc_fn, uintptr_t);
TOV_MESSAGES(TOV_INSTANTIATE_)
#undef TOV_INSTANTIATE_

} // namespace tov::detail

extern "C" TOV_API int32_t protoc99_decode_var32(uint32_t *value_out, uint32_t *position, const uint8_t *buffer,
                                                 uint32_t length) {
    using namespace tov::detail;
    if (!position || (!buffer && length != 0)) return TOV_CODEC_MALFORMED;
    uint32_t pos = *position, value;
    if (!read_varint32(buffer, pos, length, value)) return TOV_CODEC_MALFORMED;
    if (value_out) *value_out = value;
    *position = pos;
    return TOV_CODEC_OK;
}
