/* SPDX-License-Identifier: BSD-3-Clause */
/* Codec records of the data tree messages and of the schema, logging, settings and telemetry
 * messages. The pattern of their functions: tov/codec_base.h. */
#ifndef TOV_CODEC_DATATREE_H
#define TOV_CODEC_DATATREE_H

#include "tov/codec_base.h"

TOV_BEGIN_DECLS

/* Edit operations carried in DataTree.operation (any other value travels unchanged). */
enum {
    TOV_EDIT_OP_MERGE = 0,
    TOV_EDIT_OP_REPLACE = 1,
    TOV_EDIT_OP_CREATE = 2,
    TOV_EDIT_OP_DELETE = 3,
    TOV_EDIT_OP_REMOVE = 4,
};

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

/* ---- schemas_list ---- */

/* The request for the schema list: a message without fields. */
typedef struct SchemasList {
    uint8_t unused; /* C needs a member; the message has none */
} SchemasList;

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

/* ---- mdt_yang_resolve ---- */

/* A telemetry resolution request carrying one 64-bit number. */
typedef struct MdtYangResolve {
    uint64_t value_1;
    uint8_t present[1];
} MdtYangResolve;
enum {
    TOV_MDT_YANG_RESOLVE_BIT_VALUE_1 = 0,
};

/* The family's messages: X(name, record, decode arguments, encode arguments, free arguments). */
#define TOV_DATATREE_MESSAGES(X) \
    X(attribute, Attribute, 5, 5, 3) \
    X(node_info, NodeInfo, 5, 5, 3) \
    X(edit_ins_key, EditInsKey, 5, 6, 4) \
    X(edit_ins, EditIns, 6, 6, 4) \
    X(datatree, DataTree, 6, 6, 4) \
    X(schema, Schema, 5, 5, 3) \
    X(schemas_list, SchemasList, 3, 5, 3) \
    X(logging_set, LoggingSet, 3, 5, 3) \
    X(settings_set, SettingsSet, 3, 5, 3) \
    X(mdt_yang_resolve, MdtYangResolve, 3, 5, 3)
TOV_DATATREE_MESSAGES(TOV_DECLARE_CODEC)

TOV_END_DECLS

#endif
