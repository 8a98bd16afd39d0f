// SPDX-License-Identifier: BSD-3-Clause
// The exported functions of every message, one list entry each.
#include "codec/envelope_tables.hpp"
#include "codec/exports.hpp"

using namespace tov::detail;

TOV_MESSAGES(TOV_CODEC)

namespace tov::detail {
namespace {

// The generated walks of each table, by address: a table known only at run time (the tools hold
// one) finds its walks here.
struct Walks {
    const MessageDesc *desc;
    decltype(&decode_message<kRequest>) decode;
    decltype(&encode_message<kRequest>) encode;
    decltype(&duplicate_message<kRequest>) duplicate;
    decltype(&release_message<kRequest>) release;
};
constexpr Walks kWalks[] = {
#define TOV_WALKS_(m, T, ...)                                                                          \
    {&k##T, &decode_message<k##T>, &encode_message<k##T>, &duplicate_message<k##T>, &release_message<k##T>},
    TOV_MESSAGES(TOV_WALKS_)
#undef TOV_WALKS_
};
const Walks *walks_of(const MessageDesc &desc) {
    for (const Walks &w : kWalks)
        if (w.desc == &desc) return &w;
    return nullptr;
}

} // namespace

// A table that is not the codec's decodes nothing, encodes to nothing and owns nothing.
Status decode(const MessageDesc &desc, void *record, const uint8_t *buffer, uint32_t length, tov_alloc_fn alloc_fn,
              uintptr_t alloc_ctx) {
    const Walks *w = walks_of(desc);
    return w ? w->decode(record, buffer, length, alloc_fn, alloc_ctx) : Status::malformed;
}
uint32_t encode(const MessageDesc &desc, const void *record, uint8_t *buffer, uint32_t capacity, TovSpan *spans,
                uint32_t *span_count) {
    const Walks *w = walks_of(desc);
    return w ? w->encode(record, buffer, capacity, spans, span_count) : 0;
}
Status duplicate(const MessageDesc &desc, void *destination, const void *source, tov_alloc_fn alloc_fn,
                 uintptr_t alloc_ctx) {
    const Walks *w = walks_of(desc);
    return w ? w->duplicate(destination, source, alloc_fn, alloc_ctx) : Status::ok;
}
void release(const MessageDesc &desc, void *record, tov_free_fn free_fn, uintptr_t free_ctx) {
    if (const Walks *w = walks_of(desc)) w->release(record, free_fn, free_ctx);
}

} // namespace tov::detail
