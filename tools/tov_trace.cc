// SPDX-License-Identifier: BSD-3-Clause
// tov-trace: lists, prints and follows the trace rings of tov framework processes.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "platform/trace_ring.hpp"
#include "tov/result.h"

namespace {

using tov::detail::ring::Record;
using tov::detail::ring::RingReader;

const char kUsage[] =
    "tov-trace - read the trace rings of tov framework processes\n"
    "\n"
    "Usage:\n"
    "  tov-trace [--dir DIR] list\n"
    "  tov-trace [--dir DIR] show [-n COUNT] [--no-time] [--raw] RING\n"
    "  tov-trace [--dir DIR] follow [-n COUNT] [--no-time] [--raw] RING\n"
    "\n"
    "Commands:\n"
    "  list     Every ring under the runtime directory, with the records it holds, its\n"
    "           size, its last write and the process that writes it.\n"
    "  show     Print the ring's records, oldest first, and exit.\n"
    "  follow   Print the ring's records, then keep printing new ones as they are written,\n"
    "           until interrupted. A ring that is cleared is picked up again.\n"
    "\n"
    "RING is a ring name as list prints it (\"agent-tov/processor.trace\") or the path of\n"
    "a ring file. Rings can be read while their process runs, and after it crashed.\n"
    "\n"
    "Options:\n"
    "  --dir DIR    Look for rings in DIR instead of the runtime directory.\n"
    "  -n COUNT     Start with the newest COUNT records only.\n"
    "  --no-time    Print the records alone, without time stamp and thread id.\n"
    "  --raw        Print records byte for byte. Without it, bytes that could steer a\n"
    "               terminal (control characters, invalid UTF-8) are shown as \\xNN.\n"
    "  -h, --help   Show this help.\n"
    "\n"
    "The runtime directory is $TOV_TRACE_DIR when set, else $XDG_RUNTIME_DIR/tov-trace,\n"
    "else /dev/shm/tov-trace-<uid>.\n"
    "\n"
    "Exit status: 0 on success, 1 when a ring cannot be read, 2 on a usage error.\n";

struct Options {
    std::string command;
    std::string dir;
    std::string ring;
    long count = -1;
    bool times = true;
    bool raw = false;
};

volatile std::sig_atomic_t g_stop = 0;

std::string format_time(uint64_t ns, bool with_fraction) {
    time_t seconds = static_cast<time_t>(ns / 1000000000u);
    struct tm tm;
    localtime_r(&seconds, &tm);
    char text[64];
    size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
    if (with_fraction) std::snprintf(text + n, sizeof text - n, ".%06u", static_cast<unsigned>(ns % 1000000000u / 1000));
    return text;
}

// Log lines carry what clients sent: shown escaped unless raw output was asked for.
std::string printable(const std::string &text) {
    std::string out;
    tov::detail::ring::escape_text(text, &out);
    return out;
}

void print_record(const Record &r, const Options &o) {
    if (o.times) std::printf("%s [%u] ", format_time(r.time_ns, true).c_str(), r.tid);
    const std::string text = o.raw ? r.text : printable(r.text);
    std::fwrite(text.data(), 1, text.size(), stdout);
    if (text.empty() || text.back() != '\n') std::fputc('\n', stdout);
}

int resolve_dir(Options &o) {
    if (!o.dir.empty()) return 0;
    int rc = tov::detail::ring::runtime_dir(&o.dir);
    if (rc != 0) std::fprintf(stderr, "tov-trace: runtime directory %s: %s\n", o.dir.c_str(), error_code_text(rc));
    return rc;
}

std::string ring_file(const Options &o) {
    struct stat st;
    if (o.ring.find('/') != std::string::npos && stat(o.ring.c_str(), &st) == 0 && S_ISREG(st.st_mode)) return o.ring;
    return o.dir + "/" + o.ring;
}

int open_ring(const std::string &file, RingReader *reader) {
    int rc = reader->open(file);
    if (rc == EPROTO) std::fprintf(stderr, "tov-trace: %s: not a trace ring\n", file.c_str());
    else if (rc != 0) std::fprintf(stderr, "tov-trace: %s: %s\n", file.c_str(), error_code_text(rc));
    return rc;
}

// Whether the ring's writer still runs: it exists and has not died into a zombie.
bool writer_running(uint32_t pid) {
    if (pid == 0 || (kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM)) return false;
    std::string path = "/proc/" + std::to_string(pid) + "/stat";
    FILE *f = std::fopen(path.c_str(), "r");
    if (!f) return true;
    char text[512] = {};
    size_t n = std::fread(text, 1, sizeof text - 1, f);
    std::fclose(f);
    const char *after_name = std::strrchr(text, ')'); // the name may itself hold ") "
    return !(n > 0 && after_name && after_name[1] == ' ' && (after_name[2] == 'Z' || after_name[2] == 'X'));
}

int list(const Options &o) {
    namespace fs = std::filesystem;
    std::error_code ec;
    std::vector<std::string> names;
    for (auto it = fs::recursive_directory_iterator(o.dir, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        if (it->is_regular_file(ec)) names.push_back(fs::relative(it->path(), o.dir, ec).string());
    }
    if (ec) {
        std::fprintf(stderr, "tov-trace: %s: %s\n", o.dir.c_str(), ec.message().c_str());
        return 1;
    }
    std::sort(names.begin(), names.end());
    int width = 4;
    for (const std::string &name : names) width = std::max(width, static_cast<int>(printable(name).size()));
    std::printf("Rings in %s:\n", o.dir.c_str());
    std::printf("%-*s %9s %16s  %-19s  %s\n", width, "RING", "RECORDS", "SIZE", "LAST WRITE", "WRITER");
    int shown = 0;
    for (const std::string &name : names) {
        RingReader reader;
        if (reader.open(o.dir + "/" + name) != 0) continue; // not a ring (or a ring being made)
        auto records = reader.read_all();
        char size[32];
        std::snprintf(size, sizeof size, "%u x %u B", reader.slot_count(), reader.slot_size());
        std::string last = records.empty() ? "-" : format_time(records.back().time_ns, false);
        const uint32_t pid = reader.writer_pid();
        std::printf("%-*s %9zu %16s  %-19s  pid %u (%s)\n", width, printable(name).c_str(), records.size(), size,
                    last.c_str(), pid, writer_running(pid) ? "running" : "gone");
        ++shown;
    }
    if (shown == 0) std::printf("(none)\n");
    return 0;
}

int show(const Options &o) {
    RingReader reader;
    if (open_ring(ring_file(o), &reader) != 0) return 1;
    auto records = reader.read_all();
    size_t from = o.count >= 0 && static_cast<size_t>(o.count) < records.size() ? records.size() - o.count : 0;
    for (size_t i = from; i < records.size(); ++i) print_record(records[i], o);
    return 0;
}

int follow(const Options &o) {
    std::signal(SIGINT, [](int) { g_stop = 1; });
    std::signal(SIGTERM, [](int) { g_stop = 1; });
    const std::string file = ring_file(o);
    RingReader reader;
    if (open_ring(file, &reader) != 0) return 1;
    uint64_t cursor = reader.oldest_seq();
    if (o.count >= 0) {
        auto records = reader.read_all();
        size_t from = static_cast<size_t>(o.count) < records.size() ? records.size() - o.count : 0;
        for (size_t i = from; i < records.size(); ++i) print_record(records[i], o);
        cursor = reader.next_seq();
    }
    int busy_polls = 0;
    while (!g_stop) {
        if (reader.lost()) reader.close(); // cut short under us: start again on what is there now
        if (!reader.is_open()) {
            // The ring was deleted; wait for its successor.
            if (reader.open(file) != 0) {
                usleep(100000);
                continue;
            }
            std::printf("--- ring re-created ---\n");
            cursor = 0;
        }
        if (cursor < reader.oldest_seq()) {
            std::printf("--- %llu slot(s) overwritten before they could be read ---\n",
                        static_cast<unsigned long long>(reader.oldest_seq() - cursor));
        }
        Record r;
        auto step = reader.read(&cursor, &r);
        if (step == RingReader::Step::Record) {
            print_record(r, o);
            busy_polls = 0;
            continue;
        }
        if (step == RingReader::Step::Skip) continue;
        std::fflush(stdout);
        if (step == RingReader::Step::Busy && ++busy_polls > 20) {
            // Two seconds on one record: its writer died half-way. Go past it.
            ++cursor;
            busy_polls = 0;
            continue;
        }
        usleep(100000);
        // A cleared ring is a new file under the same name.
        struct stat st;
        if (stat(file.c_str(), &st) != 0 || static_cast<uint64_t>(st.st_ino) != reader.inode() ||
            static_cast<uint64_t>(st.st_dev) != reader.device()) {
            // Finish what the old file still holds before moving to the new one.
            if (cursor >= reader.next_seq()) reader.close();
        }
    }
    std::fflush(stdout);
    return 0;
}

int usage_error(const char *message, const char *detail) {
    std::fprintf(stderr, "tov-trace: %s%s\nTry 'tov-trace --help'.\n", message, detail);
    return 2;
}

} // namespace

int main(int argc, char **argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (arg == "--dir" || arg == "-n") {
            if (i + 1 == argc) return usage_error("missing value after ", arg.c_str());
            const char *value = argv[++i];
            if (arg == "--dir") {
                o.dir = value;
            } else {
                char *end = nullptr;
                errno = 0;
                o.count = std::strtol(value, &end, 10);
                if (errno != 0 || *end != '\0' || o.count < 0) return usage_error("bad record count: ", value);
            }
        } else if (arg == "--no-time") {
            o.times = false;
        } else if (arg == "--raw") {
            o.raw = true;
        } else if (!arg.empty() && arg[0] == '-') {
            return usage_error("unknown option ", arg.c_str());
        } else if (o.command.empty()) {
            o.command = arg;
        } else if (o.ring.empty()) {
            o.ring = arg;
        } else {
            return usage_error("unexpected argument ", arg.c_str());
        }
    }
    if (o.command.empty()) return usage_error("no command given", "");
    if (o.command != "list" && o.command != "show" && o.command != "follow")
        return usage_error("unknown command ", o.command.c_str());
    if (o.command == "list" ? !o.ring.empty() : o.ring.empty())
        return usage_error(o.command == "list" ? "list takes no ring" : "which ring? give its name", "");
    if (resolve_dir(o) != 0) return 1;
    if (o.command == "list") return list(o);
    return o.command == "show" ? show(o) : follow(o);
}
