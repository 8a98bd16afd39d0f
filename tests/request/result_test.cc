// Request checks and result errors: codes, every error field and presence bit, the label of every
// copy, the log lines in both places, and every allocation failing once and from then on.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>

#include "support/alloc.hpp"
#include "support/rings.hpp"
#include "tov/gpb.h"
#include "tov/kor_alloc.h"
#include "tov/request.h"
#include "tov/result.h"

namespace {

using tov::test::ptr;
using Strings = std::vector<std::string>;

constexpr const char *kLabels[] = {"error tag string",   "error message",
                                   "str: error-info",    "GPB datatree (tov_req_datatree_create)",
                                   "str: bad element",   "element name string",
                                   "str: bad-attribute", "str: message-id",
                                   "str: bad-element",   "str: rpc"};

uint64_t live(const char *label = nullptr) { return tov::test::live_blocks(label); }

Strings live_labels() {
    Strings out;
    for (const char *l : kLabels)
        for (uint64_t n = live(l); n > 0; --n)
            out.push_back(l);
    return out;
}

std::string hex(const uint8_t *p, size_t n) {
    std::string s;
    char b[3];
    for (size_t i = 0; i < n; ++i)
        std::snprintf(b, sizeof b, "%02x", p[i]), s += b;
    return s;
}
const char *str(const char *s) {
    return s ? s : "(null)";
}

// Every field a request check may touch, with the presence bytes in hex.
std::string describe(const RequestResult &r) {
    const Error &e = r.error;
    const DataTree &info = e.error_info;
    std::string s = hex(r.present, 1) + " s" + std::to_string(r.success) + " | " + hex(e.present, 1) + " " +
                    std::to_string(e.error_type) + " " + std::to_string(e.error_severity) + " " +
                    str(e.error_tag) + " | " + hex(e.error_message.present, 1) + " " +
                    str(e.error_message.text) + " | " + hex(info.present, 2) + " " + str(info.name) + ":";
    for (uint32_t i = 0; i < info.children_count; ++i) {
        const DataTree &c = info.children[i];
        s += " " + hex(c.present, 2) + " " + str(c.name) + "=" + str(c.value);
    }
    return s;
}

const std::string kUntouched = "00 s0 | 00 0 0 (null) | 00 (null) | 0000 (null):";

class Results : public ::testing::Test {
  protected:
    void SetUp() override {
        tov_debug_save_agent_name("req");
        ASSERT_EQ(tov_debug_init(&fw.debug, "REQ", TOV_COMPONENT_TOV, nullptr), TOV_RC_OK);
        ASSERT_EQ(tov_session_store_init(&fw), TOV_RC_OK);
        known = tov_session_create(&fw);
        ASSERT_NE(known, nullptr);
        request.operation = 5;
        request.session_id = known->session_id;
        request.message_id = const_cast<char *>("m1");
        for (unsigned b : {TOV_REQUEST_BIT_OPERATION, TOV_REQUEST_BIT_SESSION_ID, TOV_REQUEST_BIT_MESSAGE_ID})
            tov_bit_set(request.present, b);
        tail = std::make_unique<tov::test::RingTail>(dir.file("req-tov/processor.trace"));
        tail->take();
        capture.take();
    }
    void TearDown() override {
        EXPECT_EQ(tov_session_store_cleanup(&fw), 0u);
        trace_buffer_close(fw.debug.trace_handle);
        EXPECT_EQ(tov_debug_cleanup(&fw.debug), TOV_RC_OK);
    }
    tov::test::RingDir dir;
    tov::test::Capture capture;
    FrameworkContext fw{};
    Request request{};
    RequestContext rctx{&fw, &request};
    Session *known = nullptr;
    std::unique_ptr<tov::test::RingTail> tail;
};

TEST_F(Results, ChecksFillTheErrorAndLogOnce) {
    struct Case {
        const char *what;
        unsigned clear_bit; // request presence bit to clear; 99 keeps all
        std::function<uint32_t(RequestContext *, Session *, RequestResult *)> call;
        uint32_t rc;
        std::string result;
        Strings labels;
        const char *tag, *function, *marker; // the log line: level tag, function, source text
        std::string body;
        const void *ses;
    };
    Session *out = known;
    auto lookup = [&out](RequestContext *c, Session *, RequestResult *r) {
        return tov_req_session_id_lookup(c, r, &out);
    };
    auto me = [](uint32_t code) {
        return [code](RequestContext *c, Session *s, RequestResult *r) {
            return tov_me_request_result_check(c, s, r, code);
        };
    };
    const std::string info1 = " | 4100 error-info: 0300 bad-element=eth0";
    std::vector<Case> cases = {
        {"message id present", 99, tov_req_message_id_check, 0, kUntouched, {}, nullptr, "", "", "", nullptr},
        {"message id missing",
         TOV_REQUEST_BIT_MESSAGE_ID,
         tov_req_message_id_check,
         TOV_RC_REQUEST_REFUSED,
         "01 s0 | 07 1 0 missing-attribute | 02 Message ID is missing. | 4100 error-info: 0300 "
         "bad-attribute=message-id 0300 bad-element=rpc",
         {kLabels[0], kLabels[1], kLabels[2], kLabels[3], kLabels[6], kLabels[7], kLabels[8], kLabels[9]},
         "ERR:",
         "tov_req_message_id_check",
         "\"message-id not set\"",
         "message-id not set",
         known},
        {"missing element",
         99,
         [](RequestContext *c, Session *s, RequestResult *r) {
             return tov_req_result_missing_element_set(c, s, r, "eth0");
         },
         0,
         "01 s0 | 07 2 0 missing-element | 02 An expected element is missing." + info1,
         {kLabels[0], kLabels[1], kLabels[2], kLabels[3], kLabels[4], kLabels[5]},
         "ERR:",
         "tov_req_result_missing_element_set",
         "TOV_MISSING_ELEMENT_TEXT \": %s\"",
         "An expected element is missing.: eth0",
         known},
        {"unknown element",
         99,
         [](RequestContext *c, Session *s, RequestResult *r) {
             return tov_req_result_unknown_element_set(c, s, r, "eth0");
         },
         0,
         "01 s0 | 07 2 0 unknown-element | 02 Unknown element is specified." + info1,
         {kLabels[0], kLabels[1], kLabels[2], kLabels[3], kLabels[4], kLabels[5]},
         "ERR:",
         "tov_req_result_unknown_element_set",
         "TOV_UNKNOWN_ELEMENT_TEXT \": %s\"",
         "Unknown element is specified.: eth0",
         known},
        {"session id missing",
         TOV_REQUEST_BIT_SESSION_ID,
         lookup,
         TOV_RC_REQUEST_REFUSED,
         "01 s0 | 07 3 0 data-missing | 02 Session ID is missing. | 0000 (null):",
         {kLabels[0], kLabels[1]},
         "ERR:",
         "tov_req_session_id_lookup",
         "operation, TOV_SESSION_ID_MISSING_TEXT);",
         "Session ID is missing.",
         nullptr},
        {"session found", 99, lookup, 0, kUntouched, {}, nullptr, "", "", "", nullptr},
        {"ME success",
         99,
         me(0),
         0,
         "01 s1 | 00 0 0 (null) | 00 (null) | 0000 (null):",
         {},
         "DBG:",
         "tov_me_request_result_check",
         "\"ME request success.\"",
         "ME request success.",
         known},
    };
    for (auto [code, tag] : {std::pair{0xaaf2aa00u, "invalid-value"},
                             {0xaaf2b000u, "resource-denied"},
                             {0xaaf2bc00u, "invalid-value"},
                             {0xaaf2be00u, "operation-not-supported"},
                             {0xaaf2a400u, "operation-failed"}}) {
        const std::string text = error_code_text(code);
        cases.push_back({"ME failure",
                         99,
                         me(code),
                         TOV_RC_ME_REQUEST_FAILED,
                         "01 s0 | 07 3 0 " + std::string(tag) + " | 02 " + text + " | 0000 (null):",
                         {kLabels[0], kLabels[1]},
                         "ERR:",
                         "tov_me_request_result_check",
                         "\"ME request failed",
                         "ME request failed: (rc=" + std::to_string(static_cast<int>(code)) + ") " + text,
                         known});
    }
    const uint32_t unknown_id = known->session_id + 1;
    cases.push_back({"session not found",
                     99,
                     lookup,
                     TOV_RC_REQUEST_REFUSED,
                     "01 s0 | 07 3 0 invalid-value | 02 Entered session ID was not found. | 0000 (null):",
                     {kLabels[0], kLabels[1]},
                     "ERR:",
                     "tov_req_session_id_lookup",
                     "not found\"",
                     "session with id=" + std::to_string(static_cast<int>(unknown_id)) + " not found",
                     nullptr});
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Request saved = request;
        if (c.clear_bit != 99)
            tov_bit_clear(request.present, c.clear_bit);
        if (std::string(c.what) == "session not found")
            request.session_id = unknown_id;
        RequestResult result{};
        out = known;
        EXPECT_EQ(c.call(&rctx, known, &result), c.rc);
        request = saved;
        EXPECT_EQ(describe(result), c.result);
        EXPECT_EQ(live_labels(), c.labels);
        if (std::string(c.what).starts_with("session")) {
            EXPECT_EQ(out, c.rc == 0 ? known : nullptr);
        }
        Strings platform, ring;
        if (c.tag) {
            const std::string rest = " ctx=" + ptr(&fw) + ",ses=" + ptr(c.ses) + ",op=5," + c.body;
            if (std::string(c.tag) == "ERR:")
                platform.push_back(std::string(c.tag) + " TOV:" + rest);
            ring.push_back(std::string(c.tag) + " " + c.function + ":" +
                           std::to_string(tov::test::source_line("request/result.cc", c.marker)) + rest);
        }
        EXPECT_EQ(capture.take(), platform);
        EXPECT_EQ(tail->take(), ring);
        kesh_tov_request_result_free_ext(&result, tov_gpb_free, 0, 0);
        EXPECT_EQ(live_labels(), Strings{});
    }
}

