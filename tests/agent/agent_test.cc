// SPDX-License-Identifier: BSD-3-Clause
// A running tov-agent driven over its socket, through tov-msg and raw frames.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/tools.hpp"
#include "tov/codec.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::string;

// Starts `tool` (under the build's emulator, if it has one) with its standard streams on files.
pid_t spawn(const char *tool, const std::vector<std::string> &args, const fs::path &in, const fs::path &out,
            const fs::path &err) {
    pid_t pid = fork();
    if (pid == 0) {
        freopen(in.c_str(), "rb", stdin), freopen(out.c_str(), "wb", stdout), freopen(err.c_str(), "wb", stderr);
        tov::test::exec_tool(TOV_AGENT_EMULATOR, tool, args);
    }
    return pid;
}

int wait_exit(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string slurp(const fs::path &p) {
    std::ifstream f(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

struct TempDir {
    char name[32] = "/tmp/tov-agent-test-XXXXXX";
    fs::path path = mkdtemp(name);
    ~TempDir() { fs::remove_all(path); }
};

class Agent {
public:
    explicit Agent(const fs::path &dir, std::vector<std::string> extra = {}) : dir_(dir) {
        std::vector<std::string> args = {"--socket", socket(), "--datastore", (dir_ / "data").string()};
        args.insert(args.end(), extra.begin(), extra.end());
        ::setenv("TOV_TRACE_DIR", (dir_ / "rings").c_str(), 1);
        pid_ = spawn(TOV_AGENT, args, "/dev/null", dir_ / "agent.out", dir_ / "agent.err");
        for (int i = 0; i < 500 && !fs::exists(socket()); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    // A clean stop exits 0; under the sanitizers that also means nothing leaked.
    ~Agent() {
        kill(pid_, SIGTERM);
        EXPECT_EQ(wait_exit(pid_), 0) << slurp(dir_ / "agent.err");
    }
    std::string socket() const { return (dir_ / "agent.sock").string(); }
    // tov-msg send: exit status and the response as text
    std::pair<int, std::string> send(const std::string &text) const {
        std::ofstream(dir_ / "in", std::ios::binary) << text;
        const int rc = wait_exit(spawn(TOV_MSG, {"send", "--socket", socket()}, dir_ / "in", dir_ / "out", dir_ / "err"));
        return {rc, slurp(dir_ / "out")};
    }

private:
    fs::path dir_;
    pid_t pid_ = -1;
};

std::string field(const std::string &text, const std::string &name) {
    const auto at = text.find(name + ": ");
    if (at == std::string::npos) return {};
    const auto start = at + name.size() + 2;
    return text.substr(start, text.find('\n', start) - start);
}

std::string replace_all(std::string s, const std::string &from, const std::string &to) {
    for (size_t at = 0; (at = s.find(from, at)) != std::string::npos; at += to.size()) s.replace(at, from.size(), to);
    return s;
}

void *malloc_fn(uint32_t n, uintptr_t) { return std::calloc(1, n ? n : 1); }
void free_fn(void *p, uintptr_t) { std::free(p); }

struct Reply {
    Response r{};
    ~Reply() { kesh_tov_response_free_ext(&r, free_fn, 0, 0); }
    std::string tag() const { return r.error.error_tag ? r.error.error_tag : ""; }
};

// A connection speaking raw frames.
struct Client {
    int fd = -1;
    explicit Client(const std::string &path) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) ADD_FAILURE() << "connect";
    }
    ~Client() { close(fd); }
    // Frames here are small: one send, or one recv that waits for all, moves them whole.
    bool write_all(const void *p, size_t n) { return ::send(fd, p, n, MSG_NOSIGNAL) == static_cast<ssize_t>(n); }
    bool read_all(void *p, size_t n) { return n == 0 || ::recv(fd, p, n, MSG_WAITALL) == static_cast<ssize_t>(n); }
    // One response: decoded into `response` or false at end of stream.
    bool response(Reply &r) {
        uint32_t be;
        if (!read_all(&be, 4)) return false;
        std::string body(ntohl(be), '\0');
        return read_all(body.data(), body.size()) &&
               kesh_tov_response_decode_ext(&r.r, reinterpret_cast<const uint8_t *>(body.data()),
                                            static_cast<uint32_t>(body.size()), malloc_fn, 0, 0) == 0;
    }
    bool at_eof() {
        char c;
        return ::recv(fd, &c, 1, 0) == 0;
    }
};

class AgentTest : public ::testing::Test {
protected:
    TempDir t;
    std::string start_session(Agent &a) {
        auto [rc, text] = a.send("operation: 11 message_id: \"s\" start_session { number_3: 1 }");
        EXPECT_EQ(rc, 0);
        return field(text, "code");
    }
};

const char kIf[] = "urn:ietf:params:xml:ns:yang:ietf-interfaces";

// edit-config of one interface entry into the candidate with node operation `op`.
std::string edit(const std::string &name, int op) {
    return "operation: 1 message_id: \"e\" session_id: SID edit_config { target { name: \"candidate\" } config { "
           "children { name: \"interfaces\" qualifier: \"" + std::string(kIf) + "\" children { name: \"interface\" "
           "operation: " + std::to_string(op) + " attributes { name: \"key\" value: \"name\" } children { name: \"name\" "
           "value: \"" + name + "\" } } } } }";
}

std::string path_of(const std::string &name) {
    return "value: \"ns1:interfaces/ns1:interface[name = \\'" + name + "\\']\"";
}

// The agent is an example: one session through the library's checks (each one's answer is the road
// test's), error records, XPath error paths with their declarations, logging control and session
// end; its own datastore semantics are not the library's to test.
TEST_F(AgentTest, ASessionGetsItsAnswersAndNetconfErrors) {
    Agent a(t.path);
    const std::string sid = start_session(a);
    ASSERT_FALSE(sid.empty());
    const std::string lock = "operation: 3 message_id: \"m\" session_id: SID lock { target { name: \"candidate\" } }";
    // Each request, whether it succeeds, and texts its response must hold and must not.
    const struct Row { std::string request; bool ok; std::vector<std::string> has = {}, lacks = {}; } rows[] = {
        {"operation: 0 message_id: \"m\" session_id: 7", false, {"error_tag: \"invalid-value\"", "Entered session ID was not found."}},
        {lock, true, {"text: \"m\""}},
        {lock, false, {"error_tag: \"lock-denied\"", "name: \"session-id\"", "value: \"SID\""}},
        {edit("eth0", 2), true},
        {edit("eth0", 2), false, {"error_tag: \"data-exists\"", path_of("eth0"), std::string("value: \"") + kIf + "\"", "name: \"xmlns:ns1\""}},
        {edit("eth9", 3), false, {"error_tag: \"data-missing\"", path_of("eth9")}},
        {"operation: 5 message_id: \"m\" session_id: SID", true},
        {"operation: 0 message_id: \"m\" session_id: SID", true, {"eth0"}, {"eth9"}},
        {"operation: 13 message_id: \"m\" session_id: SID logging_set { value_1: 99 value_2: 3 }", false, {"error_tag: \"invalid-value\""}},
        {"operation: 13 message_id: \"m\" session_id: SID logging_set { value_1: 3 value_2: 3 flag_4: true value_3: 0 }", true},
        {"operation: 42 message_id: \"m\" session_id: SID", false, {"error_tag: \"operation-not-supported\""}},
        {"operation: 12 message_id: \"m\" session_id: SID", true},
        {"operation: 0 message_id: \"m\" session_id: SID", false, {"Entered session ID was not found."}},
    };
    for (const Row &row : rows) {
        const std::string request = replace_all(row.request, "SID", sid);
        SCOPED_TRACE(request);
        const auto [rc, text] = a.send(request);
        EXPECT_EQ(rc, row.ok ? 0 : 1) << text;
        for (const auto &h : row.has) EXPECT_NE(text.find(replace_all(h, "SID", sid)), std::string::npos) << h << "\n" << text;
        for (const auto &l : row.lacks) EXPECT_EQ(text.find(l), std::string::npos) << l << "\n" << text;
    }
}

TEST_F(AgentTest, BadFramesGetAnErrorAndACloseWhileTheAgentServesOn) {
    Agent a(t.path, {"--max-frame", "4096"});
    const struct { const char *name; Bytes bytes; bool half_close; const char *tag; } cases[] = {
        {"oversized", Bytes("\x00\x00\x10\x01", 4), false, "too-big"},
        {"truncated", Bytes("\x00\x00\x00\x20\x08\x01", 6), true, "malformed-message"},
        {"undecodable", Bytes("\x00\x00\x00\x03\xff\xff\xff", 7), false, "malformed-message"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Client client(a.socket());
        ASSERT_TRUE(client.write_all(c.bytes.data(), c.bytes.size()));
        if (c.half_close) shutdown(client.fd, SHUT_WR);
        Reply r;
        ASSERT_TRUE(client.response(r));
        EXPECT_EQ(r.r.success, 0);
        EXPECT_EQ(r.tag(), c.tag);
        EXPECT_TRUE(client.at_eof());
    }
    // Empty frames are empty requests: three in one write get three answers, and the connection
    // stays (the agent served on).
    Client client(a.socket());
    ASSERT_TRUE(client.write_all(std::string(12, '\0').data(), 12));
    for (int i = 0; i < 3; ++i) {
        Reply r;
        ASSERT_TRUE(client.response(r));
        EXPECT_EQ(r.tag(), "missing-attribute");
    }
}

} // namespace
