// SPDX-License-Identifier: BSD-3-Clause
// libFuzzer target for every decoder: `fuzz_codec --message=request [libFuzzer flags] [corpus...]`;
// `fuzz_codec --list-messages` names them all.
// Each input is decoded; a decoded record must re-encode, duplicate to a copy that encodes to the
// same bytes, and decode again from those bytes to the same bytes. The same input is then decoded
// and duplicated once more with one allocation failing, which must give -4 and stay releasable.
// All storage comes from a per-input arena, so that what the codec drops on purpose (a repeated
// singular embedded field) is released and leak detection watches everything else.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "codec/public_codecs.hpp"

namespace {

using tov::test::PublicCodec;
using tov::test::Record;

const PublicCodec *g_codec = nullptr;

// Not tov::test::Arena: this one fails a chosen call and traps on a release that is not its own.
class Arena {
public:
    ~Arena() {
        for (void *p : live_) std::free(p);
    }
    static void *alloc(uint32_t size, uintptr_t ctx) {
        auto *self = reinterpret_cast<Arena *>(ctx);
        if (++self->calls_ == self->fail_at_) return nullptr;
        void *p = std::malloc(size ? size : 1);
        if (p) self->live_.insert(p);
        return p;
    }
    static void release(void *p, uintptr_t ctx) {
        auto *self = reinterpret_cast<Arena *>(ctx);
        if (self->live_.erase(p) != 1) __builtin_trap(); // freed twice, or never ours
        std::free(p);
    }
    uintptr_t ctx() { return reinterpret_cast<uintptr_t>(this); }
    uint32_t calls() const { return calls_; }
    void fail_at(uint32_t call) {
        calls_ = 0;
        fail_at_ = call;
    }

private:
    std::unordered_set<void *> live_;
    uint32_t calls_ = 0, fail_at_ = 0;
};

std::vector<uint8_t> encode(const void *record) {
    const uint32_t n = g_codec->encode(record, nullptr, 0, nullptr, nullptr);
    std::vector<uint8_t> out(n);
    if (g_codec->encode(record, out.data(), n, nullptr, nullptr) != n) __builtin_trap();
    return out;
}

void check(bool ok, const char *what) {
    if (!ok) {
        std::fprintf(stderr, "fuzz_codec(%s): %s\n", g_codec->desc->name, what);
        __builtin_trap();
    }
}

// Into half the room: the full length is returned, nothing is written at or past the capacity,
// what is written agrees with the full encoding, and spans count every non-empty encoding with
// the outermost last.
void check_short_capacity(const void *record, const std::vector<uint8_t> &bytes) {
    const uint32_t n = static_cast<uint32_t>(bytes.size()), capacity = n / 2;
    std::vector<uint8_t> out(n + 8, 0xCC);
    TovSpan spans[64];
    uint32_t span_count = 64;
    check(g_codec->encode(record, out.data(), capacity, spans, &span_count) == n, "short buffer: wrong length");
    for (uint32_t i = 0; i < out.size(); ++i)
        check(i < capacity ? out[i] == bytes[i] || out[i] == 0xCC : out[i] == 0xCC, "short buffer: stray byte");
    check((n == 0) == (span_count == 0), "span count of an empty encoding");
    if (n != 0 && span_count <= 64)
        check(spans[span_count - 1].start == out.data() && spans[span_count - 1].length == n, "outermost span");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) {
    std::string_view name;
    for (int i = 1; i < *argc; ++i) {
        std::string_view arg = (*argv)[i];
        if (arg.rfind("--message=", 0) == 0) name = arg.substr(10);
        if (arg == "--list-messages") { // one name a line, for scripts/fuzz.sh
            for (const PublicCodec &c : tov::test::kPublicCodecs) std::printf("%s\n", c.desc->name);
            std::exit(0);
        }
    }
    for (const PublicCodec &c : tov::test::kPublicCodecs)
        if (name == c.desc->name) g_codec = &c;
    if (!g_codec) {
        std::fprintf(stderr, "usage: %s --message=NAME [libFuzzer flags] [corpus...]; NAME from --list-messages\n",
                     (*argv)[0]);
        std::exit(2);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > UINT32_MAX) return 0;
    const uint32_t length = static_cast<uint32_t>(size);
    Arena arena;
    Record first(*g_codec->desc);
    const int32_t rc = g_codec->decode(first.get(), data, length, Arena::alloc, arena.ctx());
    check(rc <= 0 && rc >= -4, "result code out of range");
    const uint32_t decode_calls = arena.calls();
    uint32_t copy_calls = 0;
    if (rc == 0) {
        const std::vector<uint8_t> bytes = encode(first.get());
        Record copy(*g_codec->desc), again(*g_codec->desc);
        arena.fail_at(0);
        check(g_codec->duplicate(copy.get(), first.get(), Arena::alloc, arena.ctx()) == 0, "duplicate failed");
        copy_calls = arena.calls();
        check(encode(copy.get()) == bytes, "the copy encodes differently");
        check(g_codec->decode(again.get(), bytes.data(), static_cast<uint32_t>(bytes.size()), Arena::alloc,
                              arena.ctx()) == 0,
              "an encoding does not decode");
        check(encode(again.get()) == bytes, "encode(decode(encode(x))) differs from encode(x)");
        check_short_capacity(first.get(), bytes);
        g_codec->free(again.get(), Arena::release, arena.ctx());
        g_codec->free(copy.get(), Arena::release, arena.ctx());
    }
    // The same work with one allocation failing, chosen by the input.
    for (const bool copying : {false, true}) {
        const uint32_t calls = copying ? copy_calls : decode_calls;
        if (calls == 0) continue;
        Record failed(*g_codec->desc);
        arena.fail_at(1 + static_cast<uint32_t>(size % calls));
        const int32_t failed_rc = copying ? g_codec->duplicate(failed.get(), first.get(), Arena::alloc, arena.ctx())
                                          : g_codec->decode(failed.get(), data, length, Arena::alloc, arena.ctx());
        check(failed_rc == -4 || (!copying && rc != 0), "a failed allocation did not give -4");
        g_codec->free(failed.get(), Arena::release, arena.ctx());
    }
    g_codec->free(first.get(), Arena::release, arena.ctx());
    return 0;
}
