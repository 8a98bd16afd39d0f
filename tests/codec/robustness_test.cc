// SPDX-License-Identifier: BSD-3-Clause
// Hostile conditions: every allocation failing in turn, trees a million levels deep on a small
// stack, a run too long to size, and no heap calls below 256 levels. Hostile lengths are rows of
// the engine test's table of result codes.
#include <gtest/gtest.h>

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

const Label kLabel("codec test: robustness");

int32_t decode_tree(DataTree &t, const Bytes &b) {
    return kesh_tov_datatree_decode_ext(&t, b.data(), static_cast<uint32_t>(b.size()), named_alloc, kLabel.ctx(), 0);
}
void free_tree(DataTree &t) { kesh_tov_datatree_free_ext(&t, named_free, 0, 0); }

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

TEST(Depth, NoHeapCallsUpTo256LevelsWhateverTheWidth) {
    EXPECT_EQ(heap_calls_of_every_operation(256), 0u);
    EXPECT_GT(heap_calls_of_every_operation(2000), 0u) << "the count sees working memory past that depth";
}
#endif

} // namespace
} // namespace tov::test
