#pragma once

#include <cstdint>
#include <cstring>

#include "Vellum/ByteRunScanner.h"
#include "Vellum/PackedCell.h"

namespace vellum {

// Writes the cells of n ASCII bytes. Words between escape sequences are a few letters long and
// of every length, so runs of 4 or more are written in blocks of eight (or four) cells whose
// last block overlaps the one before, rather than in a loop whose end is mispredicted at almost
// every run; a block widens its bytes into cell words with vector unpacks where there are some.
[[gnu::always_inline]] inline void writeAsciiBlock(PackedCell* out, const uint8_t* in, uint64_t word, int size) {
#if VELLUM_SCAN_SSE2
    const __m128i zero = _mm_setzero_si128(), base = _mm_set1_epi64x(int64_t(word));
    auto put = [&](int at, __m128i twoBytes) {
        __m128i cells = _mm_or_si128(_mm_slli_epi64(twoBytes, PackedCell::valueShift), base);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at), cells);
    };
    auto putFour = [&](int at, __m128i fourWords) { // four bytes widened to 32 bits
        put(at, _mm_unpacklo_epi32(fourWords, zero));
        put(at + 2, _mm_unpackhi_epi32(fourWords, zero));
    };
    if (size == 8) {
        __m128i halves = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(in)), zero);
        putFour(0, _mm_unpacklo_epi16(halves, zero));
        putFour(4, _mm_unpackhi_epi16(halves, zero));
    } else {
        uint32_t four;
        std::memcpy(&four, in, 4);
        putFour(0, _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(int(four)), zero), zero));
    }
#else
    for (int i = 0; i < size; ++i) out[i].raw = word | uint64_t(in[i]) << PackedCell::valueShift;
#endif
}

[[gnu::always_inline]] inline void writeAsciiCells(PackedCell* out, const uint8_t* in, int n, uint64_t word) {
    if (n >= 8) {
        for (int at = 0; at + 8 < n; at += 8) writeAsciiBlock(out + at, in + at, word, 8);
        writeAsciiBlock(out + n - 8, in + n - 8, word, 8);
    } else if (n >= 4) {
        writeAsciiBlock(out, in, word, 4);
        writeAsciiBlock(out + n - 4, in + n - 4, word, 4);
    } else {
        for (int i = 0; i < n; ++i) out[i].raw = word | uint64_t(in[i]) << PackedCell::valueShift;
    }
}

} // namespace vellum
