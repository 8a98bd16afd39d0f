// SPDX-License-Identifier: BSD-3-Clause
// Tables of the operation payload messages.
#pragma once

#include "codec/datatree_tables.hpp"

namespace tov::detail {

inline constexpr FieldDesc kDatastoreFields[] = {TOV_FIELD_STRING(Datastore, 1, name, TOV_DATASTORE_BIT_NAME)};
inline constexpr MessageDesc kDatastore = TOV_DESCRIBE("datastore", Datastore, kDatastoreFields);

inline constexpr FieldDesc kStartSessionFields[] = {
    TOV_FIELD_STRING(StartSession, 1, string_1, TOV_START_SESSION_BIT_STRING_1),
    TOV_FIELD_STRING(StartSession, 2, string_2, TOV_START_SESSION_BIT_STRING_2),
    TOV_FIELD_VARINT(StartSession, 3, number_3, TOV_START_SESSION_BIT_NUMBER_3),
};
inline constexpr MessageDesc kStartSession = TOV_DESCRIBE("start_session", StartSession, kStartSessionFields);

inline constexpr FieldDesc kStopSessionFields[] = {TOV_FIELD_VARINT(StopSession, 1, session_id, TOV_STOP_SESSION_BIT_SESSION_ID)};
inline constexpr MessageDesc kStopSession = TOV_DESCRIBE("stop_session", StopSession, kStopSessionFields);

inline constexpr FieldDesc kLockFields[] = {TOV_FIELD_MESSAGE(Lock, 1, target, Datastore, kDatastore, TOV_LOCK_BIT_TARGET)};
inline constexpr MessageDesc kLock = TOV_DESCRIBE("lock", Lock, kLockFields);
inline constexpr FieldDesc kUnlockFields[] = {TOV_FIELD_MESSAGE(Unlock, 1, target, Datastore, kDatastore, TOV_UNLOCK_BIT_TARGET)};
inline constexpr MessageDesc kUnlock = TOV_DESCRIBE("unlock", Unlock, kUnlockFields);
inline constexpr FieldDesc kDeleteConfigFields[] = {
    TOV_FIELD_MESSAGE(DeleteConfig, 1, target, Datastore, kDatastore, TOV_DELETE_CONFIG_BIT_TARGET)};
inline constexpr MessageDesc kDeleteConfig = TOV_DESCRIBE("delete_config", DeleteConfig, kDeleteConfigFields);

inline constexpr MessageDesc kDiscardChanges = describe_empty("discard_changes", sizeof(DiscardChanges));

inline constexpr FieldDesc kCancelCommitFields[] = {TOV_FIELD_STRING(CancelCommit, 1, persist_id, TOV_CANCEL_COMMIT_BIT_PERSIST_ID)};
inline constexpr MessageDesc kCancelCommit = TOV_DESCRIBE("cancel_commit", CancelCommit, kCancelCommitFields);

inline constexpr FieldDesc kFilterFields[] = {
    TOV_FIELD_VARINT(Filter, 1, filter_type, TOV_FILTER_BIT_FILTER_TYPE),
    TOV_FIELD_MESSAGE(Filter, 2, tree, DataTree, kDataTree, TOV_FILTER_BIT_TREE),
};
inline constexpr MessageDesc kFilter = TOV_DESCRIBE("filter", Filter, kFilterFields);

inline constexpr FieldDesc kGetFields[] = {
    TOV_FIELD_MESSAGE(Get, 1, filter, Filter, kFilter, TOV_GET_BIT_FILTER),
    TOV_FIELD_VARINT(Get, 2, get_option, TOV_GET_BIT_GET_OPTION),
};
inline constexpr MessageDesc kGet = TOV_DESCRIBE("get", Get, kGetFields);

inline constexpr FieldDesc kGetConfigFields[] = {
    TOV_FIELD_MESSAGE(GetConfig, 1, source, Datastore, kDatastore, TOV_GET_CONFIG_BIT_SOURCE),
    TOV_FIELD_MESSAGE(GetConfig, 2, filter, Filter, kFilter, TOV_GET_CONFIG_BIT_FILTER),
};
inline constexpr MessageDesc kGetConfig = TOV_DESCRIBE("get_config", GetConfig, kGetConfigFields);

// Rows in record order, which is also the order on the wire: field 4 goes before field 3.
inline constexpr FieldDesc kEditConfigFields[] = {
    TOV_FIELD_MESSAGE(EditConfig, 1, target, Datastore, kDatastore, TOV_EDIT_CONFIG_BIT_TARGET),
    TOV_FIELD_VARINT(EditConfig, 2, option_2, TOV_EDIT_CONFIG_BIT_OPTION_2),
    TOV_FIELD_VARINT(EditConfig, 4, option_4, TOV_EDIT_CONFIG_BIT_OPTION_4),
    TOV_FIELD_VARINT(EditConfig, 3, option_3, TOV_EDIT_CONFIG_BIT_OPTION_3),
    TOV_FIELD_MESSAGE(EditConfig, 5, config, DataTree, kDataTree, TOV_EDIT_CONFIG_BIT_CONFIG),
};
inline constexpr MessageDesc kEditConfig = TOV_DESCRIBE("edit_config", EditConfig, kEditConfigFields);

inline constexpr FieldDesc kValidateFields[] = {
    TOV_FIELD_MESSAGE(Validate, 1, source, Datastore, kDatastore, TOV_VALIDATE_BIT_SOURCE),
    TOV_FIELD_MESSAGE(Validate, 2, config, DataTree, kDataTree, TOV_VALIDATE_BIT_CONFIG),
};
inline constexpr MessageDesc kValidate = TOV_DESCRIBE("validate", Validate, kValidateFields);

inline constexpr FieldDesc kCommitFields[] = {
    TOV_FIELD_BOOL(Commit, 1, confirmed, TOV_COMMIT_BIT_CONFIRMED),
    TOV_FIELD_VARINT_DEFAULT(Commit, 2, confirm_timeout, 600, TOV_COMMIT_BIT_CONFIRM_TIMEOUT),
    TOV_FIELD_STRING(Commit, 3, persist, TOV_COMMIT_BIT_PERSIST),
    TOV_FIELD_STRING(Commit, 4, persist_id, TOV_COMMIT_BIT_PERSIST_ID),
    TOV_FIELD_BOOL(Commit, 5, flag_5, TOV_COMMIT_BIT_FLAG_5),
    TOV_FIELD_BOOL(Commit, 6, flag_6, TOV_COMMIT_BIT_FLAG_6),
};
inline constexpr MessageDesc kCommit = TOV_DESCRIBE("commit", Commit, kCommitFields);

inline constexpr FieldDesc kCopyConfigFields[] = {
    TOV_FIELD_MESSAGE(CopyConfig, 1, target, Datastore, kDatastore, TOV_COPY_CONFIG_BIT_TARGET),
    TOV_FIELD_STRING(CopyConfig, 2, target_url, TOV_COPY_CONFIG_BIT_TARGET_URL),
    TOV_FIELD_MESSAGE(CopyConfig, 3, source, Datastore, kDatastore, TOV_COPY_CONFIG_BIT_SOURCE),
    TOV_FIELD_STRING(CopyConfig, 4, source_url, TOV_COPY_CONFIG_BIT_SOURCE_URL),
    TOV_FIELD_MESSAGE(CopyConfig, 5, source_config, DataTree, kDataTree, TOV_COPY_CONFIG_BIT_SOURCE_CONFIG),
};
inline constexpr MessageDesc kCopyConfig = TOV_DESCRIBE("copy_config", CopyConfig, kCopyConfigFields);

inline constexpr FieldDesc kCliConfigFields[] = {
    TOV_FIELD_STRING(CliConfig, 1, command, TOV_CLI_CONFIG_BIT_COMMAND),
    TOV_FIELD_VARINT(CliConfig, 2, cli_option, TOV_CLI_CONFIG_BIT_CLI_OPTION),
};
inline constexpr MessageDesc kCliConfig = TOV_DESCRIBE("cli_config", CliConfig, kCliConfigFields);

inline constexpr FieldDesc kCliShowFields[] = {TOV_FIELD_STRING(CliShow, 1, command, TOV_CLI_SHOW_BIT_COMMAND)};
inline constexpr MessageDesc kCliShow = TOV_DESCRIBE("cli_show", CliShow, kCliShowFields);

inline constexpr FieldDesc kInvokeRpcFields[] = {
    TOV_FIELD_VARINT(InvokeRpc, 1, rpc_option, TOV_INVOKE_RPC_BIT_RPC_OPTION),
    TOV_FIELD_MESSAGE(InvokeRpc, 2, input, DataTree, kDataTree, TOV_INVOKE_RPC_BIT_INPUT),
};
inline constexpr MessageDesc kInvokeRpc = TOV_DESCRIBE("invoke_rpc", InvokeRpc, kInvokeRpcFields);

} // namespace tov::detail
