// The tov-trace reader, run as a separate process on rings this process writes.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "debug/test_support.hpp"
#include "tov/trace_buffer.h"

namespace {

// Runs the tool; its output arrives on `*out_fd`. Returns its pid.
pid_t start_tool(const std::vector<std::string> &args, int *out_fd) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        dup2(fds[1], 2);
        close(fds[0]);
        close(fds[1]);
        // An emulator, if the build runs its programs under one, goes first ("qemu-i386 -L /").
        std::vector<std::string> words;
        std::istringstream emulator(TOV_TRACE_TOOL_EMULATOR);
        for (std::string word; emulator >> word;) words.push_back(word);
        words.push_back(TOV_TRACE_TOOL);
        words.insert(words.end(), args.begin(), args.end());
        std::vector<char *> argv;
        for (auto &w : words) argv.push_back(w.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(fds[1]);
    *out_fd = fds[0];
    return pid;
}

// Runs the tool to the end; returns its exit status and output.
std::pair<int, std::string> run_tool(const std::vector<std::string> &args) {
    int fd = -1;
    pid_t pid = start_tool(args, &fd);
    std::string out;
    char buffer[4096];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) out.append(buffer, static_cast<size_t>(n));
    close(fd);
    int status = 0;
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

std::string read_line(FILE *f) {
    char line[1024];
    return std::fgets(line, sizeof line, f) ? std::string(line) : std::string("<eof>");
}

class TraceTool : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(trace_buffer_open("agent-tov/me.trace", 0, 0, 16, 16 * 128, 0, &ring), 0); }
    void TearDown() override { trace_buffer_close(ring); }
    tov::test::RingDir dir;
    trace_buffer_t ring = 0;
};

TEST_F(TraceTool, ListsAndShowsRingsOldestFirst) {
    for (const char *text : {"first", "second\nwith a second line\n", "third"}) ASSERT_EQ(trace_buffer_write(ring, 0, 0, text), 0);
    auto [status, out] = run_tool({"show", "--no-time", "agent-tov/me.trace"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out, "first\nsecond\nwith a second line\nthird\n");
    std::tie(status, out) = run_tool({"--dir", dir.path(), "show", "-n", "1", "--no-time", dir.file("agent-tov/me.trace")});
    EXPECT_EQ(out, "third\n");
    std::tie(status, out) = run_tool({"show", "agent-tov/me.trace"});
    EXPECT_NE(out.find(" [" + std::to_string(gettid()) + "] first\n"), std::string::npos) << out;

    std::tie(status, out) = run_tool({"list"});
    EXPECT_EQ(status, 0);
    EXPECT_NE(out.find("agent-tov/me.trace"), std::string::npos) << out;
    EXPECT_NE(out.find("16 x 128 B"), std::string::npos) << out;
    EXPECT_NE(out.find("pid " + std::to_string(getpid()) + " (running)"), std::string::npos) << out;

    std::tie(status, out) = run_tool({"show", "no/such.trace"});
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("No such file or directory"), std::string::npos) << out;
    EXPECT_EQ(run_tool({"show"}).first, 2);
    EXPECT_EQ(run_tool({"list", "-n", "x"}).first, 2);
    std::tie(status, out) = run_tool({"--help"});
    EXPECT_EQ(status, 0);
    EXPECT_NE(out.find("follow"), std::string::npos);
}

TEST_F(TraceTool, FollowPrintsNewRecordsAndSurvivesAClear) {
    ASSERT_EQ(trace_buffer_write(ring, 0, 0, "old"), 0);
    int fd = -1;
    pid_t pid = start_tool({"follow", "--no-time", "-n", "0", "agent-tov/me.trace"}, &fd);
    ASSERT_GT(pid, 0);
    FILE *out = fdopen(fd, "r");
    usleep(200000);
    ASSERT_EQ(trace_buffer_write(ring, 0, 0, "new one"), 0);
    EXPECT_EQ(read_line(out), "new one\n");
    ASSERT_EQ(trace_buffer_write(ring, 0, 0, "new two"), 0);
    EXPECT_EQ(read_line(out), "new two\n");
    // Clearing deletes the ring and makes it again.
    ASSERT_EQ(trace_buffer_close(ring), 0);
    ASSERT_EQ(trace_buffer_delete("agent-tov/me.trace"), 0);
    ASSERT_EQ(trace_buffer_open("agent-tov/me.trace", 0, 0, 16, 16 * 128, 0, &ring), 0);
    ASSERT_EQ(trace_buffer_write(ring, 0, 0, "after clearing"), 0);
    EXPECT_EQ(read_line(out), "--- ring re-created ---\n");
    EXPECT_EQ(read_line(out), "after clearing\n");
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::fclose(out);
}

} // namespace
