// SPDX-License-Identifier: BSD-3-Clause
// Record helpers of the codec tests: bytes, encoding through a table, and a generator of random
// records of any message with fixed seeds.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "codec/engine.hpp"
#include "codec/envelope_tables.hpp"
#include "tov/codec.h"
#include "support/alloc.hpp"

namespace tov::test {

using Bytes = std::vector<uint8_t>;

// A string member of a record filled by hand (never freed through the record).
inline char *text(const char *s) { return const_cast<char *>(s); }

inline Bytes encode(const detail::MessageDesc &desc, const void *record) {
    uint32_t n = detail::encode(desc, record, nullptr, 0, nullptr, nullptr);
    Bytes out(n);
    detail::encode(desc, record, out.data(), n, nullptr, nullptr);
    return out;
}

// Random records of any message, driven by its table: every field kind the codec has, nesting
// through inline records and arrays down to `depth`, fan-out up to `max_elements`. Now and then
// presence and content disagree (a member without its bit, a bit without a string, an empty run
// with its bit, a NULL item), which the encoder must settle by its rules. Strings and arrays come
// from `alloc`, so a record is released with its free_ext.
class RecordFiller {
public:
    RecordFiller(uint32_t seed, tov_alloc_fn alloc, uintptr_t ctx) : rng_(seed), alloc_(alloc), ctx_(ctx) {}

    void fill(const detail::MessageDesc &d, void *rec, int depth, uint32_t max_elements = 3) {
        auto *record = static_cast<uint8_t *>(rec);
        detail::reset(d, record);
        for (unsigned i = 0; i < d.field_count; ++i) {
            const detail::FieldDesc &f = d.fields[i];
            uint8_t *member = record + f.offset;
            if (!chance(f.kind == detail::Kind::Messages ? 45 : 50)) continue;
            switch (f.kind) {
            case detail::Kind::Varint32:
                put<uint32_t>(member, number());
                break;
            case detail::Kind::Bool:
                put<uint8_t>(member, chance(50));
                break;
            case detail::Kind::Varint64:
                put<uint64_t>(member, (uint64_t{number()} << pick(33)) ^ number());
                break;
            case detail::Kind::String:
                put<char *>(member, chance(5) ? nullptr : string());
                break;
            case detail::Kind::Flag:
                break;
            case detail::Kind::Message:
                if (depth > 0) fill(*f.sub, member, depth - 1, max_elements);
                break;
            case detail::Kind::Messages: {
                if (depth <= 0) continue;
                const detail::MessageDesc &sub = detail::sub_of(d, f);
                const uint32_t count = chance(5) ? 0 : 1 + pick(max_elements);
                auto *elements = count ? static_cast<uint8_t *>(alloc_(count * sub.size, ctx_)) : nullptr;
                for (uint32_t k = 0; k < count; ++k) fill(sub, elements + k * sub.size, depth - 1, max_elements);
                put<uint8_t *>(member, elements);
                put<uint32_t>(record + f.count_offset, count);
                break;
            }
            case detail::Kind::Strings: {
                const uint32_t count = 1 + pick(max_elements);
                auto **items = static_cast<char **>(alloc_(count * sizeof(char *), ctx_));
                for (uint32_t k = 0; k < count; ++k) items[k] = chance(5) ? nullptr : string();
                put<char **>(member, items);
                put<uint32_t>(record + f.count_offset, count);
                break;
            }
            }
            if (!chance(5)) tov_bit_set(record + d.present_offset, i);
        }
    }

    uint32_t pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng_); }

private:
    template <class T> static void put(uint8_t *p, T v) { std::memcpy(p, &v, sizeof v); }
    bool chance(uint32_t percent) { return pick(100) < percent; }
    uint32_t number() {
        switch (pick(4)) {
        case 0: return 0;
        case 1: return pick(128);
        case 2: return pick(1u << 20);
        default: return static_cast<uint32_t>(rng_());
        }
    }
    char *string() {
        const uint32_t n = chance(10) ? 0 : 1 + pick(chance(10) ? 300 : 12);
        char *s = static_cast<char *>(alloc_(n + 1, ctx_));
        for (uint32_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + pick(26));
        s[n] = '\0';
        return s;
    }

    std::mt19937 rng_;
    tov_alloc_fn alloc_;
    uintptr_t ctx_;
};

} // namespace tov::test