TEST_F(Results, SettersAndTheOutOfMemoryAnswer) {
    RequestResult r{};
    EXPECT_EQ(tov_req_result_error_set(nullptr, 1, 0, "t", "m"), TOV_RC_BAD_ARGUMENT);
    EXPECT_EQ(tov_req_result_error_info_set(nullptr, nullptr, 0), TOV_RC_BAD_ARGUMENT);
    DataTree node{};
    EXPECT_EQ(tov_req_result_error_info_set(&r, &node, 0), 0u); // a name, but no node list
    EXPECT_EQ(describe(r), "00 s0 | 00 0 0 (null) | 00 (null) | 0100 error-info:");
    kor_named_fail_config(2, 0); // the message copy: the error stands without it
    EXPECT_EQ(tov_req_result_error_set(&r, 3, 0, "tag", "message"), 0u);
    kor_named_fail_config(0, 0);
    EXPECT_EQ(describe(r), "01 s0 | 07 3 0 tag | 00 (null) | 0100 error-info:");
    tov_nomem_error_set(&r);
    EXPECT_EQ(describe(r), "01 s0 | 00 0 0 (null) | 00 (null) | 0000 (null):");
    EXPECT_EQ(live_labels(), Strings{});
    // The error-present bit alone counts as started; members without a presence bit do not.
    tov_bit_set(r.present, TOV_REQUEST_RESULT_BIT_ERROR);
    tov_nomem_error_set(&r);
    EXPECT_EQ(r.present[0], 0x01);
    r.error.error_tag = const_cast<char *>("not the result's to free");
    tov_nomem_error_set(&r);
    EXPECT_STREQ(r.error.error_tag, "not the result's to free");
    tov_nomem_error_set(nullptr);
    RequestContext no_framework{nullptr, &request};
    EXPECT_DEATH(tov_req_message_id_check(nullptr, nullptr, &r), "");
    EXPECT_DEATH(tov_req_message_id_check(&no_framework, nullptr, &r), "");
}

