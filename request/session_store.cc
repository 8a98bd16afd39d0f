// SPDX-License-Identifier: BSD-3-Clause
// The session store: sessions in the platform tree, keyed by random non-zero 32-bit ids.
#include <cstdlib>
#include <safe_mem_lib.h>

#include "debug/log.hpp"
#include "request/session_internal.hpp"
#include "tov/kor_alloc.h"
#include "tov/result.h"

namespace tov::detail {
namespace {

constexpr int kIdAttempts = 15;
const char *const kSessionLabel = "TOV session context (tov_session_create)";
const char *const kNodeLabel = "WAVL tree node (tov_session_create)";

SeedClock g_seed_clock = &time;

const Session *session_of(const kor_wavl_node *link) {
    auto *node = reinterpret_cast<const SessionNode *>(kor_wavl_normalize(const_cast<kor_wavl_node *>(link), 0));
    return node ? node->session : nullptr;
}

uint32_t compare_sessions(const kor_wavl_node *a, const kor_wavl_node *b) {
    const Session *first = session_of(a);
    const Session *second = session_of(b);
    if (!first || !second) return 2;
    if (first->session_id > second->session_id) return 0;
    if (first->session_id < second->session_id) return 1;
    return 2;
}

SessionNode *search(FrameworkContext *ctx, uint32_t session_id) {
    if (session_id == 0) return nullptr;
    Session key_session{};
    key_session.session_id = session_id;
    SessionNode key;
    kor_wavl_init(&key.link, 1);
    key.session = &key_session;
    return reinterpret_cast<SessionNode *>(kor_wavl_search(&ctx->sessions.tree, &key.link, 0));
}

uint32_t candidate_id(FrameworkContext *ctx) {
    uint32_t r = static_cast<uint32_t>(lrand48()); // first, as the id sequence depends on it
    return r ^ session_id_step(ctx->id_state);
}

} // namespace

SeedClock set_session_seed_clock(SeedClock clock) {
    SeedClock previous = g_seed_clock;
    g_seed_clock = clock ? clock : &time;
    return previous;
}

uint32_t session_id_step(uint32_t state[4]) {
    uint32_t t = state[0] ^ (state[0] << 11);
    state[0] = state[1];
    state[1] = state[2];
    state[2] = state[3];
    state[3] = state[3] ^ (state[3] >> 19) ^ t ^ (t >> 8);
    return state[3];
}

} // namespace tov::detail

using namespace tov::detail;

extern "C" {

TOV_API uint32_t tov_session_store_init(FrameworkContext *ctx) {
    TOV_REQUIRE_CONTEXT(ctx);
    srand48(g_seed_clock(nullptr));
    for (uint32_t &word : ctx->id_state) word = static_cast<uint32_t>(lrand48());
    if (errno_t rc = memset_s(&ctx->sessions.tree, sizeof ctx->sessions.tree, 0, sizeof ctx->sessions.tree)) {
        TOV_ERR(ctx, "mem init failure: %s", error_code_text(static_cast<uint32_t>(rc)));
        return static_cast<uint32_t>(rc);
    }
    return kor_wavl_tree_init(&ctx->sessions.tree, 1, 0, compare_sessions);
}

TOV_API uint32_t tov_session_store_cleanup(FrameworkContext *ctx) {
    TOV_REQUIRE_CONTEXT(ctx);
    kor_wavl_tree *tree = &ctx->sessions.tree;
    while (kor_wavl_node *link = kor_wavl_get_first(tree, 0)) {
        auto *node = reinterpret_cast<SessionNode *>(kor_wavl_normalize(link, 0));
        kor_named_free(node->session); // its owned_data belongs to whoever filled it
        if (!kor_wavl_delete(tree, link)) break; // cannot happen for a link the tree gave out
        kor_named_free(node);
    }
    return kor_wavl_tree_finish(tree);
}

TOV_API Session *tov_session_create(FrameworkContext *ctx) {
    TOV_REQUIRE_CONTEXT(ctx);
    auto *session = static_cast<Session *>(kor_named_calloc(1, sizeof(Session), kSessionLabel, 0));
    if (!session) {
        TOV_ERR(ctx, "TOV session context allocation failed");
        return nullptr;
    }
    bool found_unused = false;
    for (int attempt = 0; attempt < kIdAttempts && !found_unused; ++attempt) {
        session->session_id = candidate_id(ctx);
        if (session->session_id != 0 && !search(ctx, session->session_id)) {
            found_unused = true;
        } else {
            TOV_TRC(ctx, "generated sesssion-id=%d is invalid, generating new", static_cast<int>(session->session_id));
        }
    }
    if (!found_unused) {
        kor_named_free(session);
        TOV_ERR(ctx, "failed to generate unused session-id");
        return nullptr;
    }
    TOV_DBG(ctx, "assigned session-id=%u", session->session_id);

    auto *node = static_cast<SessionNode *>(kor_named_malloc(sizeof(SessionNode), kNodeLabel, 0));
    if (!node) {
        kor_named_free(session);
        TOV_ERR(ctx, "TOV session tree node allocation failed");
        return nullptr;
    }
    kor_wavl_init(&node->link, 1);
    node->session = session;
    if (!kor_wavl_insert(&ctx->sessions.tree, &node->link)) {
        kor_named_free(node);
        kor_named_free(session);
        TOV_ERR(ctx, "TOV session tree node insertion failed");
        return nullptr;
    }
    return session;
}

TOV_API Session *tov_session_find(FrameworkContext *ctx, uint32_t session_id) {
    TOV_REQUIRE_CONTEXT(ctx);
    SessionNode *node = search(ctx, session_id);
    return node ? node->session : nullptr;
}

TOV_API void tov_session_destroy(FrameworkContext *ctx, Session *session) {
    if (!session) return;
    TOV_REQUIRE_CONTEXT(ctx);
    SessionNode *node = search(ctx, session->session_id);
    if (!node) {
        // Not ours to release: its owned_data is left to whoever made the record.
        TOV_DBG(ctx, "session-id=%d not found, cannot be destroyed", static_cast<int>(session->session_id));
        kor_named_free(session);
        return;
    }
    if (!kor_wavl_delete(&ctx->sessions.tree, &node->link)) {
        TOV_TRC(ctx, "session-id=%d cannot be released from the session tree", static_cast<int>(session->session_id));
    } else {
        kor_named_free(node);
    }
    kor_named_free(session->owned_data);
    kor_named_free(session);
}

} // extern "C"
