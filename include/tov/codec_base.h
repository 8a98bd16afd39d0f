/* SPDX-License-Identifier: BSD-3-Clause */
/* The codec contract: one plain record per message and four operations for each, generated to
 * one pattern:
 *
 *   int32_t  kesh_tov_<m>_decode_ext(record, buffer, length[, alloc_fn, alloc_ctx[, codec_ctx]])
 *   uint32_t kesh_tov_<m>_encode_ext(record, buffer, capacity, spans, span_count[, codec_ctx])
 *   int32_t  kesh_tov_<m>_duplicate(destination, source, alloc_fn, alloc_ctx)
 *   void     kesh_tov_<m>_free_ext(record, free_fn, free_ctx[, codec_ctx])
 *
 * Messages that own no memory drop the trailing arguments they have no use for. Records hold
 * their members in field order, then the presence set `present` (bit n for the n-th field); use
 * the TOV_<MESSAGE>_BIT_<FIELD> names with tov_bit_is_set / tov_bit_set / tov_bit_clear.
 *
 * Decoding resets the record first and allocates only through alloc_fn; a record that owns
 * memory from decode_ext or duplicate is released with free_ext (also after a failed decode).
 * Encoding with capacity 0 measures; a result above capacity means the output is incomplete.
 * A writing call whose capacity is exactly the length this thread last measured for the same
 * record starts from that measurement and checks it; a record changed in between is measured
 * again and written as it is now, but the bytes of the buffer that the new encoding does not
 * cover may then have been overwritten.
 * codec_ctx is handed on unchanged and never interpreted. */
#ifndef TOV_CODEC_BASE_H
#define TOV_CODEC_BASE_H

#include <stdint.h>

#include "tov/export.h"

TOV_BEGIN_DECLS

/* Codec result codes (decode_ext and duplicate). */
#define TOV_CODEC_OK 0
#define TOV_CODEC_MALFORMED (-1)       /* truncated, runs past the end, a string or run met twice */
#define TOV_CODEC_BAD_WIRE_TYPE (-2)   /* an unknown field with wire type 3, 4, 6 or 7 */
#define TOV_CODEC_WRONG_WIRE_TYPE (-3) /* a known field with the wrong wire type */
#define TOV_CODEC_NO_MEMORY (-4)       /* no alloc_fn where memory is needed, or it returned NULL */

/* Returns `size` bytes or NULL. */
typedef void *(*tov_alloc_fn)(uint32_t size, uintptr_t alloc_ctx);
/* Releases one block that the matching tov_alloc_fn returned. */
typedef void (*tov_free_fn)(void *pointer, uintptr_t free_ctx);

/* One entry of the encoder's optional span list: a non-empty message encoding in the output,
 * innermost first, the outermost message last. */
typedef struct TovSpan {
    uint8_t *start; /* NULL when the encoding starts at or past the capacity */
    uint32_t length;
} TovSpan;

static inline int tov_bit_is_set(const uint8_t *present, unsigned bit) {
    return (present[bit >> 3] >> (bit & 7u)) & 1u;
}
static inline void tov_bit_set(uint8_t *present, unsigned bit) {
    present[bit >> 3] = (uint8_t)(present[bit >> 3] | (1u << (bit & 7u)));
}
static inline void tov_bit_clear(uint8_t *present, unsigned bit) {
    present[bit >> 3] = (uint8_t)(present[bit >> 3] & ~(1u << (bit & 7u)));
}

/* Reads one varint at *position (at most `length`), truncated to 32 bits; value_out may be NULL
 * to skip it. Returns 0, or -1 when the buffer ends first. */
TOV_API int32_t protoc99_decode_var32(uint32_t *value_out, uint32_t *position, const uint8_t *buffer,
                                      uint32_t length);

/* The four functions of one message, declared from its entry in a family's message list:
 * X(name, record, decode arguments, encode arguments, free arguments), with 3, 5 or 6 decode
 * arguments, 5 or 6 encode arguments and 3 or 4 free arguments as in the pattern above. */
#define TOV_DECLARE_DECODE_3(m, T) \
    TOV_API int32_t kesh_tov_##m##_decode_ext(T *record, const uint8_t *buffer, uint32_t length);
#define TOV_DECLARE_DECODE_5(m, T)                                                                     \
    TOV_API int32_t kesh_tov_##m##_decode_ext(T *record, const uint8_t *buffer, uint32_t length,       \
                                              tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
#define TOV_DECLARE_DECODE_6(m, T)                                                                     \
    TOV_API int32_t kesh_tov_##m##_decode_ext(T *record, const uint8_t *buffer, uint32_t length,       \
                                              tov_alloc_fn alloc_fn, uintptr_t alloc_ctx, uintptr_t codec_ctx);
#define TOV_DECLARE_ENCODE_5(m, T)                                                                     \
    TOV_API uint32_t kesh_tov_##m##_encode_ext(const T *record, uint8_t *buffer, uint32_t capacity,    \
                                               TovSpan *spans, uint32_t *span_count);
#define TOV_DECLARE_ENCODE_6(m, T)                                                                     \
    TOV_API uint32_t kesh_tov_##m##_encode_ext(const T *record, uint8_t *buffer, uint32_t capacity,    \
                                               TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
#define TOV_DECLARE_FREE_3(m, T) \
    TOV_API void kesh_tov_##m##_free_ext(T *record, tov_free_fn free_fn, uintptr_t free_ctx);
#define TOV_DECLARE_FREE_4(m, T) \
    TOV_API void kesh_tov_##m##_free_ext(T *record, tov_free_fn free_fn, uintptr_t free_ctx, uintptr_t codec_ctx);
#define TOV_DECLARE_CODEC(m, T, decode_args, encode_args, free_args)                                   \
    TOV_DECLARE_DECODE_##decode_args(m, T) TOV_DECLARE_ENCODE_##encode_args(m, T)                      \
    TOV_API int32_t kesh_tov_##m##_duplicate(T *destination, const T *source, tov_alloc_fn alloc_fn,   \
                                             uintptr_t alloc_ctx);                                     \
    TOV_DECLARE_FREE_##free_args(m, T)

TOV_END_DECLS

#endif
