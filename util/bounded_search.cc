// SPDX-License-Identifier: BSD-3-Clause
// Bounded search routines in the safe-string style. They keep their own maximum bound
// (TOV_STR_SEARCH_MAX) rather than libsafec's string cap, and report argument violations through
// libsafec's constraint handler under the names of the safe-string routines they stand in for.
#include <array>
#include <cstring>
#include <string_view>

#include "util/safe_str.hpp"

namespace tov::detail {
namespace {

constexpr size_t kSearchMax = TOV_STR_SEARCH_MAX;

int report(const char *message, int code) noexcept {
    invoke_safe_str_constraint_handler(message, nullptr, code);
    return code;
}

char *mutable_at(const char *s, size_t offset) noexcept { return const_cast<char *>(s + offset); }

} // namespace
} // namespace tov::detail

using namespace tov::detail;

extern "C" {

TOV_API int strchar_s_tmp(const char *dest, size_t dmax, char ch, char **first) {
    if (first == nullptr) return report("strfirstchar_s: index is null", TOV_ESNULLP);
    *first = nullptr;
    if (dest == nullptr) return report("strfirstchar_s: dest is null", TOV_ESNULLP);
    if (dmax == 0) return report("strfirstchar_s: dmax is 0", TOV_ESZEROL);
    if (dmax > kSearchMax) return report("strfirstchar_s: dmax exceeds max", TOV_ESLEMAX);

    // A match among the first dmax characters counts even when no terminator follows within them.
    size_t len = ::strnlen(dest, dmax);
    if (const void *hit = std::memchr(dest, static_cast<unsigned char>(ch), len)) {
        *first = mutable_at(static_cast<const char *>(hit), 0);
        return 0;
    }
    if (len == dmax) return report("strfirstchar_s: dest is unterminated", TOV_ESUNTERM);
    if (ch == '\0') {
        *first = mutable_at(dest, len);
        return 0;
    }
    return TOV_ESNOTFND;
}

TOV_API int strpbrk_s_tmp(const char *dest, size_t dmax, const char *src, size_t slen,
                          char **first) {
    if (first == nullptr) return report("strpbrk_s: count is null", TOV_ESNULLP);
    *first = nullptr;
    if (dest == nullptr) return report("strpbrk_s: dest is null", TOV_ESNULLP);
    if (src == nullptr) return report("strpbrk_s: src is null", TOV_ESNULLP);
    if (dmax == 0) return report("strpbrk_s: dmax is 0", TOV_ESZEROL);
    if (dmax > kSearchMax) return report("strpbrk_s: dmax exceeds max", TOV_ESLEMAX);
    if (slen == 0) return report("strpbrk_s: slen is 0", TOV_ESZEROL);
    if (slen > kSearchMax) return report("strpbrk_s: slen exceeds max", TOV_ESLEMAX);

    size_t set_len = ::strnlen(src, slen);
    if (set_len == slen) return report("strpbrk_s: src is unterminated", TOV_ESUNTERM);
    if (*dest == '\0') return TOV_ESNOTFND;

    // One membership table makes the walk linear in the string, whatever the size of the set.
    std::array<bool, 256> in_set{};
    for (unsigned char c : std::string_view(src, set_len)) in_set[c] = true;
    for (size_t i = 0; i < dmax; ++i) {
        unsigned char c = static_cast<unsigned char>(dest[i]);
        if (c == 0) return TOV_ESNOTFND;
        if (in_set[c]) {
            *first = mutable_at(dest, i);
            return 0;
        }
    }
    return report("strpbrk_s: dest is unterminated", TOV_ESUNTERM);
}

TOV_API int strrchar_s_tmp(const char *dest, size_t dmax, char ch, char **last) {
    if (last == nullptr) return report("strlastchar_s: last is null", TOV_ESNULLP);
    *last = nullptr;
    if (dest == nullptr) return report("strlastchar_s: dest is null", TOV_ESNULLP);
    if (dmax == 0) return report("strlastchar_s: dmax is 0", TOV_ESZEROL);
    if (dmax > kSearchMax) return report("strlastchar_s: dmax exceeds max", TOV_ESLEMAX);

    // The last match only counts once the terminator is reached within dmax.
    size_t len = ::strnlen(dest, dmax);
    if (len == dmax) return report("strlastchar_s: dest is unterminated", TOV_ESUNTERM);
    size_t at = std::string_view(dest, len).rfind(ch);
    if (at == std::string_view::npos) return TOV_ESNOTFND;
    *last = mutable_at(dest, at);
    return 0;
}

TOV_API int strstr_s_tmp(const char *dest, size_t dmax, const char *src, size_t slen,
                         char **substring) {
    if (substring == nullptr) return report("strstr_s: substring is null", TOV_ESNULLP);
    *substring = nullptr;
    if (dest == nullptr) return report("strstr_s: dest is null", TOV_ESNULLP);
    if (dmax == 0) return report("strstr_s: dmax is 0", TOV_ESZEROL);
    if (dmax > kSearchMax) return report("strstr_s: dmax exceeds max", TOV_ESLEMAX);
    if (src == nullptr) return report("strstr_s: src is null", TOV_ESNULLP);
    if (slen == 0) return report("strstr_s: slen is 0", TOV_ESZEROL);
    if (slen > kSearchMax) return report("strstr_s: slen exceeds max", TOV_ESLEMAX);

    if (*src == '\0' || src == dest) {
        *substring = mutable_at(dest, 0);
        return 0;
    }
    // Equivalent to trying each position in turn: the first position where slen characters of
    // an unterminated substring match reports the substring; running past dmax reports the string.
    std::string_view hay(dest, ::strnlen(dest, dmax));
    std::string_view needle(src, ::strnlen(src, slen));
    size_t at = hay.find(needle);
    if (at != std::string_view::npos) {
        if (needle.size() == slen) return report("strstr_s: src is unterminated", TOV_ESUNTERM);
        *substring = mutable_at(dest, at);
        return 0;
    }
    if (hay.size() == dmax) return report("strstr_s: dest is unterminated", TOV_ESUNTERM);
    return TOV_ESNOTFND;
}

} // extern "C"
