// The codec engine: decode, encode (size, then write), duplicate and free for every message
// table. Walks over nested messages keep their own explicit stack, so the depth of a data tree
// never costs C stack; inline records (whose nesting is fixed by the record types) and arrays
// (whose nesting comes from the data) go through the same stack.
#include "codec/engine.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/walk_stack.hpp"
#include "codec/wire.hpp"

namespace tov::detail {
namespace {

template <class T> T load(const uint8_t *p) {
    T value;
    std::memcpy(&value, p, sizeof value);
    return value;
}
template <class T> void store(uint8_t *p, T value) { std::memcpy(p, &value, sizeof value); }

bool bit(const MessageDesc &d, const uint8_t *record, unsigned i) {
    return (record[d.present_offset + (i >> 3)] >> (i & 7u)) & 1u;
}
void set_bit(const MessageDesc &d, uint8_t *record, unsigned i) {
    if (record) record[d.present_offset + (i >> 3)] |= static_cast<uint8_t>(1u << (i & 7u));
}
void clear_bit(const MessageDesc &d, uint8_t *record, unsigned i) {
    record[d.present_offset + (i >> 3)] &= static_cast<uint8_t>(~(1u << (i & 7u)));
}
size_t present_bytes(const MessageDesc &d) { return d.present_bytes; }

uint32_t present_mask(const MessageDesc &d, const uint8_t *record) {
    const uint8_t *p = record + d.present_offset;
    switch (d.present_bytes) {
    case 0: return 0;
    case 1: return p[0];
    case 2: return p[0] | static_cast<uint32_t>(p[1]) << 8;
    case 3: return p[0] | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16;
    default: return p[0] | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
                    static_cast<uint32_t>(p[3]) << 24;
    }
}

// The fields that can put anything on the wire: those whose presence bit is set, and the inline
// records (sent whenever they have content). Walks visit only these, lowest first, which keeps
// sparse records (most data tree nodes) cheap.
uint32_t candidates(const MessageDesc &d, uint32_t bits) { return bits | d.inline_mask; }
uint8_t lowest(uint32_t mask) { return static_cast<uint8_t>(__builtin_ctz(mask)); }

// False when no presence bit is set in the record or its inline records: it then sends nothing.
bool any_presence(const MessageDesc &d, const uint8_t *record) {
    uint8_t any = 0;
    for (unsigned k = 0; k < d.closure_count; ++k) any |= record[d.closure[k]];
    return any != 0;
}


// Walks whose contract says they cannot fail (encode, free) have no way to report that the heap
// refused working memory for a very deep tree; a tree that deep could not have been decoded or
// duplicated either, so this only happens to records built by hand when memory is exhausted.
[[noreturn]] void out_of_working_memory() {
    std::fputs("tov codec: no working memory for the depth of this message tree\n", stderr);
    std::abort();
}
template <class Stack, class Frame> void must_push(Stack &stack, const Frame &frame) {
    if (!stack.push(frame)) out_of_working_memory();
}

void apply_defaults(const MessageDesc &d, uint8_t *record) {
    for (unsigned i = 0; i < d.field_count; ++i) {
        const FieldDesc &f = d.fields[i];
        if (f.default_value != 0) {
            switch (f.kind) {
            case Kind::Varint32:
                store<uint32_t>(record + f.offset, f.default_value);
                break;
            case Kind::Bool:
                store<uint8_t>(record + f.offset, static_cast<uint8_t>(f.default_value != 0));
                break;
            case Kind::Varint64:
                store<uint64_t>(record + f.offset, f.default_value);
                break;
            default:
                break;
            }
        } else if (f.kind == Kind::Message && f.sub->has_defaults) {
            apply_defaults(*f.sub, record + f.offset);
        }
    }
}

// Skips an unknown field. Skips of fixed and length-delimited fields are not checked against the
// end: one that runs past it simply ends the message (deliberately lenient).
int32_t skip_field(const uint8_t *buffer, uint32_t &pos, uint32_t end, uint32_t wire_type) {
    auto advance = [&](uint32_t n) { pos = n >= end - pos ? end : pos + n; };
    uint32_t n;
    switch (wire_type) {
    case 0:
        return read_varint32(buffer, pos, end, n) ? TOV_CODEC_OK : TOV_CODEC_MALFORMED;
    case 1:
        advance(8);
        return TOV_CODEC_OK;
    case 2:
        if (!read_varint32(buffer, pos, end, n)) return TOV_CODEC_MALFORMED;
        advance(n);
        return TOV_CODEC_OK;
    case 5:
        advance(4);
        return TOV_CODEC_OK;
    default:
        return TOV_CODEC_BAD_WIRE_TYPE;
    }
}

// Counts the run of consecutive elements of one repeated field, starting at the length of the
// first element (its key already read). Each element's length is checked against the end.
int32_t count_run(const uint8_t *buffer, uint32_t pos, uint32_t end, uint32_t key, uint32_t &count) {
    count = 0;
    for (;;) {
        uint32_t n;
        if (!read_varint32(buffer, pos, end, n) || n > end - pos) return TOV_CODEC_MALFORMED;
        pos += n;
        ++count;
        if (pos >= end) return TOV_CODEC_OK;
        uint32_t next;
        if (!read_varint32(buffer, pos, end, next)) return TOV_CODEC_MALFORMED;
        if (next != key) return TOV_CODEC_OK; // another field, or this one with another wire type
    }
}

// ---------------------------------------------------------------------------------------------
// Decoding

struct DecodeFrame {
    const MessageDesc *desc;
    uint8_t *record; // nullptr for a message without storage (a payload flag)
    uint32_t pos;
    uint32_t end;
    uint8_t *elements; // the run of a repeated field being decoded
    uint32_t index;
    uint32_t count;
    uint8_t field; // the field whose nested message is being decoded
};

int32_t decode_strings(const FieldDesc &f, uint8_t *record, const uint8_t *buffer, uint32_t &pos, uint32_t end,
                       uint32_t key, tov_alloc_fn alloc_fn, uintptr_t alloc_ctx) {
    uint32_t count;
    if (int32_t rc = count_run(buffer, pos, end, key, count)) return rc;
    uint64_t bytes = static_cast<uint64_t>(count) * sizeof(char *);
    if (bytes > UINT32_MAX) return TOV_CODEC_NO_MEMORY;
    auto **items = static_cast<char **>(alloc_fn(static_cast<uint32_t>(bytes), alloc_ctx));
    if (!items) return TOV_CODEC_NO_MEMORY;
    std::memset(items, 0, static_cast<size_t>(bytes));
    store<char **>(record + f.offset, items);
    store<uint32_t>(record + f.count_offset, count);
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t n = 0;
        if (i > 0) read_varint32(buffer, pos, end, n); // the key, checked by count_run
        read_varint32(buffer, pos, end, n);
        char *s = static_cast<char *>(alloc_fn(n + 1, alloc_ctx));
        if (!s) return TOV_CODEC_NO_MEMORY;
        std::memcpy(s, buffer + pos, n);
        s[n] = '\0';
        items[i] = s;
        pos += n;
    }
    return TOV_CODEC_OK;
}

} // namespace

