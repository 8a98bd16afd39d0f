// SPDX-License-Identifier: BSD-3-Clause
// Message descriptors: every message is one constant table of fields in record order, and one
// engine (decode.cc, encode.cc, copy.cc, release.cc) does the four operations for all of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace tov::detail {

enum class Kind : uint8_t {
    Varint32, // unsigned 32-bit scalar, wire type 0
    Bool,     // one byte 0 or 1, wire type 0
    Varint64, // unsigned 64-bit scalar, wire type 0
    String,   // owned NUL-terminated copy, wire type 2
    Message,  // embedded record held inline, wire type 2
    Messages, // repeated embedded message: array pointer + uint32_t count, wire type 2
    Strings,  // repeated string: array of char* + uint32_t count, wire type 2
    Flag,     // embedded message without fields and without storage: only its presence bit
};

struct MessageDesc;

struct FieldDesc {
    uint32_t number;
    Kind kind;
    uint8_t key_size;      // bytes of the key on the wire (1 below field 16, else 2)
    uint16_t key;          // the key: number << 3 | wire type
    uint16_t offset;       // member (for arrays: the pointer member)
    uint16_t count_offset; // arrays only: the uint32_t count member
    const MessageDesc *sub; // Message, Messages, Flag; nullptr in Messages means "this message"
    uint32_t default_value; // stored by reset; 0 for nearly every field
    const char *name;       // the field's name in the wire schema (the member's name)
    uint8_t bit;            // the record's bit name for this field, checked against the row index
};

inline constexpr uint32_t kMaxFieldNumber = 63;
inline constexpr uint8_t kUnknownField = 0xFF;

struct MessageDesc {
    const char *name;       // the message's name in the wire schema
    uint32_t size;          // sizeof the record (0 for a message without storage)
    uint16_t present_offset;
    uint8_t field_count;
    const FieldDesc *fields; // record order = presence-bit order = emission order
    uint8_t lookup[kMaxFieldNumber + 1]; // field number -> index into fields, or kUnknownField
    bool has_defaults;       // a non-zero default here or in an inline record
    bool owns_memory;        // strings or arrays here or in an inline record
    bool has_inline_records; // an inline Message member
    uint32_t inline_mask;    // presence-bit positions of the inline Message members
    uint8_t present_bytes;
    // Offsets of every presence byte of the record and of its inline records, recursively: a
    // message puts nothing on the wire unless one of these bytes is non-zero.
    uint8_t closure_count;
    uint16_t closure[96];
};

constexpr uint32_t wire_type_of(Kind k) {
    return (k == Kind::Varint32 || k == Kind::Bool || k == Kind::Varint64) ? 0 : 2;
}

constexpr FieldDesc field(uint32_t number, Kind kind, uint16_t offset, uint16_t count_offset, const MessageDesc *sub,
                          uint32_t default_value, const char *name, unsigned bit) {
    if (number == 0 || number > 63) throw "field number out of range";
    return FieldDesc{number,      kind, static_cast<uint8_t>(number < 16 ? 1 : 2),
                     static_cast<uint16_t>(number << 3 | wire_type_of(kind)), offset, count_offset, sub, default_value,
                     name, static_cast<uint8_t>(bit)};
}

constexpr const MessageDesc &sub_of(const MessageDesc &m, const FieldDesc &f) { return f.sub ? *f.sub : m; }

// The row through which a message repeats itself (a data tree's children), or field_count when it
// has none: only there is nesting unbounded, so only there do the walks need an explicit stack.
constexpr unsigned self_field(const MessageDesc &m) {
    unsigned found = m.field_count;
    for (unsigned i = 0; i < m.field_count; ++i)
        if (m.fields[i].kind == Kind::Messages && !m.fields[i].sub) {
            if (found != m.field_count) throw "a message may repeat itself through one field only";
            found = i;
        }
    return found;
}

// True when `inner` is an inline or repeated part of `outer`, at any depth.
constexpr bool contains(const MessageDesc &outer, const MessageDesc &inner) {
    for (unsigned i = 0; i < outer.field_count; ++i) {
        const MessageDesc *sub = outer.fields[i].sub;
        if (sub && (sub == &inner || contains(*sub, inner))) return true;
    }
    return false;
}

// True for a message that repeats itself and for everything inside one: their walks run once a
// tree node, not once a message, so that is where inlining pays for its code.
template <size_t N> constexpr bool in_tree(const MessageDesc &m, const MessageDesc *const (&all)[N]) {
    for (const MessageDesc *outer : all)
        if (self_field(*outer) < outer->field_count && (outer == &m || contains(*outer, m))) return true;
    return false;
}

// A list of member offsets within a record, made at compile time from a table.
struct Offsets {
    uint16_t at[96];
    size_t count = 0;
};

// Where the owning pointers (strings and arrays) of rows [from, to) are, those of their inline
// records included: when all of them are null, those rows own nothing.
constexpr void add_owned_pointers(Offsets &out, const MessageDesc &m, unsigned from, unsigned to, size_t base) {
    for (unsigned i = from; i < to; ++i) {
        const FieldDesc &f = m.fields[i];
        if (f.kind == Kind::Message) {
            add_owned_pointers(out, *f.sub, 0, f.sub->field_count, base + f.offset);
        } else if (f.kind == Kind::String || f.kind == Kind::Strings || f.kind == Kind::Messages) {
            if (out.count == sizeof out.at / sizeof out.at[0]) throw "too many owning pointers";
            out.at[out.count++] = static_cast<uint16_t>(base + f.offset);
        }
    }
}
constexpr Offsets owned_pointers(const MessageDesc &m, unsigned from, unsigned to) {
    Offsets out{};
    add_owned_pointers(out, m, from, to, 0);
    return out;
}

