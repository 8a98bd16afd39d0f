// The trace printers, read back from the ring record by record; the codec allocator pair and the
// data-tree arrays with their labels and their failure line.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>

#include "debug/gpb_internal.hpp"
#include "debug/test_support.hpp"
#include "tov/kor_alloc.h"
#include "tov/result.h"

namespace {

using tov::test::ptr;
using Records = std::vector<std::string>;

// A node filled by hand; its strings are literals, never freed.
struct Node {
    DataTree t{};
    explicit Node(const char *name) { set(t.name, name, TOV_DATATREE_BIT_NAME); }
    Node &value(const char *v) { return set(t.value, v, TOV_DATATREE_BIT_VALUE); }
    Node &qualifier(const char *q) { return set(t.qualifier, q, TOV_DATATREE_BIT_QUALIFIER); }
    Node &op(uint32_t o) { return t.operation = o, bit(TOV_DATATREE_BIT_OPERATION); }
    Node &attrs(Attribute *a, uint32_t n) { return t.attributes = a, t.attributes_count = n, bit(TOV_DATATREE_BIT_ATTRIBUTES); }
    Node &kids(DataTree *c, uint32_t n, bool present = true) {
        t.children = c, t.children_count = n;
        return present ? bit(TOV_DATATREE_BIT_CHILDREN) : *this;
    }
    Node &unnamed() { return tov_bit_clear(t.present, TOV_DATATREE_BIT_NAME), *this; }
    Node &set(char *&member, const char *s, unsigned b) { return member = const_cast<char *>(s), bit(b); }
    Node &bit(unsigned b) { return tov_bit_set(t.present, b), *this; }
};

class Printers : public ::testing::Test {
  protected:
    void SetUp() override {
        tov_debug_save_agent_name("gpb");
        ASSERT_EQ(tov_debug_init(&fw.debug, "GPB", TOV_COMPONENT_TOV, nullptr), TOV_RC_OK);
        tail = std::make_unique<tov::test::RingTail>(dir.file("gpb-tov/processor.trace"));
        tail->take();
        capture.take();
    }
    void TearDown() override {
        trace_buffer_close(fw.debug.trace_handle);
        EXPECT_EQ(tov_debug_cleanup(&fw.debug), TOV_RC_OK);
    }
    tov::test::RingDir dir;
    tov::test::Capture capture;
    FrameworkContext fw{};
    std::unique_ptr<tov::test::RingTail> tail;
};

TEST_F(Printers, TreesBecomeIndentedLinesBatchedIntoRecords) {
    Attribute xy{const_cast<char *>("x"), const_cast<char *>("y"), {3}};
    DataTree grandchild = Node("g").value("3").t;
    const std::string long_name(1100, 'n'), line50(41, 'c'); // 8 + 41 + 1 = 50 bytes a line
    const std::string l50 = std::string(8, ' ') + line50 + "\n";
    DataTree ten[10];
    for (DataTree &d : ten) d = Node(line50.c_str()).t;
    struct Case {
        const char *what;
        std::vector<DataTree> children;
        std::function<void(Node &)> root;
        const char *title;
        Records records;
        bool open = true;
    } cases[] = {
        {"unnamed root prints only the title", {Node("b").t}, [](Node &r) { r.unnamed(); }, "T", {"T:\n"}},
        {"root with qualifier and value, child with value, delete and attribute",
         {Node("b").value("2").op(3).attrs(&xy, 1).t}, [](Node &r) { r.qualifier("m").value("1"); }, "T",
         {"T:\n    a (m) : 1\n        b : 2 (delete) x=y\n"}},
        {"operation past the table; qualifier without value; no title", {Node("b").op(7).t},
         [](Node &r) { r.qualifier("m"); }, nullptr, {"    a (m)\n        b (-)\n"}},
        {"grandchildren twelve spaces in; children without their bit are not walked",
         {Node("b").kids(&grandchild, 1).t, Node("c").kids(&grandchild, 1, false).t},
         [](Node &r) { tov_bit_clear(r.t.present, TOV_DATATREE_BIT_CHILDREN); }, nullptr,
         {"    a\n        b\n            g : 3\n        c\n"}},
        {"an over-long line is cut, marked and written at once", {Node(long_name.c_str()).value("v").t},
         [](Node &) {}, nullptr,
         {"    a\n" + std::string(8, ' ') + std::string(1009 - 14, 'n') + "[TRUNCATED...]"}},
        {"50-byte lines go out once 160 bytes wait, the rest at the end", {std::begin(ten), std::end(ten)},
         [](Node &) {}, nullptr, {"    a\n" + l50 + l50 + l50 + l50, l50 + l50 + l50 + l50, l50 + l50}},
        {"a closed ring gets nothing", {Node("b").t}, [](Node &) {}, "T", {}, false},
    };
    for (Case &c : cases) {
        SCOPED_TRACE(c.what);
        Node root("a");
        root.kids(c.children.data(), static_cast<uint32_t>(c.children.size()));
        c.root(root);
        fw.debug.trace_open = c.open;
        EXPECT_EQ(tov_gpb_datatree_trace_internal(&fw.debug, &root.t, c.title), 0u);
        EXPECT_EQ(tail->take(), c.records);
    }
    fw.debug.trace_open = 1;
    Node root("a");
    root.kids(&grandchild, 1);
    EXPECT_EQ(tov::detail::print_tree(&fw.debug, &root.t, nullptr, tov::detail::ChildMode::Qualified), 0u);
    EXPECT_EQ(tail->take(), Records{"    a\n        g () : 3\n"});
    EXPECT_EQ(tov_gpb_datatree_trace_internal(nullptr, &root.t, "T"), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(tov_gpb_datatree_trace_internal(&fw.debug, nullptr, "T"), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(tail->take(), Records{});
}

TEST_F(Printers, SchemaListsOneLinePerSchemaAndAlwaysAFinalRecord) {
    Schema s[2] = {};
    s[0] = {const_cast<char *>("t1"), const_cast<char *>("t2"), const_cast<char *>("t3"), 1,
            const_cast<char *>("t5"), nullptr, 0, {0x1F}};
    s[1].text_1 = const_cast<char *>("absent"); // no presence bits: empty texts, flag 0
    s[1].flag_4 = 1;
    EXPECT_EQ(tov_gpb_schemas_trace_internal(&fw.debug, s, 2, "S"), 0u);
    EXPECT_EQ(tail->take(), Records{"S:\n    [0]: t2, t1, t5, t3, 1\n    [1]: , , , , 0\n"});
    EXPECT_EQ(tov_gpb_schemas_trace_internal(&fw.debug, s, 0, nullptr), 0u);
    EXPECT_EQ(tail->take(), Records{""});
    EXPECT_EQ(tov_gpb_schemas_trace_internal(&fw.debug, nullptr, 0, nullptr), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(tov_gpb_schemas_trace_internal(nullptr, s, 1, nullptr), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(tail->take(), Records{});
}

uint64_t live(const char *label) {
    kor_named_stats s{};
    kor_named_get_stats(label, &s);
    return s.live_blocks;
}

TEST_F(Printers, AllocatorPairAndDataTreeArrays) {
    const char *const kArrayLabel = "GPB datatree (tov_req_datatree_create)";
    auto *block = static_cast<uint8_t *>(tov_gpb_alloc(24, 99));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(std::count(block, block + 24, 0), 24);
    EXPECT_EQ(live("TOV GPB"), 1u);
    tov_gpb_free(block, 99);
    tov_gpb_free(nullptr, 0);
    EXPECT_EQ(live("TOV GPB"), 0u);

    for (unsigned count : {0u, 3u}) {
        DataTree *nodes = tov_gpb_datatree_create(&fw, count);
        ASSERT_NE(nodes, nullptr);
        EXPECT_EQ(live(kArrayLabel), 1u);
        auto *bytes = reinterpret_cast<const uint8_t *>(nodes);
        EXPECT_EQ(std::count(bytes, bytes + count * sizeof(DataTree), 0), static_cast<long>(count * sizeof(DataTree)));
        kor_named_free(nodes);
    }
    kor_named_fail_nth(1);
    EXPECT_EQ(tov_gpb_datatree_create(&fw, 2), nullptr);
    kor_named_fail_nth(0);
    const std::string body = " ctx=" + ptr(&fw) + ",TOV datatree allocation failed";
    EXPECT_EQ(capture.take(), Records{"ERR: TOV:" + body});
    const int line = tov::test::source_line("debug/gpb.cc", "\"TOV datatree allocation failed\"");
    EXPECT_EQ(tail->take(), Records{"ERR: tov_gpb_datatree_create:" + std::to_string(line) + body});
    EXPECT_EQ(live(kArrayLabel), 0u);
    EXPECT_DEATH(
        {
            kor_named_fail_nth(1);
            tov_gpb_datatree_create(nullptr, 1);
        },
        "");
}

// A million-level chain prints in a thread with a 256 KiB stack; its deep lines are cut and
// marked, its first ones intact.
TEST_F(Printers, AMillionLevelsOnA256KiBStack) {
    constexpr uint32_t kDepth = 1000000;
    std::vector<DataTree> chain(kDepth);
    for (uint32_t i = 0; i < kDepth; ++i) chain[i] = i + 1 < kDepth ? Node("n").kids(&chain[i + 1], 1).t : Node("n").t;
    uint32_t rc = 1;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, 256 * 1024), 0);
    struct Args {
        DebugContext *d;
        DataTree *root;
        uint32_t *rc;
    } args{&fw.debug, chain.data(), &rc};
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attr, [](void *p) -> void * {
        auto *a = static_cast<Args *>(p);
        *a->rc = tov_gpb_datatree_trace_internal(a->d, a->root, nullptr);
        return nullptr;
    }, &args), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
    EXPECT_EQ(rc, 0u);
    Records records = tail->take(); // the ring keeps the newest records only
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back(), std::string(1009, ' ') + "[TRUNCATED...]");
}

} // namespace
