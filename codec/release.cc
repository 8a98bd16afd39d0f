// SPDX-License-Identifier: BSD-3-Clause
// Releasing, by code generated per message from its table: only the members that own memory are
// looked at (inline records that own nothing cost nothing): strings, string arrays after their
// items, record arrays after their elements, in record order.
#include <utility>

#include "codec/engine.hpp"
#include "codec/envelope_tables.hpp"

namespace tov::detail {
namespace {

struct Release {
    tov_free_fn free_fn;
    uintptr_t free_ctx;
};

template <const MessageDesc &D> struct Releaser {
    static constexpr unsigned kSelf = self_field(D);

    template <unsigned I> static void forget_array(uint8_t *record) {
        store<void *>(record + D.fields[I].offset, nullptr);
        store<uint32_t>(record + D.fields[I].count_offset, 0);
    }

    template <unsigned I> [[gnu::always_inline]] static void field(const Release &r, uint8_t *record) {
        constexpr const FieldDesc &f = D.fields[I];
        if constexpr (f.kind == Kind::String) {
            if (void *p = load<void *>(record + f.offset)) {
                r.free_fn(p, r.free_ctx);
                store<void *>(record + f.offset, nullptr);
            }
        } else if constexpr (f.kind == Kind::Strings) {
            auto **items = load<char **>(record + f.offset);
            if (!items) return;
            for (uint32_t i = 0, n = load<uint32_t>(record + f.count_offset); i < n; ++i)
                if (items[i]) r.free_fn(items[i], r.free_ctx);
            r.free_fn(items, r.free_ctx);
            forget_array<I>(record);
        } else if constexpr (f.kind == Kind::Message) {
            if constexpr (f.sub->owns_memory) Releaser<*f.sub>::inline_record(r, record + f.offset);
        } else if constexpr (f.kind == Kind::Messages && I != kSelf) {
            constexpr const MessageDesc &sub = *f.sub;
            auto *elements = load<uint8_t *>(record + f.offset);
            if (!elements) return;
            if constexpr (sub.owns_memory)
                for (uint32_t i = 0, n = load<uint32_t>(record + f.count_offset); i < n; ++i)
                    Releaser<*f.sub>::run(r, elements + size_t{i} * sub.size);
            r.free_fn(elements, r.free_ctx);
            forget_array<I>(record);
        }
    }

    // The rows [From, To).
    template <unsigned From, unsigned To>
    [[gnu::always_inline]] static void fields(const Release &r, uint8_t *record) {
        [&]<unsigned... I>(std::integer_sequence<unsigned, I...>) {
            (field<From + I>(r, record), ...);
        }(std::make_integer_sequence<unsigned, To - From>{});
    }

    // An inline record's members are released in place (its rows are few and fixed), a tree's by its walk.
    [[gnu::always_inline]] static void inline_record(const Release &r, uint8_t *record) {
        if constexpr (kSelf < D.field_count)
            run(r, record);
        else
            fields<0, D.field_count>(r, record);
    }

    [[gnu::noinline]] static void run(const Release &r, uint8_t *record) {
        if constexpr (kSelf < D.field_count)
            tree(r, record);
        else
            fields<0, D.field_count>(r, record);
    }

    // The rows after a node's run: a node's rarer members, which most nodes skip on one test.
    [[gnu::always_inline]] static void after_run(const Release &r, uint8_t *record) {
        if (owns_any<D, kSelf + 1, D.field_count>(record)) fields<kSelf + 1, D.field_count>(r, record);
    }

    // A message that repeats itself: the rows before its own run, then the run's elements (depth
    // first) and its array, then the rows after it. The stack holds the ancestors, each in the
    // middle of its run.
    static void tree(const Release &r, uint8_t *record) {
        constexpr const FieldDesc &self = D.fields[kSelf];
        struct Frame {
            uint8_t *record;
            uint32_t index; // next element of the run
            uint32_t count;
        };
        CodecStack<Frame> stack;
        for (;;) {
            fields<0, kSelf>(r, record);
            if (auto *elements = load<uint8_t *>(record + self.offset)) {
                const uint32_t count = load<uint32_t>(record + self.count_offset);
                if (count > 0) {
                    must_push(stack, Frame{record, 1, count});
                    record = elements;
                    continue;
                }
                r.free_fn(elements, r.free_ctx);
                forget_array<kSelf>(record);
            }
            after_run(r, record);
            // Up to the next element of an ancestor's run, finishing each ancestor whose run is done.
            for (;;) {
                if (stack.empty()) return;
                Frame &parent = stack.top();
                auto *elements = load<uint8_t *>(parent.record + self.offset);
                if (parent.index < parent.count) {
                    record = elements + size_t{parent.index++} * D.size;
                    break;
                }
                r.free_fn(elements, r.free_ctx);
                forget_array<kSelf>(parent.record);
                after_run(r, parent.record);
                stack.pop();
            }
        }
    }
};

} // namespace

template <const MessageDesc &D>
[[gnu::noinline]] void release_message(void *record, tov_free_fn free_fn, uintptr_t free_ctx) {
    if constexpr (D.owns_memory)
        if (record && free_fn) Releaser<D>::run(Release{free_fn, free_ctx}, static_cast<uint8_t *>(record));
}

#define TOV_INSTANTIATE_(m, T, ...) template void release_message<k##T>(void *, tov_free_fn, uintptr_t);
TOV_MESSAGES(TOV_INSTANTIATE_)
#undef TOV_INSTANTIATE_

} // namespace tov::detail
