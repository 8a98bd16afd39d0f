// SPDX-License-Identifier: BSD-3-Clause
// Host debug-flag facility: named flags in a parent/child hierarchy, and the filtered line writer.
//
// Flags are kept in a table keyed by never-reused handles, so a destroyed or invented handle is
// refused instead of reaching freed memory. The table is only consulted for lines the library's
// own level filter already admitted, so one mutex is cheap enough and keeps the rules simple.
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <syslog.h>
#include <unordered_map>
#include <vector>

#include "tov/kor_alloc.h"
#include "tov/kor_debug_flags.h"

namespace tov::detail {
namespace {

struct Flag {
    kor_dt_flag_t parent;
    bool enabled;
    char name[KOR_DT_FLAG_NAME_MAX + 1];
};

// Call sites beyond this many still log; they are just not counted.
constexpr int32_t kMaxSites = 4096;

class Registry {
  public:
    std::mutex mutex;
    std::unordered_map<kor_dt_flag_t, Flag *> flags;
    kor_dt_flag_t last_handle = 0;

    std::atomic<int> sink{KOR_DT_SINK_STDERR};
    std::string capture;        // guarded by mutex
    std::string syslog_ident;   // openlog keeps the pointer, so it must outlive the sink
    std::atomic<int32_t> site_total{0};
    std::atomic<int64_t> site_lines[kMaxSites]{};

    // Whether `flag` and all its ancestors are enabled; -1 for an unknown flag. Caller holds mutex.
    int writable(kor_dt_flag_t flag) const {
        auto it = flags.find(flag);
        if (it == flags.end()) return -1;
        for (const Flag *f = it->second;;) {
            if (!f->enabled) return 0;
            if (f->parent == 0) return 1;
            auto up = flags.find(f->parent);
            if (up == flags.end()) return 0;
            f = up->second;
        }
    }

    kor_dt_flag_t next_handle() {
        do {
            ++last_handle;
        } while (last_handle == 0 || flags.count(last_handle) != 0);
        return last_handle;
    }
};

Registry &registry() {
    static Registry *r = new Registry; // never destroyed: lines may be logged during exit
    return *r;
}

// Registers the call site owning `cell` on first use and returns its number (or -2 when the site
// table is full). The cell is written once, under the mutex, and read without it afterwards.
int32_t site_of(Registry &r, int32_t *cell) {
    std::atomic_ref<int32_t> c(*cell);
    int32_t site = c.load(std::memory_order_acquire);
    if (site != -1) return site;
    std::lock_guard lock(r.mutex);
    site = c.load(std::memory_order_relaxed);
    if (site == -1) {
        int32_t next = r.site_total.load(std::memory_order_relaxed);
        site = next < kMaxSites ? next : -2;
        if (site >= 0) r.site_total.store(next + 1, std::memory_order_relaxed);
        c.store(site, std::memory_order_release);
    }
    return site;
}

int syslog_priority(const char *line) {
    if (std::strncmp(line, "ERR:", 4) == 0) return LOG_ERR;
    if (std::strncmp(line, "WRN:", 4) == 0) return LOG_WARNING;
    return LOG_DEBUG;
}

} // namespace
} // namespace tov::detail

using tov::detail::Flag;
using tov::detail::registry;

