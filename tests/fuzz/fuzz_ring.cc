// SPDX-License-Identifier: BSD-3-Clause
// libFuzzer target for the ring reader: whatever a ring file holds, and however it is rewritten or
// cut short while it is read, reading stays inside the mapping, ends, and every text escapes.
//
// Byte 0 picks the shape of the input. Even: the rest is the ring file, byte for byte. Odd: byte 1
// picks a geometry, and the rest up to the first "\xff\xff" is split at NUL bytes into records
// written through the service; what follows is a list of (offset, byte) changes made to the file
// after the reader opened it, and with bit 1 of byte 0 set the file is then truncated too.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>

#include "platform/trace_ring.hpp"
#include "tov/trace_buffer.h"

namespace {

using tov::detail::ring::Record;
using tov::detail::ring::RingReader;

std::string g_dir;

void read_everything(const RingReader &reader) {
    std::string escaped;
    for (const Record &r : reader.read_all()) tov::detail::ring::escape_text(r.text, &escaped);
    // As follow does: step by step from the oldest, a bounded number of steps.
    uint64_t cursor = 0;
    Record r;
    for (uint32_t step = 0; step < 4 * reader.slot_count() + 8; ++step) {
        auto s = reader.read(&cursor, &r);
        if (s == RingReader::Step::End) break;
        if (s == RingReader::Step::Busy) ++cursor;
    }
}

void write_file(const std::string &path, const uint8_t *data, size_t size) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) std::abort();
    close(fd);
}

void written_ring(const uint8_t *data, size_t size, bool truncate_after) {
    if (size < 1) return;
    const uint32_t slots = 2 + (data[0] & 15), slot_size = 64 + 8 * (data[0] >> 4);
    ++data, --size;
    const std::string_view rest(reinterpret_cast<const char *>(data), size);
    const size_t split = std::min(rest.find("\xff\xff"), rest.size());
    trace_buffer_t ring = 0;
    if (trace_buffer_open("fuzz", 0, 0, slots, slots * slot_size, 0, &ring) != 0) std::abort();
    for (size_t at = 0; at <= split;) {
        const size_t end = std::min(rest.find('\0', at), split);
        const std::string text(rest.substr(at, end - at));
        int rc = trace_buffer_write(ring, 0, 0, text.c_str());
        if (rc != 0 && rc != EMSGSIZE) std::abort();
        at = end + 1;
    }
    const std::string path = g_dir + "/fuzz";
    RingReader reader;
    if (reader.open(path) != 0) std::abort();
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    for (size_t at = split + 2; at + 3 <= size; at += 3) {
        const uint32_t offset = (uint32_t{data[at]} | uint32_t{data[at + 1]} << 8) * 7u;
        if (pwrite(fd, &data[at + 2], 1, offset % (4096 + slots * slot_size)) != 1) std::abort();
    }
    if (truncate_after && ftruncate(fd, (size * 977) % (4096 + slots * slot_size)) != 0) std::abort();
    close(fd);
    read_everything(reader);
    trace_buffer_close(ring);
    unlink(path.c_str());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    char pattern[] = "/tmp/tov-fuzz-ring-XXXXXX";
    if (!mkdtemp(pattern)) std::abort();
    g_dir = pattern;
    setenv("TOV_TRACE_DIR", pattern, 1);
    std::atexit([] { rmdir(g_dir.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    if (data[0] & 1) {
        written_ring(data + 1, size - 1, data[0] & 2);
        return 0;
    }
    const std::string path = g_dir + "/raw";
    write_file(path, data + 1, size - 1);
    RingReader reader;
    if (reader.open(path) == 0) read_everything(reader);
    unlink(path.c_str());
    return 0;
}
