// The operation payload messages.
#include "codec/exports.hpp"
#include "codec/operation_tables.hpp"

using namespace tov::detail;

TOV_CODEC(datastore, Datastore, kDatastore, 5, 5, 3)
TOV_CODEC(start_session, StartSession, kStartSession, 5, 5, 3)
TOV_CODEC(stop_session, StopSession, kStopSession, 3, 5, 3)
TOV_CODEC(lock, Lock, kLock, 6, 6, 4)
TOV_CODEC(unlock, Unlock, kUnlock, 6, 6, 4)
TOV_CODEC(delete_config, DeleteConfig, kDeleteConfig, 6, 6, 4)
TOV_CODEC(discard_changes, DiscardChanges, kDiscardChanges, 3, 5, 3)
TOV_CODEC(cancel_commit, CancelCommit, kCancelCommit, 5, 5, 3)
TOV_CODEC(filter, Filter, kFilter, 6, 6, 4)
TOV_CODEC(get, Get, kGet, 6, 6, 4)
TOV_CODEC(get_config, GetConfig, kGetConfig, 6, 6, 4)
TOV_CODEC(edit_config, EditConfig, kEditConfig, 6, 6, 4)
TOV_CODEC(validate, Validate, kValidate, 6, 6, 4)
TOV_CODEC(commit, Commit, kCommit, 5, 5, 3)
TOV_CODEC(copy_config, CopyConfig, kCopyConfig, 6, 6, 4)
TOV_CODEC(cli_config, CliConfig, kCliConfig, 5, 5, 3)
TOV_CODEC(cli_show, CliShow, kCliShow, 5, 5, 3)
TOV_CODEC(invoke_rpc, InvokeRpc, kInvokeRpc, 6, 6, 4)
