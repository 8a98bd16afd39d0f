// SPDX-License-Identifier: BSD-3-Clause
// The tov-trace reader, run as a separate process on a ring this process writes.
#include <gtest/gtest.h>

#include <csignal>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/rings.hpp"
#include "support/tools.hpp"
#include "tov/trace_buffer.h"

namespace {

// Runs the tool (under the build's emulator, if it has one) to its end, or for 20 seconds at most;
// returns its exit status (-1 when it did not end by itself) and output.
std::pair<int, std::string> run_tool(const std::vector<std::string> &args) {
    int fds[2];
    if (pipe(fds) != 0) return {-1, "pipe failed"};
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        dup2(fds[1], 2);
        tov::test::exec_tool(TOV_TRACE_TOOL_EMULATOR, TOV_TRACE_TOOL, args);
    }
    close(fds[1]);
    std::string text;
    pollfd p{fds[0], POLLIN, 0};
    char chunk[4096];
    for (ssize_t n = 1; n > 0 && poll(&p, 1, 20000) == 1;) {
        if ((n = read(p.fd, chunk, sizeof chunk)) > 0) text.append(chunk, static_cast<size_t>(n));
    }
    kill(pid, SIGKILL); // gone already, unless it hung
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text};
}

// Log lines hold what clients sent, ring names too: bytes that would steer the terminal are shown
// as \xNN (valid UTF-8 passes), unless raw output is asked for; a file that is no ring is refused.
TEST(TraceTool, ControlBytesAreEscapedUnlessRawIsAskedAndAFifoIsNoRing) {
    tov::test::RingDir dir;
    const std::string name = "esc\x1b[2J.trace";
    const std::string line = "a\x1b]0;title\x07\x1b[2J\rb\tc caf\xc3\xa9 \xc2\x9b\xff\x7f";
    trace_buffer_t ring = 0;
    ASSERT_EQ(trace_buffer_open(name.c_str(), 0, 0, 4, 4 * 128, 0, &ring), 0);
    ASSERT_EQ(trace_buffer_write(ring, 0, 0, line.c_str()), 0);
    EXPECT_EQ(run_tool({"show", "--no-time", name}).second,
              "a\\x1b]0;title\\x07\\x1b[2J\\x0db\tc caf\xc3\xa9 \\xc2\\x9b\\xff\\x7f\n");
    EXPECT_EQ(run_tool({"show", "--no-time", "--raw", name}).second, line + "\n");
    EXPECT_NE(run_tool({"list"}).second.find("\nesc\\x1b[2J.trace "), std::string::npos);
    trace_buffer_close(ring);
    // A FIFO (or device) in a ring's place is refused at once instead of blocking the reader.
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    for (const char *command : {"show", "follow"}) {
        EXPECT_EQ(run_tool({command, "fifo"}), std::make_pair(1, "tov-trace: " + dir.file("fifo") + ": not a trace ring\n"))
            << command;
    }
}

} // namespace
