/* The message codec: one plain record per message and four operations for each, generated to one
 * pattern:
 *
 *   int32_t  kesh_tov_<m>_decode_ext(record, buffer, length[, alloc_fn, alloc_ctx[, codec_ctx]])
 *   uint32_t kesh_tov_<m>_encode_ext(record, buffer, capacity, spans, span_count[, codec_ctx])
 *   int32_t  kesh_tov_<m>_duplicate(destination, source, alloc_fn, alloc_ctx)
 *   void     kesh_tov_<m>_free_ext(record, free_fn, free_ctx[, codec_ctx])
 *
 * Messages that own no memory drop the trailing arguments they have no use for. Records hold
 * their members in field order, then the presence set `present` (bit n for the n-th field); use
 * the TOV_<MESSAGE>_BIT_<FIELD> names with tov_bit_is_set / tov_bit_set / tov_bit_clear.
 *
 * Decoding resets the record first and allocates only through alloc_fn; a record that owns
 * memory from decode_ext or duplicate is released with free_ext (also after a failed decode).
 * Encoding with capacity 0 measures; a result above capacity means the output is incomplete.
 * codec_ctx is handed on unchanged and never interpreted. */
#ifndef TOV_CODEC_H
#define TOV_CODEC_H

#include <stdint.h>

#include "tov/export.h"
#include "tov/operations.h"

TOV_BEGIN_DECLS

/* Codec result codes (decode_ext and duplicate). */
#define TOV_CODEC_OK 0
#define TOV_CODEC_MALFORMED (-1)       /* truncated, runs past the end, a string or run met twice */
#define TOV_CODEC_BAD_WIRE_TYPE (-2)   /* an unknown field with wire type 3, 4, 6 or 7 */
#define TOV_CODEC_WRONG_WIRE_TYPE (-3) /* a known field with the wrong wire type */
#define TOV_CODEC_NO_MEMORY (-4)       /* no alloc_fn where memory is needed, or it returned NULL */

/* Returns `size` bytes or NULL. */
typedef void *(*tov_alloc_fn)(uint32_t size, uintptr_t alloc_ctx);
/* Releases one block that the matching tov_alloc_fn returned. */
typedef void (*tov_free_fn)(void *pointer, uintptr_t free_ctx);

/* One entry of the encoder's optional span list: a non-empty message encoding in the output,
 * innermost first, the outermost message last. */
typedef struct TovSpan {
    uint8_t *start; /* NULL when the encoding starts at or past the capacity */
    uint32_t length;
} TovSpan;

static inline int tov_bit_is_set(const uint8_t *present, unsigned bit) {
    return (present[bit >> 3] >> (bit & 7u)) & 1u;
}
static inline void tov_bit_set(uint8_t *present, unsigned bit) {
    present[bit >> 3] = (uint8_t)(present[bit >> 3] | (1u << (bit & 7u)));
}
static inline void tov_bit_clear(uint8_t *present, unsigned bit) {
    present[bit >> 3] = (uint8_t)(present[bit >> 3] & ~(1u << (bit & 7u)));
}

/* Edit operations carried in DataTree.operation (any other value travels unchanged). */
enum {
    TOV_EDIT_OP_MERGE = 0,
    TOV_EDIT_OP_REPLACE = 1,
    TOV_EDIT_OP_CREATE = 2,
    TOV_EDIT_OP_DELETE = 3,
    TOV_EDIT_OP_REMOVE = 4,
};

/* Reads one varint at *position (at most `length`), truncated to 32 bits; value_out may be NULL
 * to skip it. Returns 0, or -1 when the buffer ends first. */
TOV_API int32_t protoc99_decode_var32(uint32_t *value_out, uint32_t *position, const uint8_t *buffer,
                                      uint32_t length);

/* ---- attribute ---- */

