/* SPDX-License-Identifier: BSD-3-Clause */
/* The message codec: the contract (tov/codec_base.h) and the records of every message, one header
 * per family. TOV_MESSAGES(X) lists all of them, once. */
#ifndef TOV_CODEC_H
#define TOV_CODEC_H

#include "tov/codec_base.h"
#include "tov/codec_datatree.h"
#include "tov/codec_operations.h"
#include "tov/codec_envelopes.h"

#define TOV_MESSAGES(X) TOV_DATATREE_MESSAGES(X) TOV_OPERATION_MESSAGES(X) TOV_ENVELOPE_MESSAGES(X)

#endif
