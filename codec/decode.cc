// SPDX-License-Identifier: BSD-3-Clause
// Decoding: one cursor per message being read, on an explicit stack; a nested message (inline,
// element of a run, or payload flag) is entered by pushing a cursor over exactly its bytes.
#include "codec/engine.hpp"
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

inline void set_bit(const MessageDesc &d, uint8_t *record, unsigned i) {
    if (record) record[d.present_offset + (i >> 3)] |= static_cast<uint8_t>(1u << (i & 7u));
}

// Reads a length and checks it against the end of the message: -1 when it runs past it.
inline bool read_length(const uint8_t *buffer, uint32_t &pos, uint32_t end, uint32_t &n) {
    return read_varint32(buffer, pos, end, n) && n <= end - pos;
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
Status count_run(const uint8_t *buffer, uint32_t pos, uint32_t end, uint32_t key, uint32_t &count) {
    count = 0;
    for (;;) {
        uint32_t n;
        if (!read_length(buffer, pos, end, n)) return Status::malformed;
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
        (void)read_varint32(buffer, pos, end, n);
        char *s = static_cast<char *>(alloc_fn(n + 1, alloc_ctx));
        if (!s) return Status::no_memory;
        std::memcpy(s, buffer + pos, n);
        s[n] = '\0';
        items[i] = s;
        pos += n;
    }
    return Status::ok;
}

struct Cursor {
    const MessageDesc *desc;
    uint8_t *record; // nullptr for a message without storage (a payload flag)
    uint32_t pos;
    uint32_t end;
    uint8_t *elements; // the run of a repeated field being decoded
    uint32_t index;
    uint32_t count;
    uint8_t field; // the field whose nested message is being decoded
};

} // namespace

Status decode(const MessageDesc &root, void *root_record, const uint8_t *buffer, uint32_t length,
              tov_alloc_fn alloc_fn, uintptr_t alloc_ctx) {
    reset(root, root_record);
    if (length == 0) return Status::ok;
    if (!buffer) return Status::malformed;

    CodecStack<Cursor> stack;
    // Enters a nested message of n bytes at the parent's position (which then moves past it).
    auto enter = [&](Cursor &parent, const MessageDesc &sub, uint8_t *record, uint32_t n) {
        const uint32_t at = parent.pos;
        parent.pos += n;
        return stack.push(Cursor{&sub, record, at, at + n, nullptr, 0, 0, 0});
    };
    (void)stack.push(Cursor{&root, static_cast<uint8_t *>(root_record), 0, length, nullptr, 0, 0, 0});
    for (;;) {
        Cursor &f = stack.top();
        if (f.pos >= f.end) {
            stack.pop();
            if (stack.empty()) return Status::ok;
            Cursor &p = stack.top();
            const FieldDesc &pf = p.desc->fields[p.field];
            if (pf.kind == Kind::Messages && ++p.index < p.count) {
                // The next element of the run; its key and length were checked by count_run.
                uint32_t key = 0, n = 0;
                (void)read_varint32(buffer, p.pos, p.end, key);
                (void)read_varint32(buffer, p.pos, p.end, n);
                const MessageDesc &sub = sub_of(*p.desc, pf);
                uint8_t *element = p.elements + size_t{p.index} * sub.size;
                if (sub.has_defaults) apply_defaults(sub, element);
                if (!enter(p, sub, element, n)) return Status::no_memory;
                continue;
            }
            set_bit(*p.desc, p.record, p.field);
            continue;
        }

        uint32_t key;
        if (!read_varint32(buffer, f.pos, f.end, key)) return Status::malformed;
        const uint32_t number = key >> 3, wire_type = key & 7u;
        const uint8_t index = number <= kMaxFieldNumber ? f.desc->lookup[number] : kUnknownField;
        if (index == kUnknownField) {
            if (Status s = skip_field(buffer, f.pos, f.end, wire_type); s != Status::ok) return s;
            continue;
        }
        const FieldDesc &fd = f.desc->fields[index];
        if (wire_type != wire_type_of(fd.kind)) return Status::wrong_wire_type;
        uint8_t *record = f.record;

        switch (fd.kind) {
        case Kind::Varint32:
        case Kind::Bool: {
            uint32_t v;
            if (!read_varint32(buffer, f.pos, f.end, v)) return Status::malformed;
            if (fd.kind == Kind::Bool)
                store<uint8_t>(record + fd.offset, v != 0);
            else
                store<uint32_t>(record + fd.offset, v);
            set_bit(*f.desc, record, index);
            break;
        }
        case Kind::Varint64: {
            uint64_t v;
            if (!read_varint64(buffer, f.pos, f.end, v)) return Status::malformed;
            store<uint64_t>(record + fd.offset, v);
            set_bit(*f.desc, record, index);
            break;
        }
        case Kind::String: {
            // A singular string may occur once: stricter than last-one-wins, deliberately.
            if (load<char *>(record + fd.offset)) return Status::malformed;
            if (!alloc_fn) return Status::no_memory;
            uint32_t n;
            if (!read_length(buffer, f.pos, f.end, n)) return Status::malformed;
            // n < length here (the key took at least one byte), so n + 1 cannot wrap.
            char *s = static_cast<char *>(alloc_fn(n + 1, alloc_ctx));
            if (!s) return Status::no_memory;
            std::memcpy(s, buffer + f.pos, n);
            s[n] = '\0';
            store<char *>(record + fd.offset, s);
            set_bit(*f.desc, record, index);
            f.pos += n;
            break;
        }
        case Kind::Message:
        case Kind::Flag: {
            uint32_t n;
            if (!read_length(buffer, f.pos, f.end, n)) return Status::malformed;
            // A second occurrence decodes into the same record again; its reset drops (does not
            // free) what the first one allocated.
            uint8_t *child = fd.kind == Kind::Flag ? nullptr : record + fd.offset;
            reset(*fd.sub, child);
            f.field = index;
            if (!enter(f, *fd.sub, child, n)) return Status::no_memory;
            break;
        }
        case Kind::Messages: {
            // Elements must stand together: a second run of the same field is refused.
            if (load<void *>(record + fd.offset)) return Status::malformed;
            if (!alloc_fn) return Status::no_memory;
            uint32_t count;
            if (Status s = count_run(buffer, f.pos, f.end, key, count); s != Status::ok) return s;
            const MessageDesc &sub = sub_of(*f.desc, fd);
            auto *elements = static_cast<uint8_t *>(alloc_array(count, sub.size, alloc_fn, alloc_ctx));
            if (!elements) return Status::no_memory;
            store<void *>(record + fd.offset, elements);
            store<uint32_t>(record + fd.count_offset, count);
            uint32_t n = 0;
            (void)read_varint32(buffer, f.pos, f.end, n);
            if (sub.has_defaults) apply_defaults(sub, elements);
            f.field = index;
            f.elements = elements;
            f.index = 0;
            f.count = count;
            if (!enter(f, sub, elements, n)) return Status::no_memory;
            break;
        }
        case Kind::Strings: {
            if (load<void *>(record + fd.offset)) return Status::malformed;
            if (!alloc_fn) return Status::no_memory;
            if (Status s = decode_strings(fd, record, buffer, f.pos, f.end, key, alloc_fn, alloc_ctx); s != Status::ok)
                return s;
            set_bit(*f.desc, record, index);
            break;
        }
        }
    }
}

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
