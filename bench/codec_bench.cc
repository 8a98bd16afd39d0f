// SPDX-License-Identifier: BSD-3-Clause
// The codec against Google protobuf with an Arena ("gpb-arena") and protobuf-c on the same bytes:
// the request files in $TOV_WORKLOADS (default ../shared/workloads). Every case runs as
// interleaved repetitions; the table at the end gives, per workload and operation, the median
// time of each contender divided by gpb-arena's median from the same run (below 1: faster than
// gpb-arena), and in brackets the lowest and highest ratio of repetitions run side by side.
//   codec_bench --benchmark_repetitions=15 --benchmark_enable_random_interleaving=true
#include <benchmark/benchmark.h>
#include <google/protobuf/arena.h>
#include <google/protobuf/io/coded_stream.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tov.pb-c.h"
#include "tov.pb.h"
#include "tov/codec.h"

namespace {

using GpbRequest = kesh::tov::request;

// The framework's pair: calloc for every block, free for every block.
void *calloc_alloc(uint32_t size, uintptr_t) { return std::calloc(1, size); }
void calloc_free(void *p, uintptr_t) { std::free(p); }

// A per-message bump arena: blocks are carved from one region that is rewound after each message,
// and releasing a block costs nothing.
struct Bump {
    std::vector<std::max_align_t> region = std::vector<std::max_align_t>(64u << 20 >> 4);
    size_t used = 0;
    void rewind() { used = 0; }
};
// One region for every case, taken once: a fresh 64 MiB per repetition made the kernel clear
// gigabytes of pages between the timed loops, which showed as noise in them.
Bump &bump_region() {
    static Bump region;
    region.rewind();
    return region;
}
void *bump_alloc(uint32_t size, uintptr_t ctx) {
    auto *b = reinterpret_cast<Bump *>(ctx);
    const size_t need = (static_cast<size_t>(size) + 15) & ~size_t{15};
    if (need > b->region.size() * sizeof(std::max_align_t) - b->used) return nullptr;
    void *p = reinterpret_cast<char *>(b->region.data()) + b->used;
    b->used += need;
    return p;
}
void bump_free(void *, uintptr_t) {}

// gpb's arena starts on a reused block as large as the bump region, so neither side calls malloc.
struct GpbArena {
    std::vector<char> block = std::vector<char>(64u << 20);
    google::protobuf::ArenaOptions options() {
        google::protobuf::ArenaOptions o;
        o.initial_block = block.data();
        o.initial_block_size = block.size();
        return o;
    }
};
GpbArena &gpb_block() {
    static GpbArena block;
    return block;
}

// chain1k nests a thousand levels: past libprotobuf's default recursion limit of 100.
bool gpb_parse(GpbRequest *m, const std::string &bytes) {
    google::protobuf::io::CodedInputStream in(reinterpret_cast<const uint8_t *>(bytes.data()),
                                              static_cast<int>(bytes.size()));
    in.SetRecursionLimit(1 << 20);
    return m->ParseFromCodedStream(&in) && in.ConsumedEntireMessage();
}

struct Workload {
    std::string name;
    std::string bytes;
    const uint8_t *data() const { return reinterpret_cast<const uint8_t *>(bytes.data()); }
    uint32_t size() const { return static_cast<uint32_t>(bytes.size()); }
};

std::vector<Workload> load_workloads() {
    const char *dir = std::getenv("TOV_WORKLOADS");
    std::string base = dir ? dir : "../shared/workloads";
    std::vector<Workload> out;
    for (const char *name : {"yang10k", "flat1k", "chain1k"}) {
        std::ifstream in(base + "/" + name + ".bin", std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "codec_bench: cannot read %s/%s.bin (set TOV_WORKLOADS)\n", base.c_str(), name);
            std::exit(2);
        }
        out.push_back(Workload{name, std::string(std::istreambuf_iterator<char>(in), {})});
    }
    return out;
}

struct Allocator {
    tov_alloc_fn alloc;
    tov_free_fn free;
};

