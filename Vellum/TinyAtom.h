#pragma once

#include <any>
#include <cstdint>
#include <optional>
#include <span>

namespace vellum {

// A 16-bit handle for a value attached to cells (a hyperlink target, say) that may cross
// threads. One process-wide table behind one lock maps codes to values; code 0 means none.
// Codes are handed out once only, so a cell that outlives its value reads as having none.
struct TinyAtom {
    using Value = std::any;
    static constexpr uint16_t lastCode = 65534;

    uint16_t code = 0;

    // A fresh code for `value`, or nothing once every code has been used in this process.
    static std::optional<TinyAtom> lookup(Value value);
    std::optional<Value> target() const;
    static void release(uint16_t code);
    static void release(std::span<const uint16_t> codes);

    constexpr bool operator==(const TinyAtom&) const = default;
};

} // namespace vellum
