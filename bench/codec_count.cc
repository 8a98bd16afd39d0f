// SPDX-License-Identifier: BSD-3-Clause
// One codec operation on one request file, for instruction counting under callgrind:
//   valgrind --tool=callgrind --toggle-collect='counted_*' codec_count FILE decode|encode|duplicate|free
// Blocks come from a bump arena, so the counts are the codec's own. Prints the node count of the
// request's configuration tree, by which the counts are divided.
//   codec_count FILE time   decode and free_ext timed alone (no callgrind)
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tov/codec.h"

namespace {

std::vector<std::max_align_t> region(64u << 20 >> 4);
size_t used = 0;
void *bump_alloc(uint32_t size, uintptr_t) {
    void *p = reinterpret_cast<char *>(region.data()) + used;
    used += (static_cast<size_t>(size) + 15) & ~size_t{15};
    return used <= region.size() * sizeof(std::max_align_t) ? p : nullptr;
}
void bump_free(void *, uintptr_t) {}

size_t nodes(const DataTree &t) {
    size_t n = 1;
    for (uint32_t i = 0; i < t.children_count; ++i) n += nodes(t.children[i]);
    return n;
}

// Decode, then free_ext, each timed alone, the fastest of 2,000 rounds: the times this program
// takes are those of the i386 build, which has no libprotobuf to be compared with.
int time_decode_and_free(const std::string &bytes) {
    using Clock = std::chrono::steady_clock;
    static Request r;
    double decode = 1e300, release = 1e300;
    for (int i = 0; i < 2000; ++i) {
        used = 0;
        const Clock::time_point t0 = Clock::now();
        if (kesh_tov_request_decode_ext(&r, reinterpret_cast<const uint8_t *>(bytes.data()),
                                        static_cast<uint32_t>(bytes.size()), bump_alloc, 0, 0) != 0)
            return 1;
        const Clock::time_point t1 = Clock::now();
        kesh_tov_request_free_ext(&r, bump_free, 0, 0);
        const Clock::time_point t2 = Clock::now();
        decode = std::min(decode, std::chrono::duration<double, std::micro>(t1 - t0).count());
        release = std::min(release, std::chrono::duration<double, std::micro>(t2 - t1).count());
    }
    std::printf("decode %.1f us, free_ext %.1f us, free_ext / decode %.2f\n", decode, release, release / decode);
    return 0;
}

} // namespace

extern "C" {
__attribute__((noinline)) int32_t counted_decode(Request *r, const std::string &b) {
    return kesh_tov_request_decode_ext(r, reinterpret_cast<const uint8_t *>(b.data()), static_cast<uint32_t>(b.size()),
                                       bump_alloc, 0, 0);
}
__attribute__((noinline)) uint32_t counted_encode(const Request *r, uint8_t *out) {
    const uint32_t n = kesh_tov_request_encode_ext(r, nullptr, 0, nullptr, nullptr, 0);
    return kesh_tov_request_encode_ext(r, out, n, nullptr, nullptr, 0);
}
__attribute__((noinline)) int32_t counted_duplicate(Request *d, const Request *s) {
    return kesh_tov_request_duplicate(d, s, bump_alloc, 0);
}
__attribute__((noinline)) void counted_free(Request *r) { kesh_tov_request_free_ext(r, bump_free, 0, 0); }
}

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: codec_count FILE decode|encode|duplicate|free|time\n");
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "codec_count: cannot read %s\n", argv[1]);
        return 2;
    }
    const std::string bytes(std::istreambuf_iterator<char>(in), {});
    const std::string op = argv[2];
    if (op == "time") return time_decode_and_free(bytes);
    static Request r, copy;
    if (op == "decode") {
        if (counted_decode(&r, bytes) != 0) return 1;
    } else if (kesh_tov_request_decode_ext(&r, reinterpret_cast<const uint8_t *>(bytes.data()),
                                           static_cast<uint32_t>(bytes.size()), bump_alloc, 0, 0) != 0) {
        return 1;
    }
    if (op == "encode") {
        std::vector<uint8_t> out(bytes.size());
        if (counted_encode(&r, out.data()) != bytes.size() || std::memcmp(out.data(), bytes.data(), bytes.size()))
            return 1;
    } else if (op == "duplicate") {
        if (counted_duplicate(&copy, &r) != 0) return 1;
    } else if (op == "free") {
        counted_free(&r);
        r.edit_config.config.children_count = 0; // counted below from the copy made before
    }
    static Request again;
    kesh_tov_request_decode_ext(&again, reinterpret_cast<const uint8_t *>(bytes.data()),
                                static_cast<uint32_t>(bytes.size()), bump_alloc, 0, 0);
    std::printf("%zu nodes\n", nodes(again.edit_config.config));
    return 0;
}
