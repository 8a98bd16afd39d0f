// SPDX-License-Identifier: BSD-3-Clause
// Request results: NETCONF errors with their error-info, the message-id and session checks, the
// management engine's outcome, and the bare failure sent when memory ran out.
#include <algorithm>
#include <span>

#include "codec/engine.hpp"
#include "codec/envelope_tables.hpp"
#include "debug/log.hpp"
#include "tov/gpb.h"
#include "tov/kor_alloc.h"
#include "tov/request.h"
#include "tov/result.h"
#include "tov/strings.h"

// Texts that appear both as an error message and in the log line reporting it.
#define TOV_MISSING_ELEMENT_TEXT "An expected element is missing."
#define TOV_UNKNOWN_ELEMENT_TEXT "Unknown element is specified."
#define TOV_SESSION_ID_MISSING_TEXT "Session ID is missing."

namespace tov::detail {
namespace {

struct Checked {
    FrameworkContext *framework;
    const Request *request;
};

// The contexts every request check logs through; a missing one stops the process.
Checked checked(RequestContext *rctx) {
    TOV_REQUIRE_CONTEXT(rctx);
    TOV_REQUIRE_CONTEXT(rctx->framework);
    TOV_REQUIRE_CONTEXT(rctx->request);
    return {rctx->framework, rctx->request};
}

// Stores a new copy in a string member, releasing what an earlier call put there.
void replace(char *&member, char *copy) {
    kor_named_free(member);
    member = copy;
}

// Every error here has severity "error".
uint32_t set_error(RequestResult *result, uint32_t type, const char *tag, const char *message) {
    return tov_req_result_error_set(result, type, TOV_ERROR_SEVERITY_ERROR, tag, message);
}

// One error-info entry: a name and a value, each copied under its own label.
struct InfoItem {
    const char *name;
    const char *name_label;
    const char *value;
    const char *value_label;
};

void release_info(DataTree *nodes, size_t count) {
    for (size_t i = 0; i < count; ++i)
        kesh_tov_datatree_free_ext(&nodes[i], tov_gpb_free, 0, 0);
    kor_named_free(nodes);
}

// The entries of `items` with both texts present, or NULL when memory ran out (nothing is left).
DataTree *build_info(FrameworkContext *fw, std::span<const InfoItem> items) {
    DataTree *nodes = tov_gpb_datatree_create(fw, static_cast<unsigned>(items.size()));
    if (!nodes)
        return nullptr;
    for (size_t i = 0; i < items.size(); ++i) {
        DataTree &node = nodes[i];
        node.name = tov_strdup(items[i].name, items[i].name_label);
        node.value = node.name ? tov_strdup(items[i].value, items[i].value_label) : nullptr;
        if (!node.value) {
            release_info(nodes, i + 1);
            return nullptr;
        }
        tov_bit_set(node.present, TOV_DATATREE_BIT_NAME);
        tov_bit_set(node.present, TOV_DATATREE_BIT_VALUE);
    }
    return nodes;
}

// A protocol error naming the bad element in its error-info.
uint32_t element_error(FrameworkContext *fw, RequestResult *result, const char *element, const char *tag,
                       const char *message) {
    if (uint32_t rc = set_error(result, TOV_ERROR_TYPE_PROTOCOL, tag, message))
        return rc;
    const InfoItem item[] = {{"bad-element", "str: bad element", element, "element name string"}};
    DataTree *node = build_info(fw, item);
    if (!node)
        return TOV_RC_NO_MEMORY;
    uint32_t rc = tov_req_result_error_info_set(result, node, 1);
    if (rc != 0)
        release_info(node, 1); // not taken by the result
    return rc;
}

struct MeTag {
    uint32_t code;
    const char *tag;
};
constexpr MeTag kMeTags[] = {
    {0xaaf2aa00u, "invalid-value"},
    {0xaaf2b000u, "resource-denied"},
    {0xaaf2bc00u, "invalid-value"},
    {0xaaf2be00u, "operation-not-supported"},
};

const char *me_tag(uint32_t code) {
    const auto *hit = std::find_if(std::begin(kMeTags), std::end(kMeTags),
                                   [code](const MeTag &t) { return t.code == code; });
    return hit != std::end(kMeTags) ? hit->tag : "operation-failed";
}

const char *or_null(const char *s) {
    return s ? s : "(null)";
}


} // namespace
} // namespace tov::detail

using namespace tov::detail;

