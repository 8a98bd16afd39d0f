/* SPDX-License-Identifier: BSD-3-Clause */
/* Request checks and NETCONF error records.
 *
 * These fill the request_result of a response: success, or one rpc-error with its type, tag,
 * severity, message and error-info. Strings and arrays they attach come from the named allocator
 * and are released with the response (kesh_tov_response_free_ext(..., tov_gpb_free, 0, 0)). Each
 * function that reports an error also logs an ERR line; those about a request carry
 * "ses=%p,op=%u," and follow the request operation's log level. A null RequestContext, or one
 * without its framework context or request, stops the process. */
#ifndef TOV_REQUEST_H
#define TOV_REQUEST_H

#include <stdint.h>

#include "tov/codec.h"
#include "tov/export.h"
#include "tov/framework.h"
#include "tov/session.h"

/* NETCONF error types (error_type). */
#define TOV_ERROR_TYPE_TRANSPORT 0u
#define TOV_ERROR_TYPE_RPC 1u
#define TOV_ERROR_TYPE_PROTOCOL 2u
#define TOV_ERROR_TYPE_APPLICATION 3u
/* The only severity used: error. */
#define TOV_ERROR_SEVERITY_ERROR 0u

TOV_BEGIN_DECLS

/* Marks the result failed with one error of `type`, `severity`, `tag` and `message`. Returns 0,
 * TOV_RC_BAD_ARGUMENT (null result) or TOV_RC_NO_MEMORY (the tag could not be copied). A message
 * that cannot be copied is left out and the call still returns 0. */
TOV_API uint32_t tov_req_result_error_set(RequestResult *result, uint32_t type, uint32_t severity,
                                          const char *tag, const char *message);
/* Names the error's error-info tree "error-info" and, when `nodes` is not NULL and count is not 0,
 * gives it `nodes` as children; the result takes the array. Returns 0, TOV_RC_BAD_ARGUMENT or
 * TOV_RC_NO_MEMORY. */
TOV_API uint32_t tov_req_result_error_info_set(RequestResult *result, DataTree *nodes, uint32_t count);
/* Protocol error "missing-element" / "unknown-element" with error-info bad-element = `element`.
 * Returns 0, TOV_RC_BAD_ARGUMENT or TOV_RC_NO_MEMORY. */
TOV_API uint32_t tov_req_result_missing_element_set(RequestContext *rctx, Session *session, RequestResult *result,
                                                    const char *element);
TOV_API uint32_t tov_req_result_unknown_element_set(RequestContext *rctx, Session *session, RequestResult *result,
                                                    const char *element);
/* 0 when the request carries a message id; otherwise the rpc error "missing-attribute" and
 * TOV_RC_REQUEST_REFUSED (TOV_RC_NO_MEMORY or TOV_RC_BAD_ARGUMENT when the error cannot be set). */
TOV_API uint32_t tov_req_message_id_check(RequestContext *rctx, Session *session, RequestResult *result);
/* Finds the request's session: 0 and *session set, or an application error ("data-missing" without
 * a session id, "invalid-value" for an unknown one), *session NULL and TOV_RC_REQUEST_REFUSED
 * (or the code of setting the error). TOV_RC_BAD_ARGUMENT for a null `session`. Unlike the other
 * checks, it sets the error before logging it. */
TOV_API uint32_t tov_req_session_id_lookup(RequestContext *rctx, RequestResult *result, Session **session);
/* Turns a management engine's result code into the result: success for 0, else an application
 * error whose tag follows the code and whose message is error_code_text(code), and
 * TOV_RC_ME_REQUEST_FAILED (or the code of setting the error; TOV_RC_BAD_ARGUMENT for a null
 * result). */
TOV_API uint32_t tov_me_request_result_check(RequestContext *rctx, Session *session, RequestResult *result,
                                             uint32_t code);
/* After running out of memory while answering: marks the result failed and drops any half-built
 * error, so that a bare failure is sent. Allocates nothing. */
TOV_API void tov_nomem_error_set(RequestResult *result);

TOV_END_DECLS

#endif
