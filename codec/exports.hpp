// SPDX-License-Identifier: BSD-3-Clause
// Stamps out the exported kesh_tov_<message>_* functions from the message list as thin wrappers
// over the engine: the table of message name is k<Record>, and messages that own no memory drop
// the arguments they have no use for.
#pragma once

#include "codec/engine.hpp"

#define TOV_DECODE_3(m, T)                                                                             \
    extern "C" TOV_API int32_t kesh_tov_##m##_decode_ext(T *record, const uint8_t *buffer, uint32_t length) { \
        return ::tov::detail::decode_checked<k##T>(record, buffer, length, nullptr, 0);                \
    }
#define TOV_DECODE_5(m, T)                                                                             \
    extern "C" TOV_API int32_t kesh_tov_##m##_decode_ext(T *record, const uint8_t *buffer, uint32_t length, \
                                                         tov_alloc_fn alloc_fn, uintptr_t alloc_ctx) { \
        return ::tov::detail::decode_checked<k##T>(record, buffer, length, alloc_fn, alloc_ctx);       \
    }
#define TOV_DECODE_6(m, T)                                                                             \
    extern "C" TOV_API int32_t kesh_tov_##m##_decode_ext(T *record, const uint8_t *buffer, uint32_t length, \
                                                         tov_alloc_fn alloc_fn, uintptr_t alloc_ctx, uintptr_t) { \
        return ::tov::detail::decode_checked<k##T>(record, buffer, length, alloc_fn, alloc_ctx);       \
    }
#define TOV_ENCODE_5(m, T)                                                                             \
    extern "C" TOV_API uint32_t kesh_tov_##m##_encode_ext(const T *record, uint8_t *buffer, uint32_t capacity, \
                                                          TovSpan *spans, uint32_t *span_count) {      \
        return ::tov::detail::encode_message<k##T>(record, buffer, capacity, spans, span_count);        \
    }
#define TOV_ENCODE_6(m, T)                                                                             \
    extern "C" TOV_API uint32_t kesh_tov_##m##_encode_ext(const T *record, uint8_t *buffer, uint32_t capacity, \
                                                          TovSpan *spans, uint32_t *span_count, uintptr_t) { \
        return ::tov::detail::encode_message<k##T>(record, buffer, capacity, spans, span_count);        \
    }
#define TOV_FREE_3(m, T)                                                                               \
    extern "C" TOV_API void kesh_tov_##m##_free_ext(T *record, tov_free_fn free_fn, uintptr_t free_ctx) { \
        ::tov::detail::release_message<k##T>(record, free_fn, free_ctx);                               \
    }
#define TOV_FREE_4(m, T)                                                                               \
    extern "C" TOV_API void kesh_tov_##m##_free_ext(T *record, tov_free_fn free_fn, uintptr_t free_ctx, uintptr_t) { \
        ::tov::detail::release_message<k##T>(record, free_fn, free_ctx);                               \
    }

// The four functions of one entry of TOV_MESSAGES.
#define TOV_CODEC(m, T, decode_args, encode_args, free_args)                                           \
    TOV_DECODE_##decode_args(m, T) TOV_ENCODE_##encode_args(m, T)                                      \
    extern "C" TOV_API int32_t kesh_tov_##m##_duplicate(T *destination, const T *source, tov_alloc_fn alloc_fn, \
                                                        uintptr_t alloc_ctx) {                         \
        return ::tov::detail::code(::tov::detail::duplicate_message<k##T>(destination, source, alloc_fn, alloc_ctx)); \
    }                                                                                                  \
    TOV_FREE_##free_args(m, T)

namespace tov::detail {

// A NULL record cannot be decoded into; nor can a length be read from no bytes.
template <const MessageDesc &D>
inline int32_t decode_checked(void *record, const uint8_t *buffer, uint32_t length, tov_alloc_fn alloc_fn,
                              uintptr_t alloc_ctx) {
    if (!record) return TOV_CODEC_MALFORMED;
    return code(decode_message<D>(record, buffer, length, alloc_fn, alloc_ctx));
}

} // namespace tov::detail
