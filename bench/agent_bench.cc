// SPDX-License-Identifier: BSD-3-Clause
// Requests per second and latency of tov-agent, measured over its socket: get-config of running
// holding the 10k-node workload, and small edit-configs against that configuration.
//
//   agent_bench --agent build/examples/agent/tov-agent --workloads ../shared/workloads
//               [--requests N] [--clients C]
//   agent_bench --socket PATH ...   (an agent already running, for instance under a profiler)
//
// One client sends a request and waits for its response, N times (latency: median and p99;
// requests/s from the total time). C clients do the same at once (requests/s of all of them).
#include <algorithm>
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

#include "tov/codec.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

void *alloc(uint32_t n, uintptr_t) { return std::calloc(1, n ? n : 1); }
void release(void *p, uintptr_t) { std::free(p); }

[[noreturn]] void die(const std::string &what) {
    std::fprintf(stderr, "agent_bench: %s\n", what.c_str());
    std::exit(1);
}

struct Client {
    int fd;
    explicit Client(const std::string &path) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) die("cannot connect to " + path);
    }
    ~Client() { close(fd); }
    void io(void *p, size_t n, bool out) {
        auto *b = static_cast<char *>(p);
        while (n) {
            ssize_t k = out ? send(fd, b, n, MSG_NOSIGNAL) : recv(fd, b, n, 0);
            if (k <= 0) die("the agent closed the connection");
            b += k, n -= static_cast<size_t>(k);
        }
    }
    // Sends one framed request and reads its response; returns the response's success flag.
    bool call(const std::string &request, std::string &reply) {
        uint32_t be = htonl(static_cast<uint32_t>(request.size()));
        std::string frame(reinterpret_cast<char *>(&be), 4);
        frame += request;
        io(frame.data(), frame.size(), true);
        io(&be, 4, false);
        reply.resize(ntohl(be));
        io(reply.data(), reply.size(), false);
        Response r{};
        const bool ok = kesh_tov_response_decode_ext(&r, reinterpret_cast<const uint8_t *>(reply.data()),
                                                     static_cast<uint32_t>(reply.size()), alloc, 0, 0) == 0 &&
                        r.success == 1;
        kesh_tov_response_free_ext(&r, release, 0, 0);
        return ok;
    }
};

std::string encode(const Request &rq) {
    std::string out(kesh_tov_request_encode_ext(&rq, nullptr, 0, nullptr, nullptr, 0), '\0');
    kesh_tov_request_encode_ext(&rq, reinterpret_cast<uint8_t *>(out.data()), static_cast<uint32_t>(out.size()), nullptr,
                                nullptr, 0);
    return out;
}

char *text(const char *s) {
    char *p = static_cast<char *>(alloc(static_cast<uint32_t>(std::strlen(s) + 1), 0));
    std::strcpy(p, s);
    return p;
}

Request header(uint32_t op, uint32_t session) {
    Request rq{};
    static const uint8_t nothing = 0;
    kesh_tov_request_decode_ext(&rq, &nothing, 0, alloc, 0, 0); // the payloads' defaults
    rq.operation = op;
    rq.session_id = session;
    rq.message_id = text("bench");
    tov_bit_set(rq.present, TOV_REQUEST_BIT_OPERATION);
    tov_bit_set(rq.present, TOV_REQUEST_BIT_SESSION_ID);
    tov_bit_set(rq.present, TOV_REQUEST_BIT_MESSAGE_ID);
    return rq;
}

// The workload's nodes carry edit operations (some deletes); loaded as configuration, all merge.
void drop_operations(DataTree *t) {
    tov_bit_clear(t->present, TOV_DATATREE_BIT_OPERATION);
    for (uint32_t i = 0; i < t->children_count; ++i) drop_operations(&t->children[i]);
}

struct Figures {
    double per_second, median_us, p99_us;
};

