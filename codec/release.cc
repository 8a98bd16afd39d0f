// SPDX-License-Identifier: BSD-3-Clause
// Releasing: each record's flat list of owned members (its own and those of its inline records,
// in record order): strings, string arrays after their items, record arrays after their elements.
#include "codec/engine.hpp"

namespace tov::detail {
namespace {

struct ReleaseFrame {
    const MessageDesc *desc;
    uint8_t *record;
    uint32_t index; // next element of the run being released
    uint8_t slot;   // next owned member
};

} // namespace

void release(const MessageDesc &root, void *root_record, tov_free_fn free_fn, uintptr_t free_ctx) {
    if (!root_record || !free_fn || !root.owns_memory) return;
    CodecStack<ReleaseFrame> stack;
    must_push(stack, ReleaseFrame{&root, static_cast<uint8_t *>(root_record), 0, 0});
    for (;;) {
    resume:
        ReleaseFrame &f = stack.top();
        const MessageDesc &d = *f.desc;
        uint8_t *record = f.record;
        for (unsigned slot = f.slot; slot < d.owned_count; ++slot) {
            const OwnedSlot &o = d.owned[slot];
            void *p = load<void *>(record + o.offset);
            if (!p) continue;
            if (o.kind == Kind::Messages) {
                const MessageDesc &sub = o.sub ? *o.sub : d;
                if (sub.owns_memory && f.index < load<uint32_t>(record + o.count_offset)) {
                    f.slot = static_cast<uint8_t>(slot);
                    must_push(stack, ReleaseFrame{&sub, static_cast<uint8_t *>(p) + size_t{f.index++} * sub.size, 0, 0});
                    goto resume;
                }
                f.index = 0;
            } else if (o.kind == Kind::Strings) {
                auto **items = static_cast<char **>(p);
                for (uint32_t i = 0, n = load<uint32_t>(record + o.count_offset); i < n; ++i)
                    if (items[i]) free_fn(items[i], free_ctx);
            }
            free_fn(p, free_ctx);
            store<void *>(record + o.offset, nullptr);
            if (o.kind != Kind::String) store<uint32_t>(record + o.count_offset, 0);
        }
        stack.pop();
        if (stack.empty()) return;
    }
}

} // namespace tov::detail
