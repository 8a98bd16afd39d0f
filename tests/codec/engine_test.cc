// SPDX-License-Identifier: BSD-3-Clause
// The behaviours a table-driven engine could get wrong: varints, one-run repeated fields, the result
// codes (hostile lengths among them), release, truncation, short room, spans, a record changed
// between measuring and writing, duplication past a failure; then the few wire details particular
// to a message; then hostile conditions: every allocation failing in turn, trees a million levels
// deep on a small stack, a run too long to size, and no heap calls below a thousand levels. Every message
// round trips through the corpus, the interop and the fuzz tests.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <vector>

#include "support/records.hpp"

// Counts the calling thread's calls to the C heap, so a test can show that a codec operation
// makes none (not with the sanitizers, whose allocator must not be bypassed).
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TOV_HEAP_SHIM 0
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define TOV_HEAP_SHIM 0
#endif
#ifndef TOV_HEAP_SHIM
#define TOV_HEAP_SHIM 1
namespace {
thread_local bool t_counting = false;
thread_local uint64_t t_heap_calls = 0;
} // namespace
extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);
extern "C" void *malloc(size_t n) {
    t_heap_calls += t_counting;
    return __libc_malloc(n);
}
extern "C" void *calloc(size_t n, size_t size) {
    t_heap_calls += t_counting;
    return __libc_calloc(n, size);
}
extern "C" void *realloc(void *p, size_t n) {
    t_heap_calls += t_counting;
    return __libc_realloc(p, n);
}
#endif

