// SPDX-License-Identifier: BSD-3-Clause
// Every message's four public functions behind one uniform shape, so that a check written once
// runs against every exported kesh_tov_* entry point (whatever arguments the message drops).
#pragma once

#include <cstddef>
#include <vector>

#include "codec/envelope_tables.hpp"
#include "tov/codec.h"

namespace tov::test {

struct PublicCodec {
    const detail::MessageDesc *desc;
    int32_t (*decode)(void *record, const uint8_t *buffer, uint32_t length, tov_alloc_fn, uintptr_t);
    uint32_t (*encode)(const void *record, uint8_t *buffer, uint32_t capacity, TovSpan *, uint32_t *);
    int32_t (*duplicate)(void *destination, const void *source, tov_alloc_fn, uintptr_t);
    void (*free)(void *record, tov_free_fn, uintptr_t);
};

#define TOV_T_DECODE_3(m, T) [](void *r, const uint8_t *b, uint32_t l, tov_alloc_fn, uintptr_t) { return kesh_tov_##m##_decode_ext(static_cast<T *>(r), b, l); }
#define TOV_T_DECODE_5(m, T) [](void *r, const uint8_t *b, uint32_t l, tov_alloc_fn a, uintptr_t c) { return kesh_tov_##m##_decode_ext(static_cast<T *>(r), b, l, a, c); }
#define TOV_T_DECODE_6(m, T) [](void *r, const uint8_t *b, uint32_t l, tov_alloc_fn a, uintptr_t c) { return kesh_tov_##m##_decode_ext(static_cast<T *>(r), b, l, a, c, 0x5eed); }
#define TOV_T_ENCODE_5(m, T) [](const void *r, uint8_t *b, uint32_t n, TovSpan *s, uint32_t *c) { return kesh_tov_##m##_encode_ext(static_cast<const T *>(r), b, n, s, c); }
#define TOV_T_ENCODE_6(m, T) [](const void *r, uint8_t *b, uint32_t n, TovSpan *s, uint32_t *c) { return kesh_tov_##m##_encode_ext(static_cast<const T *>(r), b, n, s, c, 0x5eed); }
#define TOV_T_FREE_3(m, T) [](void *r, tov_free_fn f, uintptr_t c) { kesh_tov_##m##_free_ext(static_cast<T *>(r), f, c); }
#define TOV_T_FREE_4(m, T) [](void *r, tov_free_fn f, uintptr_t c) { kesh_tov_##m##_free_ext(static_cast<T *>(r), f, c, 0x5eed); }
#define TOV_T_CODEC(m, T, d, e, f)                                                               \
    PublicCodec {                                                                                      \
        &detail::k##T, TOV_T_DECODE_##d(m, T), TOV_T_ENCODE_##e(m, T),                                 \
            [](void *dst, const void *src, tov_alloc_fn a, uintptr_t c) {                              \
                return kesh_tov_##m##_duplicate(static_cast<T *>(dst), static_cast<const T *>(src), a, c); \
            },                                                                                         \
            TOV_T_FREE_##f(m, T)                                                                       \
    },

inline const PublicCodec kPublicCodecs[] = {TOV_MESSAGES(TOV_T_CODEC)};

// Aligned storage for one record of any message.
struct Record {
    explicit Record(const detail::MessageDesc &d) : storage(d.size / sizeof(std::max_align_t) + 1) {}
    void *get() { return storage.data(); }
    std::vector<std::max_align_t> storage;
};

} // namespace tov::test
