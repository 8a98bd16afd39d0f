// Debug contexts: set-up, sub-components, release, level control and trace clearing.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "debug/debug_internal.hpp"
#include "debug/log.hpp"
#include "debug/test_support.hpp"
#include "tov/kor_alloc.h"
#include "tov/result.h"
#include "tov/session.h"

namespace {

using tov::test::ptr;
using tov::test::ring_texts;

const char *const kRing[] = {nullptr,          nullptr,         "ctx-tov/processor.trace", "ctx-tov/me.trace",
                             "ctx-tov/qt.trace", "ctx-tov/bk.trace", "ctx-tov/map.trace", "ctx-tov/morvante.trace",
                             "ctx-tov/vaske.trace"};

bool matches(const std::string &text, const std::string &pattern) { return std::regex_match(text, std::regex(pattern)); }

class DebugContexts : public ::testing::Test {
  protected:
    void SetUp() override { tov_debug_save_agent_name("ctx"); }
    tov::test::RingDir dir;
    tov::test::Capture capture;
};

TEST_F(DebugContexts, RootSetUpLogsOnlyWhereItCanAlreadyLog) {
    DebugContext root{};
    ASSERT_EQ(tov_debug_init(&root, "TOV", TOV_COMPONENT_TOV, nullptr), TOV_RC_OK);
    EXPECT_EQ(root.level, TOV_LEVEL_ERROR);
    EXPECT_EQ(root.ref_count, 1);
    EXPECT_EQ(root.trace_open, 1u);
    EXPECT_NE(root.trace_handle, 0u);
    EXPECT_TRUE(root.root_flag && root.error_flag && root.debug_flag && root.trace_flag);
    // "Error logging initialized" went nowhere: the ring was not open yet and DBG is filtered.
    EXPECT_TRUE(capture.take().empty());
    auto ring = ring_texts(dir.file(kRing[2]));
    ASSERT_EQ(ring.size(), 2u);
    EXPECT_TRUE(matches(ring[0], R"(DBG: init_root:\d+ ctx=0x[0-9a-f]+,TOV: Debug logging initialized)")) << ring[0];
    EXPECT_TRUE(matches(ring[1], R"(DBG: init_root:\d+ ctx=0x[0-9a-f]+,TOV: Trace logging initialized)")) << ring[1];
    // The lines print the snapshot, not the context itself.
    EXPECT_EQ(ring[0].find(ptr(&root)), std::string::npos);
    trace_buffer_close(root.trace_handle);
    EXPECT_EQ(tov_debug_cleanup(&root), TOV_RC_OK);
    EXPECT_EQ(kor_dt_flag_enable(root.trace_flag, 0), EBADF); // the flags are gone
}

TEST_F(DebugContexts, ArgumentsAreCheckedBeforeAnythingIsTouched) {
    DebugContext ctx{};
    EXPECT_EQ(tov_debug_init(nullptr, "X", TOV_COMPONENT_TOV, nullptr), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(tov_debug_init(&ctx, nullptr, TOV_COMPONENT_TOV, nullptr), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(tov_debug_init(&ctx, std::string(128, 'n').c_str(), TOV_COMPONENT_TOV, nullptr), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(ctx.ref_count, 0);
    EXPECT_EQ(ctx.level, 0u);
    ASSERT_EQ(tov_debug_init(&ctx, std::string(127, 'n').c_str(), TOV_COMPONENT_TOV, nullptr), TOV_RC_OK);
    trace_buffer_close(ctx.trace_handle);
    EXPECT_EQ(tov_debug_cleanup(&ctx), TOV_RC_OK);
}

// Allocation order of a root's set-up: top flag, "error", ring handle, "debug", "trace".
TEST_F(DebugContexts, EachFailingPlatformCallClearsItsHandleAndStops) {
    struct Case {
        uint64_t fail_at;
        const char *error_line; // platform line logged about the failure, if any
        bool ring_open;
    } cases[] = {{1, nullptr, false},
                 {2, nullptr, false},
                 {3, nullptr, false},
                 {4, R"(ERR: TOV: ctx=0x[0-9a-f]+,F: Debug log init failed!)", true},
                 {5, R"(ERR: TOV: ctx=0x[0-9a-f]+,F: Trace log init failed!)", true}};
    for (const Case &c : cases) {
        SCOPED_TRACE("allocation " + std::to_string(c.fail_at));
        DebugContext ctx{};
        testing::internal::CaptureStderr();
        kor_named_fail_nth(c.fail_at);
        EXPECT_EQ(tov_debug_init(&ctx, "F", TOV_COMPONENT_TOV, nullptr), TOV_RC_INIT_FAILED);
        kor_named_fail_nth(0);
        std::string stderr_text = testing::internal::GetCapturedStderr();
        kor_dt_flag_t expected[] = {ctx.root_flag, ctx.error_flag, ctx.debug_flag, ctx.trace_flag};
        for (uint64_t i = 0; i < 4; ++i) {
            // Handles before the failure are kept; the failed one and those after it are 0.
            uint64_t alloc_of_flag[] = {1, 2, 4, 5};
            EXPECT_EQ(expected[i] != 0, alloc_of_flag[i] < c.fail_at) << "flag " << i;
        }
        EXPECT_EQ(ctx.trace_open != 0, c.ring_open);
        if (c.fail_at == 3) {
            EXPECT_EQ(stderr_text, "Init trace buffer (ctx-tov/processor.trace) failed! (Cannot allocate memory)\n");
            EXPECT_EQ(ctx.trace_handle, 0u);
        }
        auto lines = capture.take();
        if (c.error_line) {
            ASSERT_EQ(lines.size(), 1u);
            EXPECT_TRUE(matches(lines[0], c.error_line)) << lines[0];
        } else {
            EXPECT_TRUE(lines.empty());
        }
        // The trace-flag failure is also in the ring, whose snapshot had it open.
        if (c.fail_at == 5) {
            auto ring = ring_texts(dir.file(kRing[2]));
            ASSERT_FALSE(ring.empty());
            EXPECT_TRUE(matches(ring.back(), R"(ERR: init_root:\d+ ctx=0x[0-9a-f]+,F: Trace log init failed!)"));
        }
        if (ctx.trace_handle) trace_buffer_close(ctx.trace_handle);
        if (ctx.root_flag) {
            EXPECT_EQ(kor_dt_flag_destroy(ctx.root_flag), 0);
        }
    }
}

TEST_F(DebugContexts, RingThatCannotBeOpenedIsReportedOnStandardError) {
    std::string not_a_dir = dir.path() + "/file";
    std::fclose(std::fopen(not_a_dir.c_str(), "w"));
    setenv("TOV_TRACE_DIR", not_a_dir.c_str(), 1);
    DebugContext ctx{};
    testing::internal::CaptureStderr();
    EXPECT_EQ(tov_debug_init(&ctx, "NODIR", TOV_COMPONENT_ME, nullptr), TOV_RC_INIT_FAILED);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Init trace buffer (ctx-tov/me.trace) failed! (Not a directory)\n");
    EXPECT_EQ(ctx.debug_flag, 0u); // set-up stopped before the debug and trace flags
    ctx.component_id = TOV_COMPONENT_ALL; // no ring path at all
    testing::internal::CaptureStderr();
    EXPECT_EQ(tov_init_trace_buffer(&ctx), TOV_RC_INIT_FAILED);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Init trace buffer (ctx-) failed! (Invalid argument)\n");
    EXPECT_EQ(kor_dt_flag_destroy(ctx.root_flag), 0);
}

TEST_F(DebugContexts, SubComponentsShareFlagsAttachUpToSixteenAndReleaseTheirParent) {
    DebugContext root{};
    ASSERT_EQ(tov_debug_init(&root, "TOV", TOV_COMPONENT_TOV, nullptr), TOV_RC_OK);
    root.level = TOV_LEVEL_WARNING;
    DebugContext subs[17] = {};
    for (int i = 0; i < 17; ++i) {
        uint32_t id = i == 3 ? TOV_COMPONENT_QT : i == 16 ? TOV_COMPONENT_VASKE : TOV_COMPONENT_ME;
        ASSERT_EQ(tov_debug_init(&subs[i], "SUB", id, &root), TOV_RC_OK);
        EXPECT_EQ(subs[i].parent, &root);
        EXPECT_EQ(subs[i].error_flag, root.error_flag);
        EXPECT_EQ(subs[i].level, TOV_LEVEL_ERROR);
        trace_buffer_close(subs[i].trace_handle);
    }
    EXPECT_EQ(root.ref_count, 18);
    EXPECT_EQ(root.child_count, 16);
    auto lines = capture.take();
    ASSERT_EQ(lines.size(), 1u); // the warning; the DBG lines are filtered at WARNING
    EXPECT_TRUE(matches(lines[0], R"(WRN: TOV: ctx=0x[0-9a-f]+,SUB: Maximum logging subcomponent count reached! )"
                                  R"(This component will not be available for log filtering\.)"));
    EXPECT_EQ(tov_debug_get_component_ctx(&root, TOV_COMPONENT_VASKE), nullptr);
    EXPECT_EQ(tov_debug_get_component_ctx(&root, TOV_COMPONENT_QT), &subs[3]);
    EXPECT_EQ(tov_debug_get_component_ctx(&root, TOV_COMPONENT_NONE), &root);
    EXPECT_EQ(tov_debug_get_component_ctx(&subs[3], TOV_COMPONENT_TOV), nullptr);

    // The unattached one releases the parent without touching its children.
    EXPECT_EQ(tov_debug_cleanup(&subs[16]), TOV_RC_OK);
    EXPECT_EQ(root.child_count, 16);
    EXPECT_EQ(root.ref_count, 17);
    // Removal moves the last child into the gap.
    EXPECT_EQ(tov_debug_cleanup(&subs[3]), TOV_RC_OK);
    EXPECT_EQ(root.child_count, 15);
    EXPECT_EQ(root.children[3], &subs[15]);
    EXPECT_EQ(tov_debug_get_component_ctx(&root, TOV_COMPONENT_QT), nullptr);

    // The owner's release leaves the flags alive while sub-components still hold the root.
    EXPECT_EQ(tov_debug_cleanup(&root), TOV_RC_OK);
    EXPECT_EQ(kor_dt_flag_enable(root.error_flag, 0), 0);
    for (int i = 0; i < 16; ++i) {
        if (i != 3) {
            EXPECT_EQ(tov_debug_cleanup(&subs[i]), TOV_RC_OK);
        }
    }
    EXPECT_EQ(root.ref_count, 0);
    EXPECT_EQ(kor_dt_flag_enable(root.error_flag, 0), EBADF);
    // One release too many finds no flags to destroy.
    EXPECT_EQ(tov_debug_cleanup(&root), TOV_RC_FLAG_DESTROY_FAILED);
    trace_buffer_close(root.trace_handle);
}

TEST_F(DebugContexts, GrandchildrenAreFoundDepthFirst) {
    DebugContext root{}, me{}, qt{};
    ASSERT_EQ(tov_debug_init(&root, "TOV", TOV_COMPONENT_TOV, nullptr), TOV_RC_OK);
    ASSERT_EQ(tov_debug_init(&me, "ME", TOV_COMPONENT_ME, &root), TOV_RC_OK);
    ASSERT_EQ(tov_debug_init(&qt, "QT", TOV_COMPONENT_QT, &me), TOV_RC_OK);
    EXPECT_EQ(tov_debug_get_component_ctx(&root, TOV_COMPONENT_QT), &qt);
    EXPECT_EQ(qt.error_flag, root.error_flag);
    EXPECT_EQ(tov_debug_get_component_ctx(nullptr, TOV_COMPONENT_QT), nullptr);
    for (DebugContext *c : {&qt, &me, &root}) {
        trace_buffer_close(c->trace_handle);
        EXPECT_EQ(tov_debug_cleanup(c), TOV_RC_OK);
    }
    EXPECT_EQ(me.ref_count, 0);
}

TEST(DebugNames, TablesAndAgentName) {
    EXPECT_STREQ(tov_log_component_str(TOV_COMPONENT_MORVANTE), "MORVANTE");
    EXPECT_STREQ(tov_log_component_str(9), "unknown");
    EXPECT_STREQ(tov_debug_op_name(0), "get-config");
    EXPECT_STREQ(tov_debug_op_name(18), "invoke-rpc");
    EXPECT_STREQ(tov_debug_op_name(19), "unknown");
    EXPECT_EQ(tov::detail::trace_row(TOV_COMPONENT_MAP).second_size, 0x2000000u);
    EXPECT_EQ(tov::detail::trace_row(1000).trace_path, nullptr);
    EXPECT_EQ(tov_debug_save_agent_name("a-rather-long-agent-name"), 24);
    EXPECT_STREQ(tov::detail::agent_name(), "a-rather-long-agent");
    EXPECT_EQ(tov_debug_save_agent_name("50%%"), 3); // the name is a format
    EXPECT_STREQ(tov::detail::agent_name(), "50%");
    EXPECT_EQ(tov_debug_save_agent_name(nullptr), -1);
}

// A framework process: the root TOV with every other component below it.
class LevelControl : public DebugContexts {
  protected:
    void SetUp() override {
        DebugContexts::SetUp();
        ASSERT_EQ(tov_debug_init(&fw.debug, "TOV", TOV_COMPONENT_TOV, nullptr), TOV_RC_OK);
        // Attached in an order unlike the one "all" walks.
        const uint32_t ids[] = {TOV_COMPONENT_VASKE, TOV_COMPONENT_ME, TOV_COMPONENT_MAP, TOV_COMPONENT_BK,
                                TOV_COMPONENT_MORVANTE, TOV_COMPONENT_QT};
        for (int i = 0; i < 6; ++i) ASSERT_EQ(tov_debug_init(&subs[i], "SUB", ids[i], &fw.debug), TOV_RC_OK);
        capture.take();
    }
    void TearDown() override {
        for (DebugContext &c : subs) {
            trace_buffer_close(c.trace_handle);
            if (c.ref_count > 0) tov_debug_cleanup(&c);
        }
        trace_buffer_close(fw.debug.trace_handle);
        EXPECT_EQ(tov_debug_cleanup(&fw.debug), TOV_RC_OK);
    }
    std::string announce(const std::string &text) { return "DBG: TOV: ctx=" + ptr(&fw.debug) + ",Log level set to " + text; }
    DebugContext *component(uint32_t id) { return tov_debug_get_component_ctx(&fw.debug, id); }

    FrameworkContext fw{};
    DebugContext subs[6] = {};
};

TEST_F(LevelControl, AllWalksTheComponentsInItsOrderWithOneLineEach) {
    fw.debug.level = TOV_LEVEL_NONE; // the change lines skip the filter
    ASSERT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_ALL, 0, 0, TOV_LEVEL_DEBUG, 1), TOV_RC_OK);
    std::vector<std::string> expected;
    for (const char *name : {"TOV", "MAP", "ME", "QT", "BK", "MORVANTE", "VASKE"})
        expected.push_back(announce(std::string("DEBUG for ") + name + " general"));
    EXPECT_EQ(capture.take(), expected);
    for (uint32_t id = TOV_COMPONENT_TOV; id <= TOV_COMPONENT_VASKE; ++id) EXPECT_EQ(component(id)->level, TOV_LEVEL_DEBUG);
    // The change lines also reach the root's ring, in the same order.
    auto ring = ring_texts(dir.file(kRing[2]));
    ASSERT_GE(ring.size(), 7u);
    EXPECT_TRUE(matches(ring.back(), R"(DBG: tov_debug_logging_set_level:\d+ ctx=0x[0-9a-f]+,Log level set to DEBUG for VASKE general)"));

    // Without announce nothing is written; a missing component is skipped in the walk.
    tov_debug_cleanup(&subs[5]); // QT
    ASSERT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_ALL, 0, 0, TOV_LEVEL_TRACE, 0), TOV_RC_OK);
    EXPECT_TRUE(capture.take().empty());
    EXPECT_EQ(component(TOV_COMPONENT_VASKE)->level, TOV_LEVEL_TRACE);
    EXPECT_EQ(subs[5].level, TOV_LEVEL_DEBUG);
}