void reset(const MessageDesc &desc, void *record) {
    if (!record || desc.size == 0) return;
    std::memset(record, 0, desc.size);
    if (desc.has_defaults) apply_defaults(desc, static_cast<uint8_t *>(record));
}

bool is_empty(const MessageDesc &d, const void *rec) {
    const auto *record = static_cast<const uint8_t *>(rec);
    if (!record || !any_presence(d, record)) return true;
    for (uint32_t pending = candidates(d, present_mask(d, record)); pending; pending &= pending - 1) {
        const unsigned i = lowest(pending);
        const FieldDesc &f = d.fields[i];
        switch (f.kind) {
        case Kind::Varint32:
        case Kind::Bool:
        case Kind::Varint64:
        case Kind::Flag:
            if (bit(d, record, i)) return false;
            break;
        case Kind::String:
            if (bit(d, record, i) && load<const char *>(record + f.offset)) return false;
            break;
        case Kind::Messages:
        case Kind::Strings:
            if (bit(d, record, i) && load<uint32_t>(record + f.count_offset) != 0 &&
                load<const void *>(record + f.offset))
                return false;
            break;
        case Kind::Message:
            if (bit(d, record, i) || !is_empty(*f.sub, record + f.offset)) return false;
            break;
        }
    }
    return true;
}

