// SPDX-License-Identifier: BSD-3-Clause
// Host implementation of the platform's named allocator: malloc with a small header that ties each
// block to its label's counters, so tests can prove that nothing leaks and can fail the n-th call.
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "tov/kor_alloc.h"

namespace tov::detail {
namespace {

struct LabelStats {
    kor_named_stats figures{};
};

struct alignas(std::max_align_t) BlockHeader {
    LabelStats *stats;
    size_t size;
    uint32_t magic;
};
constexpr uint32_t kLiveMagic = 0x6b6f726eu;  // "korn"
constexpr uint32_t kFreedMagic = 0x64656164u; // "dead"

struct StringHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
};

class Registry {
  public:
    LabelStats *stats_for(const char *label) {
        std::string_view key = label ? std::string_view(label) : std::string_view("(unlabelled)");
        auto it = labels_.find(key);
        if (it == labels_.end()) it = labels_.emplace(std::string(key), LabelStats{}).first;
        return &it->second;
    }
    void added(LabelStats *s, size_t size) {
        bump(s->figures, size);
        bump(totals_, size);
    }
    void removed(LabelStats *s, size_t size) {
        drop(s->figures, size);
        drop(totals_, size);
    }
    int get(const char *label, kor_named_stats *out) {
        if (!label) {
            *out = totals_;
            return 0;
        }
        auto it = labels_.find(std::string_view(label));
        if (it == labels_.end()) {
            *out = kor_named_stats{};
            return -1;
        }
        *out = it->second.figures;
        return 0;
    }
    uint64_t report(FILE *out) {
        for (const auto &[name, s] : labels_) {
            if (s.figures.live_blocks == 0 || !out) continue;
            std::fprintf(out, "live: %llu block(s), %llu byte(s) under \"%s\"\n",
                         static_cast<unsigned long long>(s.figures.live_blocks),
                         static_cast<unsigned long long>(s.figures.live_bytes), name.c_str());
        }
        return totals_.live_blocks;
    }
    bool idle() const { return totals_.live_blocks == 0; }
    std::mutex mutex;

  private:
    static void bump(kor_named_stats &f, size_t size) {
        f.live_blocks++;
        f.live_bytes += size;
        f.total_blocks++;
        if (f.live_blocks > f.peak_blocks) f.peak_blocks = f.live_blocks;
        if (f.live_bytes > f.peak_bytes) f.peak_bytes = f.live_bytes;
    }
    static void drop(kor_named_stats &f, size_t size) {
        f.live_blocks--;
        f.live_bytes -= size;
    }
    std::unordered_map<std::string, LabelStats, StringHash, std::equal_to<>> labels_;
    kor_named_stats totals_{};
};

// Made on first use and kept while any block is live, since a block may be freed during exit.
std::atomic<Registry *> g_registry{nullptr};

Registry &registry() {
    Registry *r = g_registry.load(std::memory_order_acquire);
    if (!r) {
        auto *fresh = new Registry;
        if (g_registry.compare_exchange_strong(r, fresh, std::memory_order_acq_rel)) return *fresh;
        delete fresh; // another thread made it first
    }
    return *r;
}

// When the library is unloaded (dlclose, or the end of the process) with no block live, the
// registry goes too, so that a module loader can load and unload the library without leaking it.
__attribute__((destructor)) void release_idle_registry() {
    Registry *r = g_registry.load(std::memory_order_acquire);
    if (!r) return;
    {
        std::lock_guard lock(r->mutex);
        if (!r->idle()) return;
    }
    g_registry.store(nullptr, std::memory_order_release);
    delete r;
}

std::atomic<uint64_t> g_calls{0};
std::atomic<uint64_t> g_fail_at{0};          // absolute call number that fails; 0 = none
std::atomic<bool> g_fail_persistent{false};   // and every call after it
std::atomic<uint64_t> g_failures{0};          // failures injected so far
std::atomic<const char *> g_failed_label{nullptr};

bool next_call_fails(const char *label) {
    uint64_t call = g_calls.fetch_add(1, std::memory_order_relaxed) + 1;
    uint64_t fail_at = g_fail_at.load(std::memory_order_relaxed);
    if (fail_at == 0 || call < fail_at) return false;
    if (call > fail_at && !g_fail_persistent.load(std::memory_order_relaxed)) return false;
    g_failures.fetch_add(1, std::memory_order_relaxed);
    g_failed_label.store(label, std::memory_order_relaxed);
    return true;
}

void *finish_block(void *raw, size_t size, const char *label) {
    auto *h = static_cast<BlockHeader *>(raw);
    Registry &r = registry();
    std::lock_guard lock(r.mutex);
    h->stats = r.stats_for(label);
    h->size = size;
    h->magic = kLiveMagic;
    r.added(h->stats, size);
    return h + 1;
}

BlockHeader *header_of(void *pointer) { return static_cast<BlockHeader *>(pointer) - 1; }

bool size_fits(size_t size) { return size <= SIZE_MAX - sizeof(BlockHeader); }

} // namespace
} // namespace tov::detail

