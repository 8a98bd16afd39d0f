// SPDX-License-Identifier: BSD-3-Clause
// String helpers on the safe-string library. Every string is measured against the library's
// limit before it is used, so a string that reaches the limit is refused as a whole instead of
// being copied, compared or trimmed in part.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <string_view>

#include "tov/kor_alloc.h"
#include "tov/kor_hashmap.h"
#include "tov/result.h"
#include "util/safe_str.hpp"

namespace tov::detail {
namespace {

constexpr const char *kTokenLabel = "TOV MAP";
constexpr const char *kTokenArrayLabel = "String tokens array";
constexpr uint32_t kTokenArrayStep = 5;

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

char *convert_case(char *string, bool upper) {
    if (string == nullptr || *string == '\0') return string;
    auto text = bounded(string);
    if (!text) return nullptr;
    // Converting never yields a terminator, so one measurement serves the whole walk.
    for (size_t i = 0; i < text->size(); ++i) {
        int c = static_cast<unsigned char>(string[i]);
        string[i] = static_cast<char>(upper ? std::toupper(c) : std::tolower(c));
    }
    return string;
}

} // namespace
} // namespace tov::detail

using namespace tov::detail;

extern "C" {

TOV_API char *tov_strdup(const char *source, const char *label) {
    if (source == nullptr || label == nullptr) return nullptr;
    auto text = bounded(source);
    if (!text) return nullptr;
    size_t len = text->size();
    auto *copy = static_cast<char *>(kor_named_malloc(len + 1, label, 0));
    if (copy == nullptr) return nullptr;
    if (len != 0 && memcpy_s(copy, len + 1, source, len) != EOK) {
        kor_named_free(copy);
        return nullptr;
    }
    copy[len] = '\0';
    return copy;
}

TOV_API uint32_t tov_strdup_concat(const char *first, const char *second, const char *label,
                                   char **joined) {
    if (joined == nullptr) return TOV_RC_BAD_ARGUMENT;
    *joined = nullptr;
    if (first == nullptr || second == nullptr || label == nullptr) return 0; // no result, no error
    auto a = bounded(first), b = bounded(second);
    if (!a || !b || a->size() + b->size() >= kStrMax) return TOV_RC_BAD_ARGUMENT;
    size_t len1 = a->size(), len2 = b->size();
    auto *buffer = static_cast<char *>(kor_named_malloc(len1 + len2 + 1, label, 0));
    if (buffer == nullptr) return TOV_RC_NO_MEMORY;
    errno_t rc = memcpy_s(buffer, len1, first, len1);
    if (rc == EOK) rc = memcpy_s(buffer + len1, len2, second, len2);
    if (rc != EOK) {
        kor_named_free(buffer);
        return static_cast<uint32_t>(rc);
    }
    buffer[len1 + len2] = '\0';
    *joined = buffer;
    return 0;
}

TOV_API void tov_tokenize_and_get_token(const char *string, const char *delimiters, uint32_t index,
                                        char **token) {
    if (token == nullptr) return;
    *token = nullptr;
    char *work = tov_strdup(string, kTokenLabel);
    if (work == nullptr) return;
    if (delimiters != nullptr) {
        char *t = std::strtok(work, delimiters);
        for (uint32_t i = 0; i < index && t != nullptr; ++i) t = std::strtok(nullptr, delimiters);
        if (t != nullptr) *token = tov_strdup(t, kTokenLabel);
    }
    kor_named_free(work);
}

TOV_API uint32_t tov_count_char_occurences(const char *string, char ch) {
    if (string == nullptr || ch == '\0') return 0;
    std::string_view text(string);
    return static_cast<uint32_t>(std::count(text.begin(), text.end(), ch));
}

TOV_API int chr_replace(char *string, char find, char replace) {
    if (string == nullptr) return 0;
    if (!bounded(string)) return ESUNTERM; // refused before anything is changed
    // Each search starts behind the last replacement; the remaining text is shorter than the
    // measured string, so it ends within the limit.
    char *from = string;
    for (;;) {
        char *hit = nullptr;
        errno_t rc = strfirstchar_s(from, kStrMax, find, &hit);
        if (rc == ESNOTFND) return 0;
        if (rc != EOK) return rc;
        *hit = replace;
        from = hit + 1;
    }
}

TOV_API char **str_arr_tokenize(char *string, const char *delimiters, uint32_t *count) {
    if (count == nullptr) return nullptr;
    *count = 0;
    if (string == nullptr || delimiters == nullptr || !bounded(string)) return nullptr;
    uint32_t capacity = kTokenArrayStep;
    auto **tokens =
        static_cast<char **>(kor_named_calloc(capacity, sizeof(char *), kTokenArrayLabel, 0));
    if (tokens == nullptr) return nullptr;
    char *save = nullptr;
    for (char *t = strtok_r(string, delimiters, &save); t != nullptr;
         t = strtok_r(nullptr, delimiters, &save)) {
        if (++*count > capacity) {
            capacity += kTokenArrayStep;
            void *grown = kor_named_realloc(tokens, capacity * sizeof(char *), kTokenArrayLabel, 0);
            if (grown == nullptr) {
                kor_named_free(tokens);
                return nullptr;
            }
            tokens = static_cast<char **>(grown);
        }
        tokens[*count - 1] = t;
    }
    return tokens;
}

TOV_API int str_ltrim(char *string) {
    if (string == nullptr || *string == '\0') return 0;
    auto text = bounded(string);
    if (!text) return ESUNTERM;
    size_t skip = 0;
    while (skip < text->size() && is_space(string[skip])) ++skip;
    if (skip == 0) return 0;
    return memmove_s(string, kStrMax, string + skip, text->size() - skip + 1);
}

TOV_API char *str_rtrim(char *string) {
    if (string == nullptr || *string == '\0') return string;
    auto text = bounded(string);
    if (!text) return nullptr;
    size_t i = text->size() - 1;
    while (i > 0 && is_space(string[i])) --i;
    string[is_space(string[i]) ? i : i + 1] = '\0'; // all whitespace leaves the empty string
    return string;
}

TOV_API int str_trim(char *string) {
    if (int rc = str_ltrim(string)) return rc;
    str_rtrim(string);
    return 0;
}

TOV_API char *str_to_lower(char *string) { return convert_case(string, false); }

TOV_API char *str_to_upper(char *string) { return convert_case(string, true); }

TOV_API char *tov_stpcpy(char *dest, const char *src) {
    if (dest == nullptr) return nullptr;
    if (src == nullptr) return dest;
    auto text = bounded(src);
    if (!text) return nullptr;
    std::memcpy(dest, src, text->size() + 1);
    return dest + text->size();
}

TOV_API uint32_t tov_string_hash_calc(const void *string) {
    auto text = bounded(static_cast<const char *>(string));
    return text ? kor_hash_calculate(text->data(), text->size()) : 0;
}

TOV_API int tov_string_hash_cmp(const void *a, const void *b) {
    const auto *x = static_cast<const char *>(a), *y = static_cast<const char *>(b);
    // strcmp_s reads past dmax instead of failing, so a string at the limit is refused here.
    if ((x != nullptr && !bounded(x)) || (y != nullptr && !bounded(y))) return 0;
    int diff = 1;
    return strcmp_s(x, kStrMax, y, &diff) == EOK && diff == 0 ? 1 : 0;
}

TOV_API uint32_t tov_safe_strcmp(const char *dest, size_t dmax, const char *src, int *diff) {
    // strcmp_s reads dest[dmax], one byte past the bound, exactly when the first dmax bytes of dest
    // are characters equal to src's. There the bound counts as dest's end, which is what strcmp_s
    // reports whenever that byte is the terminator; everywhere else strcmp_s answers. (memchr, not
    // strnlen_s, which also looks at dest[dmax].)
    if (dest && src && diff && dmax != 0 && dmax <= kStrMax && !std::memchr(dest, '\0', dmax) &&
        std::strncmp(dest, src, dmax) == 0) {
        *diff = -static_cast<int>(static_cast<unsigned char>(src[dmax]));
        return 0;
    }
    if (strcmp_s(dest, dmax, src, diff) == EOK) return 0;
    if (diff != nullptr && *diff == 0) *diff = 1;
    return TOV_RC_BAD_ARGUMENT;
}

TOV_API uint32_t tov_safe_strncat(char *dest, size_t dmax, const char *src, size_t slen) {
    if (slen == 0) return 0;
    return strncat_s(dest, dmax, src, slen) == EOK ? 0 : TOV_RC_BAD_ARGUMENT;
}

TOV_API uint32_t tov_safe_strncpy(char *dest, size_t dmax, const char *src, size_t slen) {
    if (slen == 0) return 0;
    return strncpy_s(dest, dmax, src, slen) == EOK ? 0 : TOV_RC_BAD_ARGUMENT;
}

} // extern "C"
