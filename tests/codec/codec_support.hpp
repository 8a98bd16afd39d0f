// Shared helpers of the codec tests: allocators that account by label, byte helpers, and a
// generator of random data trees with fixed seeds.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "codec/engine.hpp"
#include "codec/envelope_tables.hpp"
#include "tov/codec.h"
#include "tov/kor_alloc.h"

namespace tov::test {

using Bytes = std::vector<uint8_t>;

// Codec callbacks over the named allocator; the context word is the label.
inline void *named_alloc(uint32_t size, uintptr_t label) {
    return kor_named_malloc(size, reinterpret_cast<const char *>(label), 0);
}
inline void named_free(void *pointer, uintptr_t) { kor_named_free(pointer); }

class Label {
public:
    explicit Label(const char *name) : name_(name) {}
    uintptr_t ctx() const { return reinterpret_cast<uintptr_t>(name_); }
    uint64_t live() const {
        kor_named_stats s{};
        kor_named_get_stats(name_, &s);
        return s.live_blocks;
    }
    uint64_t total() const {
        kor_named_stats s{};
        kor_named_get_stats(name_, &s);
        return s.total_blocks;
    }

private:
    const char *name_;
};

// A string member of a record filled by hand (never freed through the record).
inline char *text(const char *s) { return const_cast<char *>(s); }

inline Bytes encode(const detail::MessageDesc &desc, const void *record) {
    uint32_t n = detail::encode(desc, record, nullptr, 0, nullptr, nullptr);
    Bytes out(n);
    detail::encode(desc, record, out.data(), n, nullptr, nullptr);
    return out;
}

inline std::string hex(const Bytes &b) {
    std::string s;
    char buf[4];
    for (uint8_t c : b) {
        std::snprintf(buf, sizeof buf, "%02X ", c);
        s += buf;
    }
    return s;
}

// Random data trees: every field kind, varied depth and fan-out. Strings and arrays come from
// `alloc`, so the tree is released with kesh_tov_datatree_free_ext.
class TreeGenerator {
public:
    TreeGenerator(uint32_t seed, tov_alloc_fn alloc, uintptr_t ctx) : rng_(seed), alloc_(alloc), ctx_(ctx) {}

    void fill(DataTree &t, int depth_left, int max_children = 4) {
        std::memset(&t, 0, sizeof t);
        maybe_string(t.name, t.present, TOV_DATATREE_BIT_NAME, 90);
        maybe_string(t.value, t.present, TOV_DATATREE_BIT_VALUE, 50);
        maybe_string(t.qualifier, t.present, TOV_DATATREE_BIT_QUALIFIER, 20);
        maybe_number(t.aux_number_4, t.present, TOV_DATATREE_BIT_AUX_NUMBER_4, 15);
        maybe_number(t.operation, t.present, TOV_DATATREE_BIT_OPERATION, 30);
        if (chance(30)) {
            t.attributes_count = 1 + pick(3);
            t.attributes = array<Attribute>(t.attributes_count);
            for (uint32_t i = 0; i < t.attributes_count; ++i) fill(t.attributes[i]);
            tov_bit_set(t.present, TOV_DATATREE_BIT_ATTRIBUTES);
        }
        if (depth_left > 0 && chance(60)) {
            t.children_count = 1 + pick(static_cast<uint32_t>(max_children));
            t.children = array<DataTree>(t.children_count);
            for (uint32_t i = 0; i < t.children_count; ++i) fill(t.children[i], depth_left - 1, max_children);
            tov_bit_set(t.present, TOV_DATATREE_BIT_CHILDREN);
        }
        maybe_number(t.aux_number_8, t.present, TOV_DATATREE_BIT_AUX_NUMBER_8, 10);
        if (chance(20)) {
            maybe_string(t.node_info.text, t.node_info.present, TOV_NODE_INFO_BIT_TEXT, 50);
            maybe_number(t.node_info.number, t.node_info.present, TOV_NODE_INFO_BIT_NUMBER, 50);
            if (chance(60)) {
                t.node_info.items_count = 1 + pick(4);
                t.node_info.items = array<char *>(t.node_info.items_count);
                for (uint32_t i = 0; i < t.node_info.items_count; ++i) t.node_info.items[i] = string();
                tov_bit_set(t.node_info.present, TOV_NODE_INFO_BIT_ITEMS);
            }
            if (chance(80)) tov_bit_set(t.present, TOV_DATATREE_BIT_NODE_INFO);
        }
        maybe_number(t.aux_number_10, t.present, TOV_DATATREE_BIT_AUX_NUMBER_10, 10);
        if (chance(15)) {
            EditIns &e = t.insert;
            maybe_number(e.position, e.present, TOV_EDIT_INS_BIT_POSITION, 60);
            if (chance(50)) {
                e.key.keys_count = pick(3);
                if (e.key.keys_count) {
                    e.key.keys = array<Attribute>(e.key.keys_count);
                    for (uint32_t i = 0; i < e.key.keys_count; ++i) fill(e.key.keys[i]);
                    tov_bit_set(e.key.present, TOV_EDIT_INS_KEY_BIT_KEYS);
                }
                maybe_string(e.key.value, e.key.present, TOV_EDIT_INS_KEY_BIT_VALUE, 50);
                tov_bit_set(e.present, TOV_EDIT_INS_BIT_KEY);
            }
            if (chance(40)) {
                fill(e.attribute);
                tov_bit_set(e.present, TOV_EDIT_INS_BIT_ATTRIBUTE);
            }
            if (chance(80)) tov_bit_set(t.present, TOV_DATATREE_BIT_INSERT);
        }
        maybe_number(t.aux_number_12, t.present, TOV_DATATREE_BIT_AUX_NUMBER_12, 10);
        maybe_string(t.aux_text_13, t.present, TOV_DATATREE_BIT_AUX_TEXT_13, 10);
    }

