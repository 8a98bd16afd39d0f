// SPDX-License-Identifier: BSD-3-Clause
// Memory helpers of every test: accounting by label through the named allocator, codec callbacks
// over it, an arena for storage the codec drops on purpose, the sweep that fails each allocation
// of a call in turn, and a thread with a small stack.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tov/kor_alloc.h"

namespace tov::test {

using Strings = std::vector<std::string>;

inline kor_named_stats stats(const char *label = nullptr) {
    kor_named_stats s{};
    kor_named_get_stats(label, &s);
    return s;
}
// Live blocks under one label, or under all labels for nullptr.
inline uint64_t live_blocks(const char *label = nullptr) { return stats(label).live_blocks; }

// A label whose address is the codec's context word.
class Label {
public:
    explicit Label(const char *name) : name_(name) {}
    uintptr_t ctx() const { return reinterpret_cast<uintptr_t>(name_); }
    uint64_t live() const { return stats(name_).live_blocks; }
    uint64_t total() const { return stats(name_).total_blocks; }

private:
    const char *name_;
};

// Codec callbacks over the named allocator; the context word is the label.
inline void *named_alloc(uint32_t size, uintptr_t label) {
    return kor_named_malloc(size, reinterpret_cast<const char *>(label), 0);
}
inline void named_free(void *pointer, uintptr_t) { kor_named_free(pointer); }

// Codec callbacks over an arena that releases everything it still holds when it goes, so that
// storage the codec drops on purpose (a repeated singular embedded field) is not reported.
class Arena {
public:
    Arena() = default;
    Arena(const Arena &) = delete;
    Arena &operator=(const Arena &) = delete;
    ~Arena() {
        for (void *p : blocks_) std::free(p);
    }
    static void *alloc(uint32_t size, uintptr_t ctx) {
        void *p = std::malloc(size ? size : 1);
        reinterpret_cast<Arena *>(ctx)->blocks_.push_back(p);
        return p;
    }
    uintptr_t ctx() { return reinterpret_cast<uintptr_t>(this); }

private:
    std::vector<void *> blocks_;
};

// The text of a returned string, which is released; nullopt for NULL.
inline std::optional<std::string> take(char *s) {
    std::optional<std::string> text = s ? std::optional<std::string>(s) : std::nullopt;
    kor_named_free(s);
    return text;
}

// One allocation sweep. `arrange` runs before the failures are armed; `call` runs the code under
// test, releases what it made (releasing allocates nothing) and gives its outcome: `ok` when no
// allocation failed or only one labelled `benign` (meant to be survived), `no_memory` otherwise.
struct Sweep {
    std::function<int64_t()> call;
    int64_t ok = 1, no_memory = 0;
    Strings benign = {};
    std::function<void()> arrange = [] {};
};

// Fails the allocations of a sweep's call in turn, each once and then each from there on, until a
// run fails none; after every run nothing more is live than before. Returns the number of
// allocations a run makes.
inline uint64_t allocation_points(const Sweep &s) {
    const uint64_t live = live_blocks();
    uint64_t points[2] = {};
    for (uint32_t persistent : {0u, 1u}) {
        for (uint64_t k = 1; k < 1000; ++k) {
            s.arrange();
            kor_named_fail_config(k, persistent);
            const int64_t outcome = s.call();
            const bool failed = kor_named_fail_count() != 0;
            const char *label = failed ? kor_named_last_failed_label() : nullptr;
            kor_named_fail_config(0, 0);
            const bool benign = label && std::find(s.benign.begin(), s.benign.end(), label) != s.benign.end();
            const std::string run = "allocation " + std::to_string(k) + (persistent ? " on " : " once ") + (label ? label : "");
            EXPECT_EQ(outcome, !failed || benign ? s.ok : s.no_memory) << run;
            EXPECT_EQ(live_blocks(), live) << run;
            if (!failed) {
                points[persistent] = k - 1;
                break;
            }
        }
    }
    EXPECT_EQ(points[0], points[1]);
    return points[1];
}
inline uint64_t allocation_points(std::function<int64_t()> call) { return allocation_points(Sweep{std::move(call)}); }

// Runs `body` in a thread whose stack is only 256 KiB.
inline void on_small_stack(std::function<void()> body) {
    pthread_attr_t attr;
    pthread_t thread;
    pthread_attr_init(&attr);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, 256 * 1024), 0);
    auto run = [](void *arg) -> void * { return (*static_cast<std::function<void()> *>(arg))(), nullptr; };
    ASSERT_EQ(pthread_create(&thread, &attr, run, &body), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
}

} // namespace tov::test
