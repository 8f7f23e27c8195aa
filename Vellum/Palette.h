#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vellum {

// A screen colour with 16-bit components; an 8-bit value v is stored as v * 257.
struct Color {
    uint16_t red = 0;
    uint16_t green = 0;
    uint16_t blue = 0;

    static constexpr Color fromBytes(uint8_t r, uint8_t g, uint8_t b) {
        return Color{static_cast<uint16_t>(r * 257), static_cast<uint16_t>(g * 257), static_cast<uint16_t>(b * 257)};
    }
    // "rgb:r/g/b" with 1 to 4 hex digits per component, or "#rgb" with 1 to 4 digits per component.
    static std::optional<Color> parseColor(std::string_view text);
    // "rgb:rrrr/gggg/bbbb", lower case.
    std::string formatAsXcolor() const;

    static const std::vector<Color>& defaultInstalledColors();
    static const std::vector<Color>& xtermColors();
    static const std::vector<Color>& vgaColors();
    static const std::vector<Color>& paleColors();
    static const std::vector<Color>& terminalAppColors();

    bool operator==(const Color&) const = default;
};

enum class Ansi256PaletteStrategy : uint8_t { xterm, base16Lab, base16LabHarmonious };

// Builds the 256-entry palette: the installed colours first (up to 16), then the 216 cube
// colours and 24 greys computed by the strategy. The Lab strategies derive the cube from the
// first eight installed colours with the background and foreground in the dark and light corners.
std::array<Color, 256> buildAnsiPalette(const std::vector<Color>& installed, Ansi256PaletteStrategy strategy,
                                        Color foreground, Color background);

} // namespace vellum
