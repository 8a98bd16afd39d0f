/* SPDX-License-Identifier: BSD-3-Clause */
/* Codec records of the operation payload messages. The pattern of their functions:
 * tov/codec_base.h. */
#ifndef TOV_CODEC_OPERATIONS_H
#define TOV_CODEC_OPERATIONS_H

#include "tov/codec_datatree.h"

TOV_BEGIN_DECLS

/* ---- datastore ---- */

/* Names a datastore by a free string. */
typedef struct Datastore {
    char *name;
    uint8_t present[1];
} Datastore;
enum {
    TOV_DATASTORE_BIT_NAME = 0,
};

/* ---- start_session ---- */

/* Payload of "start-session". */
typedef struct StartSession {
    char *string_1;
    char *string_2;
    uint32_t number_3;
    uint8_t present[1];
} StartSession;
enum {
    TOV_START_SESSION_BIT_STRING_1 = 0,
    TOV_START_SESSION_BIT_STRING_2 = 1,
    TOV_START_SESSION_BIT_NUMBER_3 = 2,
};

/* ---- stop_session ---- */

/* Payload of "stop-session". */
typedef struct StopSession {
    uint32_t session_id;
    uint8_t present[1];
} StopSession;
enum {
    TOV_STOP_SESSION_BIT_SESSION_ID = 0,
};

/* ---- lock ---- */

/* Payload of "lock". */
typedef struct Lock {
    Datastore target;
    uint8_t present[1];
} Lock;
enum {
    TOV_LOCK_BIT_TARGET = 0,
};

/* ---- unlock ---- */

/* Payload of "unlock". */
typedef struct Unlock {
    Datastore target;
    uint8_t present[1];
} Unlock;
enum {
    TOV_UNLOCK_BIT_TARGET = 0,
};

/* ---- delete_config ---- */

/* Payload of "delete-config" (the request envelope has no field for it). */
typedef struct DeleteConfig {
    Datastore target;
    uint8_t present[1];
} DeleteConfig;
enum {
    TOV_DELETE_CONFIG_BIT_TARGET = 0,
};

/* ---- discard_changes ---- */

/* Payload of "discard-changes": a message without fields. */
typedef struct DiscardChanges {
    uint8_t unused; /* C needs a member; the message has none */
} DiscardChanges;

/* ---- cancel_commit ---- */

/* Payload of "cancel-commit". */
typedef struct CancelCommit {
    char *persist_id;
    uint8_t present[1];
} CancelCommit;
enum {
    TOV_CANCEL_COMMIT_BIT_PERSIST_ID = 0,
};

/* ---- filter ---- */

/* A selection of data: how to read it, and the subtree. */
typedef struct Filter {
    uint32_t filter_type;
    DataTree tree;
    uint8_t present[1];
} Filter;
enum {
    TOV_FILTER_BIT_FILTER_TYPE = 0,
    TOV_FILTER_BIT_TREE = 1,
};

/* ---- get ---- */

/* Payload of "get". */
typedef struct Get {
    Filter filter;
    uint32_t get_option;
    uint8_t present[1];
} Get;
enum {
    TOV_GET_BIT_FILTER = 0,
    TOV_GET_BIT_GET_OPTION = 1,
};

/* ---- get_config ---- */

/* Payload of "get-config". */
typedef struct GetConfig {
    Datastore source;
    Filter filter;
    uint8_t present[1];
} GetConfig;
enum {
    TOV_GET_CONFIG_BIT_SOURCE = 0,
    TOV_GET_CONFIG_BIT_FILTER = 1,
};

/* ---- edit_config ---- */

/* Payload of "edit-config". Fields travel in record order: 1, 2, 4, 3, 5. */
typedef struct EditConfig {
    Datastore target;
    uint32_t option_2;
    uint32_t option_4;
    uint32_t option_3;
    DataTree config;
    uint8_t present[1];
} EditConfig;
enum {
    TOV_EDIT_CONFIG_BIT_TARGET = 0,
    TOV_EDIT_CONFIG_BIT_OPTION_2 = 1,
    TOV_EDIT_CONFIG_BIT_OPTION_4 = 2,
    TOV_EDIT_CONFIG_BIT_OPTION_3 = 3,
    TOV_EDIT_CONFIG_BIT_CONFIG = 4,
};