void check(benchmark::State &state, bool ok, const char *what) {
    if (!ok) state.SkipWithError(what);
}

// ---- encode: a sender's measuring call, then its writing call into a buffer of that size ----

void tov_encode(benchmark::State &state, const Workload &w, bool bump) {
    Bump &arena = bump_region();
    Request r;
    const Allocator a = bump ? Allocator{bump_alloc, bump_free} : Allocator{calloc_alloc, calloc_free};
    const uintptr_t ctx = reinterpret_cast<uintptr_t>(&arena);
    check(state, kesh_tov_request_decode_ext(&r, w.data(), w.size(), a.alloc, ctx, 0) == 0, "decode");
    std::string out(w.bytes.size(), '\0');
    for (auto _ : state) {
        const uint32_t n = kesh_tov_request_encode_ext(&r, nullptr, 0, nullptr, nullptr, 0);
        kesh_tov_request_encode_ext(&r, reinterpret_cast<uint8_t *>(out.data()), n, nullptr, nullptr, 0);
        benchmark::DoNotOptimize(out.data());
    }
    check(state, out == w.bytes, "different bytes");
    kesh_tov_request_free_ext(&r, a.free, ctx, 0);
}
void gpb_encode(benchmark::State &state, const Workload &w) {
    GpbArena &block = gpb_block();
    google::protobuf::Arena arena(block.options());
    auto *m = google::protobuf::Arena::CreateMessage<GpbRequest>(&arena);
    check(state, gpb_parse(m, w.bytes), "parse");
    std::string out(w.bytes.size(), '\0');
    for (auto _ : state) {
        const size_t n = m->ByteSizeLong();
        m->SerializeWithCachedSizesToArray(reinterpret_cast<uint8_t *>(out.data()));
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(out.data());
    }
    check(state, out == w.bytes, "different bytes");
}
void pbc_encode(benchmark::State &state, const Workload &w) {
    Kesh__Tov__Request *m = kesh__tov__request__unpack(nullptr, w.bytes.size(), w.data());
    std::string out(w.bytes.size(), '\0');
    for (auto _ : state) {
        const size_t n = kesh__tov__request__get_packed_size(m);
        kesh__tov__request__pack(m, reinterpret_cast<uint8_t *>(out.data()));
        benchmark::DoNotOptimize(n);
    }
    kesh__tov__request__free_unpacked(m, nullptr);
}

// ---- decode + free ----

void tov_decode_free(benchmark::State &state, const Workload &w, bool bump) {
    Bump &arena = bump_region();
    Request r;
    const Allocator a = bump ? Allocator{bump_alloc, bump_free} : Allocator{calloc_alloc, calloc_free};
    const uintptr_t ctx = reinterpret_cast<uintptr_t>(&arena);
    for (auto _ : state) {
        if (kesh_tov_request_decode_ext(&r, w.data(), w.size(), a.alloc, ctx, 0) != 0) state.SkipWithError("decode");
        kesh_tov_request_free_ext(&r, a.free, ctx, 0);
        arena.rewind();
    }
}
void gpb_decode_free(benchmark::State &state, const Workload &w) {
    GpbArena &block = gpb_block();
    for (auto _ : state) {
        google::protobuf::Arena arena(block.options());
        auto *m = google::protobuf::Arena::CreateMessage<GpbRequest>(&arena);
        if (!gpb_parse(m, w.bytes)) state.SkipWithError("parse");
        benchmark::DoNotOptimize(m);
    }
}
void pbc_decode_free(benchmark::State &state, const Workload &w) {
    for (auto _ : state) {
        Kesh__Tov__Request *m = kesh__tov__request__unpack(nullptr, w.bytes.size(), w.data());
        if (!m) state.SkipWithError("unpack");
        kesh__tov__request__free_unpacked(m, nullptr);
    }
}

// ---- free alone and decode alone (the other one is not timed) ----
// With the bump arena the callbacks cost next to nothing, which leaves the codec's own walks.
// Stopping and restarting the clock takes time of its own (reading the process's CPU clock is a
// system call), part of which falls inside the timed span: that part is timed alone here and
// taken off both before they are compared.

