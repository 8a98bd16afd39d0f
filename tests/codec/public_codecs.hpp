// Every message's four public functions behind one uniform shape, so that a check written once
// runs against every exported kesh_tov_* entry point (whatever arguments the message drops).
#pragma once

#include <string_view>

#include "codec/envelope_tables.hpp"
#include "tov/codec.h"

namespace tov::test {

struct PublicCodec {
    const detail::MessageDesc *desc;
    int32_t (*decode)(void *record, const uint8_t *buffer, uint32_t length, tov_alloc_fn, uintptr_t);
    uint32_t (*encode)(const void *record, uint8_t *buffer, uint32_t capacity, TovSpan *, uint32_t *);
    int32_t (*duplicate)(void *destination, const void *source, tov_alloc_fn, uintptr_t);
    void (*free)(void *record, tov_free_fn, uintptr_t);
};

#define TOV_T_DECODE_3(m, T) [](void *r, const uint8_t *b, uint32_t l, tov_alloc_fn, uintptr_t) { return kesh_tov_##m##_decode_ext(static_cast<T *>(r), b, l); }
#define TOV_T_DECODE_5(m, T) [](void *r, const uint8_t *b, uint32_t l, tov_alloc_fn a, uintptr_t c) { return kesh_tov_##m##_decode_ext(static_cast<T *>(r), b, l, a, c); }
#define TOV_T_DECODE_6(m, T) [](void *r, const uint8_t *b, uint32_t l, tov_alloc_fn a, uintptr_t c) { return kesh_tov_##m##_decode_ext(static_cast<T *>(r), b, l, a, c, 0x5eed); }
#define TOV_T_ENCODE_5(m, T) [](const void *r, uint8_t *b, uint32_t n, TovSpan *s, uint32_t *c) { return kesh_tov_##m##_encode_ext(static_cast<const T *>(r), b, n, s, c); }
#define TOV_T_ENCODE_6(m, T) [](const void *r, uint8_t *b, uint32_t n, TovSpan *s, uint32_t *c) { return kesh_tov_##m##_encode_ext(static_cast<const T *>(r), b, n, s, c, 0x5eed); }
#define TOV_T_FREE_3(m, T) [](void *r, tov_free_fn f, uintptr_t c) { kesh_tov_##m##_free_ext(static_cast<T *>(r), f, c); }
#define TOV_T_FREE_4(m, T) [](void *r, tov_free_fn f, uintptr_t c) { kesh_tov_##m##_free_ext(static_cast<T *>(r), f, c, 0x5eed); }
#define TOV_T_CODEC(m, T, desc, d, e, f)                                                               \
    PublicCodec {                                                                                      \
        &detail::desc, TOV_T_DECODE_##d(m, T), TOV_T_ENCODE_##e(m, T),                                 \
            [](void *dst, const void *src, tov_alloc_fn a, uintptr_t c) {                              \
                return kesh_tov_##m##_duplicate(static_cast<T *>(dst), static_cast<const T *>(src), a, c); \
            },                                                                                         \
            TOV_T_FREE_##f(m, T)                                                                       \
    }

inline const PublicCodec kPublicCodecs[] = {
    TOV_T_CODEC(attribute, Attribute, kAttribute, 5, 5, 3),
    TOV_T_CODEC(node_info, NodeInfo, kNodeInfo, 5, 5, 3),
    TOV_T_CODEC(edit_ins_key, EditInsKey, kEditInsKey, 5, 6, 4),
    TOV_T_CODEC(edit_ins, EditIns, kEditIns, 6, 6, 4),
    TOV_T_CODEC(datatree, DataTree, kDataTree, 6, 6, 4),
    TOV_T_CODEC(schema, Schema, kSchema, 5, 5, 3),
    TOV_T_CODEC(schemas_list, SchemasList, kSchemasList, 3, 5, 3),
    TOV_T_CODEC(logging_set, LoggingSet, kLoggingSet, 3, 5, 3),
    TOV_T_CODEC(settings_set, SettingsSet, kSettingsSet, 3, 5, 3),
    TOV_T_CODEC(mdt_yang_resolve, MdtYangResolve, kMdtYangResolve, 3, 5, 3),
    TOV_T_CODEC(datastore, Datastore, kDatastore, 5, 5, 3),
    TOV_T_CODEC(start_session, StartSession, kStartSession, 5, 5, 3),
    TOV_T_CODEC(stop_session, StopSession, kStopSession, 3, 5, 3),
    TOV_T_CODEC(lock, Lock, kLock, 6, 6, 4),
    TOV_T_CODEC(unlock, Unlock, kUnlock, 6, 6, 4),
    TOV_T_CODEC(delete_config, DeleteConfig, kDeleteConfig, 6, 6, 4),
    TOV_T_CODEC(discard_changes, DiscardChanges, kDiscardChanges, 3, 5, 3),
    TOV_T_CODEC(cancel_commit, CancelCommit, kCancelCommit, 5, 5, 3),
    TOV_T_CODEC(filter, Filter, kFilter, 6, 6, 4),
    TOV_T_CODEC(get, Get, kGet, 6, 6, 4),
    TOV_T_CODEC(get_config, GetConfig, kGetConfig, 6, 6, 4),
    TOV_T_CODEC(edit_config, EditConfig, kEditConfig, 6, 6, 4),
    TOV_T_CODEC(validate, Validate, kValidate, 6, 6, 4),
    TOV_T_CODEC(commit, Commit, kCommit, 5, 5, 3),
    TOV_T_CODEC(copy_config, CopyConfig, kCopyConfig, 6, 6, 4),
    TOV_T_CODEC(cli_config, CliConfig, kCliConfig, 5, 5, 3),
    TOV_T_CODEC(cli_show, CliShow, kCliShow, 5, 5, 3),
    TOV_T_CODEC(invoke_rpc, InvokeRpc, kInvokeRpc, 6, 6, 4),
    TOV_T_CODEC(error_message, ErrorMessage, kErrorMessage, 5, 5, 3),
    TOV_T_CODEC(error, Error, kError, 6, 6, 4),
    TOV_T_CODEC(request_result, RequestResult, kRequestResult, 6, 6, 4),
    TOV_T_CODEC(response, Response, kResponse, 6, 6, 4),
    TOV_T_CODEC(request, Request, kRequest, 6, 6, 4),
};

inline const PublicCodec &public_codec(std::string_view name) {
    for (const auto &c : kPublicCodecs)
        if (name == c.desc->name) return c;
    return kPublicCodecs[0];
}

} // namespace tov::test
