// SPDX-License-Identifier: BSD-3-Clause
// The logging statement: which lines reach the platform facility, which reach the trace ring, and
// their exact texts.
#include <gtest/gtest.h>

#include <string>

#include "debug/log.hpp"
#include "support/rings.hpp"
#include "tov/result.h"

namespace {

using tov::test::ptr;

const char *const kTags[] = {"ERR:", "WRN:", "DBG:", "TRC:"};

// Each statement shares its line with the return, so the test knows the line it reports.
// Operation 0 makes a plain line, one about no operation.
int emit(DebugContext *c, unsigned level, const void *ses = nullptr, unsigned op = 0) {
    switch (level + 4 * (op == 0)) {
    case 0: TOV_ERR_OP(c, ses, op, "filter %u", level); return __LINE__;
    case 1: TOV_WRN_OP(c, ses, op, "filter %u", level); return __LINE__;
    case 2: TOV_DBG_OP(c, ses, op, "filter %u", level); return __LINE__;
    case 3: TOV_TRC_OP(c, ses, op, "filter %u", level); return __LINE__;
    case 4: TOV_ERR(c, "plain %u", level); return __LINE__;
    case 5: TOV_WRN(c, "plain %u", level); return __LINE__;
    case 6: TOV_DBG(c, "plain %u", level); return __LINE__;
    default: TOV_TRC(c, "plain %u", level); return __LINE__;
    }
}

// The root context logs as "flt"; `ctx` is its DebugContext.
struct LogLines : ::testing::Test, tov::test::LoggedFramework {
    LogLines() : LoggedFramework("flt") {}
    DebugContext &ctx = fw.debug;
};

// Every combination of component level, operation level and op_level_max (fresh or stale) against
// every message level, for lines about the raised operation 5, about operations 6 and 19 (not
// raised, and past the table) and for plain lines; with each flag disabled in turn: a level's own
// flag ("error" for ERR and WRN) or the component's top flag silences it, and the ring takes all.
TEST_F(LogLines, FilterMatrixAndFlagsDecideThePlatformLinesAndTheRingGetsEverything) {
    const int session_marker = 0;
    const void *ses = &session_marker;
    const kor_dt_flag_t flag_of[] = {ctx.error_flag, ctx.error_flag, ctx.debug_flag, ctx.trace_flag};
    for (kor_dt_flag_t off : {kor_dt_flag_t{0}, ctx.error_flag, ctx.debug_flag, ctx.trace_flag, ctx.root_flag}) {
        ASSERT_EQ(off ? kor_dt_flag_disable(off) : 0, 0);
        for (uint32_t component = 0; component <= 4; ++component) {
            for (uint32_t op_level = 0; op_level <= 4; ++op_level) {
                for (uint32_t op_max = 0; op_max <= 4; ++op_max) {
                    ctx.level = component;
                    ctx.op_levels[5] = op_level;
                    ctx.op_level_max = op_max;
                    std::vector<std::string> platform, ring;
                    auto expect = [&](bool admitted, uint32_t level, int line, const std::string &body) {
                        const std::string tag = kTags[level];
                        if (admitted && off != flag_of[level] && off != ctx.root_flag)
                            platform.push_back(tag + " TOV: ctx=" + ptr(&ctx) + "," + body);
                        ring.push_back(tag + " emit:" + std::to_string(line) + " ctx=" + ptr(&ctx) + "," + body);
                    };
                    for (uint32_t level = 0; level <= 3; ++level) {
                        const uint32_t needed = level + 1;
                        const bool by_component = component >= needed;
                        // A stale op_level_max below the threshold hides the operation's own level.
                        const bool by_operation = op_level >= needed && !(op_max != 0 && op_max < needed);
                        const std::string text = "filter " + std::to_string(level);
                        for (uint32_t op : {5u, 6u, 19u}) {
                            int line = emit(&ctx, level, ses, op);
                            expect(by_component || (op == 5 && by_operation), level, line,
                                   "ses=" + ptr(ses) + ",op=" + std::to_string(op) + "," + text);
                        }
                        int line = emit(&ctx, level);
                        expect(by_component, level, line, "plain " + std::to_string(level));
                    }
                    SCOPED_TRACE("flag off " + std::to_string(off) + ", component " + std::to_string(component) +
                                 ", op level " + std::to_string(op_level) + ", op_level_max " + std::to_string(op_max));
                    EXPECT_EQ(capture.take(), platform);
                    EXPECT_EQ(tail->take(), ring);
                }
            }
        }
        ASSERT_EQ(off ? kor_dt_flag_enable(off, 0) : 0, 0);
    }
    // Message levels above trace have no threshold: never admitted, by either path.
    EXPECT_EQ(tov_debug_should_log(&ctx, 4), 0u);
    EXPECT_EQ(tov_debug_should_log_op(&ctx, 4, 5), 0u);
}

TEST_F(LogLines, FrameworkContextAndArgumentsEvaluatedOnceOnlyWhenNeeded) {
    FrameworkContext outer{};
    outer.debug = ctx; // same flags and ring
    outer.debug.level = TOV_LEVEL_ERROR;
    outer.debug.trace_open = 0;
    int evaluations = 0;
    TOV_DBG(&outer, "%d", ++evaluations); // goes nowhere
    EXPECT_EQ(evaluations, 0);
    outer.debug.trace_open = 1;
    outer.debug.level = TOV_LEVEL_DEBUG;
    TOV_DBG(&outer, "%d", ++evaluations); // both destinations, one evaluation
    EXPECT_EQ(evaluations, 1);
    // The line prints the FrameworkContext and goes through its DebugContext's flags and ring.
    EXPECT_EQ(capture.take(), std::vector<std::string>{"DBG: TOV: ctx=" + ptr(&outer) + ",1"});
    auto ring = tail->take();
    ASSERT_EQ(ring.size(), 1u);
    EXPECT_NE(ring[0].find(" ctx=" + ptr(&outer) + ",1"), std::string::npos);
}

TEST_F(LogLines, RingCopyIsCutAt1024BytesWhileThePlatformLineIsWhole) {
    ctx.level = TOV_LEVEL_ERROR;
    const std::string long_text(3000, 'x');
    TOV_ERR(&ctx, "%s", long_text.c_str());
    EXPECT_EQ(capture.take(), std::vector<std::string>{"ERR: TOV: ctx=" + ptr(&ctx) + "," + long_text});
    auto ring = tail->take();
    ASSERT_EQ(ring.size(), 1u);
    EXPECT_EQ(ring[0].size(), 1023u);
    EXPECT_EQ(ring[0].substr(0, 4) + ring[0].substr(1000), "ERR:" + long_text.substr(0, 23));
}

TEST_F(LogLines, ShortFileAndAFailedSearchReportedBareOnTheErrorFlag) {
    EXPECT_STREQ(tov_debug_short_file(&ctx, "a/b/c"), "c");
    EXPECT_STREQ(tov_debug_short_file(&ctx, "dir/"), "");
    const char *plain = "plain.cc";
    EXPECT_EQ(tov_debug_short_file(nullptr, plain), plain);
    EXPECT_EQ(tov_debug_short_file(&ctx, nullptr), nullptr);
    EXPECT_EQ(capture.take(),
              std::vector<std::string>{std::string("Error while processing filename, rc=400: ") + error_code_text(400)});
    EXPECT_TRUE(tail->take().empty());
}

TEST(LogDeathTest, NullContextsStopTheProcess) {
    DebugContext *none = nullptr;
    FrameworkContext *no_framework = nullptr;
    EXPECT_DEATH(TOV_ERR(none, "never"), "");
    EXPECT_DEATH(TOV_DBG_OP(no_framework, nullptr, 1u, "never"), "");
    EXPECT_DEATH(tov_debug_short_file(nullptr, nullptr), "");
    EXPECT_DEATH(tov_debug_logging_set_level(nullptr, TOV_COMPONENT_ALL, 0, 0, 1, 0), "");
    EXPECT_DEATH(tov_clear_trace(nullptr), "");
}

} // namespace
