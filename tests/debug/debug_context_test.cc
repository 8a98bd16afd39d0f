// SPDX-License-Identifier: BSD-3-Clause
// Debug contexts: set-up, sub-components, release, level control and trace clearing.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "debug/debug_internal.hpp"
#include "debug/log.hpp"
#include "support/rings.hpp"
#include "tov/kor_alloc.h"
#include "tov/result.h"

namespace {

using tov::test::ptr;
using tov::test::ring_texts;

const char *const kRing[] = {nullptr, nullptr, "ctx-tov/processor.trace", "ctx-tov/me.trace", "ctx-tov/qt.trace",
                             "ctx-tov/bk.trace", "ctx-tov/map.trace", "ctx-tov/morvante.trace", "ctx-tov/vaske.trace"};

bool matches(const std::string &text, const std::string &pattern) { return std::regex_match(text, std::regex(pattern)); }

void release(DebugContext *c) {
    trace_buffer_close(c->trace_handle);
    EXPECT_EQ(tov_debug_cleanup(c), TOV_RC_OK);
}

class DebugContexts : public ::testing::Test {
  protected:
    void SetUp() override { tov_debug_save_agent_name("ctx"); }
    tov::test::RingDir dir;
    tov::test::Capture capture;
};

TEST_F(DebugContexts, RootSetUpLogsOnlyWhereItCanAlreadyLog) {
    DebugContext root{};
    EXPECT_EQ(tov_debug_init(&root, nullptr, TOV_COMPONENT_TOV, nullptr), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(tov_debug_init(&root, std::string(128, 'n').c_str(), TOV_COMPONENT_TOV, nullptr), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(root.ref_count, 0); // refused before anything was touched
    ASSERT_EQ(tov_debug_init(&root, std::string(127, 'n').c_str(), TOV_COMPONENT_TOV, nullptr), TOV_RC_OK);
    release(&root);

    root = DebugContext{};
    ASSERT_EQ(tov_debug_init(&root, "TOV", TOV_COMPONENT_TOV, nullptr), TOV_RC_OK);
    EXPECT_EQ(root.level, TOV_LEVEL_ERROR);
    EXPECT_TRUE(root.root_flag && root.error_flag && root.debug_flag && root.trace_flag && root.trace_open);
    // "Error logging initialized" went nowhere: the ring was not open yet and DBG is filtered.
    EXPECT_TRUE(capture.take().empty());
    auto ring = ring_texts(dir.file(kRing[2]));
    ASSERT_EQ(ring.size(), 4u); // two from each root: the ring is reopened, not re-created
    EXPECT_TRUE(matches(ring[3], R"(DBG: init_root:\d+ ctx=0x[0-9a-f]+,TOV: Trace logging initialized)")) << ring[3];
    EXPECT_EQ(ring[3].find(ptr(&root)), std::string::npos); // the snapshot's address, not the context's
    release(&root);
    EXPECT_EQ(kor_dt_flag_enable(root.trace_flag, 0), EBADF); // the flags are gone
    // Names: unknown ids, and the agent name, cut to 19 characters and used as a format.
    EXPECT_STREQ(tov_log_component_str(9), "unknown");
    EXPECT_STREQ(tov_debug_op_name(19), "unknown");
    EXPECT_EQ(tov_debug_save_agent_name("a-rather-long-agent-name"), 24);
    EXPECT_STREQ(tov::detail::agent_name(), "a-rather-long-agent");
    EXPECT_EQ(tov_debug_save_agent_name("50%%"), 3);
    EXPECT_STREQ(tov::detail::agent_name(), "50%");
}

// Allocation order of a root's set-up: top flag, "error", ring handle, "debug", "trace".
TEST_F(DebugContexts, EachFailingPlatformCallClearsItsHandleAndStops) {
    const char *failure_line[] = {nullptr, nullptr, nullptr, nullptr, "Debug log init failed!", "Trace log init failed!"};
    for (uint64_t step = 2; step <= 11; ++step) {
        const uint64_t fail_at = step / 2;
        const uint32_t persistent = step % 2; // the failing call alone, then every call from it on
        SCOPED_TRACE("allocation " + std::to_string(fail_at) + (persistent ? " on" : " once"));
        DebugContext ctx{};
        testing::internal::CaptureStderr();
        kor_named_fail_config(fail_at, persistent);
        EXPECT_EQ(tov_debug_init(&ctx, "F", TOV_COMPONENT_TOV, nullptr), TOV_RC_INIT_FAILED);
        kor_named_fail_config(0, 0);
        // Handles made before the failure are kept; the failed one and those after it are 0.
        const bool made[] = {ctx.root_flag != 0, ctx.error_flag != 0, ctx.trace_open != 0, ctx.debug_flag != 0,
                             ctx.trace_flag != 0};
        for (uint64_t h = 0; h < 5; ++h) EXPECT_EQ(made[h], fail_at > h + 1) << "handle " << h;
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  fail_at == 3 ? "Init trace buffer (ctx-tov/processor.trace) failed! (Cannot allocate memory)\n" : "");
        auto lines = capture.take();
        ASSERT_EQ(lines.size(), failure_line[fail_at] ? 1u : 0u);
        if (failure_line[fail_at]) {
            EXPECT_TRUE(matches(lines[0], std::string(R"(ERR: TOV: ctx=0x[0-9a-f]+,F: )") + failure_line[fail_at]));
            // Only the trace-flag failure reaches the ring: the snapshot before "debug" had none.
            auto ring = ring_texts(dir.file(kRing[2]));
            EXPECT_EQ(!ring.empty() && matches(ring.back(), R"(ERR: init_root:\d+ .*Trace log init failed!)"),
                      fail_at == 5);
        }
        trace_buffer_close(ctx.trace_handle);
        if (ctx.root_flag) kor_dt_flag_destroy(ctx.root_flag);
    }
}

TEST_F(DebugContexts, SubComponentsShareFlagsAttachUpToSixteenAndReleaseTheirParent) {
    DebugContext root{}, subs[17] = {}, grandchild{};
    ASSERT_EQ(tov_debug_init(&root, "TOV", TOV_COMPONENT_TOV, nullptr), TOV_RC_OK);
    root.level = TOV_LEVEL_WARNING;
    for (int i = 0; i < 17; ++i) {
        uint32_t id = i == 3 ? TOV_COMPONENT_QT : i == 16 ? TOV_COMPONENT_VASKE : TOV_COMPONENT_ME;
        ASSERT_EQ(tov_debug_init(&subs[i], "SUB", id, &root), TOV_RC_OK);
        EXPECT_EQ(subs[i].error_flag, root.error_flag);
        trace_buffer_close(subs[i].trace_handle);
    }
    ASSERT_EQ(tov_debug_init(&grandchild, "GC", TOV_COMPONENT_BK, &subs[3]), TOV_RC_OK);
    EXPECT_TRUE(root.ref_count == 18 && root.child_count == 16);
    auto lines = capture.take();
    ASSERT_EQ(lines.size(), 1u); // the warning; the DBG lines are filtered at WARNING
    EXPECT_TRUE(matches(lines[0], R"(WRN: TOV: ctx=0x[0-9a-f]+,SUB: Maximum logging subcomponent count reached! )"
                                  R"(This component will not be available for log filtering\.)"));
    EXPECT_EQ(tov_debug_get_component_ctx(&root, TOV_COMPONENT_VASKE), nullptr);
    EXPECT_EQ(tov_debug_get_component_ctx(&root, TOV_COMPONENT_BK), &grandchild); // depth first
    EXPECT_EQ(tov_debug_get_component_ctx(&root, TOV_COMPONENT_NONE), &root);
    release(&grandchild);
    // The unattached one releases the parent without touching its children; an attached one
    // leaves the walk.
    EXPECT_EQ(tov_debug_cleanup(&subs[16]), TOV_RC_OK);
    EXPECT_TRUE(root.child_count == 16 && root.ref_count == 17);
    EXPECT_EQ(tov_debug_cleanup(&subs[3]), TOV_RC_OK);
    EXPECT_EQ(tov_debug_get_component_ctx(&root, TOV_COMPONENT_QT), nullptr);
    // The owner's release leaves the flags alive while sub-components still hold the root.
    EXPECT_EQ(tov_debug_cleanup(&root), TOV_RC_OK);
    EXPECT_EQ(kor_dt_flag_enable(root.error_flag, 0), 0);
    for (int i = 0; i < 16; ++i)
        if (i != 3) tov_debug_cleanup(&subs[i]);
    EXPECT_EQ(kor_dt_flag_enable(root.error_flag, 0), EBADF);
    EXPECT_EQ(tov_debug_cleanup(&root), TOV_RC_FLAG_DESTROY_FAILED); // one release too many
    trace_buffer_close(root.trace_handle);
}

// A framework process: the root TOV with every other component below it.
struct LevelControl : ::testing::Test, tov::test::LoggedFramework {
    LevelControl() : LoggedFramework("ctx") {
        // Attached in an order unlike the one "all" walks.
        const uint32_t ids[] = {TOV_COMPONENT_VASKE, TOV_COMPONENT_ME, TOV_COMPONENT_MAP,
                                TOV_COMPONENT_BK, TOV_COMPONENT_MORVANTE, TOV_COMPONENT_QT};
        for (int i = 0; i < 6; ++i) EXPECT_EQ(tov_debug_init(&subs[i], "SUB", ids[i], &fw.debug), TOV_RC_OK);
        capture.take();
    }
    ~LevelControl() override {
        for (DebugContext &c : subs) {
            if (c.ref_count > 0) release(&c);
        }
    }
    std::string announce(const std::string &text) { return "DBG: TOV: ctx=" + ptr(&fw.debug) + ",Log level set to " + text; }
    DebugContext *component(uint32_t id) { return tov_debug_get_component_ctx(&fw.debug, id); }

    DebugContext subs[6] = {}; // subs[5] is QT
};

// "all" walks the components in its order, one line each; clearing empties every ring and
// reopens it; op_level_max follows the highest operation level, down as well as up.
TEST_F(LevelControl, AllWalksInItsOrderClearTraceReopensEveryRingOpLevelMaxFollows) {
    fw.debug.level = TOV_LEVEL_NONE; // the change lines skip the filter
    ASSERT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_ALL, 0, 0, TOV_LEVEL_DEBUG, 1), TOV_RC_OK);
    std::vector<std::string> expected;
    for (const char *name : {"TOV", "MAP", "ME", "QT", "BK", "MORVANTE", "VASKE"})
        expected.push_back(announce(std::string("DEBUG for ") + name + " general"));
    EXPECT_EQ(capture.take(), expected);
    EXPECT_TRUE(matches(ring_texts(dir.file(kRing[2])).back(),
                        R"(DBG: tov_debug_logging_set_level:\d+ ctx=0x[0-9a-f]+,Log level set to DEBUG for VASKE general)"));
    for (uint32_t id = TOV_COMPONENT_TOV; id <= TOV_COMPONENT_VASKE; ++id) {
        EXPECT_EQ(component(id)->level, TOV_LEVEL_DEBUG);
        EXPECT_EQ(trace_buffer_write(component(id)->trace_handle, 0, 0, "before clearing"), 0);
    }
    EXPECT_EQ(tov_clear_trace(&fw), TOV_RC_OK);
    for (uint32_t id = TOV_COMPONENT_TOV; id <= TOV_COMPONENT_VASKE; ++id) {
        EXPECT_TRUE(component(id)->trace_open && trace_buffer_write(component(id)->trace_handle, 0, 0, "after") == 0);
        EXPECT_EQ(ring_texts(dir.file(kRing[id])), std::vector<std::string>{"after"}) << kRing[id];
    }

