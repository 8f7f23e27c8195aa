#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace vellum {

// A designated character set: text replacing some of the bytes below 0x80.
class Charset {
public:
    constexpr Charset() = default;
    std::optional<std::string_view> map(unsigned char byte) const {
        if (byte >= 128 || replacements_[byte].empty()) return std::nullopt;
        return replacements_[byte];
    }
    void set(unsigned char byte, std::string_view text) { replacements_[byte] = text; }

private:
    std::array<std::string_view, 128> replacements_{};
};

// The set for a designator byte of ESC ( and friends ("0", "A", "B", "K"...), or nothing
// when the designator is unknown. "B" (United States) maps nothing.
const Charset* charsetForDesignator(unsigned char designator);
// A designator that selects `charset`; "B" for no mapping.
unsigned char designatorFor(const Charset* charset);

} // namespace vellum
