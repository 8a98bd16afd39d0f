// SPDX-License-Identifier: BSD-3-Clause
// The exported functions of every message, one list entry each.
#include "codec/envelope_tables.hpp"
#include "codec/exports.hpp"

using namespace tov::detail;

TOV_MESSAGES(TOV_CODEC)
