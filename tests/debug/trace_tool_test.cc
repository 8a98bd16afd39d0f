// The tov-trace reader, run as a separate process on a ring this process writes.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "support/rings.hpp"
#include "tov/trace_buffer.h"

namespace {

// Starts the tool (under the build's emulator, if it has one); returns its pid and its output.
pid_t start_tool(const std::vector<std::string> &args, FILE **out) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        dup2(fds[1], 2);
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
    *out = fdopen(fds[0], "r");
    return pid;
}

std::string read_line(FILE *f) {
    char line[1024];
    return std::fgets(line, sizeof line, f) ? std::string(line) : std::string("<eof>");
}

// Runs the tool to its end; returns its exit status and output.
std::pair<int, std::string> run_tool(const std::vector<std::string> &args) {
    FILE *out = nullptr;
    pid_t pid = start_tool(args, &out);
    std::string text;
    for (std::string line; (line = read_line(out)) != "<eof>";) text += line;
    std::fclose(out);
    int status = 0;
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text};
}

TEST(TraceTool, ListsShowsAndFollowsARingThroughAClear) {
    tov::test::RingDir dir;
    trace_buffer_t ring = 0;
    ASSERT_EQ(trace_buffer_open("agent-tov/me.trace", 0, 0, 16, 16 * 128, 0, &ring), 0);
    for (const char *text : {"first", "second\nwith a second line\n"}) ASSERT_EQ(trace_buffer_write(ring, 0, 0, text), 0);
    EXPECT_EQ(run_tool({"show", "--no-time", "agent-tov/me.trace"}),
              std::make_pair(0, std::string("first\nsecond\nwith a second line\n")));
    EXPECT_NE(run_tool({"show", "-n", "1", dir.file("agent-tov/me.trace")}).second.find(" [" + std::to_string(gettid()) + "] second\n"),
              std::string::npos);
    std::string listing = run_tool({"list"}).second;
    EXPECT_TRUE(std::regex_search(listing, std::regex("\nagent-tov/me.trace +2 +16 x 128 B +[-0-9]+ [:0-9]+  pid " +
                                                      std::to_string(getpid()) + " \\(running\\)\n")))
        << listing;
    EXPECT_EQ(run_tool({"show", "no/such.trace"}).first, 1);
    EXPECT_EQ(run_tool({"list", "-n", "x"}).first, 2);

    FILE *out = nullptr;
    pid_t pid = start_tool({"follow", "--no-time", "agent-tov/me.trace"}, &out);
    ASSERT_GT(pid, 0);
    ASSERT_EQ(trace_buffer_write(ring, 0, 0, "new one"), 0); // before or after the tool starts
    for (const char *expected : {"first\n", "second\n", "with a second line\n", "new one\n"}) EXPECT_EQ(read_line(out), expected);
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
    trace_buffer_close(ring);
}

} // namespace
