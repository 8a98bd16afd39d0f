// SPDX-License-Identifier: BSD-3-Clause
// Duplicating: the record is copied whole, then each member that owns memory gets a copy of its
// own, in record order, by code generated per message from its table: inline records that own
// nothing cost nothing. A failed allocation leaves that member absent, sets the result to -4, and
// the copy goes on.
#include <utility>

#include "codec/engine.hpp"
#include "codec/envelope_tables.hpp"
#include "codec/text.hpp"

namespace tov::detail {
namespace {

struct Output {
    tov_alloc_fn alloc_fn;
    uintptr_t alloc_ctx;
};

[[gnu::always_inline]] inline char *copy_string(const char *s, const Output &out) {
    const size_t n = text_length(s);
    if (!out.alloc_fn || n >= UINT32_MAX) return nullptr;
    char *copy = static_cast<char *>(out.alloc_fn(static_cast<uint32_t>(n + 1), out.alloc_ctx));
    if (copy) copy_bytes(reinterpret_cast<uint8_t *>(copy), s, static_cast<uint32_t>(n + 1));
    return copy;
}

// An array of count slots, filled whole by the caller's copy (so not zero-filled first).
// The same, out of line: the copy that records other than a tree's nodes share.
[[gnu::noinline]] char *copy_string_call(const char *s, const Output &out) { return copy_string(s, out); }

void *alloc_array(uint32_t count, size_t element_size, const Output &out) {
    const uint64_t bytes = uint64_t{count} * element_size;
    if (!out.alloc_fn || bytes > UINT32_MAX) return nullptr;
    return out.alloc_fn(static_cast<uint32_t>(bytes), out.alloc_ctx);
}

template <const MessageDesc &D> struct Copier {
    static constexpr unsigned kSelf = self_field(D);
    static constexpr bool kHot = in_tree(D, kAllMessages);

    // Absent (and left absent): the member's copy could not be had.
    template <unsigned I> static void fail(uint8_t *dst, Status &result) {
        constexpr const FieldDesc &f = D.fields[I];
        store<void *>(dst + f.offset, nullptr);
        if constexpr (f.kind != Kind::String) store<uint32_t>(dst + f.count_offset, 0);
        dst[D.present_offset + I / 8] &= static_cast<uint8_t>(~(1u << (I % 8)));
        result = Status::no_memory;
    }

    // The array of a run, copied whole; nullptr when there is none (or it could not be had).
    template <unsigned I>
    static uint8_t *copy_array(const Output &out, uint8_t *dst, const uint8_t *src, Status &result) {
        constexpr const FieldDesc &f = D.fields[I];
        constexpr size_t size = f.kind == Kind::Strings ? sizeof(char *) : sub_of(D, f).size;
        const void *from = load<const void *>(src + f.offset);
        const uint32_t count = load<uint32_t>(src + f.count_offset);
        store<void *>(dst + f.offset, nullptr);
        store<uint32_t>(dst + f.count_offset, 0);
        if (!from || count == 0) return nullptr; // pointer and count 0, the bit as copied
        auto *copy = static_cast<uint8_t *>(alloc_array(count, size, out));
        if (!copy) {
            fail<I>(dst, result);
            return nullptr;
        }
        std::memcpy(copy, from, size_t{count} * size);
        store<uint8_t *>(dst + f.offset, copy);
        store<uint32_t>(dst + f.count_offset, count);
        return copy;
    }

    template <unsigned I>
    [[gnu::always_inline]] static void field(const Output &out, uint8_t *dst, const uint8_t *src,
                                             Status &result) {
        constexpr const FieldDesc &f = D.fields[I];
        if constexpr (f.kind == Kind::String) {
            const char *from = load<const char *>(src + f.offset);
            if (!from) return;
            // Inline in a tree's walk, where nearly every string is; one shared copy elsewhere.
            char *copy = kHot ? copy_string(from, out) : copy_string_call(from, out);
            if (copy)
                store<char *>(dst + f.offset, copy);
            else
                fail<I>(dst, result);
        } else if constexpr (f.kind == Kind::Strings) {
            auto *const *items = load<char *const *>(src + f.offset);
            auto **copy = reinterpret_cast<char **>(copy_array<I>(out, dst, src, result));
            if (!copy) return;
            for (uint32_t i = 0, n = load<uint32_t>(dst + f.count_offset); i < n; ++i) {
                copy[i] = nullptr;
                if (!items[i]) continue; // a NULL element stays NULL
                if (!(copy[i] = copy_string_call(items[i], out))) result = Status::no_memory;
            }
        } else if constexpr (f.kind == Kind::Message) {
            if constexpr (f.sub->owns_memory)
                Copier<*f.sub>::inline_record(out, dst + f.offset, src + f.offset, result);
        } else if constexpr (f.kind == Kind::Messages && I != kSelf) {
            constexpr const MessageDesc &sub = *f.sub;
            uint8_t *copy = copy_array<I>(out, dst, src, result);
            if constexpr (sub.owns_memory) {
                if (!copy) return;
                const uint8_t *from = load<const uint8_t *>(src + f.offset);
                for (uint32_t i = 0, n = load<uint32_t>(dst + f.count_offset); i < n; ++i)
                    Copier<*f.sub>::run(out, copy + size_t{i} * sub.size, from + size_t{i} * sub.size, result);
            }
        }
    }

    // The rows [From, To).
    template <unsigned From, unsigned To>
    [[gnu::always_inline]] static void fields(const Output &out, uint8_t *dst, const uint8_t *src,
                                              Status &result) {
        [&]<unsigned... I>(std::integer_sequence<unsigned, I...>) {
            (field<From + I>(out, dst, src, result), ...);
        }(std::make_integer_sequence<unsigned, To - From>{});
    }

    // An inline record's members are copied in place (its rows are few and fixed), a tree's by its walk.
    [[gnu::always_inline]] static void inline_record(const Output &out, uint8_t *dst, const uint8_t *src,
                                                     Status &result) {
        if constexpr (kSelf < D.field_count)
            run(out, dst, src, result);
        else
            fields<0, D.field_count>(out, dst, src, result);
    }

    // The owned members of a record whose bytes are those of its source.
    [[gnu::noinline]] static void run(const Output &out, uint8_t *dst, const uint8_t *src, Status &result) {
        if constexpr (kSelf < D.field_count)
            tree(out, dst, src, result);
        else
            fields<0, D.field_count>(out, dst, src, result);
    }

    // The rows after a node's run: a node's rarer members, which most nodes skip on one test (the
    // record's bytes already say "none" for them).
    [[gnu::always_inline]] static void after_run(const Output &out, uint8_t *dst, const uint8_t *src, Status &result) {
        if (owns_any<D, kSelf + 1, D.field_count>(src)) fields<kSelf + 1, D.field_count>(out, dst, src, result);
    }

    // A message that repeats itself: the rows before its own run, then the run's elements (depth
    // first), then the rows after it. The stack holds the ancestors, each in the middle of its run.
    static void tree(const Output &out, uint8_t *dst, const uint8_t *src, Status &result) {
        constexpr const FieldDesc &self = D.fields[kSelf];
        struct Frame {
            uint8_t *dst;
            const uint8_t *src;
            uint32_t index; // next element of the run
            uint32_t count;
        };
        CodecStack<Frame> stack;
        for (;;) {
            fields<0, kSelf>(out, dst, src, result);
            if (uint8_t *copy = copy_array<kSelf>(out, dst, src, result)) {
                const uint32_t count = load<uint32_t>(dst + self.count_offset);
                if (stack.push(Frame{dst, src, 1, count})) {
                    dst = copy;
                    src = load<const uint8_t *>(src + self.offset);
                    continue;
                }
                std::memset(copy, 0, size_t{count} * D.size); // no working memory for this deep a tree
                result = Status::no_memory;
            }
            after_run(out, dst, src, result);
            // Up to the next element of an ancestor's run, finishing each ancestor whose run is done.
            for (;;) {
                if (stack.empty()) return;
                Frame &parent = stack.top();
                if (parent.index < parent.count) {
                    const size_t at = size_t{parent.index++} * D.size;
                    dst = load<uint8_t *>(parent.dst + self.offset) + at;
                    src = load<const uint8_t *>(parent.src + self.offset) + at;
                    break;
                }
                after_run(out, parent.dst, parent.src, result);
                stack.pop();
            }
        }
    }
};

} // namespace

template <const MessageDesc &D>
[[gnu::noinline]] Status duplicate_message(void *destination, const void *source, tov_alloc_fn alloc_fn,
                                           uintptr_t alloc_ctx) {
    if (!destination || !source || destination == source || D.size == 0) return Status::ok;
    std::memcpy(destination, source, D.size);
    Status result = Status::ok;
    if constexpr (D.owns_memory)
        Copier<D>::run(Output{alloc_fn, alloc_ctx}, static_cast<uint8_t *>(destination),
                       static_cast<const uint8_t *>(source), result);
    return result;
}

#define TOV_INSTANTIATE_(m, T, ...)                                                                    \
    template Status duplicate_message<k##T>(void *, const void *, tov_alloc_fn, uintptr_t);
TOV_MESSAGES(TOV_INSTANTIATE_)
#undef TOV_INSTANTIATE_

} // namespace tov::detail
