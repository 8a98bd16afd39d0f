// SPDX-License-Identifier: BSD-3-Clause
// Request checks and result errors: codes, every error field and presence bit, the label of every
// copy, the log lines in both places, and every allocation failing once and from then on.
#include <gtest/gtest.h>

#include <functional>

#include "support/alloc.hpp"
#include "support/rings.hpp"
#include "tov/gpb.h"
#include "tov/kor_alloc.h"
#include "tov/request.h"
#include "tov/result.h"

namespace {

using tov::test::Strings;
using Check = std::function<uint32_t(RequestContext *, Session *, RequestResult *)>;

// Named by their index in the cases below.
const char *const kLabels[] = {"error tag string", "error message", "str: error-info",
                               "GPB datatree (tov_req_datatree_create)", "str: bad element",
                               "element name string", "str: bad-attribute", "str: message-id", "str: bad-element",
                               "str: rpc"};

uint64_t live(const char *label = nullptr) { return tov::test::live_blocks(label); }

// Indices of the labels with live blocks, one digit per block.
std::string live_labels() {
    std::string out;
    for (size_t i = 0; i < std::size(kLabels); ++i) out.append(live(kLabels[i]), char('0' + i));
    return out;
}

// Every field a check may touch, presence bytes in hex.
std::string describe(const RequestResult &r) {
    const Error &e = r.error;
    const DataTree &info = e.error_info;
    auto s = [](const char *p) { return p ? p : "(null)"; };
    char head[256];
    std::snprintf(head, sizeof head, "%02x s%u | %02x %u %u %s | %02x %s | %02x%02x %s:", r.present[0], r.success,
                  e.present[0], e.error_type, e.error_severity, s(e.error_tag), e.error_message.present[0],
                  s(e.error_message.text), info.present[0], info.present[1], s(info.name));
    std::string out = head;
    for (uint32_t i = 0; i < info.children_count; ++i) {
        const DataTree &c = info.children[i];
        out += " " + std::to_string(c.present[0]) + std::to_string(c.present[1]) + " " + s(c.name) + "=" + s(c.value);
    }
    return out;
}
const std::string kUntouched = "00 s0 | 00 0 0 (null) | 00 (null) | 0000 (null):";

struct Results : ::testing::Test, tov::test::LoggedFramework {
    Results() : LoggedFramework("req") {
        EXPECT_EQ(tov_session_store_init(&fw), TOV_RC_OK);
        known = tov_session_create(&fw);
        request.operation = 5, request.session_id = known->session_id, request.message_id = const_cast<char *>("m1");
        request.present[0] = 1 << TOV_REQUEST_BIT_OPERATION | 1 << TOV_REQUEST_BIT_SESSION_ID | 1 << TOV_REQUEST_BIT_MESSAGE_ID;
        capture.take(), tail->take();
    }
    ~Results() override { EXPECT_EQ(tov_session_store_cleanup(&fw), 0u); }
    Session *known = nullptr, *out = nullptr;
    Request request{};
    RequestContext rctx{&fw, &request};
    Check lookup = [this](RequestContext *c, Session *, RequestResult *r) { return tov_req_session_id_lookup(c, r, &out); };
};

Check me(uint32_t code) {
    return [code](RequestContext *c, Session *s, RequestResult *r) { return tov_me_request_result_check(c, s, r, code); };
}
Check element(uint32_t (*set)(RequestContext *, Session *, RequestResult *, const char *)) {
    return [set](RequestContext *c, Session *s, RequestResult *r) { return set(c, s, r, "eth0"); };
}

TEST_F(Results, ChecksFillTheErrorAndLogOnce) {
    const uint32_t unknown_id = known->session_id ^ 1u;
    struct Case {
        const char *what;
        std::function<void(Request &)> request;
        Check call;
        uint32_t rc;
        std::string result, labels;         // labels: indices into kLabels, one per live block
        const char *tag, *function, *marker; // the log line: level tag, function, source text
        std::string body;
        const void *ses;
    };
    const std::string info = " | 4100 error-info: 30 bad-element=eth0";
    std::vector<Case> cases = {
        {"message id present", [](Request &) {}, tov_req_message_id_check, 0, kUntouched, "", nullptr, "", "", "", 0},
        {"message id missing", [](Request &q) { q.present[0] &= ~(1 << TOV_REQUEST_BIT_MESSAGE_ID); },
         tov_req_message_id_check, TOV_RC_REQUEST_REFUSED, "01 s0 | 07 1 0 missing-attribute | 02 Message ID is "
         "missing. | 4100 error-info: 30 bad-attribute=message-id 30 bad-element=rpc", "01236789", "ERR:",
         "tov_req_message_id_check", "\"message-id not set\"", "message-id not set", known},
        {"missing element", [](Request &) {}, element(tov_req_result_missing_element_set), 0,
         "01 s0 | 07 2 0 missing-element | 02 An expected element is missing." + info, "012345", "ERR:",
         "tov_req_result_missing_element_set", "MISSING_ELEMENT_TEXT \": %s\"", "An expected element is missing.: eth0", known},
        {"unknown element", [](Request &) {}, element(tov_req_result_unknown_element_set), 0,
         "01 s0 | 07 2 0 unknown-element | 02 Unknown element is specified." + info, "012345", "ERR:",
         "tov_req_result_unknown_element_set", "UNKNOWN_ELEMENT_TEXT \": %s\"", "Unknown element is specified.: eth0", known},
        {"session id missing", [](Request &q) { q.present[0] &= ~(1 << TOV_REQUEST_BIT_SESSION_ID); }, lookup,
         TOV_RC_REQUEST_REFUSED, "01 s0 | 07 3 0 data-missing | 02 Session ID is missing. | 0000 (null):", "01", "ERR:",
         "tov_req_session_id_lookup", "operation, TOV_SESSION_ID_MISSING_TEXT);", "Session ID is missing.", nullptr},
        {"session not found", [&](Request &q) { q.session_id = unknown_id; }, lookup, TOV_RC_REQUEST_REFUSED,
         "01 s0 | 07 3 0 invalid-value | 02 Entered session ID was not found. | 0000 (null):", "01", "ERR:",
         "tov_req_session_id_lookup", "not found\"", "session with id=" + std::to_string(int(unknown_id)) + " not found", nullptr},
        {"session found", [](Request &) {}, lookup, 0, kUntouched, "", nullptr, "", "", "", 0},
        {"engine success: a DBG line, in the ring only", [](Request &) {}, me(0), 0,
         "01 s1 | 00 0 0 (null) | 00 (null) | 0000 (null):", "", "DBG:", "tov_me_request_result_check",
         "\"ME request success.\"", "ME request success.", known},
    };
    // One engine failure: the road test maps every engine code to its tag.
    const std::string text = error_code_text(0xaaf2b000u);
    cases.push_back({"engine failure", [](Request &) {}, me(0xaaf2b000u), TOV_RC_ME_REQUEST_FAILED,
                     "01 s0 | 07 3 0 resource-denied | 02 " + text + " | 0000 (null):", "01", "ERR:",
                     "tov_me_request_result_check", "\"ME request failed",
                     "ME request failed: (rc=" + std::to_string(int(0xaaf2b000u)) + ") " + text, known});
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        const Request saved = request;
        c.request(request);
        RequestResult result{};
        out = known;
        EXPECT_EQ(c.call(&rctx, known, &result), c.rc);
        request = saved;
        EXPECT_EQ(describe(result), c.result);
        EXPECT_EQ(live_labels(), c.labels);
        if (c.call.target_type() == lookup.target_type()) {
            EXPECT_EQ(out, c.rc == 0 ? known : nullptr);
        }
        Strings platform, ring;
        if (c.tag) {
            const std::string rest = " ctx=" + tov::test::ptr(&fw) + ",ses=" + tov::test::ptr(c.ses) + ",op=5," + c.body;
            if (c.tag == std::string("ERR:")) platform.push_back(c.tag + std::string(" TOV:") + rest);
            const int line = tov::test::source_line("request/result.cc", c.marker);
            ring.push_back(c.tag + (" " + std::string(c.function)) + ":" + std::to_string(line) + rest);
        }
        EXPECT_EQ(capture.take(), platform);
        EXPECT_EQ(tail->take(), ring);
        kesh_tov_request_result_free_ext(&result, tov_gpb_free, 0, 0);
        EXPECT_EQ(live_labels(), "");
    }
}

