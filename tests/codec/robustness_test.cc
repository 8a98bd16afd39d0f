// Hostile input and hostile conditions: every allocation failing in turn, trees a million levels
// deep on a small stack, and lengths built to wrap positions around (on i386 above all).
#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>

#include "support/records.hpp"

namespace tov::test {
namespace {

const Label kLabel("codec test: robustness");

int32_t decode_tree(DataTree &t, const Bytes &b, tov_alloc_fn alloc = named_alloc, uintptr_t ctx = kLabel.ctx()) {
    return kesh_tov_datatree_decode_ext(&t, b.data(), static_cast<uint32_t>(b.size()), alloc, ctx, 0);
}
void free_tree(DataTree &t) { kesh_tov_datatree_free_ext(&t, named_free, 0, 0); }

TEST(AllocationFailure, EachPointOfDecodeAndDuplicateFailsCleanly) {
    RecordFiller gen(7, named_alloc, kLabel.ctx());
    DataTree source{};
    Bytes bytes;
    while (bytes.size() < 2000) {
        free_tree(source);
        gen.fill(detail::kDataTree, &source, 6);
        bytes = encode(detail::kDataTree, &source);
    }
    const uint64_t before = kor_named_call_count();
    DataTree t;
    ASSERT_EQ(decode_tree(t, bytes), 0);
    const uint64_t decode_points = kor_named_call_count() - before;
    free_tree(t);
    ASSERT_GT(decode_points, 20u);
    for (uint64_t k = 1; k <= decode_points; ++k) {
        kor_named_fail_nth(k);
        EXPECT_EQ(decode_tree(t, bytes), -4) << "allocation " << k;
        kor_named_fail_nth(0);
        free_tree(t);
    }

    const uint64_t start = kor_named_call_count();
    DataTree copy;
    ASSERT_EQ(kesh_tov_datatree_duplicate(&copy, &source, named_alloc, kLabel.ctx()), 0);
    const uint64_t copy_points = kor_named_call_count() - start;
    free_tree(copy);
    for (uint64_t k = 1; k <= copy_points; ++k) {
        kor_named_fail_nth(k);
        EXPECT_EQ(kesh_tov_datatree_duplicate(&copy, &source, named_alloc, kLabel.ctx()), -4) << "allocation " << k;
        kor_named_fail_nth(0);
        // What could be copied is a sound record: it encodes to bytes that decode again.
        const Bytes partial = encode(detail::kDataTree, &copy);
        EXPECT_LE(partial.size(), bytes.size());
        DataTree again;
        EXPECT_EQ(decode_tree(again, partial), 0);
        free_tree(again);
        free_tree(copy);
    }
    free_tree(source);
    EXPECT_EQ(kLabel.live(), 0u);
}

// Runs `body` in a thread whose stack is only 256 KiB.
void on_small_stack(std::function<void()> body) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, 256 * 1024), 0);
    pthread_t thread;
    auto run = [](void *arg) -> void * {
        (*static_cast<std::function<void()> *>(arg))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attr, run, &body), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
}

TEST(Depth, AMillionLevelsOnA256KiBStack) {
    constexpr uint32_t kDepth = 1000000;
    // A chain built by hand: each level numbers itself and holds one child.
    DataTree root{};
    DataTree *node = &root;
    for (uint32_t level = 0; level < kDepth; ++level) {
        node->aux_number_4 = level;
        tov_bit_set(node->present, TOV_DATATREE_BIT_AUX_NUMBER_4);
        if (level + 1 == kDepth) break;
        node->children = static_cast<DataTree *>(named_alloc(sizeof(DataTree), kLabel.ctx()));
        std::memset(node->children, 0, sizeof(DataTree));
        node->children_count = 1;
        tov_bit_set(node->present, TOV_DATATREE_BIT_CHILDREN);
        node = node->children;
    }
    on_small_stack([&] {
        const uint32_t n = kesh_tov_datatree_encode_ext(&root, nullptr, 0, nullptr, nullptr, 0);
        Bytes bytes(n);
        ASSERT_EQ(kesh_tov_datatree_encode_ext(&root, bytes.data(), n, nullptr, nullptr, 0), n);
        DataTree decoded, copy;
        ASSERT_EQ(decode_tree(decoded, bytes), 0);
        ASSERT_EQ(kesh_tov_datatree_duplicate(&copy, &decoded, named_alloc, kLabel.ctx()), 0);
        const DataTree *deepest = &copy;
        uint32_t levels = 1;
        while (deepest->children_count == 1) {
            deepest = deepest->children;
            ++levels;
        }
        EXPECT_EQ(levels, kDepth);
        EXPECT_EQ(deepest->aux_number_4, kDepth - 1);
        EXPECT_EQ(encode(detail::kDataTree, &copy), bytes);
        free_tree(decoded);
        free_tree(copy);
        free_tree(root);
    });
    EXPECT_EQ(kLabel.live(), 0u);
}

TEST(HostileSizes, LengthsThatWouldWrapOrOverrun) {
    struct Case {
        const char *what;
        Bytes in;
        int32_t rc;
    } cases[] = {
        {"string of length 0xFFFFFFFF", {0x0A, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 'a'}, -1},
        {"child of length 0xFFFFFFFF", {0x3A, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 0x00}, -1},
        {"node_info of length 0xFFFFFFF0", {0x4A, 0xF0, 0xFF, 0xFF, 0xFF, 0x0F, 0x00}, -1},
        {"item of length 0xFFFFFFFA", {0x4A, 0x06, 0x1A, 0xFA, 0xFF, 0xFF, 0xFF, 0x0F}, -1},
        {"second element wraps", {0x3A, 0x00, 0x3A, 0xFE, 0xFF, 0xFF, 0xFF, 0x0F}, -1},
        {"unknown skip of 0xFFFFFFFF ends the message", {0x20, 0x01, 0x72, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 0x20}, 0},
        {"unknown skip that would wrap", {0x72, 0xFB, 0xFF, 0xFF, 0xFF, 0x0F, 0x0A, 0x01}, 0},
        {"over-long length varint", {0x0A, 0x81, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00, 'a'}, 0},
    };
    for (const auto &c : cases) {
        DataTree t;
        EXPECT_EQ(decode_tree(t, c.in), c.rc) << c.what;
        free_tree(t);
    }
    EXPECT_EQ(kLabel.live(), 0u);
}

TEST(HostileSizes, ARunTooLongToSizeIsRefusedBeforeAllocating) {
    // Enough empty children that count x record size exceeds 32 bits: two bytes each.
    const uint64_t count = UINT32_MAX / sizeof(DataTree) + 1;
    Bytes run(count * 2);
    for (uint64_t i = 0; i < count; ++i) {
        run[2 * i] = 0x3A;
        run[2 * i + 1] = 0x00;
    }
    struct Counting {
        static void *alloc(uint32_t size, uintptr_t ctx) {
            ++*reinterpret_cast<uint32_t *>(ctx);
            return named_alloc(size, kLabel.ctx());
        }
    };
    uint32_t calls = 0;
    DataTree t;
    EXPECT_EQ(decode_tree(t, run, Counting::alloc, reinterpret_cast<uintptr_t>(&calls)), -4);
    EXPECT_EQ(calls, 0u);
    free_tree(t);
}

} // namespace
} // namespace tov::test
