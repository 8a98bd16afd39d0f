// SPDX-License-Identifier: BSD-3-Clause
// Duplicating: the record is copied whole, then each owned member of its flat list (its own and
// those of its inline records, in record order) gets a copy of its own. A failed allocation leaves
// that member absent, sets the result to -4, and the copy goes on.
#include "codec/engine.hpp"

namespace tov::detail {
namespace {

struct CopyFrame {
    const MessageDesc *desc;
    uint8_t *dst;
    const uint8_t *src;
    uint32_t index; // next element of the run being copied
    uint8_t slot;   // next owned member
};

char *copy_string(const char *s, tov_alloc_fn alloc_fn, uintptr_t alloc_ctx) {
    const size_t n = std::strlen(s);
    if (!alloc_fn || n >= UINT32_MAX) return nullptr;
    char *copy = static_cast<char *>(alloc_fn(static_cast<uint32_t>(n + 1), alloc_ctx));
    if (copy) std::memcpy(copy, s, n + 1);
    return copy;
}

void *alloc_array(uint32_t count, size_t element_size, tov_alloc_fn alloc_fn, uintptr_t alloc_ctx) {
    const uint64_t bytes = uint64_t{count} * element_size;
    if (!alloc_fn || bytes > UINT32_MAX) return nullptr;
    void *array = alloc_fn(static_cast<uint32_t>(bytes), alloc_ctx);
    if (array) std::memset(array, 0, static_cast<size_t>(bytes));
    return array;
}

} // namespace

Status duplicate(const MessageDesc &root, void *destination, const void *source, tov_alloc_fn alloc_fn,
                 uintptr_t alloc_ctx) {
    if (!destination || !source || destination == source || root.size == 0) return Status::ok;
    Status result = Status::ok;
    std::memcpy(destination, source, root.size);
    if (!root.owns_memory) return result;

    CodecStack<CopyFrame> stack;
    (void)stack.push(CopyFrame{&root, static_cast<uint8_t *>(destination), static_cast<const uint8_t *>(source), 0, 0});
    for (;;) {
    resume:
        CopyFrame &f = stack.top();
        const MessageDesc &d = *f.desc;
        uint8_t *dst = f.dst;
        const uint8_t *src = f.src;
        for (unsigned slot = f.slot; slot < d.owned_count; ++slot) {
            const OwnedSlot &o = d.owned[slot];
            // Absent (and left absent) unless its copy below succeeds.
            auto fail = [&] {
                store<void *>(dst + o.offset, nullptr);
                if (o.kind != Kind::String) store<uint32_t>(dst + o.count_offset, 0);
                dst[o.present_at] &= static_cast<uint8_t>(~o.bit_mask);
                result = Status::no_memory;
            };
            const void *from = load<const void *>(src + o.offset);
            if (o.kind == Kind::String) {
                if (!from) continue;
                char *copy = copy_string(static_cast<const char *>(from), alloc_fn, alloc_ctx);
                if (copy)
                    store<char *>(dst + o.offset, copy);
                else
                    fail();
                continue;
            }
            const uint32_t count = load<uint32_t>(src + o.count_offset);
            if (o.kind == Kind::Strings) {
                store<void *>(dst + o.offset, nullptr);
                store<uint32_t>(dst + o.count_offset, 0);
                if (!from || count == 0) continue; // pointer and count 0, the bit as copied
                auto *const *items = static_cast<char *const *>(from);
                auto **copy = static_cast<char **>(alloc_array(count, sizeof(char *), alloc_fn, alloc_ctx));
                if (!copy) {
                    fail();
                    continue;
                }
                store<char **>(dst + o.offset, copy);
                store<uint32_t>(dst + o.count_offset, count);
                for (uint32_t i = 0; i < count; ++i) {
                    if (!items[i]) continue; // a NULL element stays NULL
                    if (!(copy[i] = copy_string(items[i], alloc_fn, alloc_ctx))) result = Status::no_memory;
                }
                continue;
            }
            // A run of records: the array is copied whole, then each element's own members.
            const MessageDesc &sub = o.sub ? *o.sub : d;
            if (f.index == 0) {
                store<void *>(dst + o.offset, nullptr);
                store<uint32_t>(dst + o.count_offset, 0);
                if (!from || count == 0) continue;
                auto *copy = static_cast<uint8_t *>(alloc_array(count, sub.size, alloc_fn, alloc_ctx));
                if (!copy) {
                    fail();
                    continue;
                }
                std::memcpy(copy, from, size_t{count} * sub.size);
                store<uint8_t *>(dst + o.offset, copy);
                store<uint32_t>(dst + o.count_offset, count);
                if (!sub.owns_memory) continue;
            }
            if (f.index < count) {
                const size_t at = size_t{f.index++} * sub.size;
                uint8_t *element = load<uint8_t *>(dst + o.offset) + at;
                f.slot = static_cast<uint8_t>(slot); // before the push, which may move the frames
                if (stack.push(CopyFrame{&sub, element, static_cast<const uint8_t *>(from) + at, 0, 0})) goto resume;
                std::memset(element, 0, sub.size); // no working memory for this deep a tree
                result = Status::no_memory;
                --slot; // the next element of the same run
                continue;
            }
            f.index = 0;
        }
        stack.pop();
        if (stack.empty()) return result;
    }
}

} // namespace tov::detail
