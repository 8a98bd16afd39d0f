// The one codec engine behind every kesh_tov_<message>_* function.
#pragma once

#include <cstdint>

#include "codec/descriptor.hpp"
#include "tov/codec.h"

namespace tov::detail {

// Every scalar, pointer and count 0, every presence bit clear, the non-zero defaults stored;
// nothing the record pointed to is freed.
void reset(const MessageDesc &desc, void *record);

// True when the record's encoding is empty (nothing present, no inline record with content).
bool is_empty(const MessageDesc &desc, const void *record);

int32_t decode(const MessageDesc &desc, void *record, const uint8_t *buffer, uint32_t length,
               tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
uint32_t encode(const MessageDesc &desc, const void *record, uint8_t *buffer, uint32_t capacity, TovSpan *spans,
                uint32_t *span_count);
int32_t duplicate(const MessageDesc &desc, void *destination, const void *source, tov_alloc_fn alloc_fn,
                  uintptr_t alloc_ctx);
void release(const MessageDesc &desc, void *record, tov_free_fn free_fn, uintptr_t free_ctx);

} // namespace tov::detail
