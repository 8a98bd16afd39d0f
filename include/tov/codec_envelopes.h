/* SPDX-License-Identifier: BSD-3-Clause */
/* Codec records of the request and response envelopes and the error records. The pattern of
 * their functions: tov/codec_base.h. */
#ifndef TOV_CODEC_ENVELOPES_H
#define TOV_CODEC_ENVELOPES_H

#include "tov/codec_operations.h"
#include "tov/operations.h"

TOV_BEGIN_DECLS

/* ---- error_message ---- */

/* The text of an error. */
typedef struct ErrorMessage {
    char *lang;
    char *text;
    uint8_t present[1];
} ErrorMessage;
enum {
    TOV_ERROR_MESSAGE_BIT_LANG = 0,
    TOV_ERROR_MESSAGE_BIT_TEXT = 1,
};

/* ---- error ---- */

/* One NETCONF rpc-error. */
typedef struct Error {
    uint32_t error_type;
    char *error_tag;
    uint32_t error_severity;
    char *error_app_tag;
    DataTree error_path;
    ErrorMessage error_message;
    DataTree error_info;
    uint8_t present[1];
} Error;
enum {
    TOV_ERROR_BIT_ERROR_TYPE = 0,
    TOV_ERROR_BIT_ERROR_TAG = 1,
    TOV_ERROR_BIT_ERROR_SEVERITY = 2,
    TOV_ERROR_BIT_ERROR_APP_TAG = 3,
    TOV_ERROR_BIT_ERROR_PATH = 4,
    TOV_ERROR_BIT_ERROR_MESSAGE = 5,
    TOV_ERROR_BIT_ERROR_INFO = 6,
};

/* ---- request_result ---- */

/* The outcome of one operation. */
typedef struct RequestResult {
    uint8_t success;
    uint32_t code;
    char *text;
    Error error;
    uint8_t present[1];
} RequestResult;
enum {
    TOV_REQUEST_RESULT_BIT_SUCCESS = 0,
    TOV_REQUEST_RESULT_BIT_CODE = 1,
    TOV_REQUEST_RESULT_BIT_TEXT = 2,
    TOV_REQUEST_RESULT_BIT_ERROR = 3,
};

/* ---- response ---- */

/* The answer to a request. */
typedef struct Response {
    uint8_t success;
    uint32_t code;
    char *text;
    Schema *schemas;
    uint32_t schemas_count;
    DataTree data;
    Error error;
    Error *errors;
    uint32_t errors_count;
    uint8_t present[1];
} Response;
enum {
    TOV_RESPONSE_BIT_SUCCESS = 0,
    TOV_RESPONSE_BIT_CODE = 1,
    TOV_RESPONSE_BIT_TEXT = 2,
    TOV_RESPONSE_BIT_SCHEMAS = 3,
    TOV_RESPONSE_BIT_DATA = 4,
    TOV_RESPONSE_BIT_ERROR = 5,
    TOV_RESPONSE_BIT_ERRORS = 6,
};

/* ---- request ---- */

/* The envelope of every operation: header fields, then every payload inline (not a union). */
typedef struct Request {
    uint32_t operation; /* TOV_OP_* */
    uint32_t session_id;
    char *message_id;
    GetConfig get_config;
    EditConfig edit_config;
    Validate validate;
    Lock lock;
    Unlock unlock;
    Commit commit;
    CancelCommit cancel_commit;
    /* discard_changes: a payload flag without fields; only its presence bit */
    CopyConfig copy_config;
    Get get;
    StartSession start_session;
    StopSession stop_session;
    LoggingSet logging_set;
    /* schemas_list: a payload flag without fields; only its presence bit */
    CliShow cli_show;
    CliConfig cli_config;
    SettingsSet settings_set;
    MdtYangResolve mdt_yang_resolve;
    InvokeRpc invoke_rpc;
    uint8_t present[3];
} Request;
enum {
    TOV_REQUEST_BIT_OPERATION = 0,
    TOV_REQUEST_BIT_SESSION_ID = 1,
    TOV_REQUEST_BIT_MESSAGE_ID = 2,
    TOV_REQUEST_BIT_GET_CONFIG = 3,
    TOV_REQUEST_BIT_EDIT_CONFIG = 4,
    TOV_REQUEST_BIT_VALIDATE = 5,
    TOV_REQUEST_BIT_LOCK = 6,
    TOV_REQUEST_BIT_UNLOCK = 7,
    TOV_REQUEST_BIT_COMMIT = 8,
    TOV_REQUEST_BIT_CANCEL_COMMIT = 9,
    TOV_REQUEST_BIT_DISCARD_CHANGES = 10,
    TOV_REQUEST_BIT_COPY_CONFIG = 11,
    TOV_REQUEST_BIT_GET = 12,
    TOV_REQUEST_BIT_START_SESSION = 13,
    TOV_REQUEST_BIT_STOP_SESSION = 14,
    TOV_REQUEST_BIT_LOGGING_SET = 15,
    TOV_REQUEST_BIT_SCHEMAS_LIST = 16,
    TOV_REQUEST_BIT_CLI_SHOW = 17,
    TOV_REQUEST_BIT_CLI_CONFIG = 18,
    TOV_REQUEST_BIT_SETTINGS_SET = 19,
    TOV_REQUEST_BIT_MDT_YANG_RESOLVE = 20,
    TOV_REQUEST_BIT_INVOKE_RPC = 21,
};
TOV_API void kesh_tov_request_free_ext(Request *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                       uintptr_t codec_ctx);

/* The family's messages: X(name, record, decode arguments, encode arguments, free arguments). */
#define TOV_ENVELOPE_MESSAGES(X) \
    X(error_message, ErrorMessage, 5, 5, 3) \
    X(error, Error, 6, 6, 4) \
    X(request_result, RequestResult, 6, 6, 4) \
    X(response, Response, 6, 6, 4) \
    X(request, Request, 6, 6, 4)
TOV_ENVELOPE_MESSAGES(TOV_DECLARE_CODEC)

TOV_END_DECLS

#endif
