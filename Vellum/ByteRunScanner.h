#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#if defined(__SSE2__)
#include <emmintrin.h>
#define VELLUM_SCAN_SSE2 1
#elif defined(__ARM_NEON) || defined(__aarch64__)
#include <arm_neon.h>
#define VELLUM_SCAN_NEON 1
#endif

namespace vellum {

// Which implementation a scan uses. The vector one is the default; the scalar one is the
// reference the vector one is tested against, and the fallback where no vector unit is known.
enum class ScanPath : uint8_t { vector, scalar };

// Stateless searches over byte runs, 16 bytes at a time where the machine allows.
struct ByteRunScanner {
    // Index of the first byte below 0x20 at or after `from`, or the end.
    static size_t firstC0Byte(std::span<const uint8_t> in, size_t from, ScanPath path = ScanPath::vector) {
        if (path == ScanPath::vector) from = vectorSkip(in, from, Match::c0);
        return scalarFind(in, from, [](uint8_t b) { return b < 0x20; });
    }

    // Index of the first byte of 0x80 or more at or after `from`, or the end: the end of an ASCII prefix.
    static size_t firstNonAsciiByte(std::span<const uint8_t> in, size_t from, ScanPath path = ScanPath::vector) {
        if (path == ScanPath::vector) from = vectorSkip(in, from, Match::nonAscii);
        return scalarFind(in, from, [](uint8_t b) { return b >= 0x80; });
    }

    // Index of the first byte of 0x7F or more at or after `from`, or the end: in a text run, where
    // no byte is below 0x20, the end of the printable ASCII prefix.
    static size_t firstNonPrintableAscii(std::span<const uint8_t> in, size_t from, ScanPath path = ScanPath::vector) {
        if (path == ScanPath::vector) from = vectorSkip(in, from, Match::delOrNonAscii);
        return scalarFind(in, from, [](uint8_t b) { return b >= 0x7F; });
    }

    // Index of the first byte outside printable ASCII (0x20 to 0x7E) at or after `from`, or the end.
    static size_t firstNonPrintableByte(std::span<const uint8_t> in, size_t from, ScanPath path = ScanPath::vector) {
        if (path == ScanPath::vector) from = vectorSkip(in, from, Match::nonPrintable);
        return scalarFind(in, from, [](uint8_t b) { return b - 0x20u >= 0x5Fu; });
    }

    // Index of the first byte that can stop an OSC payload (below 0x20, or 0x9C), or the end.
    // Short payload runs are common, so the first eight bytes are tested singly.
    static size_t firstOscStop(std::span<const uint8_t> in, size_t from, ScanPath path = ScanPath::vector) {
        auto stops = [](uint8_t b) { return b < 0x20 || b == 0x9C; };
        size_t head = from + 8 < in.size() ? from + 8 : in.size();
        for (; from < head; ++from)
            if (stops(in[from])) return from;
        if (path == ScanPath::vector) from = vectorSkip(in, from, Match::oscStop);
        return scalarFind(in, from, stops);
    }

private:
    enum class Match { c0, nonAscii, delOrNonAscii, nonPrintable, oscStop };

    template <typename Predicate>
    static size_t scalarFind(std::span<const uint8_t> in, size_t from, Predicate matches) {
        const uint8_t* p = in.data();
        size_t n = in.size();
        while (from < n && !matches(p[from])) ++from;
        return from;
    }

#if VELLUM_SCAN_SSE2
    static int matchMask(__m128i v, Match match) {
        switch (match) {
        case Match::c0: // v <= 0x1F unsigned
            return _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_min_epu8(v, _mm_set1_epi8(0x1F)), v));
        case Match::nonAscii:
            return _mm_movemask_epi8(v);
        case Match::delOrNonAscii: // signed: 0x7F is the only value above 0x7E, the rest are negative
            return _mm_movemask_epi8(_mm_or_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8(0x7E)), v));
        case Match::nonPrintable: // signed: below 0x20 are the controls and every byte of 0x80 or more
            return _mm_movemask_epi8(_mm_or_si128(_mm_cmpgt_epi8(_mm_set1_epi8(0x20), v), _mm_cmpeq_epi8(v, _mm_set1_epi8(0x7F))));
        case Match::oscStop:
            return _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(_mm_min_epu8(v, _mm_set1_epi8(0x1F)), v),
                                                  _mm_cmpeq_epi8(v, _mm_set1_epi8(char(0x9C)))));
        }
        return 0;
    }

    // Skips whole 16-byte blocks without a match; returns the start of the block holding the
    // first match, or of the short tail. The caller finishes byte by byte.
    static size_t vectorSkip(std::span<const uint8_t> in, size_t from, Match match) {
        const uint8_t* p = in.data();
        size_t n = in.size();
        while (from + 32 <= n) {
            __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + from));
            __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + from + 16));
            int ma = matchMask(a, match);
            if (ma) return from + size_t(__builtin_ctz(unsigned(ma)));
            int mb = matchMask(b, match);
            if (mb) return from + 16 + size_t(__builtin_ctz(unsigned(mb)));
            from += 32;
        }
        if (from + 16 <= n) {
            int m = matchMask(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + from)), match);
            if (m) return from + size_t(__builtin_ctz(unsigned(m)));
            from += 16;
        }
        return from;
    }
#elif VELLUM_SCAN_NEON
    static uint8x16_t matchVector(uint8x16_t v, Match match) {
        switch (match) {
        case Match::c0:
            return vcltq_u8(v, vdupq_n_u8(0x20));
        case Match::nonAscii:
            return vcgeq_u8(v, vdupq_n_u8(0x80));
        case Match::delOrNonAscii:
            return vcgeq_u8(v, vdupq_n_u8(0x7F));
        case Match::nonPrintable:
            return vorrq_u8(vcltq_u8(v, vdupq_n_u8(0x20)), vcgeq_u8(v, vdupq_n_u8(0x7F)));
        case Match::oscStop:
            return vorrq_u8(vcltq_u8(v, vdupq_n_u8(0x20)), vceqq_u8(v, vdupq_n_u8(0x9C)));
        }
        return vdupq_n_u8(0);
    }

    // Four bits per byte lane: the index of the first match is the count of trailing zeros / 4.
    static uint64_t nibbleMask(uint8x16_t matches) {
        uint8x8_t narrowed = vshrn_n_u16(vreinterpretq_u16_u8(matches), 4);
        return vget_lane_u64(vreinterpret_u64_u8(narrowed), 0);
    }

    static size_t vectorSkip(std::span<const uint8_t> in, size_t from, Match match) {
        const uint8_t* p = in.data();
        size_t n = in.size();
        while (from + 16 <= n) {
            uint64_t m = nibbleMask(matchVector(vld1q_u8(p + from), match));
            if (m) return from + size_t(__builtin_ctzll(m) >> 2);
            from += 16;
        }
        return from;
    }
#else
    static size_t vectorSkip(std::span<const uint8_t>, size_t from, Match) { return from; }
#endif
};

} // namespace vellum
