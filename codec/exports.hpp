// Stamps out the exported kesh_tov_<message>_* functions as thin wrappers over the engine, one
// macro per argument shape: messages that own no memory drop the arguments they have no use for.
#pragma once

#include "codec/engine.hpp"

// decode_ext: (record, buffer, length), + (alloc_fn, alloc_ctx), + codec_ctx
#define TOV_DECODE_3(m, T, desc)                                                                       \
    extern "C" TOV_API int32_t kesh_tov_##m##_decode_ext(T *record, const uint8_t *buffer, uint32_t length) { \
        return ::tov::detail::decode_checked(desc, record, buffer, length, nullptr, 0);                \
    }
#define TOV_DECODE_5(m, T, desc)                                                                       \
    extern "C" TOV_API int32_t kesh_tov_##m##_decode_ext(T *record, const uint8_t *buffer, uint32_t length, \
                                                         tov_alloc_fn alloc_fn, uintptr_t alloc_ctx) { \
        return ::tov::detail::decode_checked(desc, record, buffer, length, alloc_fn, alloc_ctx);       \
    }
#define TOV_DECODE_6(m, T, desc)                                                                       \
    extern "C" TOV_API int32_t kesh_tov_##m##_decode_ext(T *record, const uint8_t *buffer, uint32_t length, \
                                                         tov_alloc_fn alloc_fn, uintptr_t alloc_ctx,   \
                                                         uintptr_t) {                                  \
        return ::tov::detail::decode_checked(desc, record, buffer, length, alloc_fn, alloc_ctx);       \
    }
// encode_ext: (record, buffer, capacity, spans, span_count), + codec_ctx
#define TOV_ENCODE_5(m, T, desc)                                                                       \
    extern "C" TOV_API uint32_t kesh_tov_##m##_encode_ext(const T *record, uint8_t *buffer, uint32_t capacity, \
                                                          TovSpan *spans, uint32_t *span_count) {      \
        return ::tov::detail::encode(desc, record, buffer, capacity, spans, span_count);               \
    }
#define TOV_ENCODE_6(m, T, desc)                                                                       \
    extern "C" TOV_API uint32_t kesh_tov_##m##_encode_ext(const T *record, uint8_t *buffer, uint32_t capacity, \
                                                          TovSpan *spans, uint32_t *span_count, uintptr_t) { \
        return ::tov::detail::encode(desc, record, buffer, capacity, spans, span_count);               \
    }
// free_ext: (record, free_fn, free_ctx), + codec_ctx
#define TOV_FREE_3(m, T, desc)                                                                         \
    extern "C" TOV_API void kesh_tov_##m##_free_ext(T *record, tov_free_fn free_fn, uintptr_t free_ctx) { \
        ::tov::detail::release(desc, record, free_fn, free_ctx);                                       \
    }
#define TOV_FREE_4(m, T, desc)                                                                         \
    extern "C" TOV_API void kesh_tov_##m##_free_ext(T *record, tov_free_fn free_fn, uintptr_t free_ctx, uintptr_t) { \
        ::tov::detail::release(desc, record, free_fn, free_ctx);                                       \
    }
#define TOV_DUPLICATE(m, T, desc)                                                                      \
    extern "C" TOV_API int32_t kesh_tov_##m##_duplicate(T *destination, const T *source, tov_alloc_fn alloc_fn, \
                                                        uintptr_t alloc_ctx) {                         \
        return ::tov::detail::duplicate(desc, destination, source, alloc_fn, alloc_ctx);               \
    }

// The four functions of one message: TOV_CODEC(datatree, DataTree, kDataTree, 6, 6, 4).
#define TOV_CODEC(m, T, desc, decode_args, encode_args, free_args)                                     \
    TOV_DECODE_##decode_args(m, T, desc) TOV_ENCODE_##encode_args(m, T, desc) TOV_DUPLICATE(m, T, desc) \
        TOV_FREE_##free_args(m, T, desc)

namespace tov::detail {

// A NULL record cannot be decoded into; nor can a length be read from no bytes.
inline int32_t decode_checked(const MessageDesc &desc, void *record, const uint8_t *buffer, uint32_t length,
                              tov_alloc_fn alloc_fn, uintptr_t alloc_ctx) {
    if (!record) return TOV_CODEC_MALFORMED;
    return decode(desc, record, buffer, length, alloc_fn, alloc_ctx);
}

} // namespace tov::detail
