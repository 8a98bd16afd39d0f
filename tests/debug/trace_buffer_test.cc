// The trace-buffer service: wrapping, limits, reopening, the runtime directory, a writer killed
// mid-stream, and concurrent writers.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "support/rings.hpp"
#include "tov/trace_buffer.h"

namespace {

using tov::detail::ring::RingReader;
using tov::test::ring_texts;

class TraceRings : public ::testing::Test {
  protected:
    tov::test::RingDir dir;
};

// 8 slots of 64 bytes: 24 bytes of text per slot.
constexpr uint32_t kSlots = 8, kBytes = 8 * 64, kPayload = 24;

TEST_F(TraceRings, WrappingKeepsTheNewestCompleteRecords) {
    trace_buffer_t ring = 0;
    ASSERT_EQ(trace_buffer_open("wrap", 0, 0, kSlots, kBytes, 0, &ring), 0);
    std::vector<std::string> written;
    for (int i = 0; i < 20; ++i) {
        written.push_back(std::string("r") + std::to_string(i));
        ASSERT_EQ(trace_buffer_write(ring, 0, 0, written.back().c_str()), 0);
    }
    EXPECT_EQ(ring_texts(dir.file("wrap")), std::vector<std::string>(written.end() - kSlots, written.end()));
    // Three-slot records: the oldest one still partly held is dropped, not shown cut.
    for (char c : {'a', 'b', 'c', 'd', 'e'}) ASSERT_EQ(trace_buffer_write(ring, 0, 0, std::string(50, c).c_str()), 0);
    EXPECT_EQ(ring_texts(dir.file("wrap")), (std::vector<std::string>{std::string(50, 'd'), std::string(50, 'e')}));
    // A record may fill the whole ring, but not more; flags and type are kept with it.
    std::string whole(kSlots * kPayload, 'w');
    EXPECT_EQ(trace_buffer_write(ring, 0, 0, (whole + "x").c_str()), EMSGSIZE);
    ASSERT_EQ(trace_buffer_write(ring, 7, 9, whole.c_str()), 0);
    RingReader reader;
    ASSERT_EQ(reader.open(dir.file("wrap")), 0);
    auto records = reader.read_all();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_TRUE(records[0].text == whole && records[0].flags == 7 && records[0].type == 9);
    EXPECT_EQ(trace_buffer_close(ring), 0);
}

TEST_F(TraceRings, BadHandlesNamesAndSizesGetClearCodes) {
    trace_buffer_t ring = 0;
    ASSERT_EQ(trace_buffer_open("ok", 0, 0, kSlots, kBytes, 0, &ring), 0);
    EXPECT_EQ(trace_buffer_write(0, 0, 0, "x"), EBADF);
    EXPECT_EQ(trace_buffer_write(ring ^ (1u << 12), 0, 0, "x"), EBADF); // another generation
    EXPECT_EQ(trace_buffer_write(ring, 0, 0, nullptr), EINVAL);
    ASSERT_EQ(trace_buffer_close(ring), 0);
    EXPECT_EQ(trace_buffer_write(ring, 0, 0, "x"), EBADF);
    EXPECT_EQ(trace_buffer_close(ring), EBADF);

    const std::string too_long(256, 'n');
    const struct {
        const char *name;
        uint32_t reserved, slots, bytes;
    } refused[] = {{"/abs", 0, kSlots, kBytes}, {"a/../b", 0, kSlots, kBytes},    {"a//b", 0, kSlots, kBytes},
                   {nullptr, 0, kSlots, kBytes}, {too_long.c_str(), 0, 8, kBytes}, {"x", 1, kSlots, kBytes},
                   {"x", 0, 1, kBytes},          {"x", 0, kSlots, kSlots * 63},   {"x", 0, 0x8000, 0x80000000u}};
    for (const auto &r : refused) {
        trace_buffer_t out = 123;
        EXPECT_EQ(trace_buffer_open(r.name, r.reserved, 0, r.slots, r.bytes, 0, &out), EINVAL) << (r.name ? r.name : "null");
        EXPECT_EQ(out, 0u);
    }
    EXPECT_EQ(trace_buffer_delete("never-made"), ENOENT);
}

TEST_F(TraceRings, ReopeningKeepsRecordsUnlessTheGeometryChanged) {
    const char *name = "agent-tov/keep.trace";
    trace_buffer_t ring = 0;
    for (const char *text : {"before restart", "after restart"}) {
        ASSERT_EQ(trace_buffer_open(name, 0, 0, kSlots, kBytes, 0, &ring), 0);
        ASSERT_EQ(trace_buffer_write(ring, 0, 0, text), 0);
        ASSERT_EQ(trace_buffer_close(ring), 0);
    }
    EXPECT_EQ(ring_texts(dir.file(name)), (std::vector<std::string>{"before restart", "after restart"}));
    ASSERT_EQ(trace_buffer_open(name, 0, 0, kSlots * 2, kBytes * 2, 0, &ring), 0);
    EXPECT_TRUE(ring_texts(dir.file(name)).empty());
    ASSERT_EQ(trace_buffer_close(ring), 0);
}

TEST_F(TraceRings, RuntimeDirectoryDefaultsToAPrivatePerUserFolder) {
    unsetenv("TOV_TRACE_DIR");
    const char *saved = std::getenv("XDG_RUNTIME_DIR");
    std::string saved_xdg = saved ? saved : "";
    setenv("XDG_RUNTIME_DIR", dir.path().c_str(), 1);
    char path[512];
    ASSERT_EQ(trace_buffer_runtime_dir(path, sizeof path), 0);
    EXPECT_EQ(std::string(path), dir.path() + "/tov-trace");
    struct stat st;
    EXPECT_TRUE(stat(path, &st) == 0 && (st.st_mode & 0777) == 0700);
    // Somebody else's folder in its place is refused.
    if (geteuid() == 0 && chown(path, 65534, 65534) == 0) {
        EXPECT_EQ(trace_buffer_runtime_dir(path, sizeof path), EPERM);
    }
    saved ? setenv("XDG_RUNTIME_DIR", saved_xdg.c_str(), 1) : unsetenv("XDG_RUNTIME_DIR");
}

// Records the child writes: "<n> " and then filler up to a length that varies with n, so that
// records span one to three slots and any mix-up between records shows.
std::string crash_record(uint64_t n) {
    std::string text = std::to_string(n) + " ";
    text.append(n % 60, static_cast<char>('a' + n % 26));
    return text;
}

TEST_F(TraceRings, AnotherProcessReadsTheRingOfAWriterKilledMidStream) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        trace_buffer_t ring = 0;
        if (trace_buffer_open("crash", 0, 0, 64, 64 * 64, 0, &ring) != 0) _exit(1);
        for (uint64_t n = 0;; ++n) {
            trace_buffer_write(ring, 0, 0, crash_record(n).c_str());
            if (n == 1000) {
                char c = 1;
                if (write(ready[1], &c, 1) != 1) _exit(2);
            }
        }
    }
    close(ready[1]);
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    close(ready[0]);
    usleep(20000);
    ASSERT_EQ(kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));

    RingReader reader;
    ASSERT_EQ(reader.open(dir.file("crash")), 0);
    EXPECT_EQ(reader.header().writer_pid, static_cast<uint32_t>(child));
    auto records = reader.read_all();
    // 64 slots hold at least 21 records of up to three slots; the one cut by the kill is dropped.
    ASSERT_GE(records.size(), 20u);
    uint64_t previous = 0;
    for (size_t i = 0; i < records.size(); ++i) {
        uint64_t n = std::stoull(records[i].text);
        EXPECT_GE(n, 1000u);
        EXPECT_EQ(records[i].text, crash_record(n));
        if (i > 0) {
            EXPECT_EQ(n, previous + 1); // nothing missing between the oldest and newest
        }
        previous = n;
    }
}