/* One name/value pair. */
typedef struct Attribute {
    char *name;
    char *value;
    uint8_t present[1];
} Attribute;
enum {
    TOV_ATTRIBUTE_BIT_NAME = 0,
    TOV_ATTRIBUTE_BIT_VALUE = 1,
};
TOV_API int32_t kesh_tov_attribute_decode_ext(Attribute *record, const uint8_t *buffer, uint32_t length,
                                              tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API uint32_t kesh_tov_attribute_encode_ext(const Attribute *record, uint8_t *buffer, uint32_t capacity,
                                               TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_attribute_duplicate(Attribute *destination, const Attribute *source,
                                             tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_attribute_free_ext(Attribute *record, tov_free_fn free_fn, uintptr_t free_ctx);

/* ---- node_info ---- */

/* Extra information attached to a data node. */
typedef struct NodeInfo {
    char *text;
    uint32_t number;
    char **items; /* elements may be NULL; encoded as empty strings */
    uint32_t items_count;
    uint8_t present[1];
} NodeInfo;
enum {
    TOV_NODE_INFO_BIT_TEXT = 0,
    TOV_NODE_INFO_BIT_NUMBER = 1,
    TOV_NODE_INFO_BIT_ITEMS = 2,
};
TOV_API int32_t kesh_tov_node_info_decode_ext(NodeInfo *record, const uint8_t *buffer, uint32_t length,
                                              tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API uint32_t kesh_tov_node_info_encode_ext(const NodeInfo *record, uint8_t *buffer, uint32_t capacity,
                                               TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_node_info_duplicate(NodeInfo *destination, const NodeInfo *source,
                                             tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_node_info_free_ext(NodeInfo *record, tov_free_fn free_fn, uintptr_t free_ctx);

/* ---- edit_ins_key ---- */

/* The key of an insertion point: name/value pairs and a single value. */
typedef struct EditInsKey {
    Attribute *keys;
    uint32_t keys_count;
    char *value;
    uint8_t present[1];
} EditInsKey;
enum {
    TOV_EDIT_INS_KEY_BIT_KEYS = 0,
    TOV_EDIT_INS_KEY_BIT_VALUE = 1,
};
TOV_API int32_t kesh_tov_edit_ins_key_decode_ext(EditInsKey *record, const uint8_t *buffer, uint32_t length,
                                                 tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API uint32_t kesh_tov_edit_ins_key_encode_ext(const EditInsKey *record, uint8_t *buffer,
                                                  uint32_t capacity, TovSpan *spans, uint32_t *span_count,
                                                  uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_edit_ins_key_duplicate(EditInsKey *destination, const EditInsKey *source,
                                                tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_edit_ins_key_free_ext(EditInsKey *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                            uintptr_t codec_ctx);

/* ---- edit_ins ---- */

/* An insertion instruction attached to a data node. */
typedef struct EditIns {
    uint32_t position;
    EditInsKey key;
    Attribute attribute;
    uint8_t present[1];
} EditIns;
enum {
    TOV_EDIT_INS_BIT_POSITION = 0,
    TOV_EDIT_INS_BIT_KEY = 1,
    TOV_EDIT_INS_BIT_ATTRIBUTE = 2,
};
TOV_API int32_t kesh_tov_edit_ins_decode_ext(EditIns *record, const uint8_t *buffer, uint32_t length,
                                             tov_alloc_fn alloc_fn, uintptr_t alloc_ctx, uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_edit_ins_encode_ext(const EditIns *record, uint8_t *buffer, uint32_t capacity,
                                              TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_edit_ins_duplicate(EditIns *destination, const EditIns *source,
                                            tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_edit_ins_free_ext(EditIns *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                        uintptr_t codec_ctx);

/* ---- datatree ---- */

/* One node of a YANG data tree; children are held by value, one array per parent. */
typedef struct DataTree {
    char *name;
    char *value;
    char *qualifier;
    uint32_t aux_number_4;
    uint32_t operation; /* TOV_EDIT_OP_* */
    Attribute *attributes;
    uint32_t attributes_count;
    struct DataTree *children;
    uint32_t children_count;
    uint32_t aux_number_8;
    NodeInfo node_info;
    uint32_t aux_number_10;
    EditIns insert;
    uint32_t aux_number_12;
    char *aux_text_13;
    uint8_t present[2];
} DataTree;
enum {
    TOV_DATATREE_BIT_NAME = 0,
    TOV_DATATREE_BIT_VALUE = 1,
    TOV_DATATREE_BIT_QUALIFIER = 2,
    TOV_DATATREE_BIT_AUX_NUMBER_4 = 3,
    TOV_DATATREE_BIT_OPERATION = 4,
    TOV_DATATREE_BIT_ATTRIBUTES = 5,
    TOV_DATATREE_BIT_CHILDREN = 6,
    TOV_DATATREE_BIT_AUX_NUMBER_8 = 7,
    TOV_DATATREE_BIT_NODE_INFO = 8,
    TOV_DATATREE_BIT_AUX_NUMBER_10 = 9,
    TOV_DATATREE_BIT_INSERT = 10,
    TOV_DATATREE_BIT_AUX_NUMBER_12 = 11,
    TOV_DATATREE_BIT_AUX_TEXT_13 = 12,
};
TOV_API int32_t kesh_tov_datatree_decode_ext(DataTree *record, const uint8_t *buffer, uint32_t length,
                                             tov_alloc_fn alloc_fn, uintptr_t alloc_ctx, uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_datatree_encode_ext(const DataTree *record, uint8_t *buffer, uint32_t capacity,
                                              TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_datatree_duplicate(DataTree *destination, const DataTree *source,
                                            tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_datatree_free_ext(DataTree *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                        uintptr_t codec_ctx);

/* ---- schema ---- */

/* One entry of a schema list (field numbers 7 to 10 are unassigned). */
typedef struct Schema {
    char *text_1;
    char *text_2;
    char *text_3;
    uint8_t flag_4;
    char *text_5;
    char *text_6;
    uint8_t flag_11;
    uint8_t present[1];
} Schema;
enum {
    TOV_SCHEMA_BIT_TEXT_1 = 0,
    TOV_SCHEMA_BIT_TEXT_2 = 1,
    TOV_SCHEMA_BIT_TEXT_3 = 2,
    TOV_SCHEMA_BIT_FLAG_4 = 3,
    TOV_SCHEMA_BIT_TEXT_5 = 4,
    TOV_SCHEMA_BIT_TEXT_6 = 5,
    TOV_SCHEMA_BIT_FLAG_11 = 6,
};
TOV_API int32_t kesh_tov_schema_decode_ext(Schema *record, const uint8_t *buffer, uint32_t length,
                                           tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API uint32_t kesh_tov_schema_encode_ext(const Schema *record, uint8_t *buffer, uint32_t capacity,
                                            TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_schema_duplicate(Schema *destination, const Schema *source, tov_alloc_fn alloc_fn,
                                          uintptr_t alloc_ctx);
TOV_API void kesh_tov_schema_free_ext(Schema *record, tov_free_fn free_fn, uintptr_t free_ctx);

/* ---- schemas_list ---- */

/* The request for the schema list: a message without fields. */
typedef struct SchemasList {
    uint8_t unused; /* C needs a member; the message has none */
} SchemasList;
TOV_API int32_t kesh_tov_schemas_list_decode_ext(SchemasList *record, const uint8_t *buffer, uint32_t length);
TOV_API uint32_t kesh_tov_schemas_list_encode_ext(const SchemasList *record, uint8_t *buffer,
                                                  uint32_t capacity, TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_schemas_list_duplicate(SchemasList *destination, const SchemasList *source,
                                                tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_schemas_list_free_ext(SchemasList *record, tov_free_fn free_fn, uintptr_t free_ctx);

/* ---- logging_set ---- */

/* A change of logging settings. value_3 defaults to 1. */
typedef struct LoggingSet {
    uint32_t value_1;
    uint32_t value_2;
    uint32_t value_3;
    uint8_t flag_4;
    uint8_t flag_5;
    uint8_t flag_6;
    uint8_t present[1];
} LoggingSet;
enum {
    TOV_LOGGING_SET_BIT_VALUE_1 = 0,
    TOV_LOGGING_SET_BIT_VALUE_2 = 1,
    TOV_LOGGING_SET_BIT_VALUE_3 = 2,
    TOV_LOGGING_SET_BIT_FLAG_4 = 3,
    TOV_LOGGING_SET_BIT_FLAG_5 = 4,
    TOV_LOGGING_SET_BIT_FLAG_6 = 5,
};
TOV_API int32_t kesh_tov_logging_set_decode_ext(LoggingSet *record, const uint8_t *buffer, uint32_t length);
TOV_API uint32_t kesh_tov_logging_set_encode_ext(const LoggingSet *record, uint8_t *buffer, uint32_t capacity,
                                                 TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_logging_set_duplicate(LoggingSet *destination, const LoggingSet *source,
                                               tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_logging_set_free_ext(LoggingSet *record, tov_free_fn free_fn, uintptr_t free_ctx);

/* ---- settings_set ---- */

/* A change of a framework setting. */
typedef struct SettingsSet {
    uint8_t flag_1;
    uint32_t value_2;
    uint8_t present[1];
} SettingsSet;
enum {
    TOV_SETTINGS_SET_BIT_FLAG_1 = 0,
    TOV_SETTINGS_SET_BIT_VALUE_2 = 1,
};
TOV_API int32_t kesh_tov_settings_set_decode_ext(SettingsSet *record, const uint8_t *buffer, uint32_t length);
TOV_API uint32_t kesh_tov_settings_set_encode_ext(const SettingsSet *record, uint8_t *buffer,
                                                  uint32_t capacity, TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_settings_set_duplicate(SettingsSet *destination, const SettingsSet *source,
                                                tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_settings_set_free_ext(SettingsSet *record, tov_free_fn free_fn, uintptr_t free_ctx);

/* ---- mdt_yang_resolve ---- */

/* A telemetry resolution request carrying one 64-bit number. */
typedef struct MdtYangResolve {
    uint64_t value_1;
    uint8_t present[1];
} MdtYangResolve;
enum {
    TOV_MDT_YANG_RESOLVE_BIT_VALUE_1 = 0,
};
TOV_API int32_t kesh_tov_mdt_yang_resolve_decode_ext(MdtYangResolve *record, const uint8_t *buffer,
                                                     uint32_t length);
TOV_API uint32_t kesh_tov_mdt_yang_resolve_encode_ext(const MdtYangResolve *record, uint8_t *buffer,
                                                      uint32_t capacity, TovSpan *spans,
                                                      uint32_t *span_count);
TOV_API int32_t kesh_tov_mdt_yang_resolve_duplicate(MdtYangResolve *destination, const MdtYangResolve *source,
                                                    tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_mdt_yang_resolve_free_ext(MdtYangResolve *record, tov_free_fn free_fn,
                                                uintptr_t free_ctx);

/* ---- datastore ---- */

/* Names a datastore by a free string. */
typedef struct Datastore {
    char *name;
    uint8_t present[1];
} Datastore;
enum {
    TOV_DATASTORE_BIT_NAME = 0,
};
TOV_API int32_t kesh_tov_datastore_decode_ext(Datastore *record, const uint8_t *buffer, uint32_t length,
                                              tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API uint32_t kesh_tov_datastore_encode_ext(const Datastore *record, uint8_t *buffer, uint32_t capacity,
                                               TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_datastore_duplicate(Datastore *destination, const Datastore *source,
                                             tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_datastore_free_ext(Datastore *record, tov_free_fn free_fn, uintptr_t free_ctx);

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
TOV_API int32_t kesh_tov_start_session_decode_ext(StartSession *record, const uint8_t *buffer,
                                                  uint32_t length, tov_alloc_fn alloc_fn,
                                                  uintptr_t alloc_ctx);
TOV_API uint32_t kesh_tov_start_session_encode_ext(const StartSession *record, uint8_t *buffer,
                                                   uint32_t capacity, TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_start_session_duplicate(StartSession *destination, const StartSession *source,
                                                 tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_start_session_free_ext(StartSession *record, tov_free_fn free_fn, uintptr_t free_ctx);

/* ---- stop_session ---- */

/* Payload of "stop-session". */
typedef struct StopSession {
    uint32_t session_id;
    uint8_t present[1];
} StopSession;
enum {
    TOV_STOP_SESSION_BIT_SESSION_ID = 0,
};
TOV_API int32_t kesh_tov_stop_session_decode_ext(StopSession *record, const uint8_t *buffer, uint32_t length);
TOV_API uint32_t kesh_tov_stop_session_encode_ext(const StopSession *record, uint8_t *buffer,
                                                  uint32_t capacity, TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_stop_session_duplicate(StopSession *destination, const StopSession *source,
                                                tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_stop_session_free_ext(StopSession *record, tov_free_fn free_fn, uintptr_t free_ctx);

/* ---- lock ---- */

/* Payload of "lock". */
typedef struct Lock {
    Datastore target;
    uint8_t present[1];
} Lock;
enum {
    TOV_LOCK_BIT_TARGET = 0,
};
TOV_API int32_t kesh_tov_lock_decode_ext(Lock *record, const uint8_t *buffer, uint32_t length,
                                         tov_alloc_fn alloc_fn, uintptr_t alloc_ctx, uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_lock_encode_ext(const Lock *record, uint8_t *buffer, uint32_t capacity,
                                          TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_lock_duplicate(Lock *destination, const Lock *source, tov_alloc_fn alloc_fn,
                                        uintptr_t alloc_ctx);
TOV_API void kesh_tov_lock_free_ext(Lock *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                    uintptr_t codec_ctx);

/* ---- unlock ---- */

/* Payload of "unlock". */
typedef struct Unlock {
    Datastore target;
    uint8_t present[1];
} Unlock;
enum {
    TOV_UNLOCK_BIT_TARGET = 0,
};
TOV_API int32_t kesh_tov_unlock_decode_ext(Unlock *record, const uint8_t *buffer, uint32_t length,
                                           tov_alloc_fn alloc_fn, uintptr_t alloc_ctx, uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_unlock_encode_ext(const Unlock *record, uint8_t *buffer, uint32_t capacity,
                                            TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_unlock_duplicate(Unlock *destination, const Unlock *source, tov_alloc_fn alloc_fn,
                                          uintptr_t alloc_ctx);
TOV_API void kesh_tov_unlock_free_ext(Unlock *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                      uintptr_t codec_ctx);

/* ---- delete_config ---- */

/* Payload of "delete-config" (the request envelope has no field for it). */
typedef struct DeleteConfig {
    Datastore target;
    uint8_t present[1];
} DeleteConfig;
enum {
    TOV_DELETE_CONFIG_BIT_TARGET = 0,
};
TOV_API int32_t kesh_tov_delete_config_decode_ext(DeleteConfig *record, const uint8_t *buffer,
                                                  uint32_t length, tov_alloc_fn alloc_fn, uintptr_t alloc_ctx,
                                                  uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_delete_config_encode_ext(const DeleteConfig *record, uint8_t *buffer,
                                                   uint32_t capacity, TovSpan *spans, uint32_t *span_count,
                                                   uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_delete_config_duplicate(DeleteConfig *destination, const DeleteConfig *source,
                                                 tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_delete_config_free_ext(DeleteConfig *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                             uintptr_t codec_ctx);

/* ---- discard_changes ---- */

/* Payload of "discard-changes": a message without fields. */
typedef struct DiscardChanges {
    uint8_t unused; /* C needs a member; the message has none */
} DiscardChanges;
TOV_API int32_t kesh_tov_discard_changes_decode_ext(DiscardChanges *record, const uint8_t *buffer,
                                                    uint32_t length);
TOV_API uint32_t kesh_tov_discard_changes_encode_ext(const DiscardChanges *record, uint8_t *buffer,
                                                     uint32_t capacity, TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_discard_changes_duplicate(DiscardChanges *destination, const DiscardChanges *source,
                                                   tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_discard_changes_free_ext(DiscardChanges *record, tov_free_fn free_fn,
                                               uintptr_t free_ctx);

/* ---- cancel_commit ---- */

/* Payload of "cancel-commit". */
typedef struct CancelCommit {
    char *persist_id;
    uint8_t present[1];
} CancelCommit;
enum {
    TOV_CANCEL_COMMIT_BIT_PERSIST_ID = 0,
};
TOV_API int32_t kesh_tov_cancel_commit_decode_ext(CancelCommit *record, const uint8_t *buffer,
                                                  uint32_t length, tov_alloc_fn alloc_fn,
                                                  uintptr_t alloc_ctx);
TOV_API uint32_t kesh_tov_cancel_commit_encode_ext(const CancelCommit *record, uint8_t *buffer,
                                                   uint32_t capacity, TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_cancel_commit_duplicate(CancelCommit *destination, const CancelCommit *source,
                                                 tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_cancel_commit_free_ext(CancelCommit *record, tov_free_fn free_fn, uintptr_t free_ctx);

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
TOV_API int32_t kesh_tov_filter_decode_ext(Filter *record, const uint8_t *buffer, uint32_t length,
                                           tov_alloc_fn alloc_fn, uintptr_t alloc_ctx, uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_filter_encode_ext(const Filter *record, uint8_t *buffer, uint32_t capacity,
                                            TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_filter_duplicate(Filter *destination, const Filter *source, tov_alloc_fn alloc_fn,
                                          uintptr_t alloc_ctx);
TOV_API void kesh_tov_filter_free_ext(Filter *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                      uintptr_t codec_ctx);

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
TOV_API int32_t kesh_tov_get_decode_ext(Get *record, const uint8_t *buffer, uint32_t length,
                                        tov_alloc_fn alloc_fn, uintptr_t alloc_ctx, uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_get_encode_ext(const Get *record, uint8_t *buffer, uint32_t capacity,
                                         TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_get_duplicate(Get *destination, const Get *source, tov_alloc_fn alloc_fn,
                                       uintptr_t alloc_ctx);
TOV_API void kesh_tov_get_free_ext(Get *record, tov_free_fn free_fn, uintptr_t free_ctx, uintptr_t codec_ctx);

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
TOV_API int32_t kesh_tov_get_config_decode_ext(GetConfig *record, const uint8_t *buffer, uint32_t length,
                                               tov_alloc_fn alloc_fn, uintptr_t alloc_ctx,
                                               uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_get_config_encode_ext(const GetConfig *record, uint8_t *buffer, uint32_t capacity,
                                                TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_get_config_duplicate(GetConfig *destination, const GetConfig *source,
                                              tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_get_config_free_ext(GetConfig *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                          uintptr_t codec_ctx);

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
TOV_API int32_t kesh_tov_edit_config_decode_ext(EditConfig *record, const uint8_t *buffer, uint32_t length,
                                                tov_alloc_fn alloc_fn, uintptr_t alloc_ctx,
                                                uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_edit_config_encode_ext(const EditConfig *record, uint8_t *buffer, uint32_t capacity,
                                                 TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_edit_config_duplicate(EditConfig *destination, const EditConfig *source,
                                               tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_edit_config_free_ext(EditConfig *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                           uintptr_t codec_ctx);

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
TOV_API int32_t kesh_tov_validate_decode_ext(Validate *record, const uint8_t *buffer, uint32_t length,
                                             tov_alloc_fn alloc_fn, uintptr_t alloc_ctx, uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_validate_encode_ext(const Validate *record, uint8_t *buffer, uint32_t capacity,
                                              TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_validate_duplicate(Validate *destination, const Validate *source,
                                            tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_validate_free_ext(Validate *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                        uintptr_t codec_ctx);

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
TOV_API int32_t kesh_tov_commit_decode_ext(Commit *record, const uint8_t *buffer, uint32_t length,
                                           tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API uint32_t kesh_tov_commit_encode_ext(const Commit *record, uint8_t *buffer, uint32_t capacity,
                                            TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_commit_duplicate(Commit *destination, const Commit *source, tov_alloc_fn alloc_fn,
                                          uintptr_t alloc_ctx);
TOV_API void kesh_tov_commit_free_ext(Commit *record, tov_free_fn free_fn, uintptr_t free_ctx);

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
TOV_API int32_t kesh_tov_copy_config_decode_ext(CopyConfig *record, const uint8_t *buffer, uint32_t length,
                                                tov_alloc_fn alloc_fn, uintptr_t alloc_ctx,
                                                uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_copy_config_encode_ext(const CopyConfig *record, uint8_t *buffer, uint32_t capacity,
                                                 TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_copy_config_duplicate(CopyConfig *destination, const CopyConfig *source,
                                               tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_copy_config_free_ext(CopyConfig *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                           uintptr_t codec_ctx);

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
TOV_API int32_t kesh_tov_cli_config_decode_ext(CliConfig *record, const uint8_t *buffer, uint32_t length,
                                               tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API uint32_t kesh_tov_cli_config_encode_ext(const CliConfig *record, uint8_t *buffer, uint32_t capacity,
                                                TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_cli_config_duplicate(CliConfig *destination, const CliConfig *source,
                                              tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_cli_config_free_ext(CliConfig *record, tov_free_fn free_fn, uintptr_t free_ctx);

/* ---- cli_show ---- */

/* Payload of "cli-show": a display command. */
typedef struct CliShow {
    char *command;
    uint8_t present[1];
} CliShow;
enum {
    TOV_CLI_SHOW_BIT_COMMAND = 0,
};
TOV_API int32_t kesh_tov_cli_show_decode_ext(CliShow *record, const uint8_t *buffer, uint32_t length,
                                             tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API uint32_t kesh_tov_cli_show_encode_ext(const CliShow *record, uint8_t *buffer, uint32_t capacity,
                                              TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_cli_show_duplicate(CliShow *destination, const CliShow *source,
                                            tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_cli_show_free_ext(CliShow *record, tov_free_fn free_fn, uintptr_t free_ctx);

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
TOV_API int32_t kesh_tov_invoke_rpc_decode_ext(InvokeRpc *record, const uint8_t *buffer, uint32_t length,
                                               tov_alloc_fn alloc_fn, uintptr_t alloc_ctx,
                                               uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_invoke_rpc_encode_ext(const InvokeRpc *record, uint8_t *buffer, uint32_t capacity,
                                                TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_invoke_rpc_duplicate(InvokeRpc *destination, const InvokeRpc *source,
                                              tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_invoke_rpc_free_ext(InvokeRpc *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                          uintptr_t codec_ctx);

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
TOV_API int32_t kesh_tov_error_message_decode_ext(ErrorMessage *record, const uint8_t *buffer,
                                                  uint32_t length, tov_alloc_fn alloc_fn,
                                                  uintptr_t alloc_ctx);
TOV_API uint32_t kesh_tov_error_message_encode_ext(const ErrorMessage *record, uint8_t *buffer,
                                                   uint32_t capacity, TovSpan *spans, uint32_t *span_count);
TOV_API int32_t kesh_tov_error_message_duplicate(ErrorMessage *destination, const ErrorMessage *source,
                                                 tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_error_message_free_ext(ErrorMessage *record, tov_free_fn free_fn, uintptr_t free_ctx);

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
TOV_API int32_t kesh_tov_error_decode_ext(Error *record, const uint8_t *buffer, uint32_t length,
                                          tov_alloc_fn alloc_fn, uintptr_t alloc_ctx, uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_error_encode_ext(const Error *record, uint8_t *buffer, uint32_t capacity,
                                           TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_error_duplicate(Error *destination, const Error *source, tov_alloc_fn alloc_fn,
                                         uintptr_t alloc_ctx);
TOV_API void kesh_tov_error_free_ext(Error *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                     uintptr_t codec_ctx);

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
TOV_API int32_t kesh_tov_request_result_decode_ext(RequestResult *record, const uint8_t *buffer,
                                                   uint32_t length, tov_alloc_fn alloc_fn,
                                                   uintptr_t alloc_ctx, uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_request_result_encode_ext(const RequestResult *record, uint8_t *buffer,
                                                    uint32_t capacity, TovSpan *spans, uint32_t *span_count,
                                                    uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_request_result_duplicate(RequestResult *destination, const RequestResult *source,
                                                  tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_request_result_free_ext(RequestResult *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                              uintptr_t codec_ctx);

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
TOV_API int32_t kesh_tov_response_decode_ext(Response *record, const uint8_t *buffer, uint32_t length,
                                             tov_alloc_fn alloc_fn, uintptr_t alloc_ctx, uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_response_encode_ext(const Response *record, uint8_t *buffer, uint32_t capacity,
                                              TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_response_duplicate(Response *destination, const Response *source,
                                            tov_alloc_fn alloc_fn, uintptr_t alloc_ctx);
TOV_API void kesh_tov_response_free_ext(Response *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                        uintptr_t codec_ctx);

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
TOV_API int32_t kesh_tov_request_decode_ext(Request *record, const uint8_t *buffer, uint32_t length,
                                            tov_alloc_fn alloc_fn, uintptr_t alloc_ctx, uintptr_t codec_ctx);
TOV_API uint32_t kesh_tov_request_encode_ext(const Request *record, uint8_t *buffer, uint32_t capacity,
                                             TovSpan *spans, uint32_t *span_count, uintptr_t codec_ctx);
TOV_API int32_t kesh_tov_request_duplicate(Request *destination, const Request *source, tov_alloc_fn alloc_fn,
                                           uintptr_t alloc_ctx);
TOV_API void kesh_tov_request_free_ext(Request *record, tov_free_fn free_fn, uintptr_t free_ctx,
                                       uintptr_t codec_ctx);
TOV_END_DECLS

#endif
