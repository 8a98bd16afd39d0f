/* String helpers, bounded search routines and the string callbacks of string-keyed hash maps.
 *
 * Every string a function returns comes from the named allocator and is released by the caller
 * with kor_named_free. */
#ifndef TOV_STRINGS_H
#define TOV_STRINGS_H

#include <stddef.h>
#include <stdint.h>

#include "tov/export.h"

/* The library's maximum string length, in bytes with the terminator: a string must end within its
 * first TOV_STR_MAX bytes, so it holds at most TOV_STR_MAX - 1 characters. It is the safe-string
 * library's own string cap (libsafec's RSIZE_MAX_STR, 32 KiB in Debian's build), which refuses
 * any larger bound; the library checks at build time that the two agree. A string that reaches
 * the limit is refused with the function's failure result and is never copied truncated. */
#define TOV_STR_MAX 0x8000u

/* The bounded search routines accept dmax and slen from 1 up to this bound. */
#define TOV_STR_SEARCH_MAX 0x7fffffffu

/* Safe-string error numbers returned by the bounded search routines (libsafec's values). */
#define TOV_ESNULLP 400  /* null pointer */
#define TOV_ESZEROL 401  /* zero length */
#define TOV_ESLEMAX 403  /* length exceeds the maximum */
#define TOV_ESUNTERM 407 /* unterminated string */
#define TOV_ESNOTFND 409 /* not found */

TOV_BEGIN_DECLS

/* Bounded search routines, in the safe-string argument order: string, dmax, what to look for,
 * out pointer. dmax (and slen) count the bytes that may be examined, the terminator included.
 * Each argument violation is reported through libsafec's string constraint handler
 * (invoke_safe_str_constraint_handler with the message, NULL and the code) and its code is
 * returned; 409 (not found) is returned without a report. The out pointer is set to NULL right
 * after it has been checked, and stays NULL unless the routine returns 0. */

/* First occurrence of `ch`; ch 0 finds the terminator. */
TOV_API int strchar_s_tmp(const char *dest, size_t dmax, char ch, char **first);
/* First character of `dest` that is one of the `slen`-bounded set `src`. */
TOV_API int strpbrk_s_tmp(const char *dest, size_t dmax, const char *src, size_t slen,
                          char **first);
/* Last occurrence of `ch` (never the terminator). */
TOV_API int strrchar_s_tmp(const char *dest, size_t dmax, char ch, char **last);
/* First occurrence of the substring `src`; an empty substring, or `src` == `dest`, gives `dest`. */
TOV_API int strstr_s_tmp(const char *dest, size_t dmax, const char *src, size_t slen,
                         char **substring);

TOV_END_DECLS

#endif