TEST_F(TraceRings, ConcurrentWritersLoseNoRecordThatFits) {
    constexpr int kThreads = 4, kPerThread = 4000;
    trace_buffer_t ring = 0;
    // Room for every record even if each took three slots.
    ASSERT_EQ(trace_buffer_open("threads", 0, 0, 3 * kThreads * kPerThread, 3 * kThreads * kPerThread * 64, 0, &ring), 0);
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([ring, t] {
            for (int i = 0; i < kPerThread; ++i) {
                std::string text = std::to_string(t) + ":" + std::to_string(i) + ":";
                text.append(static_cast<size_t>(i % 50), static_cast<char>('A' + t));
                ASSERT_EQ(trace_buffer_write(ring, 0, 0, text.c_str()), 0);
            }
        });
    }
    for (auto &w : writers) w.join();
    auto texts = ring_texts(dir.file("threads"));
    ASSERT_EQ(texts.size(), static_cast<size_t>(kThreads * kPerThread));
    int next[kThreads] = {};
    for (const std::string &text : texts) {
        int t = 0, i = 0;
        ASSERT_EQ(std::sscanf(text.c_str(), "%d:%d:", &t, &i), 2) << text;
        ASSERT_TRUE(t >= 0 && t < kThreads);
        EXPECT_EQ(i, next[t]) << "thread " << t; // each thread's records in its own order
        next[t] = i + 1;
        EXPECT_EQ(text.size() - text.find(':', text.find(':') + 1) - 1, static_cast<size_t>(i % 50));
    }
    EXPECT_EQ(trace_buffer_close(ring), 0);
}

} // namespace
