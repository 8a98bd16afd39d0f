// SPDX-License-Identifier: BSD-3-Clause
// The session store against a std::map, its id generator, and its failure paths.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <string>

#include "support/alloc.hpp"
#include "support/rings.hpp"
#include "request/session_internal.hpp"
#include "tov/kor_alloc.h"
#include "tov/result.h"

namespace {

using tov::test::ptr;

const char *const kSessionLabel = "TOV session context (tov_session_create)";
const char *const kNodeLabel = "WAVL tree node (tov_session_create)";

uint64_t live(const char *label) { return tov::test::live_blocks(label); }

// The candidates the store draws after srand48(seed) from generator state `state`: lrand48 XOR
// the next xorshift128 output, as documented.
std::vector<uint32_t> predict(long seed, const uint32_t state[4], int count) {
    uint32_t x = state[0], y = state[1], z = state[2], w = state[3];
    srand48(seed);
    std::vector<uint32_t> ids;
    for (int i = 0; i < count; ++i) {
        uint32_t r = static_cast<uint32_t>(lrand48()), t = x ^ (x << 11);
        x = y, y = z, z = w;
        w = w ^ (w >> 19) ^ t ^ (t >> 8);
        ids.push_back(r ^ w);
    }
    return ids;
}

// The store of a framework whose seed clock always reads 1234.
struct Sessions : ::testing::Test, tov::test::LoggedFramework {
    Sessions() : LoggedFramework("ses") {
        previous_clock = tov::detail::set_session_seed_clock([](time_t *) -> time_t { return 1234; });
        EXPECT_EQ(tov_session_store_init(&fw), TOV_RC_OK);
    }
    ~Sessions() override {
        EXPECT_EQ(tov_session_store_cleanup(&fw), 0u);
        EXPECT_EQ(live(kSessionLabel) + live(kNodeLabel), 0u);
        tov::detail::set_session_seed_clock(previous_clock);
    }
    // A generator state that makes the next candidate after srand48(4242) exactly `id`: with x = 0
    // the generator outputs w ^ (w >> 19), which this w inverts to the seeded lrand48 value XOR id.
    static std::array<uint32_t, 4> state_for(uint32_t id) {
        srand48(4242);
        const uint32_t out = static_cast<uint32_t>(lrand48()) ^ id;
        return {0, 0, 0, out ^ (out >> 19)};
    }
    Session *create_with_id(uint32_t id) {
        const auto state = state_for(id);
        std::copy(state.begin(), state.end(), fw.id_state);
        srand48(4242);
        return tov_session_create(&fw);
    }
    std::string line(const char *tag, const std::string &text) { return std::string(tag) + " TOV: ctx=" + ptr(&fw) + "," + text; }
    tov::detail::SeedClock previous_clock = nullptr;
};

TEST_F(Sessions, HundredThousandRandomOperationsMatchAMap) {
    srand48(1234); // the store was seeded from the clock, then took four draws
    for (uint32_t word : fw.id_state) EXPECT_EQ(word, static_cast<uint32_t>(lrand48()));

    std::mt19937 random(20240601);
    std::map<uint32_t, Session *> model;
    std::vector<uint32_t> ids;
    const char *owned_label = "test: session owned data";
    uint64_t owned_live = 0;
    for (int step = 0; step < 100000; ++step) {
        unsigned choice = random() % 100;
        if (choice < 45 || ids.empty()) {
            Session *s = tov_session_create(&fw);
            ASSERT_NE(s, nullptr);
            ASSERT_NE(s->session_id, 0u);
            ASSERT_TRUE(model.emplace(s->session_id, s).second) << "duplicate id " << s->session_id;
            EXPECT_TRUE(s->owned_data == nullptr && s->user[5] == 0);
            if (random() % 4 == 0) s->owned_data = kor_named_malloc(16, owned_label, 0), ++owned_live;
            ids.push_back(s->session_id);
        } else if (choice < 75) {
            uint32_t probe = random() % 2 ? ids[random() % ids.size()] : static_cast<uint32_t>(random());
            auto it = model.find(probe);
            EXPECT_EQ(tov_session_find(&fw, probe), it == model.end() ? nullptr : it->second);
        } else {
            size_t at = random() % ids.size();
            uint32_t id = ids[at];
            ids[at] = ids.back();
            ids.pop_back();
            if (model.at(id)->owned_data) --owned_live;
            tov_session_destroy(&fw, model.at(id));
            model.erase(id);
            EXPECT_EQ(tov_session_find(&fw, id), nullptr);
        }
        if (step % 5000 == 4999) {
            ASSERT_EQ(fw.sessions.tree.count, model.size());
            ASSERT_EQ(live(owned_label), owned_live); // destroy freed what the sessions owned
        }
    }
    EXPECT_EQ(tov_session_find(&fw, 0), nullptr);
    // Cleanup frees the records but leaves what they own to its owner.
    std::vector<void *> owned;
    for (auto &[id, s] : model) {
        if (s->owned_data) owned.push_back(s->owned_data);
    }
    EXPECT_EQ(tov_session_store_cleanup(&fw), 0u);
    EXPECT_EQ(live(kSessionLabel) + live(kNodeLabel), 0u);
    EXPECT_EQ(live(owned_label), owned.size());
    for (void *p : owned) kor_named_free(p);
    ASSERT_EQ(tov_session_store_init(&fw), TOV_RC_OK); // for the fixture to release
}

TEST_F(Sessions, FifteenUsedCandidatesExhaustTheGenerator) {
    fw.debug.level = TOV_LEVEL_TRACE;
    const uint32_t state[4] = {0x12345678, 0x9abcdef0, 0x0badf00d, 0xfeedface};
    auto candidates = predict(99, state, 15);
    for (uint32_t id : candidates) ASSERT_NE(create_with_id(id), nullptr);
    capture.take();

    std::copy(state, state + 4, fw.id_state);
    srand48(99);
    EXPECT_EQ(tov_session_create(&fw), nullptr);
    std::vector<std::string> expected;
    for (uint32_t id : candidates)
        expected.push_back(line("TRC:", "generated sesssion-id=" + std::to_string(static_cast<int32_t>(id)) +
                                            " is invalid, generating new"));
    expected.push_back(line("ERR:", "failed to generate unused session-id"));
    EXPECT_EQ(capture.take(), expected);
    EXPECT_EQ(live(kSessionLabel), 15u); // the refused record was freed
    EXPECT_EQ(fw.sessions.tree.count, 15u);

    // A zero candidate is refused the same way, then the next one is taken.
    const uint32_t next = predict(4242, state_for(0).data(), 2)[1];
    ASSERT_NE(create_with_id(0), nullptr);
    EXPECT_EQ(capture.take(), (std::vector<std::string>{line("TRC:", "generated sesssion-id=0 is invalid, generating new"),
                                                        line("DBG:", "assigned session-id=" + std::to_string(next))}));
}

TEST_F(Sessions, FailuresAndForeignRecordsLeaveNothingBehind) {
    EXPECT_EQ(tov::test::allocation_points([&] {
                  Session *s = tov_session_create(&fw);
                  return tov_session_destroy(&fw, s), s != nullptr;
              }),
              2u);
    const std::string context = line("ERR:", "TOV session context allocation failed"),
                      node = line("ERR:", "TOV session tree node allocation failed");
    EXPECT_EQ(capture.take(), (std::vector<std::string>{context, node, context, node})); // once, then on

    // A record the store does not hold is freed, but what it owns is left alone.
    fw.debug.level = TOV_LEVEL_DEBUG;
    Session *kept = create_with_id(0x80000001u);
    auto *stray = static_cast<Session *>(kor_named_calloc(1, sizeof(Session), kSessionLabel, 0));
    stray->session_id = 0x80000002u;
    void *data = stray->owned_data = kor_named_malloc(8, "test: stray owned data", 0);
    capture.take();
    tov_session_destroy(&fw, stray);
    EXPECT_EQ(capture.take(), std::vector<std::string>{line("DBG:", "session-id=-2147483646 not found, cannot be destroyed")});
    EXPECT_EQ(live("test: stray owned data"), 1u);
    kor_named_free(data);
    EXPECT_EQ(tov_session_find(&fw, 0x80000001u), kept);
    tov_session_destroy(&fw, nullptr);
}

} // namespace
