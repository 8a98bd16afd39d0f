/* SPDX-License-Identifier: BSD-3-Clause */
/* String helpers, bounded search routines and the string callbacks of string-keyed hash maps.
 *
 * Every new string or array a function returns comes from the named allocator and is released
 * by the caller with kor_named_free. */
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

/* Library result codes (0, TOV_RC_BAD_ARGUMENT, TOV_RC_NO_MEMORY) are those of tov/result.h. */

/* One replacement for str_replace_multi: every `find` becomes `replace`. */
typedef struct str_pair {
    const char *find;
    const char *replace;
} str_pair;

/* One entry of str_replace_multi's work table: a pair and one place where its `find` matches
 * (offset -1: no match, or dropped because it overlaps a match that was kept). */
typedef struct str_pair_match {
    const str_pair *pair;
    size_t find_len;
    size_t replace_len;
    int32_t offset;
} str_pair_match;

/* Copy of `source` under the allocation label `label`; NULL when either is NULL, when the source
 * reaches TOV_STR_MAX, or when memory runs out. */
TOV_API char *tov_strdup(const char *source, const char *label);

/* `first` followed by `second` in one new string, through *joined. Returns TOV_RC_BAD_ARGUMENT
 * for a null `joined`, or when a part or the joined string would reach TOV_STR_MAX;
 * TOV_RC_NO_MEMORY; or the safe-string code of a failed copy. A null part or label is not an
 * error: 0 is returned with *joined NULL. */
TOV_API uint32_t tov_strdup_concat(const char *first, const char *second, const char *label,
                                   char **joined);

/* Copy of token number `index` (from 0) of `string` split at any of `delimiters`, through
 * *token, labelled "TOV MAP"; NULL when there is no such token or on any failure. Uses the
 * non-reentrant strtok: not for two threads at once. */
TOV_API void tov_tokenize_and_get_token(const char *string, const char *delimiters, uint32_t index,
                                        char **token);

/* How often `ch` occurs in `string`; 0 for NULL or for ch 0. Only reads, so any length counts. */
TOV_API uint32_t tov_count_char_occurences(const char *string, char ch);

/* Replaces every pair's `find` by its `replace` in one pass over `source`, into a new string
 * labelled `label`. Matches never overlap: at one offset the longest `find` wins (the earlier pair
 * when two are equally long), and a match that starts inside a kept one is dropped. Each pair's
 * first match always counts; further matches, over all pairs together, stop after nine, and
 * later ones stay as they are. An empty `find` never matches. NULL for a null source, pair array
 * or label, a pair with a null member, a string that reaches TOV_STR_MAX (the result included),
 * or no memory. count 0 gives a copy. The work table lives on the stack for ordinary pair
 * counts; beyond 54 pairs it is taken from the named allocator. */
TOV_API char *str_replace_multi(const char *source, const str_pair *pairs, uint32_t count,
                                const char *label);
/* qsort order of str_pair_match entries: ascending offset (unmatched first), then the longer
 * `find` first; equal offset and length compare equal. */
TOV_API int str_pair_helper_compare(const void *a, const void *b);

/* Replaces every `find` in `string` by `replace`, in place. 0 on success and for NULL; otherwise
 * the safe-string code of the failed search, or 407 (unterminated) when the string reaches
 * TOV_STR_MAX, in which case nothing is changed. */
TOV_API int chr_replace(char *string, char find, char replace);

/* Splits `string` in place at any of `delimiters` (strtok_r) and returns a new array, labelled
 * "String tokens array", of pointers to the tokens inside `string`; the caller frees the array,
 * never the tokens. *count receives the number of tokens. NULL for a null argument, a string
 * that reaches TOV_STR_MAX (left untouched) or no memory. */
TOV_API char **str_arr_tokenize(char *string, const char *delimiters, uint32_t *count);

/* Trimming of isspace characters, in place. str_ltrim: 0, the safe-string code of the move, or
 * 407 when the string reaches TOV_STR_MAX (nothing changed). str_rtrim: the string, or NULL when
 * it reaches TOV_STR_MAX (nothing changed). str_trim: both, with str_ltrim's code. */
TOV_API int str_ltrim(char *string);
TOV_API char *str_rtrim(char *string);
TOV_API int str_trim(char *string);

/* Case conversion in place through the C library's tables. Returns the string, or NULL when it
 * reaches TOV_STR_MAX (nothing changed). */
TOV_API char *str_to_lower(char *string);
TOV_API char *str_to_upper(char *string);

/* Copies `src` with its terminator to `dest` and returns the terminator written, so calls chain.
 * A null `src` returns `dest` and writes nothing; a null `dest`, or a source that reaches
 * TOV_STR_MAX, returns NULL and writes nothing. */
TOV_API char *tov_stpcpy(char *dest, const char *src);

/* The hash and equality callbacks of string-keyed kor hash maps; the keys are NUL-terminated
 * strings. The hash is kor_hash_calculate over the characters, 0 for NULL or for a string that
 * reaches TOV_STR_MAX. The comparison returns 1 when the strings are equal, else 0 (always 0
 * when one reaches TOV_STR_MAX). */
TOV_API uint32_t tov_string_hash_calc(const void *string);
TOV_API int tov_string_hash_cmp(const void *a, const void *b);

/* libsafec's strcmp_s, strncat_s and strncpy_s with library result codes: 0 or
 * TOV_RC_BAD_ARGUMENT. tov_safe_strcmp reports what strcmp_s reports, except that it never reads
 * dest[dmax]: when the first dmax bytes of `dest` are characters equal to those of `src`, the bound
 * counts as the end of `dest` (so "abc" with dmax 3 equals "abc"). On any failure it turns a
 * difference of 0 into 1, so a failed comparison never reads as equal. A count
 * of 0 makes tov_safe_strncat and tov_safe_strncpy return 0 without touching `dest`. */
TOV_API uint32_t tov_safe_strcmp(const char *dest, size_t dmax, const char *src, int *diff);
TOV_API uint32_t tov_safe_strncat(char *dest, size_t dmax, const char *src, size_t slen);
TOV_API uint32_t tov_safe_strncpy(char *dest, size_t dmax, const char *src, size_t slen);

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
