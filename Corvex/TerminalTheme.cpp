#include "Corvex/TerminalTheme.h"

namespace corvex {

namespace {

vellum::Color hex(RGB rgb) { return vellum::Color::fromBytes(uint8_t(rgb >> 16), uint8_t(rgb >> 8), uint8_t(rgb)); }

std::vector<vellum::Color> hexList(std::initializer_list<RGB> values) {
    std::vector<vellum::Color> out;
    for (RGB value : values) out.push_back(hex(value));
    return out;
}

} // namespace

TerminalTheme TerminalTheme::dark() {
    return {hex(0xd4d4d4), hex(0x1e1e1e), hex(0xe8e8e8),
            hexList({0x1e1e1e, 0xe0524a, 0x5fba5a, 0xd7ba4c, 0x4f8fe0, 0xc678dd, 0x4ab5c8, 0xcfcfcf,
                     0x6e6e6e, 0xff6b63, 0x7fd877, 0xf0d468, 0x74abff, 0xdc93f0, 0x6fd3e3, 0xffffff})};
}

TerminalTheme TerminalTheme::light() {
    // Darker hues than the dark theme's, so that coloured text keeps its contrast on white.
    return {hex(0x1f1f1f), hex(0xffffff), hex(0x1f1f1f),
            hexList({0x1f1f1f, 0xc4271e, 0x2d8a2a, 0x9a7a00, 0x2357c4, 0x9b3ab5, 0x13879b, 0xbdbdbd,
                     0x5c5c5c, 0xe0463d, 0x3ba638, 0xb89200, 0x3a72e6, 0xb552d1, 0x1aa2b8, 0xe8e8e8})};
}

RGB toRGB(vellum::Color color) {
    return RGB(color.red >> 8) << 16 | RGB(color.green >> 8) << 8 | RGB(color.blue >> 8);
}

} // namespace corvex
