// The data tree messages and the schema, logging, settings and telemetry messages.
#include "codec/datatree_tables.hpp"
#include "codec/exports.hpp"

namespace tov::detail {
static_assert(kDataTree.field_count == 13 && sizeof(DataTree::present) == 2);
static_assert(kSchema.lookup[11] == 6, "field 11 of schema has presence bit 6");
} // namespace tov::detail

using namespace tov::detail;

TOV_CODEC(attribute, Attribute, kAttribute, 5, 5, 3)
TOV_CODEC(node_info, NodeInfo, kNodeInfo, 5, 5, 3)
TOV_CODEC(edit_ins_key, EditInsKey, kEditInsKey, 5, 6, 4)
TOV_CODEC(edit_ins, EditIns, kEditIns, 6, 6, 4)
TOV_CODEC(datatree, DataTree, kDataTree, 6, 6, 4)
TOV_CODEC(schema, Schema, kSchema, 5, 5, 3)
TOV_CODEC(schemas_list, SchemasList, kSchemasList, 3, 5, 3)
TOV_CODEC(logging_set, LoggingSet, kLoggingSet, 3, 5, 3)
TOV_CODEC(settings_set, SettingsSet, kSettingsSet, 3, 5, 3)
TOV_CODEC(mdt_yang_resolve, MdtYangResolve, kMdtYangResolve, 3, 5, 3)
