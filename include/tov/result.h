/* SPDX-License-Identifier: BSD-3-Clause */
/* Library result codes and their texts. Every framework function returns one of these (0 is
 * success); codes of platform calls are passed up unchanged. */
#ifndef TOV_RESULT_H
#define TOV_RESULT_H

#include <stdint.h>

#include "tov/export.h"

#define TOV_RC_OK 0x00000000u
#define TOV_RC_BAD_ARGUMENT 0xaaf2a000u        /* bad argument */
#define TOV_RC_INIT_FAILED 0xaaf2a200u         /* a debug flag or trace ring could not be initialised */
#define TOV_RC_NO_MEMORY 0xaaf2a400u           /* out of memory */
#define TOV_RC_REQUEST_REFUSED 0xaaf2a600u     /* request refused; the result record says why */
#define TOV_RC_ME_REQUEST_FAILED 0xaaf2a800u   /* the management engine's request failed */
#define TOV_RC_FLAG_DESTROY_FAILED 0xaaf29e00u /* the debug flags could not be destroyed */

/* One table for the codes and their texts, so that error_code_text can never miss one. */
#define TOV_RESULT_CODES(X)                                                                        \
    X(TOV_RC_OK, "success")                                                                       \
    X(TOV_RC_BAD_ARGUMENT, "bad argument")                                                        \
    X(TOV_RC_INIT_FAILED, "debug flag or trace ring initialisation failed")                       \
    X(TOV_RC_NO_MEMORY, "out of memory")                                                          \
    X(TOV_RC_REQUEST_REFUSED, "request refused")                                                  \
    X(TOV_RC_ME_REQUEST_FAILED, "management engine request failed")                               \
    X(TOV_RC_FLAG_DESTROY_FAILED, "debug flags could not be destroyed")

TOV_BEGIN_DECLS

/* Readable text for a library result code, a codec result code (0 to -4, passed as its unsigned
 * 32-bit value) or an errno value. Never returns NULL; the text is static. */
TOV_API const char *error_code_text(uint32_t code);

TOV_END_DECLS

#endif
