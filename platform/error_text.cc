// SPDX-License-Identifier: BSD-3-Clause
// Host error-text service: library result codes, the codec's small negative codes and errno values.
#include <cstring>

#include "tov/result.h"

extern "C" TOV_API const char *error_code_text(uint32_t code) {
    switch (code) {
#define TOV_RESULT_TEXT_(name, text)                                                               \
    case name:                                                                                     \
        return text;
        TOV_RESULT_CODES(TOV_RESULT_TEXT_)
#undef TOV_RESULT_TEXT_
    case static_cast<uint32_t>(-1):
        return "codec: malformed input";
    case static_cast<uint32_t>(-2):
        return "codec: unknown field with an unsupported wire type";
    case static_cast<uint32_t>(-3):
        return "codec: known field with the wrong wire type";
    case static_cast<uint32_t>(-4):
        return "codec: no allocator, or the allocator failed";
    default:
        break;
    }
    // strerrordesc_np gives a static text and, unlike strerror, never touches shared state.
    if (code < 4096) {
        if (const char *text = strerrordesc_np(static_cast<int>(code))) return text;
    }
    return "unknown error code";
}
