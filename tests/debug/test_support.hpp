// Helpers of the diagnostics and session tests: a private ring directory per test, the captured
// platform lines, and ring contents read back as another process would.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
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