TEST_F(LevelControl, OperationLevelsMoveOpLevelMaxUpAndDown) {
    DebugContext *me = component(TOV_COMPONENT_ME);
    ASSERT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_ME, 1, 5, TOV_LEVEL_TRACE, 1), TOV_RC_OK);
    EXPECT_EQ(me->op_levels[5], TOV_LEVEL_TRACE);
    EXPECT_EQ(me->op_level_max, TOV_LEVEL_TRACE);
    EXPECT_EQ(me->level, TOV_LEVEL_ERROR);
    ASSERT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_ME, 1, 7, TOV_LEVEL_WARNING, 0), TOV_RC_OK);
    EXPECT_EQ(me->op_level_max, TOV_LEVEL_TRACE);
    ASSERT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_ME, 1, 5, TOV_LEVEL_NONE, 1), TOV_RC_OK);
    EXPECT_EQ(me->op_level_max, TOV_LEVEL_WARNING);
    ASSERT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_ME, 1, 7, TOV_LEVEL_NONE, 0), TOV_RC_OK);
    EXPECT_EQ(me->op_level_max, 0u);
    EXPECT_EQ(capture.take(), (std::vector<std::string>{announce("TRACE for ME commit operation"),
                                                        announce("NONE for ME commit operation")}));
    // A level past TRACE is stored as given and has no name.
    ASSERT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_BK, 0, 0, 7, 1), TOV_RC_OK);
    EXPECT_EQ(component(TOV_COMPONENT_BK)->level, 7u);
    EXPECT_EQ(capture.take(), std::vector<std::string>{announce(" for BK general")});
    // An operation past the table is refused instead of writing outside op_levels.
    EXPECT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_ME, 1, 19, 1, 0), TOV_RC_BAD_ARGUMENT);
}