    void fill(Attribute &a) {
        std::memset(&a, 0, sizeof a);
        maybe_string(a.name, a.present, TOV_ATTRIBUTE_BIT_NAME, 90);
        maybe_string(a.value, a.present, TOV_ATTRIBUTE_BIT_VALUE, 70);
    }

    bool chance(uint32_t percent) { return pick(100) < percent; }
    uint32_t pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng_); }
    uint32_t number() {
        switch (pick(4)) {
        case 0: return 0;
        case 1: return pick(128);
        case 2: return pick(1u << 20);
        default: return static_cast<uint32_t>(rng_());
        }
    }
    char *string() {
        uint32_t n = chance(10) ? 0 : 1 + pick(chance(10) ? 300 : 12);
        char *s = static_cast<char *>(alloc_(n + 1, ctx_));
        for (uint32_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + pick(26));
        s[n] = '\0';
        return s;
    }

private:
    template <class T> T *array(uint32_t count) {
        auto *p = static_cast<T *>(alloc_(static_cast<uint32_t>(count * sizeof(T)), ctx_));
        std::memset(p, 0, count * sizeof(T));
        return p;
    }
    void maybe_string(char *&member, uint8_t *present, unsigned bit, uint32_t percent) {
        if (!chance(percent)) return;
        member = string();
        tov_bit_set(present, bit);
    }
    void maybe_number(uint32_t &member, uint8_t *present, unsigned bit, uint32_t percent) {
        if (!chance(percent)) return;
        member = number();
        tov_bit_set(present, bit);
    }

    std::mt19937 rng_;
    tov_alloc_fn alloc_;
    uintptr_t ctx_;
};

} // namespace tov::test

namespace tov::test {

// Random records of any message, driven by its table: what the codec can express, it fills.
class RecordFiller {
public:
    RecordFiller(uint32_t seed, tov_alloc_fn alloc, uintptr_t ctx) : gen_(seed, alloc, ctx), alloc_(alloc), ctx_(ctx) {}

    // `record` must be zeroed (or reset); `depth` bounds nesting through arrays and inline records.
    void fill(const detail::MessageDesc &d, uint8_t *record, int depth) {
        detail::reset(d, record);
        for (unsigned i = 0; i < d.field_count; ++i) {
            const detail::FieldDesc &f = d.fields[i];
            uint8_t *member = record + f.offset;
            if (!gen_.chance(f.kind == detail::Kind::Messages ? 35 : 55)) continue;
            switch (f.kind) {
            case detail::Kind::Varint32:
                put<uint32_t>(member, gen_.number());
                break;
            case detail::Kind::Bool:
                put<uint8_t>(member, gen_.chance(50));
                break;
            case detail::Kind::Varint64:
                put<uint64_t>(member, (uint64_t{gen_.number()} << gen_.pick(33)) ^ gen_.number());
                break;
            case detail::Kind::String:
                put<char *>(member, gen_.string());
                break;
            case detail::Kind::Flag:
                break;
            case detail::Kind::Message:
                if (depth > 0) fill(*f.sub, member, depth - 1);
                break;
            case detail::Kind::Messages: {
                if (depth <= 0) continue;
                const detail::MessageDesc &sub = detail::sub_of(d, f);
                const uint32_t count = 1 + gen_.pick(3);
                auto *elements = static_cast<uint8_t *>(alloc_(count * sub.size, ctx_));
                std::memset(elements, 0, count * sub.size);
                for (uint32_t k = 0; k < count; ++k) fill(sub, elements + k * sub.size, depth - 1);
                put<uint8_t *>(member, elements);
                put<uint32_t>(record + f.count_offset, count);
                break;
            }
            case detail::Kind::Strings: {
                const uint32_t count = 1 + gen_.pick(3);
                auto **items = static_cast<char **>(alloc_(count * sizeof(char *), ctx_));
                for (uint32_t k = 0; k < count; ++k) items[k] = gen_.string();
                put<char **>(member, items);
                put<uint32_t>(record + f.count_offset, count);
                break;
            }
            }
            tov_bit_set(record + d.present_offset, i);
        }
    }

private:
    template <class T> static void put(uint8_t *p, T v) { std::memcpy(p, &v, sizeof v); }
    TreeGenerator gen_;
    tov_alloc_fn alloc_;
    uintptr_t ctx_;
};

} // namespace tov::test