int32_t decode(const MessageDesc &root, void *root_record, const uint8_t *buffer, uint32_t length,
               tov_alloc_fn alloc_fn, uintptr_t alloc_ctx) {
    reset(root, root_record);
    if (length == 0) return TOV_CODEC_OK;
    if (!buffer) return TOV_CODEC_MALFORMED;

    WalkStack<DecodeFrame> stack;
    (void)stack.push(DecodeFrame{&root, static_cast<uint8_t *>(root_record), 0, length, nullptr, 0, 0, 0});
    for (;;) {
        DecodeFrame &f = stack.top();
        if (f.pos >= f.end) {
            stack.pop();
            if (stack.empty()) return TOV_CODEC_OK;
            DecodeFrame &p = stack.top();
            const FieldDesc &pf = p.desc->fields[p.field];
            if (pf.kind == Kind::Messages && ++p.index < p.count) {
                // The next element of the run; its key and length were checked by count_run.
                uint32_t key = 0, n = 0;
                read_varint32(buffer, p.pos, p.end, key);
                read_varint32(buffer, p.pos, p.end, n);
                const MessageDesc &sub = sub_of(*p.desc, pf);
                uint8_t *element = p.elements + static_cast<size_t>(p.index) * sub.size;
                if (sub.has_defaults) apply_defaults(sub, element);
                DecodeFrame child{&sub, element, p.pos, p.pos + n, nullptr, 0, 0, 0};
                p.pos += n;
                if (!stack.push(child)) return TOV_CODEC_NO_MEMORY;
                continue;
            }
            set_bit(*p.desc, p.record, p.field);
            continue;
        }

        uint32_t key;
        if (!read_varint32(buffer, f.pos, f.end, key)) return TOV_CODEC_MALFORMED;
        const uint32_t number = key >> 3, wire_type = key & 7u;
        const uint8_t index = number <= kMaxFieldNumber ? f.desc->lookup[number] : kUnknownField;
        if (index == kUnknownField) {
            if (int32_t rc = skip_field(buffer, f.pos, f.end, wire_type)) return rc;
            continue;
        }
        const FieldDesc &fd = f.desc->fields[index];
        if (wire_type != wire_type_of(fd.kind)) return TOV_CODEC_WRONG_WIRE_TYPE;
        uint8_t *record = f.record;

        switch (fd.kind) {
        case Kind::Varint32: {
            uint32_t v;
            if (!read_varint32(buffer, f.pos, f.end, v)) return TOV_CODEC_MALFORMED;
            store<uint32_t>(record + fd.offset, v);
            set_bit(*f.desc, record, index);
            break;
        }
        case Kind::Bool: {
            uint32_t v;
            if (!read_varint32(buffer, f.pos, f.end, v)) return TOV_CODEC_MALFORMED;
            store<uint8_t>(record + fd.offset, v != 0);
            set_bit(*f.desc, record, index);
            break;
        }
        case Kind::Varint64: {
            uint64_t v;
            if (!read_varint64(buffer, f.pos, f.end, v)) return TOV_CODEC_MALFORMED;
            store<uint64_t>(record + fd.offset, v);
            set_bit(*f.desc, record, index);
            break;
        }
        case Kind::String: {
            // A singular string may occur once: stricter than last-one-wins, deliberately.
            if (load<char *>(record + fd.offset)) return TOV_CODEC_MALFORMED;
            if (!alloc_fn) return TOV_CODEC_NO_MEMORY;
            uint32_t n;
            if (!read_varint32(buffer, f.pos, f.end, n) || n > f.end - f.pos) return TOV_CODEC_MALFORMED;
            // n < length here (the key took at least one byte), so n + 1 cannot wrap.
            char *s = static_cast<char *>(alloc_fn(n + 1, alloc_ctx));
            if (!s) return TOV_CODEC_NO_MEMORY;
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
            if (!read_varint32(buffer, f.pos, f.end, n) || n > f.end - f.pos) return TOV_CODEC_MALFORMED;
            // A second occurrence decodes into the same record again; its reset drops (does not
            // free) what the first one allocated.
            uint8_t *child_record = fd.kind == Kind::Flag ? nullptr : record + fd.offset;
            reset(*fd.sub, child_record);
            DecodeFrame child{fd.sub, child_record, f.pos, f.pos + n, nullptr, 0, 0, 0};
            f.pos += n;
            f.field = index;
            if (!stack.push(child)) return TOV_CODEC_NO_MEMORY;
            break;
        }
        case Kind::Messages: {
            // Elements must stand together: a second run of the same field is refused.
            if (load<void *>(record + fd.offset)) return TOV_CODEC_MALFORMED;
            if (!alloc_fn) return TOV_CODEC_NO_MEMORY;
            uint32_t count;
            if (int32_t rc = count_run(buffer, f.pos, f.end, key, count)) return rc;
            const MessageDesc &sub = sub_of(*f.desc, fd);
            uint64_t bytes = static_cast<uint64_t>(count) * sub.size;
            if (bytes > UINT32_MAX) return TOV_CODEC_NO_MEMORY;
            auto *elements = static_cast<uint8_t *>(alloc_fn(static_cast<uint32_t>(bytes), alloc_ctx));
            if (!elements) return TOV_CODEC_NO_MEMORY;
            std::memset(elements, 0, static_cast<size_t>(bytes));
            store<void *>(record + fd.offset, elements);
            store<uint32_t>(record + fd.count_offset, count);
            uint32_t n = 0;
            read_varint32(buffer, f.pos, f.end, n);
            if (sub.has_defaults) apply_defaults(sub, elements);
            DecodeFrame child{&sub, elements, f.pos, f.pos + n, nullptr, 0, 0, 0};
            f.pos += n;
            f.field = index;
            f.elements = elements;
            f.index = 0;
            f.count = count;
            if (!stack.push(child)) return TOV_CODEC_NO_MEMORY;
            break;
        }
        case Kind::Strings: {
            if (load<void *>(record + fd.offset)) return TOV_CODEC_MALFORMED;
            if (!alloc_fn) return TOV_CODEC_NO_MEMORY;
            if (int32_t rc = decode_strings(fd, record, buffer, f.pos, f.end, key, alloc_fn, alloc_ctx)) return rc;
            set_bit(*f.desc, record, index);
            break;
        }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Encoding: a sizing pass records the length of every non-empty nested message in visiting
// order; the writing pass visits them in the same order and reuses the lengths, so each nested
// message is sized once. Should the heap refuse the list, the writer measures as it goes.

namespace {

constexpr uint32_t kNoSlot = UINT32_MAX;

class SizeSlots {
public:
    SizeSlots() = default;
    SizeSlots(const SizeSlots &) = delete;
    SizeSlots &operator=(const SizeSlots &) = delete;
    ~SizeSlots() {
        if (data_ != inline_) std::free(data_);
    }
    uint32_t reserve() {
        if (!ok_) return kNoSlot;
        if (size_ == capacity_ && !grow()) {
            ok_ = false;
            return kNoSlot;
        }
        return static_cast<uint32_t>(size_++);
    }
    void set(uint32_t slot, uint32_t value) {
        if (slot != kNoSlot) data_[slot] = value;
    }
    uint32_t take() { return data_[next_++]; }
    bool ok() const { return ok_; }

private:
    bool grow() {
        if (capacity_ >= UINT32_MAX / 2) return false;
        size_t capacity = capacity_ * 2;
        auto *data = static_cast<uint32_t *>(std::malloc(capacity * sizeof(uint32_t)));
        if (!data) return false;
        std::memcpy(data, data_, size_ * sizeof(uint32_t));
        if (data_ != inline_) std::free(data_);
        data_ = data;
        capacity_ = capacity;
        return true;
    }
    uint32_t inline_[64];
    uint32_t *data_ = inline_;
    size_t size_ = 0, capacity_ = 64, next_ = 0;
    bool ok_ = true;
};

struct SizeFrame {
    const MessageDesc *desc;
    const uint8_t *record;
    uint32_t size;
    uint32_t slot;
    uint32_t index;
    uint32_t bits;    // the record's presence bits
    uint32_t pending; // candidate fields not yet done; the lowest is the current one
};

SizeFrame size_frame(const MessageDesc &d, const uint8_t *record, uint32_t slot) {
    const uint32_t bits = present_mask(d, record);
    return SizeFrame{&d, record, 0, slot, 0, bits, candidates(d, bits)};
}

uint32_t strings_size(const FieldDesc &f, const uint8_t *record) {
    auto *const *items = load<char *const *>(record + f.offset);
    uint32_t count = load<uint32_t>(record + f.count_offset);
    uint32_t size = 0;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t n = items[i] ? static_cast<uint32_t>(std::strlen(items[i])) : 0;
        size += f.key_size + varint_size(n) + n;
    }
    return size;
}

// Size of the encoding of `rec`; with `slots`, also the length of every non-empty nested message.
uint32_t measure(const MessageDesc &root, const uint8_t *rec, SizeSlots *slots) {
    WalkStack<SizeFrame> stack;
    (void)stack.push(size_frame(root, rec, kNoSlot));
    for (;;) {
    resume:
        SizeFrame &f = stack.top();
        const MessageDesc &d = *f.desc;
        for (; f.pending; f.pending &= f.pending - 1) {
            const uint8_t field = lowest(f.pending);
            const FieldDesc &fd = d.fields[field];
            const uint8_t *record = f.record;
            const bool present = (f.bits >> field) & 1u;
            const uint32_t key = fd.key_size;
            switch (fd.kind) {
            case Kind::Varint32:
                if (present) f.size += key + varint_size(load<uint32_t>(record + fd.offset));
                break;
            case Kind::Bool:
                if (present) f.size += key + varint_size(load<uint8_t>(record + fd.offset));
                break;
            case Kind::Varint64:
                if (present) f.size += key + varint_size(load<uint64_t>(record + fd.offset));
                break;
            case Kind::String:
                if (const char *s = load<const char *>(record + fd.offset); present && s) {
                    uint32_t n = static_cast<uint32_t>(std::strlen(s));
                    f.size += key + varint_size(n) + n;
                }
                break;
            case Kind::Flag:
                if (present) f.size += key + 1;
                break;
            case Kind::Strings:
                if (present && load<uint32_t>(record + fd.count_offset) && load<const void *>(record + fd.offset))
                    f.size += strings_size(fd, record);
                break;
            case Kind::Message: {
                const uint8_t *sub = record + fd.offset;
                if (!any_presence(*fd.sub, sub)) {
                    if (present) f.size += key + 1;
                    break;
                }
                must_push(stack, size_frame(*fd.sub, sub, slots ? slots->reserve() : kNoSlot));
                goto resume;
            }
            case Kind::Messages: {
                const auto *elements = load<const uint8_t *>(record + fd.offset);
                const uint32_t count = load<uint32_t>(record + fd.count_offset);
                if (!present || !elements) break;
                const MessageDesc &sub = sub_of(d, fd);
                for (; f.index < count; ++f.index) {
                    const uint8_t *element = elements + static_cast<size_t>(f.index) * sub.size;
                    must_push(stack, size_frame(sub, element, slots ? slots->reserve() : kNoSlot));
                    goto resume;
                }
                f.index = 0;
                break;
            }
            }
        }
        const uint32_t size = f.size, slot = f.slot;
        stack.pop();
        if (slots) slots->set(slot, size);
        if (stack.empty()) return size;
        SizeFrame &p = stack.top();
        const uint8_t field = lowest(p.pending);
        const FieldDesc &pf = p.desc->fields[field];
        if (pf.kind == Kind::Message) {
            // An inline record goes when it has content, or empty when its bit is set.
            if (size != 0 || ((p.bits >> field) & 1u)) p.size += pf.key_size + varint_size(size) + size;
            p.pending &= p.pending - 1;
        } else {
            p.size += pf.key_size + varint_size(size) + size; // every element goes, empty too
            ++p.index;
        }
    }
}

struct WriteFrame {
    const MessageDesc *desc;
    const uint8_t *record;
    uint32_t start;
    uint32_t size;
    uint32_t index;
    uint32_t bits;
    uint32_t pending;
};

WriteFrame write_frame(const MessageDesc &d, const uint8_t *record, uint32_t start, uint32_t size) {
    const uint32_t bits = present_mask(d, record);
    return WriteFrame{&d, record, start, size, 0, bits, candidates(d, bits)};
}

} // namespace

uint32_t encode(const MessageDesc &root, const void *root_record, uint8_t *buffer, uint32_t capacity, TovSpan *spans,
                uint32_t *span_count) {
    const uint32_t span_capacity = span_count && spans ? *span_count : 0;
    uint32_t spans_used = 0;
    if (!root_record) {
        if (span_count) *span_count = 0;
        return 0;
    }
    // Measuring (no room, no span list) needs no writing walk at all.
    if ((!buffer || capacity == 0) && !span_count) return measure(root, static_cast<const uint8_t *>(root_record), nullptr);
    SizeSlots slots;
    const uint32_t total = measure(root, static_cast<const uint8_t *>(root_record), &slots);
    const bool have_slots = slots.ok();
    Writer w{buffer, buffer ? capacity : 0, 0};

    auto nested_size = [&](const MessageDesc &d, const uint8_t *record) {
        return have_slots ? slots.take() : measure(d, record, nullptr);
    };

    WalkStack<WriteFrame> stack;
    const auto *root_bytes = static_cast<const uint8_t *>(root_record);
    (void)stack.push(write_frame(root, root_bytes, 0, total));
    for (;;) {
    resume:
        WriteFrame &f = stack.top();
        const MessageDesc &d = *f.desc;
        for (; f.pending; f.pending &= f.pending - 1) {
            const uint8_t field = lowest(f.pending);
            const FieldDesc &fd = d.fields[field];
            const uint8_t *record = f.record;
            const bool present = (f.bits >> field) & 1u;
            const uint32_t key = fd.key;
            switch (fd.kind) {
            case Kind::Varint32:
                if (present) {
                    w.varint(key);
                    w.varint(load<uint32_t>(record + fd.offset));
                }
                break;
            case Kind::Bool:
                if (present) {
                    w.varint(key);
                    w.varint(load<uint8_t>(record + fd.offset));
                }
                break;
            case Kind::Varint64:
                if (present) {
                    w.varint(key);
                    w.varint(load<uint64_t>(record + fd.offset));
                }
                break;
            case Kind::String:
                if (const char *s = load<const char *>(record + fd.offset); present && s) {
                    uint32_t n = static_cast<uint32_t>(std::strlen(s));
                    w.varint(key);
                    w.varint(n);
                    w.bytes(s, n);
                }
                break;
            case Kind::Flag:
                if (present) {
                    w.varint(key);
                    w.byte(0);
                }
                break;
            case Kind::Strings: {
                auto *const *items = load<char *const *>(record + fd.offset);
                const uint32_t count = load<uint32_t>(record + fd.count_offset);
                if (!present || !items) break;
                for (uint32_t i = 0; i < count; ++i) {
                    uint32_t n = items[i] ? static_cast<uint32_t>(std::strlen(items[i])) : 0;
                    w.varint(key);
                    w.varint(n);
                    w.bytes(items[i], n);
                }
                break;
            }
            case Kind::Message: {
                // Descends exactly where the sizing pass did, so the recorded lengths line up.
                const uint8_t *sub = record + fd.offset;
                const uint32_t n = any_presence(*fd.sub, sub) ? nested_size(*fd.sub, sub) : 0;
                if (n != 0 || present) {
                    w.varint(key);
                    w.varint(n);
                }
                if (n == 0 && !any_presence(*fd.sub, sub)) break;
                must_push(stack, write_frame(*fd.sub, sub, w.pos, n));
                goto resume;
            }
            case Kind::Messages: {
                const auto *elements = load<const uint8_t *>(record + fd.offset);
                const uint32_t count = load<uint32_t>(record + fd.count_offset);
                if (!present || !elements) break;
                const MessageDesc &sub = sub_of(d, fd);
                for (; f.index < count; ++f.index) {
                    const uint8_t *element = elements + static_cast<size_t>(f.index) * sub.size;
                    const uint32_t n = nested_size(sub, element);
                    w.varint(key);
                    w.varint(n);
                    must_push(stack, write_frame(sub, element, w.pos, n));
                    goto resume;
                }
                f.index = 0;
                break;
            }
            }
        }
        // One span per non-empty encoding, claimed after those of its nested messages.
        const uint32_t start = f.start, size = f.size;
        const bool outermost = stack.size() == 1;
        stack.pop();
        if (span_count && size != 0) {
            if (spans_used < span_capacity)
                spans[spans_used] = TovSpan{outermost ? buffer : (start < w.capacity ? buffer + start : nullptr), size};
            ++spans_used;
        }
        if (stack.empty()) break;
        WriteFrame &p = stack.top();
        if (p.desc->fields[lowest(p.pending)].kind == Kind::Message)
            p.pending &= p.pending - 1;
        else
            ++p.index;
    }
    if (span_count) *span_count = spans_used;
    return total;
}

// ---------------------------------------------------------------------------------------------
// Duplicating: every member is copied in record order; a failed allocation leaves that member
// absent, sets the result to -4, and the copy goes on.

namespace {

struct CopyFrame {
    const MessageDesc *desc;
    uint8_t *dst;
    const uint8_t *src;
    uint32_t index;
    uint8_t field;
};

char *copy_string(const char *s, tov_alloc_fn alloc_fn, uintptr_t alloc_ctx) {
    size_t n = std::strlen(s);
    if (!alloc_fn || n >= UINT32_MAX) return nullptr;
    char *copy = static_cast<char *>(alloc_fn(static_cast<uint32_t>(n + 1), alloc_ctx));
    if (copy) std::memcpy(copy, s, n + 1);
    return copy;
}

void *alloc_array(uint32_t count, size_t element_size, tov_alloc_fn alloc_fn, uintptr_t alloc_ctx) {
    uint64_t bytes = static_cast<uint64_t>(count) * element_size;
    if (!alloc_fn || bytes > UINT32_MAX) return nullptr;
    void *array = alloc_fn(static_cast<uint32_t>(bytes), alloc_ctx);
    if (array) std::memset(array, 0, static_cast<size_t>(bytes));
    return array;
}

void copy_present(const MessageDesc &d, uint8_t *dst, const uint8_t *src) {
    std::memcpy(dst + d.present_offset, src + d.present_offset, present_bytes(d));
}

} // namespace

int32_t duplicate(const MessageDesc &root, void *destination, const void *source, tov_alloc_fn alloc_fn,
                  uintptr_t alloc_ctx) {
    if (!destination || !source || destination == source || root.size == 0) return TOV_CODEC_OK;
    int32_t result = TOV_CODEC_OK;
    auto failed = [&] { result = TOV_CODEC_NO_MEMORY; };

    // Everything below the root starts zeroed, so a copy cut short leaves absent members, never
    // pointers shared with the source.
    std::memset(destination, 0, root.size);
    copy_present(root, static_cast<uint8_t *>(destination), static_cast<const uint8_t *>(source));
    WalkStack<CopyFrame> stack;
    (void)stack.push(CopyFrame{&root, static_cast<uint8_t *>(destination), static_cast<const uint8_t *>(source), 0, 0});
    for (;;) {
    resume:
        CopyFrame &f = stack.top();
        const MessageDesc &d = *f.desc;
        for (; f.field < d.field_count; ++f.field) {
            const FieldDesc &fd = d.fields[f.field];
            uint8_t *dst = f.dst;
            const uint8_t *src = f.src;
            switch (fd.kind) {
            case Kind::Varint32:
                std::memcpy(dst + fd.offset, src + fd.offset, sizeof(uint32_t));
                break;
            case Kind::Bool:
                std::memcpy(dst + fd.offset, src + fd.offset, sizeof(uint8_t));
                break;
            case Kind::Varint64:
                std::memcpy(dst + fd.offset, src + fd.offset, sizeof(uint64_t));
                break;
            case Kind::Flag:
                break; // only its presence bit, already copied
            case Kind::String:
                if (const char *s = load<const char *>(src + fd.offset)) {
                    char *copy = copy_string(s, alloc_fn, alloc_ctx);
                    store<char *>(dst + fd.offset, copy);
                    if (!copy) {
                        clear_bit(d, dst, f.field);
                        failed();
                    }
                }
                break;
            case Kind::Strings: {
                auto *const *items = load<char *const *>(src + fd.offset);
                const uint32_t count = load<uint32_t>(src + fd.count_offset);
                if (!items || count == 0) break;
                auto **copy = static_cast<char **>(alloc_array(count, sizeof(char *), alloc_fn, alloc_ctx));
                if (!copy) {
                    clear_bit(d, dst, f.field);
                    failed();
                    break;
                }
                store<char **>(dst + fd.offset, copy);
                store<uint32_t>(dst + fd.count_offset, count);
                for (uint32_t i = 0; i < count; ++i) {
                    if (!items[i]) continue; // a NULL element stays NULL
                    if (!(copy[i] = copy_string(items[i], alloc_fn, alloc_ctx))) failed();
                }
                break;
            }
            case Kind::Message: {
                const MessageDesc &sub = *fd.sub;
                if (!sub.owns_memory) {
                    std::memcpy(dst + fd.offset, src + fd.offset, sub.size);
                    break;
                }
                copy_present(sub, dst + fd.offset, src + fd.offset);
                if (!stack.push(CopyFrame{&sub, dst + fd.offset, src + fd.offset, 0, 0})) {
                    std::memset(dst + fd.offset, 0, sub.size);
                    failed();
                    break;
                }
                goto resume;
            }
            case Kind::Messages: {
                const auto *elements = load<const uint8_t *>(src + fd.offset);
                const uint32_t count = load<uint32_t>(src + fd.count_offset);
                if (!elements || count == 0) break; // pointer and count stay 0, the bit as copied
                const MessageDesc &sub = sub_of(d, fd);
                auto *copy = load<uint8_t *>(dst + fd.offset);
                if (!copy) {
                    copy = static_cast<uint8_t *>(alloc_array(count, sub.size, alloc_fn, alloc_ctx));
                    if (!copy) {
                        clear_bit(d, dst, f.field);
                        failed();
                        break;
                    }
                    store<uint8_t *>(dst + fd.offset, copy);
                    store<uint32_t>(dst + fd.count_offset, count);
                }
                for (; f.index < count; ++f.index) {
                    const size_t at = static_cast<size_t>(f.index) * sub.size;
                    if (!sub.owns_memory) {
                        std::memcpy(copy + at, elements + at, sub.size);
                        continue;
                    }
                    copy_present(sub, copy + at, elements + at);
                    if (stack.push(CopyFrame{&sub, copy + at, elements + at, 0, 0})) goto resume;
                    std::memset(copy + at, 0, sub.size);
                    failed();
                }
                f.index = 0;
                break;
            }
            }
        }
        stack.pop();
        if (stack.empty()) return result;
        CopyFrame &p = stack.top();
        if (p.desc->fields[p.field].kind == Kind::Message)
            ++p.field;
        else
            ++p.index;
    }
}

// ---------------------------------------------------------------------------------------------
// Releasing: strings, then nested records, arrays after their elements, in record order.

namespace {

struct FreeFrame {
    const MessageDesc *desc;
    uint8_t *record;
    uint32_t index;
    uint8_t field;
};

} // namespace

void release(const MessageDesc &root, void *root_record, tov_free_fn free_fn, uintptr_t free_ctx) {
    if (!root_record || !free_fn || !root.owns_memory) return;
    WalkStack<FreeFrame> stack;
    (void)stack.push(FreeFrame{&root, static_cast<uint8_t *>(root_record), 0, 0});
    for (;;) {
    resume:
        FreeFrame &f = stack.top();
        const MessageDesc &d = *f.desc;
        for (; f.field < d.field_count; ++f.field) {
            const FieldDesc &fd = d.fields[f.field];
            uint8_t *record = f.record;
            switch (fd.kind) {
            case Kind::String:
                if (char *s = load<char *>(record + fd.offset)) {
                    free_fn(s, free_ctx);
                    store<char *>(record + fd.offset, nullptr);
                }
                break;
            case Kind::Strings:
                if (char **items = load<char **>(record + fd.offset)) {
                    const uint32_t count = load<uint32_t>(record + fd.count_offset);
                    for (uint32_t i = 0; i < count; ++i)
                        if (items[i]) free_fn(items[i], free_ctx);
                    free_fn(items, free_ctx);
                    store<char **>(record + fd.offset, nullptr);
                    store<uint32_t>(record + fd.count_offset, 0);
                }
                break;
            case Kind::Message:
                if (fd.sub->owns_memory) {
                    must_push(stack, FreeFrame{fd.sub, record + fd.offset, 0, 0});
                    goto resume;
                }
                break;
            case Kind::Messages:
                if (auto *elements = load<uint8_t *>(record + fd.offset)) {
                    const MessageDesc &sub = sub_of(d, fd);
                    const uint32_t count = load<uint32_t>(record + fd.count_offset);
                    if (sub.owns_memory && f.index < count) {
                        must_push(stack, FreeFrame{&sub, elements + static_cast<size_t>(f.index) * sub.size, 0, 0});
                        goto resume;
                    }
                    free_fn(elements, free_ctx);
                    store<uint8_t *>(record + fd.offset, nullptr);
                    store<uint32_t>(record + fd.count_offset, 0);
                    f.index = 0;
                }
                break;
            default:
                break;
            }
        }
        stack.pop();
        if (stack.empty()) return;
        FreeFrame &p = stack.top();
        if (p.desc->fields[p.field].kind == Kind::Message)
            ++p.field;
        else
            ++p.index;
    }
}

} // namespace tov::detail
