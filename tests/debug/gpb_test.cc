// SPDX-License-Identifier: BSD-3-Clause
// The trace printers, read back from the ring record by record; the codec allocator pair and the
// data-tree arrays with their labels and their failure line.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "debug/gpb_internal.hpp"
#include "support/alloc.hpp"
#include "support/rings.hpp"
#include "tov/kor_alloc.h"
#include "tov/result.h"

namespace {

using Records = std::vector<std::string>;

// A node filled by hand; its strings are literals, never freed.
struct Node {
    DataTree t{};
    explicit Node(const char *name) { set(t.name, name, TOV_DATATREE_BIT_NAME); }
    Node &value(const char *v) { return set(t.value, v, TOV_DATATREE_BIT_VALUE); }
    Node &qualifier(const char *q) { return set(t.qualifier, q, TOV_DATATREE_BIT_QUALIFIER); }
    Node &op(uint32_t o) { return t.operation = o, bit(TOV_DATATREE_BIT_OPERATION); }
    Node &attr(Attribute *a) { return t.attributes = a, t.attributes_count = 1, bit(TOV_DATATREE_BIT_ATTRIBUTES); }
    Node &kids(DataTree *c, uint32_t n, bool present = true) {
        t.children = c, t.children_count = n;
        return present ? bit(TOV_DATATREE_BIT_CHILDREN) : *this;
    }
    Node &set(char *&member, const char *s, unsigned b) { return member = const_cast<char *>(s), bit(b); }
    Node &bit(unsigned b) { return tov_bit_set(t.present, b), *this; }
};

struct Printers : ::testing::Test, tov::test::LoggedFramework {
    Printers() : LoggedFramework("gpb") {}
};

TEST_F(Printers, TreesBecomeIndentedLinesBatchedIntoRecords) {
    Attribute xy{const_cast<char *>("x"), const_cast<char *>("y"), {3}};
    DataTree g = Node("g").value("3").t, ten[10];
    const std::string name1100(1100, 'n'), c41(41, 'c'), l50 = std::string(8, ' ') + c41 + "\n"; // 50 bytes
    std::fill(std::begin(ten), std::end(ten), Node(c41.c_str()).t);
    struct Case {
        const char *what;
        std::vector<DataTree> kids;
        std::function<void(Node &)> root;
        const char *title;
        Records records;
    } cases[] = {
        {"unnamed root: the title only", {Node("b").t}, [](Node &r) { r.t.present[0] = 0x40; }, "T", {"T:\n"}},
        {"root a (m) : 1, child b : 2 (delete) x=y", {Node("b").value("2").op(3).attr(&xy).t},
         [](Node &r) { r.qualifier("m").value("1"); }, "T", {"T:\n    a (m) : 1\n        b : 2 (delete) x=y\n"}},
        {"operation 7; qualifier without value", {Node("b").op(7).t}, [](Node &r) { r.qualifier("m"); }, nullptr,
         {"    a (m)\n        b (-)\n"}},
        {"grandchildren at twelve; children without their bit unwalked except the root's",
         {Node("b").kids(&g, 1).t, Node("c").kids(&g, 1, false).t}, [](Node &r) { r.t.present[0] &= 0x0F; },
         nullptr, {"    a\n        b\n            g : 3\n        c\n"}},
        {"an over-long line is cut, marked and written at once", {Node(name1100.c_str()).value("v").t},
         [](Node &) {}, nullptr, {"    a\n" + std::string(8, ' ') + std::string(995, 'n') + "[TRUNCATED...]"}},
        {"50-byte lines go out once 160 bytes wait", {std::begin(ten), std::end(ten)}, [](Node &) {}, nullptr,
         {"    a\n" + l50 + l50 + l50 + l50, l50 + l50 + l50 + l50, l50 + l50}},
        {"a closed ring gets nothing", {Node("b").t}, [&](Node &) { fw.debug.trace_open = 0; }, "T", {}},
    };
    for (Case &c : cases) {
        SCOPED_TRACE(c.what);
        Node root("a");
        root.kids(c.kids.data(), static_cast<uint32_t>(c.kids.size()));
        c.root(root);
        EXPECT_EQ(tov_gpb_datatree_trace_internal(&fw.debug, &root.t, c.title), 0u);
        EXPECT_EQ(tail->take(), c.records);
    }
    fw.debug.trace_open = 1;
    Node root("a");
    root.kids(&g, 1);
    EXPECT_EQ(tov::detail::print_tree(&fw.debug, &root.t, nullptr, tov::detail::ChildMode::Qualified), 0u);
    EXPECT_EQ(tail->take(), Records{"    a\n        g () : 3\n"});
    EXPECT_EQ(tov_gpb_datatree_trace_internal(nullptr, &root.t, "T"), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(tov_gpb_datatree_trace_internal(&fw.debug, nullptr, "T"), TOV_RC_BAD_ARGUMENT);

    Schema s[2] = {}; // the second has no presence bits: empty texts and flag 0
    s[0] = {xy.name, xy.value, xy.name, 1, xy.value, nullptr, 0, {0x1F}};
    s[1] = {xy.name, xy.name, xy.name, 1, xy.name, nullptr, 0, {0}};
    EXPECT_EQ(tov_gpb_schemas_trace_internal(&fw.debug, s, 2, "S"), 0u);
    EXPECT_EQ(tov_gpb_schemas_trace_internal(&fw.debug, s, 0, nullptr), 0u); // an empty record
    EXPECT_EQ(tail->take(), (Records{"S:\n    [0]: y, x, y, x, 1\n    [1]: , , , , 0\n", ""}));
    EXPECT_EQ(tov_gpb_schemas_trace_internal(&fw.debug, nullptr, 0, nullptr), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(tov_gpb_schemas_trace_internal(nullptr, s, 1, nullptr), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(tail->take(), Records{});
}

// The codec pair zero-fills and counts under "TOV GPB" (the road test decodes with it); the node
// arrays are zero-filled, and a failed one is reported in both places.
TEST_F(Printers, AllocatorPairAndDataTreeArrays) {
    auto *block = static_cast<uint8_t *>(tov_gpb_alloc(24, 99));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(std::count(block, block + 24, 0), 24);
    tov_gpb_free(block, 99), tov_gpb_free(nullptr, 0);
    auto *nodes = reinterpret_cast<uint8_t *>(tov_gpb_datatree_create(&fw, 3));
    ASSERT_NE(nodes, nullptr);
    EXPECT_EQ(std::count(nodes, nodes + 3 * sizeof(DataTree), 0), long(3 * sizeof(DataTree)));
    kor_named_free(nodes);
    void *none = tov_gpb_datatree_create(&fw, 0); // no nodes is no failure
    EXPECT_NE(none, nullptr);
    kor_named_free(none);
    kor_named_fail_nth(1);
    EXPECT_EQ(tov_gpb_datatree_create(&fw, 2), nullptr);
    kor_named_fail_nth(0);
    const std::string body = " ctx=" + tov::test::ptr(&fw) + ",TOV datatree allocation failed";
    const int line = tov::test::source_line("debug/gpb.cc", "\"TOV datatree allocation failed\"");
    EXPECT_EQ(capture.take(), Records{"ERR: TOV:" + body});
    EXPECT_EQ(tail->take(), Records{"ERR: tov_gpb_datatree_create:" + std::to_string(line) + body});
    EXPECT_EQ(tov::test::live_blocks("GPB datatree (tov_req_datatree_create)"), 0u);
    EXPECT_DEATH((kor_named_fail_nth(1), tov_gpb_datatree_create(nullptr, 1)), "");
}

// A million-level chain prints in a thread with a 256 KiB stack; its deep lines are cut and marked.
TEST_F(Printers, AMillionLevelsOnA256KiBStack) {
    constexpr uint32_t kDepth = 1000000;
    std::vector<DataTree> chain(kDepth);
    for (uint32_t i = 0; i < kDepth; ++i) chain[i] = i + 1 < kDepth ? Node("n").kids(&chain[i + 1], 1).t : Node("n").t;
    uint32_t rc = 1;
    tov::test::on_small_stack([&] { rc = tov_gpb_datatree_trace_internal(&fw.debug, chain.data(), nullptr); });
    EXPECT_EQ(rc, 0u);
    const Records records = tail->take(); // the newest ones the ring kept
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back(), std::string(1009, ' ') + "[TRUNCATED...]");
}

} // namespace