TEST_F(LevelControl, UnknownSingleComponentIsAnOperationScopedError) {
    tov_debug_cleanup(&subs[5]); // QT
    EXPECT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_QT, 0, 0, TOV_LEVEL_TRACE, 1), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(capture.take(), std::vector<std::string>{"ERR: TOV: ctx=" + ptr(&fw) +
                                                       ",ses=(nil),op=13,Cannot find specified debug component: QT."});
    EXPECT_EQ(subs[5].level, TOV_LEVEL_ERROR);
}

TEST_F(LevelControl, ClearTraceEmptiesEveryRingAndReopensIt) {
    for (uint32_t id = TOV_COMPONENT_TOV; id <= TOV_COMPONENT_VASKE; ++id) {
        DebugContext *c = component(id);
        for (int i = 0; i < 5; ++i) trace_buffer_write(c->trace_handle, 0, 0, "before clearing");
        ASSERT_FALSE(ring_texts(dir.file(kRing[id])).empty());
    }
    EXPECT_EQ(tov_clear_trace(&fw), TOV_RC_OK);
    for (uint32_t id = TOV_COMPONENT_TOV; id <= TOV_COMPONENT_VASKE; ++id) {
        SCOPED_TRACE(kRing[id]);
        DebugContext *c = component(id);
        EXPECT_TRUE(ring_texts(dir.file(kRing[id])).empty());
        EXPECT_EQ(c->trace_open, 1u);
        EXPECT_EQ(trace_buffer_write(c->trace_handle, 0, 0, "after"), 0);
        EXPECT_EQ(ring_texts(dir.file(kRing[id])), std::vector<std::string>{"after"});
    }
}