using namespace tov::detail;

extern "C" {

TOV_API void *kor_named_malloc(size_t size, const char *label, uint32_t) {
    if (next_call_fails(label) || !size_fits(size)) return nullptr;
    void *raw = std::malloc(sizeof(BlockHeader) + size);
    return raw ? finish_block(raw, size, label) : nullptr;
}

TOV_API void *kor_named_calloc(size_t count, size_t size, const char *label, uint32_t) {
    if (next_call_fails(label)) return nullptr;
    if (size != 0 && count > SIZE_MAX / size) return nullptr;
    size_t total = count * size;
    if (!size_fits(total)) return nullptr;
    void *raw = std::calloc(1, sizeof(BlockHeader) + total);
    return raw ? finish_block(raw, total, label) : nullptr;
}

TOV_API void *kor_named_realloc(void *pointer, size_t size, const char *label, uint32_t flags) {
    if (!pointer) return kor_named_malloc(size, label, flags);
    if (size == 0) {
        kor_named_free(pointer);
        return nullptr;
    }
    BlockHeader *old = header_of(pointer);
    size_t old_size = old->size;
    if (size > old_size && next_call_fails(label)) return nullptr;
    if (!size_fits(size)) return nullptr;
    Registry &r = registry();
    {
        std::lock_guard lock(r.mutex);
        r.removed(old->stats, old_size);
    }
    void *raw = std::realloc(old, sizeof(BlockHeader) + size);
    if (!raw) {
        std::lock_guard lock(r.mutex);
        r.added(old->stats, old_size);
        old->stats->figures.total_blocks--;
        return nullptr;
    }
    return finish_block(raw, size, label);
}

TOV_API uint32_t kor_named_free(void *pointer) {
    if (!pointer) return 0;
    BlockHeader *h = header_of(pointer);
    if (h->magic != kLiveMagic) {
        std::fprintf(stderr, "kor_named_free: %p is not a live named block\n", pointer);
        std::abort();
    }
    Registry &r = registry();
    {
        std::lock_guard lock(r.mutex);
        r.removed(h->stats, h->size);
    }
    h->magic = kFreedMagic;
    std::free(h);
    return 0;
}

TOV_API int kor_named_get_stats(const char *label, kor_named_stats *out) {
    if (!out) return -1;
    Registry &r = registry();
    std::lock_guard lock(r.mutex);
    return r.get(label, out);
}

TOV_API uint64_t kor_named_report_live(FILE *out) {
    Registry &r = registry();
    std::lock_guard lock(r.mutex);
    return r.report(out);
}

TOV_API void kor_named_fail_config(uint64_t n, uint32_t persistent) {
    g_fail_persistent.store(persistent != 0, std::memory_order_relaxed);
    g_failures.store(0, std::memory_order_relaxed);
    g_failed_label.store(nullptr, std::memory_order_relaxed);
    g_fail_at.store(n == 0 ? 0 : g_calls.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}

TOV_API void kor_named_fail_nth(uint64_t n) { kor_named_fail_config(n, 0); }

TOV_API uint64_t kor_named_fail_count(void) { return g_failures.load(std::memory_order_relaxed); }

TOV_API const char *kor_named_last_failed_label(void) { return g_failed_label.load(std::memory_order_relaxed); }

TOV_API uint64_t kor_named_call_count(void) { return g_calls.load(std::memory_order_relaxed); }

} // extern "C"
