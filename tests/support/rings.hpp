// SPDX-License-Identifier: BSD-3-Clause
// Helpers of the diagnostics and session tests: a private ring directory per test, the captured
// platform lines, and ring contents read back as another process would.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sched.h>
#include <memory>
#include <string>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/trace_ring.hpp"
#include "tov/framework.h"
#include "tov/kor_debug_flags.h"

namespace tov::test {

// "%p" as the library prints it.
inline std::string ptr(const void *p) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", p);
    return text;
}

// The line of `file` (relative to the source tree) where `text` first appears: the line number a
// logging statement puts in its trace-ring copy. 0 when not found.
inline int source_line(const char *file, const char *text) {
    std::ifstream in(std::string(TOV_SOURCE_DIR) + "/" + file);
    std::string line;
    for (int n = 1; std::getline(in, line); ++n)
        if (line.find(text) != std::string::npos) return n;
    return 0;
}

// Points TOV_TRACE_DIR at a fresh directory for the life of the object.
struct RingDir {
    RingDir() {
        char pattern[] = "/tmp/tov-ring-test-XXXXXX";
        path_ = mkdtemp(pattern);
        setenv("TOV_TRACE_DIR", path_.c_str(), 1);
    }
    ~RingDir() {
        unsetenv("TOV_TRACE_DIR");
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string &path() const { return path_; }
    std::string file(const std::string &ring) const { return path_ + "/" + ring; }
    std::string path_;
};

// Texts of every complete record of a ring, oldest first.
inline std::vector<std::string> ring_texts(const std::string &file) {
    detail::ring::RingReader reader;
    std::vector<std::string> texts;
    if (reader.open(file) == 0) {
        for (auto &r : reader.read_all()) texts.push_back(std::move(r.text));
    }
    return texts;
}

// Runs `body` in a child process (so that a crash it provokes is not ours); gives its wait status
// and the text it returned.
inline std::pair<int, std::string> in_child(const std::function<std::string()> &body) {
    int fds[2];
    if (pipe(fds) != 0) return {-1, "pipe failed"};
    if (pid_t pid = fork(); pid != 0) {
        close(fds[1]);
        std::string text;
        char chunk[4096];
        for (ssize_t n; (n = read(fds[0], chunk, sizeof chunk)) > 0;) text.append(chunk, static_cast<size_t>(n));
        close(fds[0]);
        int status = -1;
        waitpid(pid, &status, 0);
        return {status, text};
    }
    std::string text;
    try {
        text = body();
    } catch (const std::exception &e) {
        text = std::string("exception: ") + e.what(); // never back into the test runner
    }
    _exit(write(fds[1], text.data(), text.size()) < 0);
}

// In a child process: mounts a tmpfs of `size` over `dir` in a private mount namespace (as root,
// or as root of a new user namespace). Returns "" or why it cannot.
inline std::string private_tmpfs(const std::string &dir, const char *size) {
    const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
    if (unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return std::string("no private mount namespace: ") + std::strerror(errno);
        // Keep our own ids inside, so that files stay ours.
        for (const auto &[file, text] : {std::pair<const char *, std::string>{"/proc/self/setgroups", "deny"},
                                         {"/proc/self/uid_map", uid + " " + uid + " 1"},
                                         {"/proc/self/gid_map", gid + " " + gid + " 1"}})
            if (!(std::ofstream(file) << text << std::flush)) return "cannot map ids in a user namespace";
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return std::string("cannot make mounts private: ") + std::strerror(errno);
    if (mount("tmpfs", dir.c_str(), "tmpfs", 0, (std::string("size=") + size + ",mode=0700").c_str()) != 0)
        return std::string("cannot mount a tmpfs: ") + std::strerror(errno);
    return "";
}

// Sends platform lines to the capture for the life of the object; take() gives those since the last.
struct Capture {
    Capture() { kor_dt_set_sink(KOR_DT_SINK_CAPTURE, nullptr), kor_dt_capture_clear(); }
    ~Capture() { kor_dt_capture_clear(), kor_dt_set_sink(KOR_DT_SINK_STDERR, nullptr); }
    std::vector<std::string> take() {
        std::string all(kor_dt_capture_read(nullptr, 0) + 1, '\0');
        kor_dt_capture_read(all.data(), all.size());
        kor_dt_capture_clear();
        std::vector<std::string> lines;
        for (size_t start = 0, nl; (nl = all.find('\n', start)) != std::string::npos; start = nl + 1)
            lines.push_back(all.substr(start, nl - start));
        return lines;
    }
};

// New records of one ring since the last take.
struct RingTail {
    explicit RingTail(const std::string &file) { EXPECT_EQ(reader.open(file), 0) << file; }
    std::vector<std::string> take() {
        std::vector<std::string> texts;
        detail::ring::Record r;
        for (auto step = reader.read(&cursor, &r); step != detail::ring::RingReader::Step::End &&
                                                   step != detail::ring::RingReader::Step::Busy;
             step = reader.read(&cursor, &r)) {
            if (step == detail::ring::RingReader::Step::Record) texts.push_back(r.text);
        }
        return texts;
    }
    detail::ring::RingReader reader;
    uint64_t cursor = 0;
};

// A framework context whose root component logs into a fresh ring directory, with the platform
// lines captured and the ring's new records at hand.
struct LoggedFramework {
    explicit LoggedFramework(const char *agent) {
        tov_debug_save_agent_name(agent);
        EXPECT_EQ(tov_debug_init(&fw.debug, "TOV", TOV_COMPONENT_TOV, nullptr), 0u);
        tail = std::make_unique<RingTail>(dir.file(std::string(agent) + "-tov/processor.trace"));
        tail->take(), capture.take();
    }
    ~LoggedFramework() {
        trace_buffer_close(fw.debug.trace_handle);
        EXPECT_EQ(tov_debug_cleanup(&fw.debug), 0u);
    }
    RingDir dir;
    Capture capture;
    FrameworkContext fw{};
    std::unique_ptr<RingTail> tail;
};

} // namespace tov::test
