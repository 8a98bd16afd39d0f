// The request and response envelopes, the error records, and the shared varint reader.
#include "codec/envelope_tables.hpp"
#include "codec/exports.hpp"
#include "codec/wire.hpp"

namespace tov::detail {
static_assert(kRequest.field_count == 22 && sizeof(Request::present) == 3);
} // namespace tov::detail

using namespace tov::detail;

TOV_CODEC(error_message, ErrorMessage, kErrorMessage, 5, 5, 3)
TOV_CODEC(error, Error, kError, 6, 6, 4)
TOV_CODEC(request_result, RequestResult, kRequestResult, 6, 6, 4)
TOV_CODEC(response, Response, kResponse, 6, 6, 4)
TOV_CODEC(request, Request, kRequest, 6, 6, 4)

extern "C" TOV_API int32_t protoc99_decode_var32(uint32_t *value_out, uint32_t *position, const uint8_t *buffer,
                                                 uint32_t length) {
    if (!position || (!buffer && length != 0)) return TOV_CODEC_MALFORMED;
    uint32_t pos = *position, value;
    if (!read_varint32(buffer, pos, length, value)) return TOV_CODEC_MALFORMED;
    if (value_out) *value_out = value;
    *position = pos;
    return TOV_CODEC_OK;
}