// Each allocation of each allocating check fails in turn, once and from then on: the code follows
// the failed label (some failures are meant to be survived), and releasing the result leaves
// nothing live.
TEST_F(Results, EveryAllocationFailureOnceAndPersistent) {
    struct Sweep {
        const char *what;
        unsigned clear_bit;
        std::function<uint32_t(RequestResult *)> call;
        uint32_t ok;
        uint64_t points;
        Strings benign;
    };
    Session *out = nullptr;
    const Sweep sweeps[] = {
        {"error_set",
         99,
         [](RequestResult *r) { return tov_req_result_error_set(r, 1, 0, "t", "m"); },
         0,
         2,
         {"error message"}},
        {"error_info_set",
         99,
         [](RequestResult *r) { return tov_req_result_error_info_set(r, nullptr, 0); },
         0,
         1,
         {}},
        {"missing",
         99,
         [&](RequestResult *r) { return tov_req_result_missing_element_set(&rctx, known, r, "e"); },
         0,
         6,
         {"error message"}},
        {"unknown",
         99,
         [&](RequestResult *r) { return tov_req_result_unknown_element_set(&rctx, known, r, "e"); },
         0,
         6,
         {"error message"}},
        {"message id",
         TOV_REQUEST_BIT_MESSAGE_ID,
         [&](RequestResult *r) { return tov_req_message_id_check(&rctx, known, r); },
         TOV_RC_REQUEST_REFUSED,
         8,
         {"error message", "str: error-info"}},
        {"no session id",
         TOV_REQUEST_BIT_SESSION_ID,
         [&](RequestResult *r) { return tov_req_session_id_lookup(&rctx, r, &out); },
         TOV_RC_REQUEST_REFUSED,
         2,
         {"error message"}},
        {"ME failure",
         99,
         [&](RequestResult *r) { return tov_me_request_result_check(&rctx, known, r, 1); },
         TOV_RC_ME_REQUEST_FAILED,
         2,
         {"error message"}},
    };
    const uint64_t baseline = live();
    for (const Sweep &s : sweeps) {
        if (s.clear_bit != 99)
            tov_bit_clear(request.present, s.clear_bit);
        for (uint32_t persistent : {0u, 1u}) {
            SCOPED_TRACE(std::string(s.what) + (persistent ? " persistent" : " once"));
            for (uint64_t k = 1;; ++k) {
                RequestResult r{};
                kor_named_fail_config(k, persistent);
                const uint32_t rc = s.call(&r);
                const uint64_t failures = kor_named_fail_count();
                const char *label = kor_named_last_failed_label();
                const std::string failed = label ? label : "";
                kor_named_fail_config(0, 0);
                const bool benign = std::find(s.benign.begin(), s.benign.end(), failed) != s.benign.end();
                EXPECT_EQ(rc, failures == 0 || benign ? s.ok : TOV_RC_NO_MEMORY)
                    << "failing allocation " << k << " " << failed;
                kesh_tov_request_result_free_ext(&r, tov_gpb_free, 0, 0);
                EXPECT_EQ(live(), baseline) << "failing allocation " << k;
                if (failures == 0) {
                    EXPECT_EQ(k - 1, s.points);
                    break;
                }
            }
        }
        tov_bit_set(request.present, s.clear_bit == 99 ? 0 : s.clear_bit);
    }
    capture.take();
}

} // namespace