extern "C" {

TOV_API int kor_dt_flag_init(kor_dt_flag_t *out, const char *name, kor_dt_flag_t parent,
                             uint32_t reserved1, uint32_t reserved2) {
    if (!out) return EINVAL;
    *out = 0;
    if (!name || reserved1 != 0 || reserved2 != 0) return EINVAL;
    size_t length = strnlen(name, KOR_DT_FLAG_NAME_MAX + 1);
    if (length == 0 || length > KOR_DT_FLAG_NAME_MAX) return EINVAL;

    auto &r = registry();
    std::lock_guard lock(r.mutex);
    if (parent != 0 && r.flags.count(parent) == 0) return EBADF;
    for (const auto &[handle, f] : r.flags) {
        if (f->parent == parent && std::strcmp(f->name, name) == 0) return EEXIST;
    }
    auto *flag = static_cast<Flag *>(kor_named_malloc(sizeof(Flag), "kor debug flag", 0));
    if (!flag) return ENOMEM;
    flag->parent = parent;
    flag->enabled = false;
    std::memcpy(flag->name, name, length + 1);
    kor_dt_flag_t handle = r.next_handle();
    try {
        r.flags.emplace(handle, flag);
    } catch (...) {
        kor_named_free(flag);
        return ENOMEM;
    }
    *out = handle;
    return 0;
}

TOV_API int kor_dt_flag_enable(kor_dt_flag_t flag, uint32_t options) {
    if (options != 0) return EINVAL;
    auto &r = registry();
    std::lock_guard lock(r.mutex);
    auto it = r.flags.find(flag);
    if (it == r.flags.end()) return EBADF;
    it->second->enabled = true;
    return 0;
}

TOV_API int kor_dt_flag_disable(kor_dt_flag_t flag) {
    auto &r = registry();
    std::lock_guard lock(r.mutex);
    auto it = r.flags.find(flag);
    if (it == r.flags.end()) return EBADF;
    it->second->enabled = false;
    return 0;
}

TOV_API int kor_dt_flag_destroy(kor_dt_flag_t flag) {
    auto &r = registry();
    std::lock_guard lock(r.mutex);
    if (r.flags.count(flag) == 0) return EBADF;
    // Collect the subtree breadth-first, then free it; hierarchies are a handful of flags deep.
    std::vector<kor_dt_flag_t> doomed;
    try {
        doomed.push_back(flag);
        for (size_t i = 0; i < doomed.size(); ++i) {
            for (const auto &[handle, f] : r.flags) {
                if (f->parent == doomed[i]) doomed.push_back(handle);
            }
        }
    } catch (...) {
        return ENOMEM;
    }
    for (kor_dt_flag_t handle : doomed) {
        auto it = r.flags.find(handle);
        kor_named_free(it->second);
        r.flags.erase(it);
    }
    return 0;
}

TOV_API int _kor_dt_log_filter_adv(kor_dt_flag_t flag, uint32_t, uint32_t, uint32_t, uint32_t, uint64_t,
                                   int32_t *filter_cell, const char *format, ...) {
    if (!filter_cell || !format) return -EINVAL;
    auto &r = registry();
    int32_t site = tov::detail::site_of(r, filter_cell);
    int sink = r.sink.load(std::memory_order_relaxed);
    {
        std::unique_lock lock(r.mutex);
        int state = r.writable(flag);
        if (state < 0) return -EBADF;
        if (state == 0) return 0;
        if (sink == KOR_DT_SINK_CAPTURE) {
            // Only tests capture, so building the text on the heap is fine here.
            va_list args;
            va_start(args, format);
            va_list again;
            va_copy(again, args);
            int length = std::vsnprintf(nullptr, 0, format, args);
            va_end(args);
            size_t at = r.capture.size();
            try {
                if (length >= 0) r.capture.resize(at + static_cast<size_t>(length) + 1);
            } catch (...) {
                length = -1; // a test that runs out of memory loses the line, nothing more
            }
            if (length >= 0) {
                std::vsnprintf(&r.capture[at], static_cast<size_t>(length) + 1, format, again);
                r.capture.back() = '\n';
            }
            va_end(again);
        }
    }
    if (site >= 0) r.site_lines[site].fetch_add(1, std::memory_order_relaxed);
    if (sink == KOR_DT_SINK_CAPTURE) return 1;

    va_list args;
    va_start(args, format);
    if (sink == KOR_DT_SINK_SYSLOG) {
        // The priority comes from the line's tag, so format once into a stack buffer first.
        char line[2048];
        std::vsnprintf(line, sizeof line, format, args);
        syslog(tov::detail::syslog_priority(line), "%s", line);
    } else {
        // Standard error is unbuffered; holding its lock keeps a line and its newline together.
        flockfile(stderr);
        std::vfprintf(stderr, format, args);
        std::fputc('\n', stderr);
        funlockfile(stderr);
    }
    va_end(args);
    return 1;
}

TOV_API int kor_dt_set_sink(kor_dt_sink sink, const char *ident) {
    if (sink != KOR_DT_SINK_STDERR && sink != KOR_DT_SINK_SYSLOG && sink != KOR_DT_SINK_CAPTURE)
        return EINVAL;
    auto &r = registry();
    std::lock_guard lock(r.mutex);
    int previous = r.sink.exchange(sink);
    if (previous == KOR_DT_SINK_SYSLOG && sink != KOR_DT_SINK_SYSLOG) closelog();
    if (sink == KOR_DT_SINK_SYSLOG) {
        try {
            r.syslog_ident = ident ? ident : "";
        } catch (...) {
            return ENOMEM;
        }
        openlog(ident ? r.syslog_ident.c_str() : nullptr, LOG_PID | LOG_NDELAY, LOG_DAEMON);
    }
    return 0;
}

TOV_API size_t kor_dt_capture_read(char *out, size_t capacity) {
    auto &r = registry();
    std::lock_guard lock(r.mutex);
    if (out && capacity > 0) {
        size_t n = r.capture.size() < capacity - 1 ? r.capture.size() : capacity - 1;
        std::memcpy(out, r.capture.data(), n);
        out[n] = '\0';
    }
    return r.capture.size();
}

TOV_API void kor_dt_capture_clear(void) {
    auto &r = registry();
    std::lock_guard lock(r.mutex);
    r.capture.clear();
}

TOV_API int32_t kor_dt_site_count(void) { return registry().site_total.load(std::memory_order_relaxed); }

TOV_API int64_t kor_dt_site_lines(const int32_t *filter_cell) {
    if (!filter_cell) return -1;
    int32_t site = std::atomic_ref<int32_t>(*const_cast<int32_t *>(filter_cell)).load(std::memory_order_acquire);
    if (site < 0) return -1;
    return registry().site_lines[site].load(std::memory_order_relaxed);
}

} // extern "C"