TEST_F(Results, SettersAndTheOutOfMemoryAnswer) {
    RequestResult r{};
    EXPECT_EQ(tov_req_result_error_set(nullptr, 1, 0, "t", "m"), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(tov_req_result_error_info_set(nullptr, nullptr, 0), TOV_RC_BAD_ARGUMENT);
    DataTree node{};
    EXPECT_EQ(tov_req_result_error_info_set(&r, &node, 0), 0u); // a name, but no node list
    kor_named_fail_config(2, 0);                                // the message copy fails: the error stands
    EXPECT_EQ(tov_req_result_error_set(&r, 3, 0, "tag", "message"), 0u);
    kor_named_fail_config(0, 0);
    EXPECT_EQ(describe(r), "01 s0 | 07 3 0 tag | 00 (null) | 0100 error-info:");
    tov_nomem_error_set(&r);
    EXPECT_EQ(describe(r), "01 s0 | 00 0 0 (null) | 00 (null) | 0000 (null):");
    EXPECT_EQ(live_labels(), "");
    tov_bit_set(r.present, TOV_REQUEST_RESULT_BIT_ERROR); // the error bit alone counts as started
    tov_nomem_error_set(&r);
    EXPECT_EQ(r.present[0], 0x01);
    r.error.error_tag = const_cast<char *>("no presence bit: not the result's"); // left alone
    tov_nomem_error_set(&r);
    EXPECT_STREQ(r.error.error_tag, "no presence bit: not the result's");
    RequestContext no_framework{nullptr, &request};
    EXPECT_DEATH(tov_req_message_id_check(nullptr, nullptr, &r), "");
    EXPECT_DEATH(tov_req_message_id_check(&no_framework, nullptr, &r), "");
}

// Each allocation fails in turn, once and from then on. The code follows the label that failed
// last (a few failures are meant to be survived); releasing the result leaves nothing live.
TEST_F(Results, EveryAllocationFailureOnceAndPersistent) {
    const struct {
        unsigned clear; // request presence bit to clear, or 0 (the operation, kept)
        Check call;
        uint32_t ok;
        uint64_t points;
        Strings benign;
    } sweeps[] = {
        {0, [](auto, auto, RequestResult *r) { return tov_req_result_error_set(r, 1, 0, "t", "m"); }, 0, 2, {kLabels[1]}},
        {0, [](auto, auto, RequestResult *r) { return tov_req_result_error_info_set(r, nullptr, 0); }, 0, 1, {}},
        {0, element(tov_req_result_missing_element_set), 0, 6, {kLabels[1]}},
        {0, element(tov_req_result_unknown_element_set), 0, 6, {kLabels[1]}},
        {TOV_REQUEST_BIT_MESSAGE_ID, tov_req_message_id_check, TOV_RC_REQUEST_REFUSED, 8, {kLabels[1], kLabels[2]}},
        {TOV_REQUEST_BIT_SESSION_ID, lookup, TOV_RC_REQUEST_REFUSED, 2, {kLabels[1]}},
        {0, me(1), TOV_RC_ME_REQUEST_FAILED, 2, {kLabels[1]}},
    };
    for (const auto &s : sweeps) {
        tov_bit_clear(request.present, s.clear);
        const auto call = [&]() -> int64_t {
            RequestResult r{};
            const uint32_t rc = s.call(&rctx, known, &r);
            kesh_tov_request_result_free_ext(&r, tov_gpb_free, 0, 0);
            return rc;
        };
        EXPECT_EQ(tov::test::allocation_points({call, s.ok, TOV_RC_NO_MEMORY, s.benign}), s.points);
        tov_bit_set(request.present, s.clear);
    }
}

} // namespace
