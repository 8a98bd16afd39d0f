// SPDX-License-Identifier: BSD-3-Clause
// The road of one request, end to end, once per outcome: bytes from libprotobuf decoded with the
// framework's allocator pair, checked, the engine's outcome turned into a result with an XPath
// error path, the response measured, encoded and parsed back by libprotobuf, everything released.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/alloc.hpp"
#include "support/rings.hpp"
#include "tov.pb.h"
#include "tov/gpb.h"
#include "tov/kor_alloc.h"
#include "tov/request.h"
#include "tov/result.h"
#include "tov/xpath.h"

namespace {

uint64_t live(const char *label = nullptr) { return tov::test::live_blocks(label); }

// What the peer reads: type, tag, message, error-info and error path with its declarations.
std::string read_error(const kesh::tov::response &r) {
    if (!r.has_error())
        return "";
    const kesh::tov::error &e = r.error();
    std::string s = std::to_string(e.error_type()) + " " + e.error_tag() + " " +
                    std::to_string(e.error_severity()) + " | " + e.error_message().text() + " | " +
                    e.error_info().name() + ":";
    for (const auto &c : e.error_info().children())
        s += " " + c.name() + "=" + c.value();
    std::vector<std::string> declarations;
    for (const auto &a : e.error_path().attributes())
        declarations.push_back(a.name() + "=" + a.value());
    std::sort(declarations.begin(), declarations.end());
    s += " | " + e.error_path().value();
    for (const std::string &d : declarations)
        s += " " + d;
    return s;
}

TEST(Road, EveryOutcomeFromRequestBytesToParsedResponse) {
    tov::test::LoggedFramework logged("road"); // its ERR lines are checked elsewhere
    FrameworkContext &fw = logged.fw;
    ASSERT_EQ(tov_session_store_init(&fw), TOV_RC_OK);
    Session *session = tov_session_create(&fw);
    ASSERT_NE(session, nullptr);
    const uint64_t baseline = live();

    const std::string where = " | ns2:top/ns1:interfaces/ns1:interface[name = 'eth0'] xmlns:ns1=urn:a xmlns:ns2=urn:b";
    const uint32_t id = session->session_id;
    struct Case {
        bool message_id, session_id;
        uint32_t id, me_code, rc;
        std::string error; // as the peer reads it; empty for success
    } cases[] = {
        {false, true, id, 0, TOV_RC_REQUEST_REFUSED,
         "1 missing-attribute 0 | Message ID is missing. | error-info: bad-attribute=message-id bad-element=rpc | "},
        {true, false, 0, 0, TOV_RC_REQUEST_REFUSED, "3 data-missing 0 | Session ID is missing. | : | "},
        {true, true, id ^ 1, 0, TOV_RC_REQUEST_REFUSED, "3 invalid-value 0 | Entered session ID was not found. | : | "},
        {true, true, id, 0, 0, ""},
    };
    std::vector<Case> all(std::begin(cases), std::end(cases));
    for (auto [code, tag] : {std::pair{0xaaf2aa00u, "invalid-value"}, {0xaaf2b000u, "resource-denied"},
                             {0xaaf2bc00u, "invalid-value"}, {0xaaf2be00u, "operation-not-supported"},
                             {TOV_RC_NO_MEMORY, "operation-failed"}})
        all.push_back({true, true, id, code, TOV_RC_ME_REQUEST_FAILED,
                       std::string("3 ") + tag + " 0 | " + error_code_text(code) + " | :" + where});
    for (const Case &c : all) {
        SCOPED_TRACE(c.error);
        kesh::tov::request sent;
        sent.set_operation(TOV_OP_EDIT_CONFIG);
        if (c.session_id) sent.set_session_id(c.id);
        if (c.message_id) sent.set_message_id("101");
        sent.mutable_edit_config()->mutable_config()->set_name("interfaces");
        const std::string wire = sent.SerializeAsString();
        Request request;
        ASSERT_EQ(kesh_tov_request_decode_ext(&request, reinterpret_cast<const uint8_t *>(wire.data()),
                                              uint32_t(wire.size()), tov_gpb_alloc, 0, 0), 0);
        EXPECT_GT(live("TOV GPB"), 0u);

        RequestContext rctx{&fw, &request};
        RequestResult result{};
        Session *found = nullptr;
        uint32_t rc = tov_req_message_id_check(&rctx, nullptr, &result);
        if (rc == 0) rc = tov_req_session_id_lookup(&rctx, &result, &found);
        if (rc == 0) rc = tov_me_request_result_check(&rctx, found, &result, c.me_code);
        if (rc == TOV_RC_ME_REQUEST_FAILED) { // the handler says where, innermost step first
            const char *const names[] = {"name"}, *const values[] = {"eth0"};
            XPathContext x{};
            EXPECT_EQ(xpath_context_init(&x) | xpath_prepend(&x, "interface", "urn:a", names, values, 1) |
                          xpath_prepend(&x, "interfaces", "urn:a", nullptr, nullptr, 0) |
                          xpath_prepend(&x, "top", "urn:b", nullptr, nullptr, 0) | xpath_to_tov_error(&x, &result.error),
                      0);
            xpath_context_destroy(&x);
        }
        EXPECT_EQ(rc, c.rc);

        Response response{}; // takes the result's success and error
        response.success = result.success;
        tov_bit_set(response.present, TOV_RESPONSE_BIT_SUCCESS);
        response.error = result.error;
        std::string out(kesh_tov_response_encode_ext(&response, nullptr, 0, nullptr, nullptr, 0), '\0');
        const auto size = uint32_t(out.size());
        ASSERT_EQ(kesh_tov_response_encode_ext(&response, reinterpret_cast<uint8_t *>(out.data()), size, nullptr, nullptr, 0), size);
        kesh::tov::response parsed;
        ASSERT_TRUE(parsed.ParseFromString(out));
        EXPECT_EQ(parsed.success(), c.rc == 0);
        EXPECT_EQ(read_error(parsed), c.error);
        kesh_tov_response_free_ext(&response, tov_gpb_free, 0, 0);
        kesh_tov_request_free_ext(&request, tov_gpb_free, 0, 0);
        EXPECT_EQ(live(), baseline);
    }
    EXPECT_EQ(tov_session_store_cleanup(&fw), 0u);
}

} // namespace
