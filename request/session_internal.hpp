// SPDX-License-Identifier: BSD-3-Clause
// Test seams of the session store.
#pragma once

#include <cstdint>
#include <ctime>

#include "tov/session.h"

namespace tov::detail {

// The tree node of a session: the platform link, then the session it stands for.
struct SessionNode {
    kor_wavl_node link;
    Session *session;
};

// The clock that seeds the generator (srand48) in tov_session_store_init; `time` unless a test
// installs its own. Returns the previous clock.
using SeedClock = time_t (*)(time_t *);
SeedClock set_session_seed_clock(SeedClock clock);

// One step of the xorshift128 generator over `state` (x, y, z, w); returns the new w.
uint32_t session_id_step(uint32_t state[4]);

} // namespace tov::detail