extern "C" {

TOV_API uint32_t tov_req_result_error_set(RequestResult *result, uint32_t type, uint32_t severity,
                                          const char *tag, const char *message) {
    if (!result)
        return TOV_RC_BAD_ARGUMENT;
    Error &error = result->error;
    error.error_type = type;
    error.error_severity = severity;
    tov_bit_set(error.present, TOV_ERROR_BIT_ERROR_TYPE);
    tov_bit_set(error.present, TOV_ERROR_BIT_ERROR_SEVERITY);
    result->success = 0;
    tov_bit_set(result->present, TOV_REQUEST_RESULT_BIT_SUCCESS);
    char *tag_copy = tov_strdup(tag, "error tag string");
    if (!tag_copy)
        return TOV_RC_NO_MEMORY;
    replace(error.error_tag, tag_copy);
    tov_bit_set(error.present, TOV_ERROR_BIT_ERROR_TAG);
    // Without its message the error still says what went wrong: no failure for that.
    if (char *message_copy = tov_strdup(message, "error message")) {
        replace(error.error_message.text, message_copy);
        tov_bit_set(error.error_message.present, TOV_ERROR_MESSAGE_BIT_TEXT);
    }
    return 0;
}

TOV_API uint32_t tov_req_result_error_info_set(RequestResult *result, DataTree *nodes, uint32_t count) {
    if (!result)
        return TOV_RC_BAD_ARGUMENT;
    char *name = tov_strdup("error-info", "str: error-info");
    if (!name)
        return TOV_RC_NO_MEMORY;
    DataTree &info = result->error.error_info;
    replace(info.name, name);
    tov_bit_set(info.present, TOV_DATATREE_BIT_NAME);
    if (nodes && count != 0) {
        if (info.children)
            release_info(info.children, info.children_count);
        info.children = nodes;
        info.children_count = count;
        tov_bit_set(info.present, TOV_DATATREE_BIT_CHILDREN);
    }
    return 0;
}

TOV_API uint32_t tov_req_result_missing_element_set(RequestContext *rctx, Session *session,
                                                    RequestResult *result, const char *element) {
    auto [fw, req] = checked(rctx);
    TOV_ERR_OP(fw, session, req->operation, TOV_MISSING_ELEMENT_TEXT ": %s", or_null(element));
    return element_error(fw, result, element, "missing-element", TOV_MISSING_ELEMENT_TEXT);
}

TOV_API uint32_t tov_req_result_unknown_element_set(RequestContext *rctx, Session *session,
                                                    RequestResult *result, const char *element) {
    auto [fw, req] = checked(rctx);
    TOV_ERR_OP(fw, session, req->operation, TOV_UNKNOWN_ELEMENT_TEXT ": %s", or_null(element));
    return element_error(fw, result, element, "unknown-element", TOV_UNKNOWN_ELEMENT_TEXT);
}

TOV_API uint32_t tov_req_message_id_check(RequestContext *rctx, Session *session, RequestResult *result) {
    auto [fw, req] = checked(rctx);
    if (tov_bit_is_set(req->present, TOV_REQUEST_BIT_MESSAGE_ID))
        return 0;
    TOV_ERR_OP(fw, session, req->operation, "message-id not set");
    if (uint32_t rc = set_error(result, TOV_ERROR_TYPE_RPC, "missing-attribute", "Message ID is missing."))
        return rc;
    const InfoItem items[] = {{"bad-attribute", "str: bad-attribute", "message-id", "str: message-id"},
                              {"bad-element", "str: bad-element", "rpc", "str: rpc"}};
    DataTree *entries = build_info(fw, items);
    if (!entries)
        return TOV_RC_NO_MEMORY;
    // The refusal stands even without its error-info; entries the result did not take are released.
    if (tov_req_result_error_info_set(result, entries, 2) != 0)
        release_info(entries, 2);
    return TOV_RC_REQUEST_REFUSED;
}

TOV_API uint32_t tov_req_session_id_lookup(RequestContext *rctx, RequestResult *result, Session **session) {
    auto [fw, req] = checked(rctx);
    if (!session)
        return TOV_RC_BAD_ARGUMENT;
    *session = nullptr;
    uint32_t rc;
    // Here the error is set first and then logged.
    if (!tov_bit_is_set(req->present, TOV_REQUEST_BIT_SESSION_ID)) {
        rc = set_error(result, TOV_ERROR_TYPE_APPLICATION, "data-missing", TOV_SESSION_ID_MISSING_TEXT);
        TOV_ERR_OP(fw, *session, req->operation, TOV_SESSION_ID_MISSING_TEXT);
        return rc != 0 ? rc : TOV_RC_REQUEST_REFUSED;
    }
    *session = tov_session_find(fw, req->session_id);
    if (*session)
        return 0;
    rc = set_error(result, TOV_ERROR_TYPE_APPLICATION, "invalid-value", "Entered session ID was not found.");
    const int id = static_cast<int>(req->session_id);
    TOV_ERR_OP(fw, *session, req->operation, "session with id=%d not found", id);
    return rc != 0 ? rc : TOV_RC_REQUEST_REFUSED;
}

TOV_API uint32_t tov_me_request_result_check(RequestContext *rctx, Session *session, RequestResult *result,
                                             uint32_t code) {
    auto [fw, req] = checked(rctx);
    if (code == 0) {
        TOV_DBG_OP(fw, session, req->operation, "ME request success.");
        if (!result)
            return TOV_RC_BAD_ARGUMENT;
        result->success = 1;
        tov_bit_set(result->present, TOV_REQUEST_RESULT_BIT_SUCCESS);
        return 0;
    }
    const char *text = error_code_text(code);
    TOV_ERR_OP(fw, session, req->operation, "ME request failed: (rc=%d) %s", static_cast<int>(code), text);
    const uint32_t rc = set_error(result, TOV_ERROR_TYPE_APPLICATION, me_tag(code), text);
    return rc != 0 ? rc : TOV_RC_ME_REQUEST_FAILED;
}

TOV_API void tov_nomem_error_set(RequestResult *result) {
    if (!result)
        return;
    result->success = 0;
    tov_bit_set(result->present, TOV_REQUEST_RESULT_BIT_SUCCESS);
    // Any presence byte of the error or of its inline records means something half-built.
    const auto *error = reinterpret_cast<const uint8_t *>(&result->error);
    const bool started = std::any_of(kError.closure, kError.closure + kError.closure_count,
                                     [error](uint16_t offset) { return error[offset] != 0; });
    if (!started && !tov_bit_is_set(result->present, TOV_REQUEST_RESULT_BIT_ERROR))
        return;
    kesh_tov_error_free_ext(&result->error, tov_gpb_free, 0, 0);
    reset(kError, &result->error);
    tov_bit_clear(result->present, TOV_REQUEST_RESULT_BIT_ERROR);
}

} // extern "C"
