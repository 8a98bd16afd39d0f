// SPDX-License-Identifier: BSD-3-Clause
// Tables of the data tree messages and of the schema, logging, settings and telemetry messages.
#pragma once

#include "codec/descriptor.hpp"
#include "tov/codec.h"

namespace tov::detail {

inline constexpr FieldDesc kAttributeFields[] = {
    TOV_FIELD_STRING(Attribute, 1, name, TOV_ATTRIBUTE_BIT_NAME),
    TOV_FIELD_STRING(Attribute, 2, value, TOV_ATTRIBUTE_BIT_VALUE),
};
inline constexpr MessageDesc kAttribute = TOV_DESCRIBE("attribute", Attribute, kAttributeFields);

inline constexpr FieldDesc kNodeInfoFields[] = {
    TOV_FIELD_STRING(NodeInfo, 1, text, TOV_NODE_INFO_BIT_TEXT),
    TOV_FIELD_VARINT(NodeInfo, 2, number, TOV_NODE_INFO_BIT_NUMBER),
    TOV_FIELD_STRINGS(NodeInfo, 3, items, items_count, TOV_NODE_INFO_BIT_ITEMS),
};
inline constexpr MessageDesc kNodeInfo = TOV_DESCRIBE("node_info", NodeInfo, kNodeInfoFields);

inline constexpr FieldDesc kEditInsKeyFields[] = {
    TOV_FIELD_MESSAGES(EditInsKey, 1, keys, keys_count, Attribute, &kAttribute, TOV_EDIT_INS_KEY_BIT_KEYS),
    TOV_FIELD_STRING(EditInsKey, 2, value, TOV_EDIT_INS_KEY_BIT_VALUE),
};
inline constexpr MessageDesc kEditInsKey = TOV_DESCRIBE("edit_ins_key", EditInsKey, kEditInsKeyFields);

inline constexpr FieldDesc kEditInsFields[] = {
    TOV_FIELD_VARINT(EditIns, 1, position, TOV_EDIT_INS_BIT_POSITION),
    TOV_FIELD_MESSAGE(EditIns, 2, key, EditInsKey, kEditInsKey, TOV_EDIT_INS_BIT_KEY),
    TOV_FIELD_MESSAGE(EditIns, 3, attribute, Attribute, kAttribute, TOV_EDIT_INS_BIT_ATTRIBUTE),
};
inline constexpr MessageDesc kEditIns = TOV_DESCRIBE("edit_ins", EditIns, kEditInsFields);

inline constexpr FieldDesc kDataTreeFields[] = {
    TOV_FIELD_STRING(DataTree, 1, name, TOV_DATATREE_BIT_NAME),
    TOV_FIELD_STRING(DataTree, 2, value, TOV_DATATREE_BIT_VALUE),
    TOV_FIELD_STRING(DataTree, 3, qualifier, TOV_DATATREE_BIT_QUALIFIER),
    TOV_FIELD_VARINT(DataTree, 4, aux_number_4, TOV_DATATREE_BIT_AUX_NUMBER_4),
    TOV_FIELD_VARINT(DataTree, 5, operation, TOV_DATATREE_BIT_OPERATION),
    TOV_FIELD_MESSAGES(DataTree, 6, attributes, attributes_count, Attribute, &kAttribute, TOV_DATATREE_BIT_ATTRIBUTES),
    TOV_FIELD_MESSAGES(DataTree, 7, children, children_count, DataTree, nullptr, TOV_DATATREE_BIT_CHILDREN), // itself
    TOV_FIELD_VARINT(DataTree, 8, aux_number_8, TOV_DATATREE_BIT_AUX_NUMBER_8),
    TOV_FIELD_MESSAGE(DataTree, 9, node_info, NodeInfo, kNodeInfo, TOV_DATATREE_BIT_NODE_INFO),
    TOV_FIELD_VARINT(DataTree, 10, aux_number_10, TOV_DATATREE_BIT_AUX_NUMBER_10),
    TOV_FIELD_MESSAGE(DataTree, 11, insert, EditIns, kEditIns, TOV_DATATREE_BIT_INSERT),
    TOV_FIELD_VARINT(DataTree, 12, aux_number_12, TOV_DATATREE_BIT_AUX_NUMBER_12),
    TOV_FIELD_STRING(DataTree, 13, aux_text_13, TOV_DATATREE_BIT_AUX_TEXT_13),
};
inline constexpr MessageDesc kDataTree = TOV_DESCRIBE("datatree", DataTree, kDataTreeFields);

inline constexpr FieldDesc kSchemaFields[] = {
    TOV_FIELD_STRING(Schema, 1, text_1, TOV_SCHEMA_BIT_TEXT_1),  TOV_FIELD_STRING(Schema, 2, text_2, TOV_SCHEMA_BIT_TEXT_2), TOV_FIELD_STRING(Schema, 3, text_3, TOV_SCHEMA_BIT_TEXT_3),
    TOV_FIELD_BOOL(Schema, 4, flag_4, TOV_SCHEMA_BIT_FLAG_4),    TOV_FIELD_STRING(Schema, 5, text_5, TOV_SCHEMA_BIT_TEXT_5), TOV_FIELD_STRING(Schema, 6, text_6, TOV_SCHEMA_BIT_TEXT_6),
    TOV_FIELD_BOOL(Schema, 11, flag_11, TOV_SCHEMA_BIT_FLAG_11),
};
inline constexpr MessageDesc kSchema = TOV_DESCRIBE("schema", Schema, kSchemaFields);

inline constexpr MessageDesc kSchemasList = describe_empty("schemas_list", sizeof(SchemasList));

inline constexpr FieldDesc kLoggingSetFields[] = {
    TOV_FIELD_VARINT(LoggingSet, 1, value_1, TOV_LOGGING_SET_BIT_VALUE_1),
    TOV_FIELD_VARINT(LoggingSet, 2, value_2, TOV_LOGGING_SET_BIT_VALUE_2),
    TOV_FIELD_VARINT_DEFAULT(LoggingSet, 3, value_3, 1, TOV_LOGGING_SET_BIT_VALUE_3),
    TOV_FIELD_BOOL(LoggingSet, 4, flag_4, TOV_LOGGING_SET_BIT_FLAG_4),
    TOV_FIELD_BOOL(LoggingSet, 5, flag_5, TOV_LOGGING_SET_BIT_FLAG_5),
    TOV_FIELD_BOOL(LoggingSet, 6, flag_6, TOV_LOGGING_SET_BIT_FLAG_6),
};
inline constexpr MessageDesc kLoggingSet = TOV_DESCRIBE("logging_set", LoggingSet, kLoggingSetFields);

inline constexpr FieldDesc kSettingsSetFields[] = {
    TOV_FIELD_BOOL(SettingsSet, 1, flag_1, TOV_SETTINGS_SET_BIT_FLAG_1),
    TOV_FIELD_VARINT(SettingsSet, 2, value_2, TOV_SETTINGS_SET_BIT_VALUE_2),
};
inline constexpr MessageDesc kSettingsSet = TOV_DESCRIBE("settings_set", SettingsSet, kSettingsSetFields);

inline constexpr FieldDesc kMdtYangResolveFields[] = {
    TOV_FIELD_VARINT64(MdtYangResolve, 1, value_1, TOV_MDT_YANG_RESOLVE_BIT_VALUE_1),
};
inline constexpr MessageDesc kMdtYangResolve =
    TOV_DESCRIBE("mdt_yang_resolve", MdtYangResolve, kMdtYangResolveFields);

} // namespace tov::detail
