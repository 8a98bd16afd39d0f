// Tables of the request and response envelopes and the error records.
#pragma once

#include "codec/operation_tables.hpp"

namespace tov::detail {

inline constexpr FieldDesc kErrorMessageFields[] = {
    TOV_FIELD_STRING(ErrorMessage, 1, lang),
    TOV_FIELD_STRING(ErrorMessage, 2, text),
};
inline constexpr MessageDesc kErrorMessage = TOV_DESCRIBE("error_message", ErrorMessage, kErrorMessageFields);

inline constexpr FieldDesc kErrorFields[] = {
    TOV_FIELD_VARINT(Error, 1, error_type),
    TOV_FIELD_STRING(Error, 2, error_tag),
    TOV_FIELD_VARINT(Error, 3, error_severity),
    TOV_FIELD_STRING(Error, 4, error_app_tag),
    TOV_FIELD_MESSAGE(Error, 5, error_path, DataTree, kDataTree),
    TOV_FIELD_MESSAGE(Error, 6, error_message, ErrorMessage, kErrorMessage),
    TOV_FIELD_MESSAGE(Error, 7, error_info, DataTree, kDataTree),
};
inline constexpr MessageDesc kError = TOV_DESCRIBE("error", Error, kErrorFields);

inline constexpr FieldDesc kRequestResultFields[] = {
    TOV_FIELD_BOOL(RequestResult, 1, success),
    TOV_FIELD_VARINT(RequestResult, 2, code),
    TOV_FIELD_STRING(RequestResult, 3, text),
    TOV_FIELD_MESSAGE(RequestResult, 33, error, Error, kError),
};
inline constexpr MessageDesc kRequestResult = TOV_DESCRIBE("request_result", RequestResult, kRequestResultFields);

inline constexpr FieldDesc kResponseFields[] = {
    TOV_FIELD_BOOL(Response, 1, success),
    TOV_FIELD_VARINT(Response, 2, code),
    TOV_FIELD_STRING(Response, 3, text),
    TOV_FIELD_MESSAGES(Response, 4, schemas, schemas_count, Schema, &kSchema),
    TOV_FIELD_MESSAGE(Response, 32, data, DataTree, kDataTree),
    TOV_FIELD_MESSAGE(Response, 33, error, Error, kError),
    TOV_FIELD_MESSAGES(Response, 34, errors, errors_count, Error, &kError),
};
inline constexpr MessageDesc kResponse = TOV_DESCRIBE("response", Response, kResponseFields);

// Field numbers 4 to 31 and 41 are unassigned and skipped like any unknown field.
inline constexpr FieldDesc kRequestFields[] = {
    TOV_FIELD_VARINT(Request, 1, operation),
    TOV_FIELD_VARINT(Request, 2, session_id),
    TOV_FIELD_STRING(Request, 3, message_id),
    TOV_FIELD_MESSAGE(Request, 32, get_config, GetConfig, kGetConfig),
    TOV_FIELD_MESSAGE(Request, 33, edit_config, EditConfig, kEditConfig),
    TOV_FIELD_MESSAGE(Request, 34, validate, Validate, kValidate),
    TOV_FIELD_MESSAGE(Request, 35, lock, Lock, kLock),
    TOV_FIELD_MESSAGE(Request, 36, unlock, Unlock, kUnlock),
    TOV_FIELD_MESSAGE(Request, 37, commit, Commit, kCommit),
    TOV_FIELD_MESSAGE(Request, 38, cancel_commit, CancelCommit, kCancelCommit),
    TOV_FIELD_FLAG(39, "discard_changes", kDiscardChanges),
    TOV_FIELD_MESSAGE(Request, 40, copy_config, CopyConfig, kCopyConfig),
    TOV_FIELD_MESSAGE(Request, 42, get, Get, kGet),
    TOV_FIELD_MESSAGE(Request, 43, start_session, StartSession, kStartSession),
    TOV_FIELD_MESSAGE(Request, 44, stop_session, StopSession, kStopSession),
    TOV_FIELD_MESSAGE(Request, 45, logging_set, LoggingSet, kLoggingSet),
    TOV_FIELD_FLAG(46, "schemas_list", kSchemasList),
    TOV_FIELD_MESSAGE(Request, 47, cli_show, CliShow, kCliShow),
    TOV_FIELD_MESSAGE(Request, 48, cli_config, CliConfig, kCliConfig),
    TOV_FIELD_MESSAGE(Request, 49, settings_set, SettingsSet, kSettingsSet),
    TOV_FIELD_MESSAGE(Request, 50, mdt_yang_resolve, MdtYangResolve, kMdtYangResolve),
    TOV_FIELD_MESSAGE(Request, 51, invoke_rpc, InvokeRpc, kInvokeRpc),
};
inline constexpr MessageDesc kRequest = TOV_DESCRIBE("request", Request, kRequestFields);

// Every message, for the checks that hold for all of them.
inline constexpr const MessageDesc *kAllMessages[] = {
    &kAttribute,     &kNodeInfo,      &kEditInsKey,   &kEditIns,      &kDataTree,   &kSchema,
    &kSchemasList,   &kLoggingSet,    &kSettingsSet,  &kMdtYangResolve, &kDatastore, &kStartSession,
    &kStopSession,   &kLock,          &kUnlock,       &kDeleteConfig, &kDiscardChanges, &kCancelCommit,
    &kFilter,        &kGet,           &kGetConfig,    &kEditConfig,   &kValidate,   &kCommit,
    &kCopyConfig,    &kCliConfig,     &kCliShow,      &kInvokeRpc,    &kErrorMessage, &kError,
    &kRequestResult, &kResponse,      &kRequest,
};

} // namespace tov::detail
