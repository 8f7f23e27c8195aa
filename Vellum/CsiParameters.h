#pragma once

#include <cstddef>
#include <cstdint>

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

} // namespace vellum