namespace tov::test {
namespace {

using detail::kDataTree;

const Label kLabel("codec test: engine");

int32_t decode_tree(DataTree &t, const Bytes &b) {
    return kesh_tov_datatree_decode_ext(&t, b.data(), static_cast<uint32_t>(b.size()), named_alloc, kLabel.ctx(), 0);
}
void free_tree(DataTree &t) { kesh_tov_datatree_free_ext(&t, named_free, 0, 0); }

// Varints, result codes, repeat rules and hostile lengths, as datatree inputs. `number` is the
// aux_number_4 (field 4) expected afterwards, failed or not; rows without an allocator show that
// only storage needs one.
TEST(Decode, ResultCodesAndRepeatRules) {
    struct Case {
        const char *what;
        Bytes in;
        int32_t rc;
        int64_t number = -1;
        bool no_alloc = false;
    } cases[] = {
        {"empty buffer", {}, 0},
        {"two-byte varint", {0x20, 0xAC, 0x02}, 0, 300},
        {"largest varint", {0x20, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F}, 0, 0xFFFFFFFF},
        {"only the low four bits of byte 5", {0x20, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}, 0, 0xFFFFFFFF},
        {"ten bytes, low 32 bits", {0x20, 0x81, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}, 0, 1},
        {"varint ends without a final byte", {0x20, 0x80, 0x80}, -1},
        {"varint runs off while skipping", {0x20, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, -1},
        {"varint twice: the last wins", {0x20, 0x01, 0x20, 0x96, 0x01}, 0, 150},
        {"string twice", {0x0A, 0x01, 'a', 0x0A, 0x01, 'b'}, -1},
        {"two runs of children", {0x3A, 0x00, 0x20, 0x01, 0x3A, 0x00}, -1},
        {"two runs of attributes", {0x32, 0x00, 0x3A, 0x00, 0x32, 0x00}, -1},
        {"group start, unknown field", {0xA0 | 0x03, 0x01}, -2},
        {"wire type 4", {0x74}, -2},
        {"wire types 6 and 7", {0x76}, -2},
        {"known field, wrong wire type", {0x08, 0x01}, -3},
        {"varint field as length-delimited", {0x22, 0x00}, -3},
        {"child run continues with wrong wire type", {0x3A, 0x00, 0x38, 0x00}, -3},
        {"fixed32 unknown at the very end", {0x0A, 0x00, 0x75, 0x01, 0x02}, 0},
        {"fixed64 unknown running past the end", {0x71, 0x01}, 0},
        {"unknown length runs past the end", {0x72, 0x7F, 0x01}, 0},
        {"unknown varint truncated", {0x70, 0x80}, -1},
        {"key truncated at the end", {0x20, 0x01, 0x80}, -1},
        {"string length past the end", {0x0A, 0x05, 'a'}, -1},
        {"child length past the end", {0x3A, 0x02, 0x08}, -1},
        {"next key of a run truncated", {0x3A, 0x00, 0xBA}, -1},
        {"failure inside a child comes out unchanged", {0x3A, 0x02, 0x73, 0x00}, -2},
        {"failure inside node_info keeps what came before", {0x20, 0x05, 0x4A, 0x02, 0x10, 0x80}, -1, 5},
        {"node_info twice: the last one is kept", {0x4A, 0x02, 0x10, 0x01, 0x4A, 0x02, 0x10, 0x02}, 0},
        {"field number 0 is unknown", {0x00, 0x05}, 0},
        {"field number past the table", {0xF8, 0xFF, 0xFF, 0xFF, 0x0F, 0x01}, 0},
        // Lengths built to wrap positions around (on i386 above all).
        {"string of length 0xFFFFFFFF", {0x0A, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 'a'}, -1},
        {"child of length 0xFFFFFFFF", {0x3A, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 0x00}, -1},
        {"node_info of length 0xFFFFFFF0", {0x4A, 0xF0, 0xFF, 0xFF, 0xFF, 0x0F, 0x00}, -1},
        {"item of length 0xFFFFFFFA", {0x4A, 0x06, 0x1A, 0xFA, 0xFF, 0xFF, 0xFF, 0x0F}, -1},
        {"second element wraps", {0x3A, 0x00, 0x3A, 0xFE, 0xFF, 0xFF, 0xFF, 0x0F}, -1},
        {"unknown skip of 0xFFFFFFFF ends the message", {0x20, 0x01, 0x72, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 0x20}, 0},
        {"unknown skip that would wrap", {0x72, 0xFB, 0xFF, 0xFF, 0xFF, 0x0F, 0x0A, 0x01}, 0},
        {"over-long length varint", {0x0A, 0x81, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00, 'a'}, 0},
        {"numbers need no allocator", {0x20, 0x01, 0x40, 0x02}, 0, 1, true},
        {"a string does, and what came before stays", {0x20, 0x01, 0x0A, 0x01, 'a'}, -4, 1, true},
        {"so does a child", {0x3A, 0x00}, -4, -1, true},
    };
    for (const auto &c : cases) {
        DataTree t;
        EXPECT_EQ(kesh_tov_datatree_decode_ext(&t, c.in.data(), static_cast<uint32_t>(c.in.size()),
                                               c.no_alloc ? nullptr : named_alloc, kLabel.ctx(), 0),
                  c.rc)
            << c.what;
        if (c.number >= 0) {
            EXPECT_EQ(int64_t{t.aux_number_4}, c.number) << c.what;
        }
        free_tree(t);
        free_tree(t); // a release clears what it frees: a second one finds nothing
        kesh_tov_datatree_free_ext(&t, nullptr, 0, 0);
    }
    EXPECT_EQ(kLabel.live(), 0u);
    DataTree t;
    EXPECT_EQ(decode_tree(t, {0x20, 0x05, 0x4A, 0x02, 0x10, 0x80}), -1);
    EXPECT_FALSE(tov_bit_is_set(t.present, TOV_DATATREE_BIT_NODE_INFO)) << "a failed node_info is not present";
    const Bytes numbers = {0x20, 0x01};
    EXPECT_EQ(kesh_tov_datatree_decode_ext(nullptr, numbers.data(), 2, nullptr, 0, 0), -1);
    EXPECT_EQ(kesh_tov_datatree_decode_ext(&t, nullptr, 2, nullptr, 0, 0), -1);
    // A second node_info starts afresh: its text is no second string, and the first one's fields
    // are gone (dropped, not freed, hence the arena).
    Arena arena;
    const Bytes twice = {0x4A, 0x05, 0x0A, 0x01, 'a', 0x10, 0x01, 0x4A, 0x03, 0x0A, 0x01, 'b'};
    ASSERT_EQ(kesh_tov_datatree_decode_ext(&t, twice.data(), 12, Arena::alloc, arena.ctx(), 0), 0);
    EXPECT_STREQ(t.node_info.text, "b");
    EXPECT_FALSE(tov_bit_is_set(t.node_info.present, TOV_NODE_INFO_BIT_NUMBER));
    EXPECT_TRUE(tov_bit_is_set(t.present, TOV_DATATREE_BIT_NODE_INFO));
}

// Short of room, a string is written whole or not at all. (That nothing lands at or past the
// capacity, for every message, is the fuzz targets' check; the presence rules, the interop test's
// on records whose presence and content disagree.)
TEST(Encode, AStringShortOfRoomIsWrittenWholeOrNotAtAll) {
    DataTree t{};
    t.name = text("abc");
    tov_bit_set(t.present, TOV_DATATREE_BIT_NAME);
    Bytes out(5, 0xCC);
    EXPECT_EQ(kesh_tov_datatree_encode_ext(&t, out.data(), 4, nullptr, nullptr, 0), 5u);
    EXPECT_EQ(out, (Bytes{0x0A, 0x03, 0xCC, 0xCC, 0xCC}));
}

// A tree that exercises every kind, built once for the tests below.
class RichTree : public ::testing::Test {
protected:
    void SetUp() override {
        RecordFiller gen(20261122, named_alloc, kLabel.ctx());
        do {
            free_tree(tree);
            gen.fill(kDataTree, &tree, 5);
            bytes = encode(kDataTree, &tree);
        } while (bytes.size() < 400);
    }
    void TearDown() override {
        free_tree(tree);
        EXPECT_EQ(kLabel.live(), 0u);
    }
    DataTree tree{};
    Bytes bytes;
};

TEST_F(RichTree, TruncationAtEveryOffsetFailsExceptAtFieldBoundaries) {
    std::set<uint32_t> boundaries;
    for (uint32_t pos = 0; pos < bytes.size();) {
        boundaries.insert(pos);
        uint32_t key = 0, n = 0;
        ASSERT_EQ(protoc99_decode_var32(&key, &pos, bytes.data(), static_cast<uint32_t>(bytes.size())), 0);
        ASSERT_EQ(protoc99_decode_var32(&n, &pos, bytes.data(), static_cast<uint32_t>(bytes.size())), 0);
        if ((key & 7) == 2) pos += n;
    }
    for (uint32_t cut = 0; cut < bytes.size(); ++cut) {
        Bytes prefix(bytes.begin(), bytes.begin() + cut);
        DataTree t;
        int32_t rc = decode_tree(t, prefix);
        if (boundaries.count(cut)) {
            EXPECT_EQ(rc, 0) << cut;
            EXPECT_EQ(encode(kDataTree, &t), prefix) << cut;
        } else {
            EXPECT_EQ(rc, -1) << cut;
        }
        free_tree(t);
    }
}

TEST(Spans, InnermostFirstOnePerNonEmptyEncoding) {
    // 3A 05 [3A 03 [0A 01 67]] 3A 00 3A 03 [12 01 76]: the empty middle child has no span.
    const Bytes bytes = {0x3A, 0x05, 0x3A, 0x03, 0x0A, 0x01, 'g', 0x3A, 0x00, 0x3A, 0x03, 0x12, 0x01, 'v'};
    Arena arena;
    DataTree root;
    ASSERT_EQ(kesh_tov_datatree_decode_ext(&root, bytes.data(), 14, Arena::alloc, arena.ctx(), 0), 0);
    Bytes out(bytes.size());
    TovSpan spans[8];
    uint32_t count = 8;
    ASSERT_EQ(kesh_tov_datatree_encode_ext(&root, out.data(), 14, spans, &count, 0), 14u);
    EXPECT_EQ(out, bytes);
    ASSERT_EQ(count, 4u);
    const std::pair<uint32_t, uint32_t> want[] = {{4, 3}, {2, 5}, {11, 3}, {0, 14}};
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(spans[i].start == out.data() + want[i].first && spans[i].length == want[i].second) << i;
    // No room: nothing written, the count says what was needed; partial room fills the front.
    TovSpan few[2] = {{nullptr, 99}, {nullptr, 99}};
    count = 0;
    kesh_tov_datatree_encode_ext(&root, out.data(), 14, few, &count, 0);
    EXPECT_TRUE(count == 4 && few[0].length == 99);
    count = 2;
    kesh_tov_datatree_encode_ext(&root, out.data(), 14, few, &count, 0);
    EXPECT_TRUE(count == 4 && few[1].length == 5);
    // Measuring: nested encodings start past the capacity, so their spans carry no pointer.
    count = 8;
    kesh_tov_datatree_encode_ext(&root, nullptr, 0, spans, &count, 0);
    EXPECT_TRUE(spans[0].start == nullptr && spans[0].length == 3);
    // An empty message claims no span.
    DataTree empty{};
    count = 8;
    EXPECT_EQ(kesh_tov_datatree_encode_ext(&empty, out.data(), 14, spans, &count, 0), 0u);
    EXPECT_EQ(count, 0u);
}

// A writing call whose capacity is the length this thread just measured for the same record starts
// from that measurement; a record changed in between must be written as it is now, as a copy at
// another address (which cannot reuse the measurement) writes it, spans included.
TEST(Encode, ARecordChangedBetweenMeasuringAndWritingIsWrittenAsItIsNow) {
    DataTree kids[2]{}, root{};
    kids[1].name = text("mtu");
    tov_bit_set(kids[1].present, TOV_DATATREE_BIT_NAME);
    tov_bit_set(kids[1].present, TOV_DATATREE_BIT_VALUE);
    root.children = kids, root.children_count = 2;
    tov_bit_set(root.present, TOV_DATATREE_BIT_CHILDREN);
    struct Written {
        uint32_t n, count = 4;
        Bytes bytes;
        std::vector<std::pair<long, uint32_t>> spans; // offset (-1: none), length
    };
    auto measure = [](const DataTree &t) { return kesh_tov_datatree_encode_ext(&t, nullptr, 0, nullptr, nullptr, 0); };
    auto write = [](const DataTree &t, uint32_t capacity, uint8_t fill) { // over `fill`, with 8 bytes more
        Written w{0, 4, Bytes(capacity + 8, fill), {}};
        TovSpan spans[4];
        w.n = kesh_tov_datatree_encode_ext(&t, w.bytes.data(), capacity, spans, &w.count, 0);
        for (uint32_t i = 0; i < std::min(w.count, 4u); ++i)
            w.spans.emplace_back(spans[i].start ? spans[i].start - w.bytes.data() : -1, spans[i].length);
        return w;
    };
    // The value written after measuring: the same length, shorter, longer; and last, an empty first
    // child that gains two bytes while the value loses two, so that only the span count differs.
    for (const char *now : {"9000", "", "65535 bytes", "15"}) {
        SCOPED_TRACE(now);
        auto set = [&](bool changed) {
            kids[1].value = text(changed ? now : "1500");
            (changed && !std::strcmp(now, "15") ? tov_bit_set : tov_bit_clear)(kids[0].present, TOV_DATATREE_BIT_OPERATION);
        };
        set(false);
        const uint32_t measured = measure(root);
        set(true);
        const DataTree copy = root; // two fillings tell which bytes a short capacity leaves alone
        const Written want = write(copy, measured, 0x11), alone = write(copy, measured, 0x22);
        set(false);
        ASSERT_EQ(measure(root), measured); // the root's measurement is the last one again
        set(true);
        const Written got = write(root, measured, 0x11);
        EXPECT_TRUE(got.n == want.n && got.count == want.count && got.spans == want.spans);
        for (uint32_t i = 0; i < got.bytes.size(); ++i)
            EXPECT_TRUE(got.bytes[i] == want.bytes[i] || (i < measured && want.bytes[i] != alone.bytes[i])) << i;
    }
}

// What a message's own rows settle: a boolean kept as 0 or 1; edit_config's field order (1, 2,
// 4, 3, 5; protobuf reads it all the same); node_info's duplicate, which keeps a NULL item NULL and,
// when one field's allocation fails, leaves that field absent, copies the rest and gives -4.
// Defaults are the interop test's, against the schema.
TEST(Messages, BooleansEditConfigFieldOrderAndNodeInfoDuplicate) {
    Commit commit;
    const Bytes two = {0x08, 0x02};
    ASSERT_EQ(kesh_tov_commit_decode_ext(&commit, two.data(), 2, nullptr, 0), 0);
    EXPECT_EQ(commit.confirmed, 1);
    EXPECT_EQ(encode(detail::kCommit, &commit), (Bytes{0x08, 0x01}));
    EditConfig ec{};
    ec.option_2 = 1;
    ec.option_3 = 3;
    ec.option_4 = 4;
    for (unsigned b : {TOV_EDIT_CONFIG_BIT_OPTION_2, TOV_EDIT_CONFIG_BIT_OPTION_3, TOV_EDIT_CONFIG_BIT_OPTION_4})
        tov_bit_set(ec.present, b);
    EXPECT_EQ(encode(detail::kEditConfig, &ec), (Bytes{0x10, 0x01, 0x20, 0x04, 0x18, 0x03}));
    NodeInfo ni{}, c;
    char *items[] = {text("a"), nullptr, text("c")};
    ni.text = text("t"), ni.number = 9, ni.items = items, ni.items_count = 3;
    for (unsigned b : {TOV_NODE_INFO_BIT_TEXT, TOV_NODE_INFO_BIT_NUMBER, TOV_NODE_INFO_BIT_ITEMS}) tov_bit_set(ni.present, b);
    kor_named_fail_nth(1); // the text
    EXPECT_EQ(kesh_tov_node_info_duplicate(&c, &ni, named_alloc, kLabel.ctx()), -4);
    kor_named_fail_nth(0);
    EXPECT_TRUE(c.text == nullptr && !tov_bit_is_set(c.present, TOV_NODE_INFO_BIT_TEXT) && c.number == 9);
    EXPECT_TRUE(c.items_count == 3 && !std::strcmp(c.items[0], "a") && !c.items[1] && !std::strcmp(c.items[2], "c"));
    kesh_tov_node_info_free_ext(&c, named_free, 0);
    EXPECT_EQ(kLabel.live(), 0u);
}

TEST(AllocationFailure, EachPointOfDecodeAndDuplicateFailsCleanlyOnceOrFromThereOn) {
    RecordFiller gen(7, named_alloc, kLabel.ctx());
    DataTree source{};
    Bytes bytes;
    while (bytes.size() < 2000) {
        free_tree(source);
        gen.fill(detail::kDataTree, &source, 6);
        bytes = encode(detail::kDataTree, &source);
    }
    auto decode_once = [&]() -> int64_t {
        DataTree t;
        const int32_t rc = decode_tree(t, bytes);
        free_tree(t);
        return rc;
    };
    auto copy_once = [&]() -> int64_t {
        DataTree copy, again;
        const int32_t rc = kesh_tov_datatree_duplicate(&copy, &source, named_alloc, kLabel.ctx());
        // What could be copied is a sound record: its bytes decode again (into an arena, out of
        // the failures' reach).
        const Bytes partial = encode(detail::kDataTree, &copy);
        free_tree(copy);
        Arena arena;
        EXPECT_LE(partial.size(), bytes.size());
        EXPECT_EQ(kesh_tov_datatree_decode_ext(&again, partial.data(), static_cast<uint32_t>(partial.size()),
                                               Arena::alloc, arena.ctx(), 0),
                  0);
        return rc;
    };
    EXPECT_GT(allocation_points(Sweep{decode_once, 0, -4}), 20u);
    EXPECT_GT(allocation_points(Sweep{copy_once, 0, -4}), 20u);
    free_tree(source);
    EXPECT_EQ(kLabel.live(), 0u);
}

// A chain built by hand, `depth` levels each numbering itself and holding one child from
// `alloc`; returns the last level.
DataTree *chain(DataTree &root, uint32_t depth, tov_alloc_fn alloc, uintptr_t ctx) {
    DataTree *node = &root;
    for (uint32_t level = 0;; ++level, node = node->children) {
        node->aux_number_4 = level;
        tov_bit_set(node->present, TOV_DATATREE_BIT_AUX_NUMBER_4);
        if (level + 1 == depth) return node;
        node->children = static_cast<DataTree *>(alloc(sizeof(DataTree), ctx));
        std::memset(node->children, 0, sizeof(DataTree));
        node->children_count = 1;
        tov_bit_set(node->present, TOV_DATATREE_BIT_CHILDREN);
    }
}

TEST(Depth, AMillionLevelsOnA256KiBStack) {
    constexpr uint32_t kDepth = 1000000;
    DataTree root{};
    chain(root, kDepth, named_alloc, kLabel.ctx());
    on_small_stack([&] {
        const uint32_t n = kesh_tov_datatree_encode_ext(&root, nullptr, 0, nullptr, nullptr, 0);
        Bytes bytes(n);
        ASSERT_EQ(kesh_tov_datatree_encode_ext(&root, bytes.data(), n, nullptr, nullptr, 0), n);
        DataTree decoded, copy;
        ASSERT_EQ(decode_tree(decoded, bytes), 0);
        ASSERT_EQ(kesh_tov_datatree_duplicate(&copy, &decoded, named_alloc, kLabel.ctx()), 0);
        EXPECT_EQ(encode(detail::kDataTree, &copy), bytes) << "every level, numbered, came through";
        free_tree(decoded);
        free_tree(copy);
        free_tree(root);
    });
    EXPECT_EQ(kLabel.live(), 0u);
}

TEST(HostileSizes, ARunTooLongToSizeIsRefusedBeforeAllocating) {
    // Enough empty children that count x record size exceeds 32 bits: two bytes each.
    const uint64_t count = UINT32_MAX / sizeof(DataTree) + 1;
    Bytes run(count * 2, 0x00);
    for (uint64_t i = 0; i < count; ++i) run[2 * i] = 0x3A;
    const uint64_t before = kLabel.total();
    DataTree t;
    EXPECT_EQ(decode_tree(t, run), -4);
    EXPECT_EQ(kLabel.total(), before);
    free_tree(t);
}

#if TOV_HEAP_SHIM
// Blocks from a fixed region and a release that does nothing: the callbacks touch no heap either.
std::vector<std::max_align_t> g_region(8u << 20 >> 4);
size_t g_used = 0;
void *region_alloc(uint32_t size, uintptr_t) {
    void *p = reinterpret_cast<char *>(g_region.data()) + g_used;
    g_used += (size_t{size} + 15) & ~size_t{15};
    return g_used <= g_region.size() * sizeof(std::max_align_t) ? p : nullptr;
}
void region_free(void *, uintptr_t) {}

// Heap calls made by every codec operation on a request whose configuration is a chain `depth`
// levels deep with a wide last level.
uint64_t heap_calls_of_every_operation(uint32_t depth) {
    g_used = 0;
    Request request{};
    request.operation = TOV_OP_EDIT_CONFIG;
    tov_bit_set(request.present, TOV_REQUEST_BIT_EDIT_CONFIG);
    tov_bit_set(request.edit_config.present, TOV_EDIT_CONFIG_BIT_CONFIG);
    DataTree *node = chain(request.edit_config.config, depth, region_alloc, 0);
    node->children_count = 500;
    node->children = static_cast<DataTree *>(region_alloc(500 * sizeof(DataTree), 0));
    std::memset(node->children, 0, 500 * sizeof(DataTree));
    tov_bit_set(node->present, TOV_DATATREE_BIT_CHILDREN);
    for (uint32_t i = 0; i < 500; ++i) {
        DataTree &leaf = node->children[i];
        leaf.value = text("leaf");
        leaf.insert.attribute.name = text("key");
        tov_bit_set(leaf.present, TOV_DATATREE_BIT_VALUE);
        tov_bit_set(leaf.insert.attribute.present, TOV_ATTRIBUTE_BIT_NAME);
    }
    const uint32_t n = kesh_tov_request_encode_ext(&request, nullptr, 0, nullptr, nullptr, 0);
    Bytes bytes(n);
    std::vector<TovSpan> spans(600);
    Request decoded, copy;

    t_heap_calls = 0;
    t_counting = true;
    kesh_tov_request_encode_ext(&request, nullptr, 0, nullptr, nullptr, 0);
    kesh_tov_request_encode_ext(&request, bytes.data(), n, nullptr, nullptr, 0);
    kesh_tov_request_encode_ext(&request, bytes.data(), n / 2, nullptr, nullptr, 0);
    uint32_t span_count = static_cast<uint32_t>(spans.size());
    kesh_tov_request_encode_ext(&request, bytes.data(), n, spans.data(), &span_count, 0);
    const int32_t decoded_rc = kesh_tov_request_decode_ext(&decoded, bytes.data(), n, region_alloc, 0, 0);
    const int32_t copied_rc = kesh_tov_request_duplicate(&copy, &decoded, region_alloc, 0);
    kesh_tov_request_free_ext(&copy, region_free, 0, 0);
    kesh_tov_request_free_ext(&decoded, region_free, 0, 0);
    t_counting = false;
    EXPECT_EQ(decoded_rc, 0);
    EXPECT_EQ(copied_rc, 0);
    EXPECT_EQ(span_count, 2 + depth + 3 * 500); // the leaves carry insert and its attribute
    return t_heap_calls;
}

TEST(Depth, NoHeapCallsUpToAThousandLevelsWhateverTheWidth) {
    EXPECT_EQ(heap_calls_of_every_operation(1000), 0u);
    EXPECT_GT(heap_calls_of_every_operation(2000), 0u) << "the count sees working memory past that depth";
}
#endif

} // namespace
} // namespace tov::test
