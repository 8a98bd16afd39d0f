// Decode and encode of the same bytes by this codec, Google protobuf (C++) and protobuf-c, with
// the ratios printed at the end of one run:  build/bench/bench/codec_bench
// Workloads: an edit-config request carrying a configuration tree, and a get response carrying
// a larger data tree; both built once with libprotobuf and serialised by it.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "tov.pb-c.h"
#include "tov.pb.h"
#include "tov/codec.h"

namespace {

void *heap_alloc(uint32_t size, uintptr_t) { return std::malloc(size); }
void heap_free(void *p, uintptr_t) { std::free(p); }

// A YANG-like tree: interfaces with leaves, attributes on some, a few levels deep.
void build_tree(kesh::tov::datatree *node, int depth, int fanout, int &serial) {
    node->set_name("node-" + std::to_string(serial++));
    if (depth == 0) {
        node->set_value("value-" + std::to_string(serial * 7919 % 100000));
        node->set_operation(serial % 5);
        return;
    }
    if (serial % 3 == 0) {
        auto *a = node->add_attributes();
        a->set_name("xmlns");
        a->set_value("urn:ietf:params:xml:ns:yang:ietf-interfaces");
    }
    for (int i = 0; i < fanout; ++i) build_tree(node->add_children(), depth - 1, fanout, serial);
}

struct Workload {
    std::string name;
    std::string bytes;
};

const Workload &request_workload() {
    static Workload w = [] {
        kesh::tov::request r;
        r.set_operation(1);
        r.set_session_id(0x1234abcd);
        r.set_message_id("101");
        auto *ec = r.mutable_edit_config();
        ec->mutable_target()->set_name("candidate");
        ec->set_option_2(1);
        int serial = 0;
        build_tree(ec->mutable_config(), 4, 4, serial); // 341 nodes
        return Workload{"request", r.SerializeAsString()};
    }();
    return w;
}

const Workload &response_workload() {
    static Workload w = [] {
        kesh::tov::response r;
        r.set_success(true);
        int serial = 0;
        build_tree(r.mutable_data(), 5, 4, serial); // 1365 nodes
        return Workload{"response", r.SerializeAsString()};
    }();
    return w;
}

const uint8_t *data_of(const Workload &w) { return reinterpret_cast<const uint8_t *>(w.bytes.data()); }
uint32_t size_of(const Workload &w) { return static_cast<uint32_t>(w.bytes.size()); }

// ---- decode ----

template <class R> struct TovCodec {
    int32_t (*decode)(R *, const uint8_t *, uint32_t, tov_alloc_fn, uintptr_t, uintptr_t);
    uint32_t (*encode)(const R *, uint8_t *, uint32_t, TovSpan *, uint32_t *, uintptr_t);
    void (*free)(R *, tov_free_fn, uintptr_t, uintptr_t);
};
const TovCodec<Request> kRequest{kesh_tov_request_decode_ext, kesh_tov_request_encode_ext, kesh_tov_request_free_ext};
const TovCodec<Response> kResponse{kesh_tov_response_decode_ext, kesh_tov_response_encode_ext,
                                   kesh_tov_response_free_ext};

template <class M> struct CCodec {
    M *(*unpack)(ProtobufCAllocator *, size_t, const uint8_t *);
    void (*free_unpacked)(M *, ProtobufCAllocator *);
    size_t (*packed_size)(const M *);
    size_t (*pack)(const M *, uint8_t *);
};
const CCodec<Kesh__Tov__Request> kCRequest{kesh__tov__request__unpack, kesh__tov__request__free_unpacked,
                                          kesh__tov__request__get_packed_size, kesh__tov__request__pack};
const CCodec<Kesh__Tov__Response> kCResponse{kesh__tov__response__unpack, kesh__tov__response__free_unpacked,
                                            kesh__tov__response__get_packed_size, kesh__tov__response__pack};

template <class R> void tov_decode(benchmark::State &state, const Workload &w, const TovCodec<R> &c) {
    R r;
    for (auto _ : state) {
        if (c.decode(&r, data_of(w), size_of(w), heap_alloc, 0, 0) != 0) state.SkipWithError("decode");
        c.free(&r, heap_free, 0, 0);
    }
    state.SetBytesProcessed(state.iterations() * w.bytes.size());
}
template <class M> void protobuf_decode(benchmark::State &state, const Workload &w) {
    for (auto _ : state) {
        M fresh; // a fresh message each time, as the C decoders start from a reset record
        if (!fresh.ParseFromString(w.bytes)) state.SkipWithError("parse");
        benchmark::DoNotOptimize(fresh);
    }
    state.SetBytesProcessed(state.iterations() * w.bytes.size());
}
template <class M> void protobuf_c_decode(benchmark::State &state, const Workload &w, const CCodec<M> &c) {
    for (auto _ : state) {
        M *m = c.unpack(nullptr, w.bytes.size(), data_of(w));
        if (!m) state.SkipWithError("unpack");
        c.free_unpacked(m, nullptr);
    }
    state.SetBytesProcessed(state.iterations() * w.bytes.size());
}

// ---- encode (measure, then write into a buffer of that size) ----

template <class R> void tov_encode(benchmark::State &state, const Workload &w, const TovCodec<R> &c) {
    R r;
    c.decode(&r, data_of(w), size_of(w), heap_alloc, 0, 0);
    std::string out(w.bytes.size(), '\0');
    for (auto _ : state) {
        uint32_t n = c.encode(&r, nullptr, 0, nullptr, nullptr, 0);
        c.encode(&r, reinterpret_cast<uint8_t *>(out.data()), n, nullptr, nullptr, 0);
        benchmark::DoNotOptimize(out.data());
    }
    if (out != w.bytes) state.SkipWithError("different bytes");
    c.free(&r, heap_free, 0, 0);
    state.SetBytesProcessed(state.iterations() * w.bytes.size());
}
template <class M> void protobuf_encode(benchmark::State &state, const Workload &w) {
    M m;
    m.ParseFromString(w.bytes);
    std::string out(w.bytes.size(), '\0');
    for (auto _ : state) {
        size_t n = m.ByteSizeLong(); // measures, as the C encoders do, before writing
        m.SerializeWithCachedSizesToArray(reinterpret_cast<uint8_t *>(out.data()));
        benchmark::DoNotOptimize(n);
    }
    state.SetBytesProcessed(state.iterations() * w.bytes.size());
}
template <class M> void protobuf_c_encode(benchmark::State &state, const Workload &w, const CCodec<M> &c) {
    M *m = c.unpack(nullptr, w.bytes.size(), data_of(w));
    std::string out(w.bytes.size(), '\0');
    for (auto _ : state) {
        size_t n = c.packed_size(m);
        c.pack(m, reinterpret_cast<uint8_t *>(out.data()));
        benchmark::DoNotOptimize(n);
    }
    c.free_unpacked(m, nullptr);
    state.SetBytesProcessed(state.iterations() * w.bytes.size());
}

void tov_decode_request(benchmark::State &s) { tov_decode(s, request_workload(), kRequest); }
void protobuf_decode_request(benchmark::State &s) { protobuf_decode<kesh::tov::request>(s, request_workload()); }
void protobuf_c_decode_request(benchmark::State &s) { protobuf_c_decode(s, request_workload(), kCRequest); }
void tov_decode_response(benchmark::State &s) { tov_decode(s, response_workload(), kResponse); }
void protobuf_decode_response(benchmark::State &s) { protobuf_decode<kesh::tov::response>(s, response_workload()); }
void protobuf_c_decode_response(benchmark::State &s) { protobuf_c_decode(s, response_workload(), kCResponse); }
void tov_encode_request(benchmark::State &s) { tov_encode(s, request_workload(), kRequest); }
void protobuf_encode_request(benchmark::State &s) { protobuf_encode<kesh::tov::request>(s, request_workload()); }
void protobuf_c_encode_request(benchmark::State &s) { protobuf_c_encode(s, request_workload(), kCRequest); }
void tov_encode_response(benchmark::State &s) { tov_encode(s, response_workload(), kResponse); }
void protobuf_encode_response(benchmark::State &s) { protobuf_encode<kesh::tov::response>(s, response_workload()); }
void protobuf_c_encode_response(benchmark::State &s) { protobuf_c_encode(s, response_workload(), kCResponse); }

BENCHMARK(tov_decode_request);
BENCHMARK(protobuf_decode_request);
BENCHMARK(protobuf_c_decode_request);
BENCHMARK(tov_decode_response);
BENCHMARK(protobuf_decode_response);
BENCHMARK(protobuf_c_decode_response);
BENCHMARK(tov_encode_request);
BENCHMARK(protobuf_encode_request);
BENCHMARK(protobuf_c_encode_request);
BENCHMARK(tov_encode_response);
BENCHMARK(protobuf_encode_response);
BENCHMARK(protobuf_c_encode_response);

// Prints the usual table, then each peer's time over this codec's for the same work.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &r : runs) times_[r.benchmark_name()] = r.GetAdjustedCPUTime();
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\nTime relative to this codec (above 1.00: this codec is faster)\n");
        std::printf("%-18s %14s %14s\n", "work", "protobuf C++", "protobuf-c");
        for (const char *work : {"decode_request", "decode_response", "encode_request", "encode_response"}) {
            double ours = times_[std::string("tov_") + work];
            std::printf("%-18s %14.2f %14.2f\n", work, times_[std::string("protobuf_") + work] / ours,
                        times_[std::string("protobuf_c_") + work] / ours);
        }
        std::printf("request %zu bytes, response %zu bytes\n", request_workload().bytes.size(),
                    response_workload().bytes.size());
    }

private:
    std::map<std::string, double> times_;
};

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