/* ---- validate ---- */

/* Payload of "validate". */
typedef struct Validate {
    Datastore source;
    DataTree config;
    uint8_t present[1];
} Validate;
enum {
    TOV_VALIDATE_BIT_SOURCE = 0,
    TOV_VALIDATE_BIT_CONFIG = 1,
};

/* ---- commit ---- */

/* Payload of "commit". confirm_timeout defaults to 600 seconds. */
typedef struct Commit {
    uint8_t confirmed;
    uint32_t confirm_timeout;
    char *persist;
    char *persist_id;
    uint8_t flag_5;
    uint8_t flag_6;
    uint8_t present[1];
} Commit;
enum {
    TOV_COMMIT_BIT_CONFIRMED = 0,
    TOV_COMMIT_BIT_CONFIRM_TIMEOUT = 1,
    TOV_COMMIT_BIT_PERSIST = 2,
    TOV_COMMIT_BIT_PERSIST_ID = 3,
    TOV_COMMIT_BIT_FLAG_5 = 4,
    TOV_COMMIT_BIT_FLAG_6 = 5,
};

/* ---- copy_config ---- */

/* Payload of "copy-config"; every alternative may be set and all are sent. */
typedef struct CopyConfig {
    Datastore target;
    char *target_url;
    Datastore source;
    char *source_url;
    DataTree source_config;
    uint8_t present[1];
} CopyConfig;
enum {
    TOV_COPY_CONFIG_BIT_TARGET = 0,
    TOV_COPY_CONFIG_BIT_TARGET_URL = 1,
    TOV_COPY_CONFIG_BIT_SOURCE = 2,
    TOV_COPY_CONFIG_BIT_SOURCE_URL = 3,
    TOV_COPY_CONFIG_BIT_SOURCE_CONFIG = 4,
};

/* ---- cli_config ---- */

/* Payload of "cli-config": configuration as command-line text. */
typedef struct CliConfig {
    char *command;
    uint32_t cli_option;
    uint8_t present[1];
} CliConfig;
enum {
    TOV_CLI_CONFIG_BIT_COMMAND = 0,
    TOV_CLI_CONFIG_BIT_CLI_OPTION = 1,
};

/* ---- cli_show ---- */

/* Payload of "cli-show": a display command. */
typedef struct CliShow {
    char *command;
    uint8_t present[1];
} CliShow;
enum {
    TOV_CLI_SHOW_BIT_COMMAND = 0,
};

/* ---- invoke_rpc ---- */

/* Payload of "invoke-rpc": a YANG RPC with its input tree. */
typedef struct InvokeRpc {
    uint32_t rpc_option;
    DataTree input;
    uint8_t present[1];
} InvokeRpc;
enum {
    TOV_INVOKE_RPC_BIT_RPC_OPTION = 0,
    TOV_INVOKE_RPC_BIT_INPUT = 1,
};

/* The family's messages: X(name, record, decode arguments, encode arguments, free arguments). */
#define TOV_OPERATION_MESSAGES(X) \
    X(datastore, Datastore, 5, 5, 3) \
    X(start_session, StartSession, 5, 5, 3) \
    X(stop_session, StopSession, 3, 5, 3) \
    X(lock, Lock, 6, 6, 4) \
    X(unlock, Unlock, 6, 6, 4) \
    X(delete_config, DeleteConfig, 6, 6, 4) \
    X(discard_changes, DiscardChanges, 3, 5, 3) \
    X(cancel_commit, CancelCommit, 5, 5, 3) \
    X(filter, Filter, 6, 6, 4) \
    X(get, Get, 6, 6, 4) \
    X(get_config, GetConfig, 6, 6, 4) \
    X(edit_config, EditConfig, 6, 6, 4) \
    X(validate, Validate, 6, 6, 4) \
    X(commit, Commit, 5, 5, 3) \
    X(copy_config, CopyConfig, 6, 6, 4) \
    X(cli_config, CliConfig, 5, 5, 3) \
    X(cli_show, CliShow, 5, 5, 3) \
    X(invoke_rpc, InvokeRpc, 6, 6, 4)
TOV_OPERATION_MESSAGES(TOV_DECLARE_CODEC)

TOV_END_DECLS

#endif