Figures measure(Client &c, const std::string &request, int n) {
    std::vector<double> us(static_cast<size_t>(n));
    std::string reply;
    const auto start = Clock::now();
    for (int i = 0; i < n; ++i) {
        const auto t0 = Clock::now();
        if (!c.call(request, reply)) die("a request failed");
        us[static_cast<size_t>(i)] = std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
    }
    const double total = std::chrono::duration<double>(Clock::now() - start).count();
    std::sort(us.begin(), us.end());
    return {n / total, us[us.size() / 2], us[std::min(us.size() - 1, us.size() * 99 / 100)]};
}

double concurrent(const std::string &socket, const std::vector<std::string> &requests, int n) {
    std::vector<std::thread> threads;
    const auto start = Clock::now();
    for (const auto &request : requests)
        threads.emplace_back([&socket, &request, n] {
            Client c(socket);
            std::string reply;
            for (int i = 0; i < n; ++i)
                if (!c.call(request, reply)) die("a request failed");
        });
    for (auto &t : threads) t.join();
    return static_cast<double>(n) * static_cast<double>(requests.size()) /
           std::chrono::duration<double>(Clock::now() - start).count();
}

} // namespace

int main(int argc, char **argv) {
    std::string agent, workloads, socket_path;
    int requests = 2000, clients = 4;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        if (a == "--agent") agent = argv[i + 1];
        else if (a == "--workloads") workloads = argv[i + 1];
        else if (a == "--socket") socket_path = argv[i + 1];
        else if (a == "--requests") requests = std::atoi(argv[i + 1]);
        else if (a == "--clients") clients = std::atoi(argv[i + 1]);
        else die("unknown option " + a);
    }
    if ((agent.empty() == socket_path.empty()) || workloads.empty() || requests < 1 || clients < 1)
        die("usage: agent_bench {--agent PATH | --socket PATH} --workloads DIR [--requests N] [--clients C]");

    char name[] = "/tmp/tov-agent-bench-XXXXXX";
    const fs::path dir = mkdtemp(name);
    const bool own_agent = socket_path.empty();
    if (own_agent) socket_path = (dir / "agent.sock").string();
    setenv("TOV_TRACE_DIR", (dir / "rings").c_str(), 1);
    const pid_t pid = own_agent ? fork() : -1;
    if (pid == 0) {
        execl(agent.c_str(), agent.c_str(), "--socket", socket_path.c_str(), "--datastore", (dir / "data").c_str(),
              "--log-level", "error", static_cast<char *>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 500 && !fs::exists(socket_path); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));

    int rc = 0;
    {
        Client c(socket_path);
        std::string reply;
        Request start = header(TOV_OP_START_SESSION, 0);
        tov_bit_clear(start.present, TOV_REQUEST_BIT_SESSION_ID);
        if (!c.call(encode(start), reply)) die("start-session failed");
        kesh_tov_request_free_ext(&start, release, 0, 0);
        Response r{};
        kesh_tov_response_decode_ext(&r, reinterpret_cast<const uint8_t *>(reply.data()),
                                     static_cast<uint32_t>(reply.size()), alloc, 0, 0);
        const uint32_t session = r.code;
        kesh_tov_response_free_ext(&r, release, 0, 0);

        // running := the 10k-node workload
        std::ifstream f(fs::path(workloads) / "yang10k.bin", std::ios::binary);
        const std::string bytes(std::istreambuf_iterator<char>(f), {});
        Request load{};
        if (bytes.empty() || kesh_tov_request_decode_ext(&load, reinterpret_cast<const uint8_t *>(bytes.data()),
                                                         static_cast<uint32_t>(bytes.size()), alloc, 0, 0) != 0)
            die("cannot read yang10k.bin");
        // copied in whole: as configuration for edit-config its keyless siblings would merge
        Request copy = header(TOV_OP_COPY_CONFIG, session);
        copy.copy_config.target.name = text("running");
        tov_bit_set(copy.copy_config.target.present, TOV_DATASTORE_BIT_NAME);
        copy.copy_config.source_config = load.edit_config.config;
        memset(&load.edit_config.config, 0, sizeof load.edit_config.config);
        drop_operations(&copy.copy_config.source_config);
        tov_bit_set(copy.copy_config.present, TOV_COPY_CONFIG_BIT_TARGET);
        tov_bit_set(copy.copy_config.present, TOV_COPY_CONFIG_BIT_SOURCE_CONFIG);
        tov_bit_set(copy.present, TOV_REQUEST_BIT_COPY_CONFIG);
        kesh_tov_request_free_ext(&load, release, 0, 0);
        if (!c.call(encode(copy), reply)) die("loading the workload failed");
        kesh_tov_request_free_ext(&copy, release, 0, 0);
        Request discard = header(TOV_OP_DISCARD_CHANGES, session); // candidate := running, 10k nodes too
        tov_bit_set(discard.present, TOV_REQUEST_BIT_DISCARD_CHANGES);
        if (!c.call(encode(discard), reply)) die("discard-changes failed");
        kesh_tov_request_free_ext(&discard, release, 0, 0);

        Request get = header(TOV_OP_GET_CONFIG, session);
        const std::string get_bytes = encode(get);
        c.call(get_bytes, reply);
        std::printf("get-config of running: response of %zu bytes\n", reply.size());
        kesh_tov_request_free_ext(&get, release, 0, 0);

        // a small edit into that candidate: one leaf merged into a top-level container of its own
        Request edit = header(TOV_OP_EDIT_CONFIG, session);
        DataTree *top = static_cast<DataTree *>(alloc(sizeof(DataTree), 0));
        DataTree *leaf = static_cast<DataTree *>(alloc(sizeof(DataTree), 0));
        leaf->name = text("mtu");
        leaf->value = text("9000");
        tov_bit_set(leaf->present, TOV_DATATREE_BIT_NAME);
        tov_bit_set(leaf->present, TOV_DATATREE_BIT_VALUE);
        top->name = text("bench");
        top->qualifier = text("urn:bench");
        top->children = leaf;
        top->children_count = 1;
        tov_bit_set(top->present, TOV_DATATREE_BIT_NAME);
        tov_bit_set(top->present, TOV_DATATREE_BIT_QUALIFIER);
        tov_bit_set(top->present, TOV_DATATREE_BIT_CHILDREN);
        edit.edit_config.config.children = top;
        edit.edit_config.config.children_count = 1;
        tov_bit_set(edit.edit_config.config.present, TOV_DATATREE_BIT_CHILDREN);
        tov_bit_set(edit.present, TOV_REQUEST_BIT_EDIT_CONFIG);
        const std::string edit_bytes = encode(edit);
        kesh_tov_request_free_ext(&edit, release, 0, 0);

        const int gets = std::max(1, requests / 10);
        const Figures g = measure(c, get_bytes, gets);
        std::printf("get-config (10k nodes), 1 client, %d requests: %.0f requests/s, median %.0f us, p99 %.0f us\n",
                    gets, g.per_second, g.median_us, g.p99_us);
        const Figures e = measure(c, edit_bytes, requests);
        std::printf("edit-config (1 leaf), 1 client, %d requests: %.0f requests/s, median %.0f us, p99 %.0f us\n",
                    requests, e.per_second, e.median_us, e.p99_us);
        // the concurrent clients all use this session, which stays open on this connection
        std::printf("get-config (10k nodes), %d clients: %.0f requests/s\n", clients,
                    concurrent(socket_path, std::vector<std::string>(static_cast<size_t>(clients), get_bytes), gets));
        std::printf("edit-config (1 leaf), %d clients: %.0f requests/s\n", clients,
                    concurrent(socket_path, std::vector<std::string>(static_cast<size_t>(clients), edit_bytes), requests));
    }
    if (own_agent) {
        kill(pid, SIGTERM);
        int status = 0;
        waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) rc = 1;
    }
    fs::remove_all(dir);
    return rc;
}