TEST_F(LevelControl, FailedRecreationLeavesTheRingMarkedOpenButHarmless) {
    DebugContext *me = component(TOV_COMPONENT_ME);
    // The delete succeeds, the re-open cannot get its handle.
    testing::internal::CaptureStderr();
    kor_named_fail_nth(1);
    tov_clear_trace_update_component(&fw.debug, TOV_COMPONENT_ME, 1, 1, 1);
    kor_named_fail_nth(0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Init trace buffer (ctx-tov/me.trace) failed! (Cannot allocate memory)\n");
    EXPECT_EQ(me->trace_handle, 0u);
    EXPECT_EQ(me->trace_open, 1u);
    me->level = TOV_LEVEL_ERROR;
    TOV_ERR(me, "written to handle 0");
    EXPECT_EQ(capture.take().size(), 1u);

    // A ring that is already gone: the delete fails, the closed handle stays and is refused.
    ASSERT_EQ(tov_reinit_trace_buffer(me), TOV_RC_OK);
    trace_buffer_t closed = me->trace_handle;
    ASSERT_EQ(trace_buffer_delete("ctx-tov/me.trace"), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(tov_reinit_trace_buffer(me), static_cast<uint32_t>(ENOENT));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "trace_buffer_delete (ctx-tov/me.trace) failed! (No such file or directory)\n");
    EXPECT_EQ(me->trace_handle, closed);
    EXPECT_EQ(trace_buffer_write(me->trace_handle, 0, 0, "late"), EBADF);

    // With nothing open, re-creation still deletes by name.
    DebugContext fresh{};
    fresh.component_id = TOV_COMPONENT_BK;
    EXPECT_EQ(tov_reinit_trace_buffer(&fresh), TOV_RC_OK);
    EXPECT_TRUE(ring_texts(dir.file(kRing[TOV_COMPONENT_BK])).empty());
    trace_buffer_close(fresh.trace_handle);
}

} // namespace
