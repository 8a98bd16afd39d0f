// SPDX-License-Identifier: BSD-3-Clause
// The length and the copy of the short strings a tree is made of (names and values), without a
// call for most of them; shared by the decoder, the encoder and the duplicator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace tov::detail {

// Copies n bytes, sizeof(Word) <= n <= 2 * sizeof(Word), as two words that may overlap.
template <class Word> [[gnu::always_inline]] inline void copy_ends(uint8_t *to, const char *from, uint32_t n) {
    Word head, tail;
    std::memcpy(&head, from, sizeof head);
    std::memcpy(&tail, from + n - sizeof tail, sizeof tail);
    std::memcpy(to, &head, sizeof head);
    std::memcpy(to + n - sizeof tail, &tail, sizeof tail);
}

struct Bytes16 {
    uint64_t low, high;
};

// Copies a string of n bytes; those up to 32 bytes long (nearly every name and value) without a
// call, and without reading a byte outside the string.
[[gnu::always_inline]] inline void copy_bytes(uint8_t *to, const char *from, uint32_t n) {
    if (n > 16) {
        if (n <= 32)
            copy_ends<Bytes16>(to, from, n);
        else
            std::memcpy(to, from, n);
    } else if (n >= 8) {
        copy_ends<uint64_t>(to, from, n);
    } else if (n >= 4) {
        copy_ends<uint32_t>(to, from, n);
    } else if (n != 0) {
        to[0] = static_cast<uint8_t>(from[0]);
        to[n >> 1] = static_cast<uint8_t>(from[n >> 1]);
        to[n - 1] = static_cast<uint8_t>(from[n - 1]);
    }
}

// Copies the 16 bytes that end at `end` to those that end at `to`, when they lie in the page of
// the byte before `end` (a page further back might not be mapped); false, and nothing copied,
// when they do not. For a string of at most 16 bytes that ends at `end`, whose copy may also
// overwrite the bytes in front of its place.
[[gnu::no_sanitize_address]] inline bool copy_tail16(uint8_t *to, const char *end) {
    const uintptr_t last = reinterpret_cast<uintptr_t>(end) - 1;
    if ((last & 4095) < 15) return false;
    Bytes16 word;
    std::memcpy(&word, end - 16, sizeof word);
    std::memcpy(to - 16, &word, sizeof word);
    return true;
}

// strlen without a call for the short names and values of a tree: the 16-byte aligned block that
// holds the first byte is searched for the NUL, then the block after it, and only a string that
// runs past both goes to strlen. An aligned block never crosses a page, and the second is read
// only when the string goes on into it, so the bytes around the string's own that they read
// cannot fault; the address sanitizer, which would report them, is told so.
#if defined(__SSE2__)
// Bit i set when byte i of the aligned block is NUL.
[[gnu::no_sanitize_address]] inline uint32_t nul_in(const __m128i *block) {
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_load_si128(block), _mm_setzero_si128())));
}
[[gnu::no_sanitize_address]] inline size_t text_length(const char *s) {
    const uintptr_t start = reinterpret_cast<uintptr_t>(s);
    const auto *block = reinterpret_cast<const __m128i *>(start & ~uintptr_t{15});
    if (const uint32_t ours = nul_in(block) >> (start & 15)) return __builtin_ctz(ours); // bit 0 is the string's first byte
    if (const uint32_t next = nul_in(block + 1)) return 16 - (start & 15) + __builtin_ctz(next);
    return std::strlen(s);
}
#else
inline size_t text_length(const char *s) { return std::strlen(s); }
#endif

} // namespace tov::detail
