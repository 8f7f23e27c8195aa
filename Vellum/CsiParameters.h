#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vellum {

// Numbers in escape sequences saturate here instead of overflowing.
inline constexpr int64_t maximumParameterValue = 65535;

struct CsiParameterStorage {
    static constexpr int capacity = 24;

    int64_t storage[capacity] = {0};
    int count = 1;

    // One parameter of 0: what a sequence without parameters carries.
    void reset() {
        storage[0] = 0;
        count = 1;
    }
};

// Read-only view of the parameters of a CSI or DCS, valid only during the call that receives it.
struct CsiParameters {
    const int64_t* base = nullptr;
    int count = 0;

    CsiParameters() = default;
    CsiParameters(const int64_t* base, int count) : base(base), count(count) {}
    explicit CsiParameters(const CsiParameterStorage& s) : base(s.storage), count(s.count) {}

    int size() const { return count; }
    bool empty() const { return count == 0; }
    int64_t operator[](int i) const { return base[i]; }
    const int64_t* begin() const { return base; }
    const int64_t* end() const { return base + count; }
};

// The common shapes of CSI parameters, read where the caller knows the bytes are there.
namespace csiShapes {

// Up to five digits at `i`, `i` left on the first byte after them: a whole number of a common
// parameter, with no bounds test or saturation per digit. The caller guarantees six readable
// bytes and tells a sixth digit from the byte after.
[[gnu::always_inline]] inline unsigned readWholeNumber(const uint8_t* p, size_t& i) {
    unsigned number = 0;
    // Spelled out: the loop form kept a bounds test per digit.
    auto digitAt = [&](size_t at, unsigned& digit) { return (digit = unsigned(p[at]) - '0') <= 9; };
    if (unsigned d; digitAt(i, d)) {
        number = d, ++i;
        if (digitAt(i, d)) {
            number = number * 10 + d, ++i;
            if (digitAt(i, d)) {
                number = number * 10 + d, ++i;
                if (digitAt(i, d)) {
                    number = number * 10 + d, ++i;
                    if (digitAt(i, d)) number = number * 10 + d, ++i;
                }
            }
        }
    }
    return number;
}

// The colour forms 38;5; 48;5; 38;2; and 48;2; that open most colourful sequences, from the
// eight bytes at `p`: their first two parameters, or false.
[[gnu::always_inline]] inline bool readColourPrefix(const uint8_t* p, int64_t* pars) {
    uint64_t head;
    std::memcpy(&head, p, sizeof head);
    uint8_t first = uint8_t(head), kind = uint8_t(head >> 24);
    if ((head & 0xFF00FFFF00) != 0x3B003B3800 || (first != '3' && first != '4') || (kind != '5' && kind != '2')) return false;
    pars[0] = first == '3' ? 38 : 48;
    pars[1] = kind - '0';
    return true;
}

} // namespace csiShapes

} // namespace vellum
