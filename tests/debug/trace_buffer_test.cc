// SPDX-License-Identifier: BSD-3-Clause
// The trace-buffer service: wrapping, limits, reopening, hostile directories and files, a full
// file system, a truncated file, racing creators, a writer killed mid-stream, and concurrent
// writers overtaking each other.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <sys/stat.h>
#include <thread>

#include "support/rings.hpp"
#include "tov/debug.h"
#include "tov/result.h"
#include "tov/trace_buffer.h"

namespace {

using tov::detail::ring::RingReader;
using tov::test::in_child;
using tov::test::ring_texts;
using Texts = std::vector<std::string>;

class TraceRings : public ::testing::Test {
  protected:
    tov::test::RingDir dir;
};

// 8 slots of 64 bytes: 24 bytes of text per slot.
constexpr uint32_t kSlots = 8, kBytes = 8 * 64, kPayload = 24;

TEST_F(TraceRings, WrapsKeepingTheNewestCompleteRecordsAndSurvivesReopening) {
    const char *name = "agent-tov/wrap.trace";
    const std::string file = dir.file(name);
    trace_buffer_t ring = 0;
    ASSERT_EQ(trace_buffer_open(name, 0, 0, kSlots, kBytes, 0, &ring), 0);
    Texts written;
    for (int i = 0; i < 20; ++i) ASSERT_EQ(trace_buffer_write(ring, 0, 0, written.emplace_back("r" + std::to_string(i)).c_str()), 0);
    EXPECT_EQ(ring_texts(file), Texts(written.end() - kSlots, written.end()));
    // Three-slot records: the oldest one still partly held is dropped, not shown cut.
    for (char c : {'a', 'b', 'c', 'd', 'e'}) ASSERT_EQ(trace_buffer_write(ring, 0, 0, std::string(50, c).c_str()), 0);
    EXPECT_EQ(ring_texts(file), (Texts{std::string(50, 'd'), std::string(50, 'e')}));
    // A record may fill the whole ring, but not more; flags and type are kept with it.
    const std::string whole(kSlots * kPayload, 'w');
    EXPECT_EQ(trace_buffer_write(ring, 0, 0, (whole + "x").c_str()), EMSGSIZE);
    ASSERT_EQ(trace_buffer_write(ring, 7, 9, whole.c_str()), 0);
    RingReader reader;
    ASSERT_EQ(reader.open(file), 0);
    auto records = reader.read_all();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_TRUE(records[0].text == whole && records[0].flags == 7 && records[0].type == 9);
    // Reopened with the same geometry the records stay; with another they are gone.
    ASSERT_EQ(trace_buffer_write(ring, 0, 0, "before restart"), 0);
    EXPECT_EQ(trace_buffer_close(ring), 0);
    ASSERT_EQ(trace_buffer_open(name, 0, 0, kSlots, kBytes, 0, &ring), 0);
    ASSERT_EQ(trace_buffer_write(ring, 0, 0, "after restart"), 0);
    EXPECT_EQ(ring_texts(file), (Texts{"before restart", "after restart"}));
    ASSERT_EQ(trace_buffer_close(ring), 0);
    ASSERT_EQ(trace_buffer_open(name, 0, 0, kSlots * 2, kBytes * 2, 0, &ring), 0);
    EXPECT_TRUE(ring_texts(file).empty());
    ASSERT_EQ(trace_buffer_close(ring), 0);
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

TEST_F(TraceRings, DirectoriesAndRingFilesOthersCouldTouchAreRefused) {
    const bool root = geteuid() == 0;
    const char *saved = std::getenv("XDG_RUNTIME_DIR");
    const std::string saved_xdg = saved ? saved : "";
    auto make = [](const std::string &path, mode_t mode, bool file) {
        int fd = file ? open(path.c_str(), O_CREAT | O_WRONLY, 0600) : mkdir(path.c_str(), 0700);
        EXPECT_TRUE(fd >= 0 && chmod(path.c_str(), mode) == 0) << path;
        if (file) close(fd);
    };
    auto use_default = [](const std::string &d) { unsetenv("TOV_TRACE_DIR"), setenv("XDG_RUNTIME_DIR", d.c_str(), 1); };
    // Each row prepares a fresh directory and names the ring to open there.
    const struct {
        const char *what;
        bool needs_root;
        int expected;
        std::function<std::string(const std::string &)> prepare;
    } rows[] = {
        {"the default folder, private", false, 0, [&](const std::string &d) { use_default(d); return "r"; }},
        {"the default folder, world-writable", false, EPERM,
         [&](const std::string &d) { use_default(d), make(d + "/tov-trace", 0777, false); return "r"; }},
        {"$TOV_TRACE_DIR group-writable", false, EPERM, [](const std::string &d) { chmod(d.c_str(), 0770); return "r"; }},
        {"$TOV_TRACE_DIR a symlink", false, ELOOP,
         [&](const std::string &d) {
             make(d + "/real", 0700, false);
             EXPECT_EQ(symlink("real", (d + "/link").c_str()), 0);
             setenv("TOV_TRACE_DIR", (d + "/link").c_str(), 1);
             return "r";
         }},
        {"a ring folder group-writable", false, EPERM, [&](const std::string &d) { make(d + "/sub", 0770, false); return "sub/r"; }},
        {"a ring file writable by others", false, EPERM, [&](const std::string &d) { make(d + "/r", 0666, true); return "r"; }},
        {"a ring file a symlink", false, ELOOP,
         [&](const std::string &d) { make(d + "/target", 0600, true); return symlink("target", (d + "/r").c_str()) == 0 ? "r" : "?"; }},
        {"$TOV_TRACE_DIR another user's", true, EPERM,
         [](const std::string &d) { EXPECT_EQ(chown(d.c_str(), 65534, 65534), 0); return "r"; }},
        {"a ring file another user's", true, EPERM,
         [&](const std::string &d) { make(d + "/r", 0600, true); return chown((d + "/r").c_str(), 65534, 65534) == 0 ? "r" : "?"; }},
    };
    for (const auto &row : rows) {
        if (row.needs_root && !root) continue;
        tov::test::RingDir fresh;
        trace_buffer_t ring = 0;
        EXPECT_EQ(trace_buffer_open(row.prepare(fresh.path()).c_str(), 0, 0, kSlots, kBytes, 0, &ring), row.expected) << row.what;
        if (ring) trace_buffer_close(ring);
        saved ? setenv("XDG_RUNTIME_DIR", saved_xdg.c_str(), 1) : unsetenv("XDG_RUNTIME_DIR");
    }
    if (!root) GTEST_SKIP() << "skipped: another user's folder and file need root to be made";
}

TEST_F(TraceRings, ARingHasItsSpaceOrFailsToOpenOnAFullFileSystem) {
    // The child's answer: the codes it got, then what the service wrote to standard error.
    auto [status, answer] = in_child([&]() -> std::string {
        if (std::string why = tov::test::private_tmpfs(dir.path(), "1m"); !why.empty()) return "skipped: " + why;
        // Half of it is reserved by the first ring, so the second does not fit; writing the whole
        // of the first must then not fault.
        trace_buffer_t first = 0, second = 0;
        std::string answer = std::to_string(trace_buffer_open("first", 0, 0, 64, 64 * 8192, 0, &first));
        answer += " " + std::to_string(trace_buffer_open("second", 0, 0, 64, 64 * 8192, 0, &second));
        const std::string record(8000, 'x');
        for (int i = 0; i < 80; ++i)
            if (int e = trace_buffer_write(first, 0, 0, record.c_str())) return answer + " write " + std::to_string(e);
        int err[2];
        if (pipe(err) != 0) return "pipe failed";
        dup2(err[1], 2), close(err[1]);
        tov_debug_save_agent_name("full");
        DebugContext ctx{};
        ctx.component_id = TOV_COMPONENT_TOV;
        char code[16];
        std::snprintf(code, sizeof code, " %#x ", tov_init_trace_buffer(&ctx));
        close(2);
        char line[256] = {};
        return answer + code + std::string(line, static_cast<size_t>(std::max<ssize_t>(0, read(err[0], line, sizeof line - 1))));
    });
    if (answer.rfind("skipped", 0) == 0) GTEST_SKIP() << answer;
    EXPECT_EQ(status, 0);
    EXPECT_EQ(answer, "0 28 0xaaf2a200 Init trace buffer (full-tov/processor.trace) failed! (No space left on device)\n");
}

TEST_F(TraceRings, ATruncatedRingStopsTakingRecordsButNobodyCrashes) {
    auto [status, answer] = in_child([&] {
        std::string codes;
        auto note = [&codes](auto value) { codes += std::to_string(value) + " "; };
        trace_buffer_t ring = 0;
        RingReader reader;
        note(trace_buffer_open("cut", 0, 0, kSlots, kBytes, 0, &ring));
        note(trace_buffer_write(ring, 0, 0, "before"));
        note(reader.open(dir.file("cut")));
        note(truncate(dir.file("cut").c_str(), 0));
        note(trace_buffer_write(ring, 0, 0, "lost"));
        note(trace_buffer_write(ring, 0, 0, "lost too"));
        note(reader.read_all().size());
        note(reader.lost());
        // Opening it again replaces the cut file.
        trace_buffer_close(ring);
        note(trace_buffer_open("cut", 0, 0, kSlots, kBytes, 0, &ring));
        note(trace_buffer_write(ring, 0, 0, "again"));
        return codes + ring_texts(dir.file("cut")).at(0);
    });
    EXPECT_TRUE(WIFEXITED(status)) << "child ended by signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    EXPECT_EQ(answer, "0 0 0 0 5 5 0 1 0 0 again");
}

TEST_F(TraceRings, ProcessesCreatingOneRingAtOnceAllWriteToTheSameFile) {
    constexpr int kWriters = 8, kRecords = 20;
    for (int round = 0; round < 10; ++round) {
        const std::string name = "race-" + std::to_string(round);
        int gate[2];
        ASSERT_EQ(pipe(gate), 0);
        std::vector<pid_t> children;
        for (int w = 0; w < kWriters; ++w) {
            if (pid_t pid = fork(); pid != 0) {
                children.push_back(pid);
                continue;
            }
            close(gate[1]);
            char c;
            trace_buffer_t ring = 0;
            // all start when the gate closes
            if (read(gate[0], &c, 1) != 0 || trace_buffer_open(name.c_str(), 0, 0, 256, 256 * 64, 0, &ring) != 0) _exit(1);
            for (int i = 0; i < kRecords; ++i)
                if (trace_buffer_write(ring, 0, 0, (std::to_string(w) + ":" + std::to_string(i)).c_str()) != 0) _exit(2);
            _exit(0);
        }
        close(gate[0]), close(gate[1]);
        for (pid_t pid : children) {
            int status = 0;
            EXPECT_TRUE(waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        }
        EXPECT_EQ(ring_texts(dir.file(name)).size(), size_t{kWriters * kRecords}) << name;
    }
}

TEST_F(TraceRings, AReaderKeepsToTheGeometryItOpenedWith) {
    trace_buffer_t ring = 0;
    ASSERT_EQ(trace_buffer_open("geometry", 0, 0, kSlots, kBytes, 0, &ring), 0);
    for (const char *text : {"a", "b", "c"}) ASSERT_EQ(trace_buffer_write(ring, 0, 0, text), 0);
    RingReader reader;
    ASSERT_EQ(reader.open(dir.file("geometry")), 0);
    // Header size, slot count and slot size rewritten to point far past the file.
    const uint32_t hostile[3] = {0x40000000u, 0x100000u, 65536u};
    int fd = open(dir.file("geometry").c_str(), O_WRONLY);
    ASSERT_EQ(pwrite(fd, hostile, sizeof hostile, 12), static_cast<ssize_t>(sizeof hostile));
    close(fd);
    Texts texts;
    for (auto &r : reader.read_all()) texts.push_back(r.text);
    EXPECT_EQ(texts, (Texts{"a", "b", "c"}));
    EXPECT_EQ(reader.slot_count(), kSlots);
    EXPECT_EQ(trace_buffer_close(ring), 0);
}

// Records of writer t: "t:n:" and then filler up to a length that varies with n, so that records
// span one to three slots and any mix-up between records shows.
std::string record(int t, uint64_t n) {
    return (std::to_string(t) + ":" + std::to_string(n) + ":").append(n % 50, static_cast<char>('A' + t + n % 20));
}

TEST_F(TraceRings, AnotherProcessReadsTheRingOfAWriterKilledMidStream) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        trace_buffer_t ring = 0;
        if (trace_buffer_open("crash", 0, 0, 64, 64 * 64, 0, &ring) != 0) _exit(1);
        for (uint64_t n = 0;; ++n) trace_buffer_write(ring, 0, 0, record(0, n).c_str());
    }
    // Killed once it is well past its first wrap.
    for (int i = 0; i < 2000; ++i) {
        auto texts = ring_texts(dir.file("crash"));
        if (!texts.empty() && std::stoull(texts.back().substr(2)) > 1100) break; // the oldest then past 1000
        usleep(5000);
    }
    ASSERT_EQ(kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    RingReader reader;
    ASSERT_EQ(reader.open(dir.file("crash")), 0);
    EXPECT_EQ(reader.writer_pid(), static_cast<uint32_t>(child));
    auto records = reader.read_all();
    // 64 slots hold at least 21 records of up to three slots; the one cut by the kill is dropped,
    // and nothing is missing between the oldest and the newest.
    ASSERT_GE(records.size(), 20u);
    const uint64_t first = std::stoull(records[0].text.substr(2));
    EXPECT_GE(first, 1000u);
    for (size_t i = 0; i < records.size(); ++i) EXPECT_EQ(records[i].text, record(0, first + i));
}

// With room for everything nothing is lost and each thread's records keep their order; in a ring
// a few slots long, writers overtake each other and a reader reads along: records may be lost to
// an overtaking writer, but what is read is whole (and a ThreadSanitizer build sees no race).
TEST_F(TraceRings, ConcurrentWritersLoseNoRecordThatFitsAndMixNone) {
    constexpr int kThreads = 4, kPerThread = 2000;
    for (uint32_t slots : {3u * kThreads * kPerThread, 4u}) {
        trace_buffer_t ring = 0;
        const std::string name = "threads-" + std::to_string(slots);
        ASSERT_EQ(trace_buffer_open(name.c_str(), 0, 0, slots, slots * 64, 0, &ring), 0);
        std::atomic<bool> done{false};
        Texts seen;
        std::thread reader_thread([&] {
            tov::test::RingTail tail(dir.file(name));
            while (!done.load())
                for (auto &text : tail.take()) seen.push_back(std::move(text));
        });
        std::vector<std::thread> writers;
        for (int t = 0; t < kThreads; ++t)
            writers.emplace_back([ring, t] {
                for (int i = 0; i < kPerThread; ++i) ASSERT_EQ(trace_buffer_write(ring, 0, 0, record(t, i).c_str()), 0);
            });
        for (auto &w : writers) w.join();
        done = true;
        reader_thread.join();
        auto texts = ring_texts(dir.file(name));
        const bool roomy = slots > 4;
        if (roomy) {
            ASSERT_EQ(texts.size(), size_t{kThreads * kPerThread});
        }
        const size_t in_ring = texts.size();
        texts.insert(texts.end(), seen.begin(), seen.end());
        int next[kThreads] = {};
        for (size_t k = 0; k < texts.size(); ++k) {
            int t = 0, i = 0;
            ASSERT_EQ(std::sscanf(texts[k].c_str(), "%d:%d:", &t, &i), 2) << texts[k];
            ASSERT_TRUE(t >= 0 && t < kThreads && i >= 0 && i < kPerThread);
            EXPECT_EQ(texts[k], record(t, i));
            if (roomy && k < in_ring) {
                EXPECT_EQ(i, next[t]++) << "thread " << t; // each thread's records in its own order
            }
        }
        EXPECT_EQ(trace_buffer_close(ring), 0);
    }
}

} // namespace