void clock_pause(benchmark::State &state) {
    for (auto _ : state) {
        state.PauseTiming();
        state.ResumeTiming();
    }
}

void tov_free(benchmark::State &state, const Workload &w, bool bump) {
    Bump &arena = bump_region();
    Request r;
    const Allocator a = bump ? Allocator{bump_alloc, bump_free} : Allocator{calloc_alloc, calloc_free};
    const uintptr_t ctx = reinterpret_cast<uintptr_t>(&arena);
    for (auto _ : state) {
        state.PauseTiming();
        arena.rewind();
        if (kesh_tov_request_decode_ext(&r, w.data(), w.size(), a.alloc, ctx, 0) != 0) state.SkipWithError("decode");
        state.ResumeTiming();
        kesh_tov_request_free_ext(&r, a.free, ctx, 0);
    }
}
void tov_decode_only(benchmark::State &state, const Workload &w, bool bump) {
    Bump &arena = bump_region();
    Request r;
    const Allocator a = bump ? Allocator{bump_alloc, bump_free} : Allocator{calloc_alloc, calloc_free};
    const uintptr_t ctx = reinterpret_cast<uintptr_t>(&arena);
    for (auto _ : state) {
        if (kesh_tov_request_decode_ext(&r, w.data(), w.size(), a.alloc, ctx, 0) != 0) state.SkipWithError("decode");
        state.PauseTiming();
        kesh_tov_request_free_ext(&r, a.free, ctx, 0);
        arena.rewind();
        state.ResumeTiming();
    }
}

// ---- duplicate + free ----

void tov_duplicate_free(benchmark::State &state, const Workload &w, bool bump) {
    Request source, copy;
    check(state, kesh_tov_request_decode_ext(&source, w.data(), w.size(), calloc_alloc, 0, 0) == 0, "decode");
    Bump &arena = bump_region();
    const Allocator a = bump ? Allocator{bump_alloc, bump_free} : Allocator{calloc_alloc, calloc_free};
    const uintptr_t ctx = reinterpret_cast<uintptr_t>(&arena);
    for (auto _ : state) {
        if (kesh_tov_request_duplicate(&copy, &source, a.alloc, ctx) != 0) state.SkipWithError("duplicate");
        kesh_tov_request_free_ext(&copy, a.free, ctx, 0);
        arena.rewind();
    }
    kesh_tov_request_free_ext(&source, calloc_free, 0, 0);
}
void gpb_duplicate_free(benchmark::State &state, const Workload &w) {
    GpbRequest source;
    check(state, gpb_parse(&source, w.bytes), "parse");
    GpbArena &block = gpb_block();
    for (auto _ : state) {
        google::protobuf::Arena arena(block.options());
        auto *m = google::protobuf::Arena::CreateMessage<GpbRequest>(&arena);
        m->CopyFrom(source);
        benchmark::DoNotOptimize(m);
    }
}

// Collects every repetition and prints the ratio table.
class RatioReporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &r : runs)
            if (r.run_type == Run::RT_Iteration && !r.error_occurred)
                times_[r.benchmark_name()].push_back(r.GetAdjustedCPUTime());
            else if (r.error_occurred)
                std::printf("%s: %s\n", r.benchmark_name().c_str(), r.error_message.c_str());
    }
    void Finalize() override {
        std::printf("%-8s %-14s %10s %17s %17s %17s  (median time / gpb-arena median [low..high pairs])\n",
                    "workload", "operation", "gpb-arena", "calloc pair", "bump arena", "protobuf-c");
        for (const char *work : {"yang10k", "flat1k", "chain1k"})
            for (const char *op : {"encode", "decode+free", "duplicate+free"}) {
                const std::string base = std::string(work) + "/" + op + "/";
                const auto &gpb = times_[base + "gpb-arena"];
                if (gpb.empty()) continue;
                std::printf("%-8s %-14s %8.1fus", work, op, median(gpb) / 1e3);
                for (const char *who : {"calloc", "bump", "protobuf-c"}) cell(times_[base + who], gpb);
                std::printf("\n");
            }
        const auto &pause = times_["clock/pause"];
        const double paused = pause.empty() ? 0 : median(pause);
        for (const char *work : {"yang10k", "flat1k", "chain1k"})
            for (const char *who : {"calloc", "bump"}) {
                const auto &dec = times_[std::string(work) + "/decode/" + who];
                const auto &fr = times_[std::string(work) + "/free/" + who];
                if (dec.empty() || fr.empty()) continue;
                const double d = median(dec) - paused, f = median(fr) - paused;
                std::printf("%-8s free_ext / decode (%s): %.2f  (decode %.1fus, free %.1fus, clock pause %.2fus off each)\n",
                            work, std::string(who) == "bump" ? "bump arena" : "calloc pair", f / d, d / 1e3, f / 1e3,
                            paused / 1e3);
            }
    }

