/* SPDX-License-Identifier: BSD-3-Clause */
/* Request operation codes: the number a request carries in `operation`, its name in log lines, and
 * the index of a component's per-operation log level. One list, from which the enumeration, the
 * count and the names are made. */
#ifndef TOV_OPERATIONS_H
#define TOV_OPERATIONS_H

/* X(NAME, code, "name") */
#define TOV_OPERATIONS(X)                                                                          \
    X(GET_CONFIG, 0, "get-config")                                                                 \
    X(EDIT_CONFIG, 1, "edit-config")                                                               \
    X(VALIDATE, 2, "validate")                                                                     \
    X(LOCK, 3, "lock")                                                                             \
    X(UNLOCK, 4, "unlock")                                                                         \
    X(COMMIT, 5, "commit")                                                                         \
    X(CANCEL_COMMIT, 6, "cancel-commit")                                                           \
    X(DISCARD_CHANGES, 7, "discard-changes")                                                       \
    X(COPY_CONFIG, 8, "copy-config")                                                               \
    X(DELETE_CONFIG, 9, "delete-config")                                                           \
    X(GET, 10, "get")                                                                              \
    X(START_SESSION, 11, "start-session")                                                          \
    X(STOP_SESSION, 12, "stop-session")                                                            \
    X(LOGGING_SET, 13, "logging-set")                                                              \
    X(SCHEMAS_LIST, 14, "schemas-list")                                                            \
    X(CLI_CONFIG, 15, "cli-config")                                                                \
    X(CLI_SHOW, 16, "cli-show")                                                                    \
    X(SETTINGS_SET, 17, "settings-set")                                                            \
    X(INVOKE_RPC, 18, "invoke-rpc")

/* Operation codes carried in Request.operation. They are deliberately not the payload field
 * numbers: cli-config travels in field 48, cli-show in 47, delete-config has no payload field. */
#define TOV_OP_ENUM_(name, code, text) TOV_OP_##name = code,
#define TOV_OP_ONE_(name, code, text) +1
enum {
    TOV_OPERATIONS(TOV_OP_ENUM_)
    TOV_OP_COUNT = 0 TOV_OPERATIONS(TOV_OP_ONE_)
};
#undef TOV_OP_ENUM_
#undef TOV_OP_ONE_

#endif
