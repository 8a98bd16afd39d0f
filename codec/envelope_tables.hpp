// SPDX-License-Identifier: BSD-3-Clause
// Tables of the request and response envelopes and the error records.
#pragma once

#include <string_view>

#include "codec/operation_tables.hpp"

namespace tov::detail {

inline constexpr FieldDesc kErrorMessageFields[] = {
    TOV_FIELD_STRING(ErrorMessage, 1, lang, TOV_ERROR_MESSAGE_BIT_LANG),
    TOV_FIELD_STRING(ErrorMessage, 2, text, TOV_ERROR_MESSAGE_BIT_TEXT),
};
inline constexpr MessageDesc kErrorMessage = TOV_DESCRIBE("error_message", ErrorMessage, kErrorMessageFields);

inline constexpr FieldDesc kErrorFields[] = {
    TOV_FIELD_VARINT(Error, 1, error_type, TOV_ERROR_BIT_ERROR_TYPE),
    TOV_FIELD_STRING(Error, 2, error_tag, TOV_ERROR_BIT_ERROR_TAG),
    TOV_FIELD_VARINT(Error, 3, error_severity, TOV_ERROR_BIT_ERROR_SEVERITY),
    TOV_FIELD_STRING(Error, 4, error_app_tag, TOV_ERROR_BIT_ERROR_APP_TAG),
    TOV_FIELD_MESSAGE(Error, 5, error_path, DataTree, kDataTree, TOV_ERROR_BIT_ERROR_PATH),
    TOV_FIELD_MESSAGE(Error, 6, error_message, ErrorMessage, kErrorMessage, TOV_ERROR_BIT_ERROR_MESSAGE),
    TOV_FIELD_MESSAGE(Error, 7, error_info, DataTree, kDataTree, TOV_ERROR_BIT_ERROR_INFO),
};
inline constexpr MessageDesc kError = TOV_DESCRIBE("error", Error, kErrorFields);

inline constexpr FieldDesc kRequestResultFields[] = {
    TOV_FIELD_BOOL(RequestResult, 1, success, TOV_REQUEST_RESULT_BIT_SUCCESS),
    TOV_FIELD_VARINT(RequestResult, 2, code, TOV_REQUEST_RESULT_BIT_CODE),
    TOV_FIELD_STRING(RequestResult, 3, text, TOV_REQUEST_RESULT_BIT_TEXT),
    TOV_FIELD_MESSAGE(RequestResult, 33, error, Error, kError, TOV_REQUEST_RESULT_BIT_ERROR),
};
inline constexpr MessageDesc kRequestResult = TOV_DESCRIBE("request_result", RequestResult, kRequestResultFields);

inline constexpr FieldDesc kResponseFields[] = {
    TOV_FIELD_BOOL(Response, 1, success, TOV_RESPONSE_BIT_SUCCESS),
    TOV_FIELD_VARINT(Response, 2, code, TOV_RESPONSE_BIT_CODE),
    TOV_FIELD_STRING(Response, 3, text, TOV_RESPONSE_BIT_TEXT),
    TOV_FIELD_MESSAGES(Response, 4, schemas, schemas_count, Schema, &kSchema, TOV_RESPONSE_BIT_SCHEMAS),
    TOV_FIELD_MESSAGE(Response, 32, data, DataTree, kDataTree, TOV_RESPONSE_BIT_DATA),
    TOV_FIELD_MESSAGE(Response, 33, error, Error, kError, TOV_RESPONSE_BIT_ERROR),
    TOV_FIELD_MESSAGES(Response, 34, errors, errors_count, Error, &kError, TOV_RESPONSE_BIT_ERRORS),
};
inline constexpr MessageDesc kResponse = TOV_DESCRIBE("response", Response, kResponseFields);

// Field numbers 4 to 31 and 41 are unassigned and skipped like any unknown field.
inline constexpr FieldDesc kRequestFields[] = {
    TOV_FIELD_VARINT(Request, 1, operation, TOV_REQUEST_BIT_OPERATION),
    TOV_FIELD_VARINT(Request, 2, session_id, TOV_REQUEST_BIT_SESSION_ID),
    TOV_FIELD_STRING(Request, 3, message_id, TOV_REQUEST_BIT_MESSAGE_ID),
    TOV_FIELD_MESSAGE(Request, 32, get_config, GetConfig, kGetConfig, TOV_REQUEST_BIT_GET_CONFIG),
    TOV_FIELD_MESSAGE(Request, 33, edit_config, EditConfig, kEditConfig, TOV_REQUEST_BIT_EDIT_CONFIG),
    TOV_FIELD_MESSAGE(Request, 34, validate, Validate, kValidate, TOV_REQUEST_BIT_VALIDATE),
    TOV_FIELD_MESSAGE(Request, 35, lock, Lock, kLock, TOV_REQUEST_BIT_LOCK),
    TOV_FIELD_MESSAGE(Request, 36, unlock, Unlock, kUnlock, TOV_REQUEST_BIT_UNLOCK),
    TOV_FIELD_MESSAGE(Request, 37, commit, Commit, kCommit, TOV_REQUEST_BIT_COMMIT),
    TOV_FIELD_MESSAGE(Request, 38, cancel_commit, CancelCommit, kCancelCommit, TOV_REQUEST_BIT_CANCEL_COMMIT),
    TOV_FIELD_FLAG(39, "discard_changes", kDiscardChanges, TOV_REQUEST_BIT_DISCARD_CHANGES),
    TOV_FIELD_MESSAGE(Request, 40, copy_config, CopyConfig, kCopyConfig, TOV_REQUEST_BIT_COPY_CONFIG),
    TOV_FIELD_MESSAGE(Request, 42, get, Get, kGet, TOV_REQUEST_BIT_GET),
    TOV_FIELD_MESSAGE(Request, 43, start_session, StartSession, kStartSession, TOV_REQUEST_BIT_START_SESSION),
    TOV_FIELD_MESSAGE(Request, 44, stop_session, StopSession, kStopSession, TOV_REQUEST_BIT_STOP_SESSION),
    TOV_FIELD_MESSAGE(Request, 45, logging_set, LoggingSet, kLoggingSet, TOV_REQUEST_BIT_LOGGING_SET),
    TOV_FIELD_FLAG(46, "schemas_list", kSchemasList, TOV_REQUEST_BIT_SCHEMAS_LIST),
    TOV_FIELD_MESSAGE(Request, 47, cli_show, CliShow, kCliShow, TOV_REQUEST_BIT_CLI_SHOW),
    TOV_FIELD_MESSAGE(Request, 48, cli_config, CliConfig, kCliConfig, TOV_REQUEST_BIT_CLI_CONFIG),
    TOV_FIELD_MESSAGE(Request, 49, settings_set, SettingsSet, kSettingsSet, TOV_REQUEST_BIT_SETTINGS_SET),
    TOV_FIELD_MESSAGE(Request, 50, mdt_yang_resolve, MdtYangResolve, kMdtYangResolve, TOV_REQUEST_BIT_MDT_YANG_RESOLVE),
    TOV_FIELD_MESSAGE(Request, 51, invoke_rpc, InvokeRpc, kInvokeRpc, TOV_REQUEST_BIT_INVOKE_RPC),
};
inline constexpr MessageDesc kRequest = TOV_DESCRIBE("request", Request, kRequestFields);

// Every message, from the one list; each table must carry its entry's name.
#define TOV_TABLE_OF_(m, T, ...) &k##T,
inline constexpr const MessageDesc *kAllMessages[] = {TOV_MESSAGES(TOV_TABLE_OF_)};
#undef TOV_TABLE_OF_
#define TOV_CHECK_NAME_(m, T, ...) static_assert(std::string_view(k##T.name) == #m, "table and list disagree");
TOV_MESSAGES(TOV_CHECK_NAME_)
#undef TOV_CHECK_NAME_

} // namespace tov::detail