private:
    static double median(std::vector<double> v) {
        std::sort(v.begin(), v.end());
        const size_t n = v.size();
        return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
    }
    static void cell(const std::vector<double> &ours, const std::vector<double> &gpb) {
        if (ours.empty()) {
            std::printf(" %17s", "-");
            return;
        }
        double lo = 1e300, hi = 0;
        for (size_t i = 0; i < std::min(ours.size(), gpb.size()); ++i) {
            lo = std::min(lo, ours[i] / gpb[i]);
            hi = std::max(hi, ours[i] / gpb[i]);
        }
        std::printf(" %5.2f [%4.2f..%4.2f]", median(ours) / median(gpb), lo, hi);
    }
    std::map<std::string, std::vector<double>> times_;
};

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    static const std::vector<Workload> workloads = load_workloads();
    for (const Workload &w : workloads) {
        const std::string n = w.name + "/";
        const Workload *p = &w;
        benchmark::RegisterBenchmark((n + "encode/gpb-arena").c_str(), [p](benchmark::State &s) { gpb_encode(s, *p); });
        benchmark::RegisterBenchmark((n + "encode/calloc").c_str(), [p](benchmark::State &s) { tov_encode(s, *p, false); });
        benchmark::RegisterBenchmark((n + "encode/bump").c_str(), [p](benchmark::State &s) { tov_encode(s, *p, true); });
        benchmark::RegisterBenchmark((n + "encode/protobuf-c").c_str(), [p](benchmark::State &s) { pbc_encode(s, *p); });
        benchmark::RegisterBenchmark((n + "decode+free/gpb-arena").c_str(), [p](benchmark::State &s) { gpb_decode_free(s, *p); });
        benchmark::RegisterBenchmark((n + "decode+free/calloc").c_str(), [p](benchmark::State &s) { tov_decode_free(s, *p, false); });
        benchmark::RegisterBenchmark((n + "decode+free/bump").c_str(), [p](benchmark::State &s) { tov_decode_free(s, *p, true); });
        benchmark::RegisterBenchmark((n + "decode+free/protobuf-c").c_str(), [p](benchmark::State &s) { pbc_decode_free(s, *p); });
        benchmark::RegisterBenchmark((n + "duplicate+free/gpb-arena").c_str(), [p](benchmark::State &s) { gpb_duplicate_free(s, *p); });
        benchmark::RegisterBenchmark((n + "duplicate+free/calloc").c_str(), [p](benchmark::State &s) { tov_duplicate_free(s, *p, false); });
        benchmark::RegisterBenchmark((n + "duplicate+free/bump").c_str(), [p](benchmark::State &s) { tov_duplicate_free(s, *p, true); });
        for (const bool bump : {false, true}) {
            const std::string who = bump ? "bump" : "calloc";
            benchmark::RegisterBenchmark((n + "decode/" + who).c_str(), [p, bump](benchmark::State &s) { tov_decode_only(s, *p, bump); });
            benchmark::RegisterBenchmark((n + "free/" + who).c_str(), [p, bump](benchmark::State &s) { tov_free(s, *p, bump); });
        }
    }
    benchmark::RegisterBenchmark("clock/pause", clock_pause);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