// Fails compilation (a throw in a constant expression) when a table row names a member of the
// wrong type, so a table can never silently disagree with its record.
template <class Member, class Expected> consteval uint16_t checked_offset(size_t offset) {
    if (!std::is_same_v<Member, Expected>) throw "table row does not match the record member's type";
    if (offset > UINT16_MAX) throw "record too large for a table row";
    return static_cast<uint16_t>(offset);
}

template <size_t N>
constexpr MessageDesc describe(const char *name, uint32_t size, size_t present_offset, size_t present_size,
                               const FieldDesc (&fields)[N]) {
    if (N > 32) throw "too many fields for a 32-bit presence mask";
    if (present_size != (N + 7) / 8) throw "the record's present array does not have one bit per field";
    MessageDesc d{name, size, static_cast<uint16_t>(present_offset), static_cast<uint8_t>(N), fields, {}, false,
                  false, false, 0, static_cast<uint8_t>((N + 7) / 8), 0, {}};
    for (auto &slot : d.lookup) slot = kUnknownField;
    auto add_to_closure = [&d](size_t offset) {
        if (d.closure_count == sizeof d.closure / sizeof d.closure[0]) throw "presence closure too large";
        d.closure[d.closure_count++] = static_cast<uint16_t>(offset);
    };
    for (size_t b = 0; b < d.present_bytes; ++b) add_to_closure(present_offset + b);
    for (size_t i = 0; i < N; ++i) {
        const FieldDesc &f = fields[i];
        if (f.number == 0 || f.number > kMaxFieldNumber) throw "field number out of range";
        if (d.lookup[f.number] != kUnknownField) throw "field number used twice";
        if (f.bit != i) throw "a bit name differs from its field's row";
        d.lookup[f.number] = static_cast<uint8_t>(i);
        if (f.default_value != 0) d.has_defaults = true;
        switch (f.kind) {
        case Kind::String:
        case Kind::Strings:
        case Kind::Messages:
            d.owns_memory = true;
            break;
        case Kind::Message:
            d.has_inline_records = true;
            d.inline_mask |= 1u << i;
            for (size_t k = 0; k < f.sub->closure_count; ++k) add_to_closure(f.offset + f.sub->closure[k]);
            if (f.sub->has_defaults) d.has_defaults = true;
            if (f.sub->owns_memory) d.owns_memory = true;
            break;
        default:
            break;
        }
    }
    return d;
}

// A message without fields (a payload flag such as discard_changes).
constexpr MessageDesc describe_empty(const char *name, uint32_t size) {
    MessageDesc d{name, size, 0, 0, nullptr, {}, false, false, false, 0, 0, 0, {}};
    for (auto &slot : d.lookup) slot = kUnknownField;
    return d;
}

} // namespace tov::detail

// Table rows. Each checks the member's type against the kind it is described as, and takes the
// record's bit name for the field, which describe() checks against the row's index.
#define TOV_OFFSET_(T, member, Type) ::tov::detail::checked_offset<decltype(T::member), Type>(offsetof(T, member))
#define TOV_FIELD_VARINT(T, number, member, bit)                                                            \
    ::tov::detail::field(number, ::tov::detail::Kind::Varint32, TOV_OFFSET_(T, member, uint32_t), 0, nullptr, 0, #member, bit)
#define TOV_FIELD_VARINT_DEFAULT(T, number, member, value, bit)                                             \
    ::tov::detail::field(number, ::tov::detail::Kind::Varint32, TOV_OFFSET_(T, member, uint32_t), 0, nullptr, value, #member, bit)
#define TOV_FIELD_VARINT64(T, number, member, bit)                                                          \
    ::tov::detail::field(number, ::tov::detail::Kind::Varint64, TOV_OFFSET_(T, member, uint64_t), 0, nullptr, 0, #member, bit)
#define TOV_FIELD_BOOL(T, number, member, bit)                                                              \
    ::tov::detail::field(number, ::tov::detail::Kind::Bool, TOV_OFFSET_(T, member, uint8_t), 0, nullptr, 0, #member, bit)
#define TOV_FIELD_STRING(T, number, member, bit)                                                            \
    ::tov::detail::field(number, ::tov::detail::Kind::String, TOV_OFFSET_(T, member, char *), 0, nullptr, 0, #member, bit)
#define TOV_FIELD_MESSAGE(T, number, member, SubT, sub_desc, bit)                                           \
    ::tov::detail::field(number, ::tov::detail::Kind::Message, TOV_OFFSET_(T, member, SubT), 0, &(sub_desc), 0, #member, bit)
// sub_desc may be nullptr for a message that repeats itself (a data tree's children).
#define TOV_FIELD_MESSAGES(T, number, member, count, SubT, sub_desc, bit)                                   \
    ::tov::detail::field(number, ::tov::detail::Kind::Messages, TOV_OFFSET_(T, member, SubT *),        \
                         TOV_OFFSET_(T, count, uint32_t), sub_desc, 0, #member, bit)
#define TOV_FIELD_STRINGS(T, number, member, count, bit)                                                    \
    ::tov::detail::field(number, ::tov::detail::Kind::Strings, TOV_OFFSET_(T, member, char **),        \
                         TOV_OFFSET_(T, count, uint32_t), nullptr, 0, #member, bit)
// A payload flag has no member; its name is given.
#define TOV_FIELD_FLAG(number, name, sub_desc, bit)                                                    \
    ::tov::detail::field(number, ::tov::detail::Kind::Flag, 0, 0, &(sub_desc), 0, name, bit)

#define TOV_DESCRIBE(name, T, fields)                                                                  \
    ::tov::detail::describe(name, sizeof(T), offsetof(T, present), sizeof(T::present), fields)
