// SPDX-License-Identifier: BSD-3-Clause
// Multi-pattern replacement in one pass: find every match, order them, drop overlaps, then build
// the result in a single allocation of its exact size.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "tov/kor_alloc.h"
#include "util/safe_str.hpp"

namespace tov::detail {
namespace {

// Further matches beyond each pair's first, over all pairs together. Deliberately small: the
// callers replace a few escapes in short texts, and a bounded table keeps the work predictable.
constexpr size_t kMaxExtraMatches = 9;
constexpr size_t kTableSlack = 10;
constexpr size_t kStackPairs = 54; // 64 entries on the stack; more pairs use the heap
constexpr const char *kTableLabel = "string replacement work table";

// The work table: on the stack for ordinary pair counts, from the named allocator beyond.
class WorkTable {
  public:
    explicit WorkTable(uint32_t pairs) {
        size_t need = size_t{pairs} + kTableSlack;
        if (pairs <= kStackPairs) {
            entries_ = std::span(stack_, need);
        } else if (need <= SIZE_MAX / sizeof(str_pair_match)) {
            void *p = kor_named_malloc(need * sizeof(str_pair_match), kTableLabel, 0);
            if (p != nullptr) entries_ = std::span(static_cast<str_pair_match *>(p), need);
        }
    }
    ~WorkTable() {
        if (!entries_.empty() && entries_.data() != stack_) kor_named_free(entries_.data());
    }
    WorkTable(const WorkTable &) = delete;
    WorkTable &operator=(const WorkTable &) = delete;
    bool ok() const { return !entries_.empty(); }
    std::span<str_pair_match> entries() const { return entries_; }

  private:
    str_pair_match stack_[kStackPairs + kTableSlack];
    std::span<str_pair_match> entries_;
};

int compare(const str_pair_match &x, const str_pair_match &y) {
    if (x.offset != y.offset) return x.offset < y.offset ? -1 : 1;
    if (x.find_len != y.find_len) return x.find_len > y.find_len ? -1 : 1;
    return 0;
}

} // namespace
} // namespace tov::detail

using namespace tov::detail;

extern "C" {

TOV_API int str_pair_helper_compare(const void *a, const void *b) {
    return compare(*static_cast<const str_pair_match *>(a),
                   *static_cast<const str_pair_match *>(b));
}

TOV_API char *str_replace_multi(const char *source, const str_pair *pairs, uint32_t count,
                                const char *label) {
    if (source == nullptr) return nullptr;
    if (count == 0) return tov_strdup(source, label);
    if (pairs == nullptr || label == nullptr) return nullptr;
    auto src = bounded(source);
    if (!src) return nullptr;

    WorkTable table(count);
    if (!table.ok()) return nullptr;
    std::span<str_pair_match> work = table.entries();
    for (uint32_t i = 0; i < count; ++i) {
        auto find = bounded(pairs[i].find), replace = bounded(pairs[i].replace);
        if (!find || !replace) return nullptr;
        work[i] = {&pairs[i], find->size(), replace->size(), -1};
    }

    // Sizing: every pair's first match, then further ones while the shared allowance lasts.
    // Sizes are signed 64-bit so that shrinking and growing pairs can mix without wrapping.
    int64_t size = static_cast<int64_t>(src->size());
    size_t used = count, extras = 0;
    for (uint32_t i = 0; i < count; ++i) {
        str_pair_match &entry = work[i];
        if (entry.find_len == 0) continue; // an empty pattern would match everywhere
        std::string_view find(entry.pair->find, entry.find_len);
        int64_t change =
            static_cast<int64_t>(entry.replace_len) - static_cast<int64_t>(entry.find_len);
        size_t at = src->find(find);
        if (at == std::string_view::npos) continue;
        entry.offset = static_cast<int32_t>(at);
        size += change;
        while (extras < kMaxExtraMatches &&
               (at = src->find(find, at + entry.find_len)) != std::string_view::npos) {
            work[used] = entry;
            work[used++].offset = static_cast<int32_t>(at);
            ++extras;
            size += change;
        }
    }

    // At one offset the longest pattern wins; the earlier pair breaks a tie, so the result never
    // depends on how the sort treats equal entries.
    std::span<str_pair_match> matches = work.first(used);
    std::sort(matches.begin(), matches.end(), [](const str_pair_match &x, const str_pair_match &y) {
        int c = compare(x, y);
        return c != 0 ? c < 0 : x.pair < y.pair;
    });
    int64_t kept_end = -1;
    for (str_pair_match &m : matches) {
        if (m.offset < 0) continue;
        if (kept_end < 0 || m.offset >= kept_end) {
            kept_end = int64_t{m.offset} + static_cast<int64_t>(m.find_len);
        } else {
            m.offset = -1;
            size -= static_cast<int64_t>(m.replace_len) - static_cast<int64_t>(m.find_len);
        }
    }
    if (size >= static_cast<int64_t>(kStrMax)) return nullptr; // the result must fit the limit too

    auto *out = static_cast<char *>(kor_named_malloc(static_cast<size_t>(size) + 1, label, 0));
    if (out == nullptr) return nullptr;
    char *w = out;
    size_t from = 0;
    for (const str_pair_match &m : matches) {
        if (m.offset < 0) continue;
        size_t at = static_cast<size_t>(m.offset);
        w = std::copy(source + from, source + at, w);
        w = std::copy_n(m.pair->replace, m.replace_len, w);
        from = at + m.find_len;
    }
    w = std::copy(source + from, source + src->size(), w);
    *w = '\0';
    return out;
}

} // extern "C"