    // Without announce nothing is written; a missing component is skipped in the walk, but named
    // alone it is an error about the logging-set operation.
    tov_debug_cleanup(&subs[5]);
    ASSERT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_ALL, 0, 0, TOV_LEVEL_TRACE, 0), TOV_RC_OK);
    EXPECT_TRUE(capture.take().empty());
    EXPECT_EQ(component(TOV_COMPONENT_VASKE)->level, TOV_LEVEL_TRACE);
    EXPECT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_QT, 0, 0, TOV_LEVEL_TRACE, 1), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(capture.take(), std::vector<std::string>{"ERR: TOV: ctx=" + ptr(&fw) +
                                                       ",ses=(nil),op=13,Cannot find specified debug component: QT."});
    EXPECT_EQ(subs[5].level, TOV_LEVEL_DEBUG);

    // Per operation: a level past TRACE has no name, and an operation past the table is refused
    // rather than written outside op_levels.
    const uint32_t steps[][3] = {{5, TOV_LEVEL_TRACE, TOV_LEVEL_TRACE}, // op, level, op_level_max after
                                 {7, TOV_LEVEL_WARNING, TOV_LEVEL_TRACE},
                                 {5, TOV_LEVEL_NONE, TOV_LEVEL_WARNING},
                                 {7, TOV_LEVEL_NONE, 0}};
    for (const auto &step : steps) {
        ASSERT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_ME, 1, step[0], step[1], step[0] == 5), TOV_RC_OK);
        EXPECT_EQ(component(TOV_COMPONENT_ME)->op_level_max, step[2]);
    }
    ASSERT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_BK, 0, 0, 7, 1), TOV_RC_OK);
    EXPECT_EQ(capture.take(), (std::vector<std::string>{announce("TRACE for ME commit operation"),
                                                        announce("NONE for ME commit operation"), announce(" for BK general")}));
    EXPECT_EQ(tov_debug_logging_set_level(&fw, TOV_COMPONENT_ME, 1, 19, 1, 0), TOV_RC_BAD_ARGUMENT);
}

} // namespace
