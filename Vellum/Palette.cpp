#include "Vellum/Palette.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace vellum {

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<unsigned> parseHex(std::string_view digits) {
    if (digits.empty() || digits.size() > 4) return std::nullopt;
    unsigned value = 0;
    for (char c : digits) {
        int d = hexDigit(c);
        if (d < 0) return std::nullopt;
        value = value * 16 + static_cast<unsigned>(d);
    }
    return value;
}

// Scales a component of n hex digits so that full scale maps to 0xffff.
uint16_t scaleComponent(unsigned value, size_t digits) {
    switch (digits) {
    case 1: return static_cast<uint16_t>(value * 4369);
    case 2: return static_cast<uint16_t>(value * 257);
    case 3: return static_cast<uint16_t>(value * 16 + (value >> 8));
    default: return static_cast<uint16_t>(value);
    }
}

// "#..." keeps the most significant digits: the value is shifted up to 16 bits.
uint16_t topDigits(unsigned value, size_t digits) { return static_cast<uint16_t>(value << (4 * (4 - digits))); }

std::vector<Color> fromHex(std::initializer_list<uint32_t> values) {
    std::vector<Color> colors;
    for (uint32_t v : values)
        colors.push_back(Color::fromBytes(static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)));
    return colors;
}

struct Lab {
    double l, a, b;
};

double toLinear(double c) { return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4); }
double fromLinear(double c) { return c <= 0.0031308 ? c * 12.92 : 1.055 * std::pow(c, 1 / 2.4) - 0.055; }

constexpr double whiteX = 0.95047, whiteY = 1.0, whiteZ = 1.08883;

double labF(double t) { return t > 216.0 / 24389.0 ? std::cbrt(t) : (24389.0 / 27.0 * t + 16) / 116; }
double labFInverse(double t) { return t * t * t > 216.0 / 24389.0 ? t * t * t : (116 * t - 16) / (24389.0 / 27.0); }

Lab toLab(Color c) {
    double r = toLinear(c.red / 65535.0), g = toLinear(c.green / 65535.0), b = toLinear(c.blue / 65535.0);
    double x = (0.4124564 * r + 0.3575761 * g + 0.1804375 * b) / whiteX;
    double y = (0.2126729 * r + 0.7151522 * g + 0.0721750 * b) / whiteY;
    double z = (0.0193339 * r + 0.1191920 * g + 0.9503041 * b) / whiteZ;
    double fx = labF(x), fy = labF(y), fz = labF(z);
    return {116 * fy - 16, 500 * (fx - fy), 200 * (fy - fz)};
}

uint16_t toComponent(double linear) {
    double v = std::clamp(fromLinear(linear), 0.0, 1.0);
    return static_cast<uint16_t>(std::lround(v * 255) * 257);
}

Color fromLab(Lab lab) {
    double fy = (lab.l + 16) / 116, fx = fy + lab.a / 500, fz = fy - lab.b / 200;
    double x = labFInverse(fx) * whiteX, y = labFInverse(fy) * whiteY, z = labFInverse(fz) * whiteZ;
    double r = 3.2404542 * x - 1.5371385 * y - 0.4985314 * z;
    double g = -0.9692660 * x + 1.8760108 * y + 0.0415560 * z;
    double b = 0.0556434 * x - 0.2040259 * y + 1.0572252 * z;
    return Color{toComponent(r), toComponent(g), toComponent(b)};
}

Lab lerp(Lab a, Lab b, double t) { return {a.l + (b.l - a.l) * t, a.a + (b.a - a.a) * t, a.b + (b.b - a.b) * t}; }

void fillXterm(std::array<Color, 256>& palette) {
    static constexpr uint8_t steps[6] = {0, 95, 135, 175, 215, 255};
    for (int r = 0; r < 6; ++r)
        for (int g = 0; g < 6; ++g)
            for (int b = 0; b < 6; ++b)
                palette[16 + 36 * r + 6 * g + b] = Color::fromBytes(steps[r], steps[g], steps[b]);
    for (int n = 0; n < 24; ++n) {
        auto v = static_cast<uint8_t>(10 * n + 8);
        palette[232 + n] = Color::fromBytes(v, v, v);
    }
}

void fillLab(std::array<Color, 256>& palette, const std::vector<Color>& installed, bool harmonious, Color fg, Color bg) {
    std::array<Lab, 8> corners;
    for (size_t i = 0; i < 8; ++i) corners[i] = toLab(installed[i]);
    Lab background = toLab(bg), foreground = toLab(fg);
    corners[0] = background;
    corners[7] = foreground;
    if (!harmonious && foreground.l < background.l) std::swap(corners[0], corners[7]);
    for (int r = 0; r < 6; ++r)
        for (int g = 0; g < 6; ++g)
            for (int b = 0; b < 6; ++b) {
                double tr = r / 5.0, tg = g / 5.0, tb = b / 5.0;
                Lab c0 = lerp(corners[0], corners[1], tr); // black..red
                Lab c1 = lerp(corners[2], corners[3], tr); // green..yellow
                Lab c2 = lerp(corners[4], corners[5], tr); // blue..magenta
                Lab c3 = lerp(corners[6], corners[7], tr); // cyan..white
                palette[16 + 36 * r + 6 * g + b] = fromLab(lerp(lerp(c0, c1, tg), lerp(c2, c3, tg), tb));
            }
    for (int n = 0; n < 24; ++n) palette[232 + n] = fromLab(lerp(background, foreground, (n + 1) / 25.0));
}

} // namespace

std::optional<Color> Color::parseColor(std::string_view text) {
    if (text.starts_with("rgb:")) {
        std::string_view rest = text.substr(4);
        std::array<uint16_t, 3> out{};
        for (size_t i = 0; i < 3; ++i) {
            size_t slash = rest.find('/');
            if ((i < 2) != (slash != std::string_view::npos)) return std::nullopt;
            std::string_view part = rest.substr(0, slash);
            auto value = parseHex(part);
            if (!value) return std::nullopt;
            out[i] = scaleComponent(*value, part.size());
            rest = i < 2 ? rest.substr(slash + 1) : std::string_view{};
        }
        return Color{out[0], out[1], out[2]};
    }
    if (text.starts_with("#")) {
        std::string_view digits = text.substr(1);
        if (digits.empty() || digits.size() % 3 != 0 || digits.size() > 12) return std::nullopt;
        size_t n = digits.size() / 3;
        std::array<uint16_t, 3> out{};
        for (size_t i = 0; i < 3; ++i) {
            auto value = parseHex(digits.substr(i * n, n));
            if (!value) return std::nullopt;
            out[i] = topDigits(*value, n);
        }
        return Color{out[0], out[1], out[2]};
    }
    return std::nullopt;
}

std::string Color::formatAsXcolor() const {
    char text[32];
    std::snprintf(text, sizeof text, "rgb:%04x/%04x/%04x", red, green, blue);
    return text;
}

const std::vector<Color>& Color::xtermColors() {
    static const auto colors = fromHex({0x000000, 0xcd0000, 0x00cd00, 0xcdcd00, 0x0000ee, 0xcd00cd, 0x00cdcd, 0xe5e5e5,
                                        0x7f7f7f, 0xff0000, 0x00ff00, 0xffff00, 0x5c5cff, 0xff00ff, 0x00ffff, 0xffffff});
    return colors;
}

const std::vector<Color>& Color::vgaColors() {
    static const auto colors = fromHex({0x000000, 0xaa0000, 0x00aa00, 0xaa5500, 0x0000aa, 0xaa00aa, 0x00aaaa, 0xaaaaaa,
                                        0x555555, 0xff5555, 0x55ff55, 0xffff55, 0x5555ff, 0xff55ff, 0x55ffff, 0xffffff});
    return colors;
}

const std::vector<Color>& Color::paleColors() {
    static const auto colors = fromHex({0x3f3f3f, 0xd98c8c, 0x8cd98c, 0xd9d98c, 0x8c8cd9, 0xd98cd9, 0x8cd9d9, 0xd9d9d9,
                                        0x7f7f7f, 0xf2b3b3, 0xb3f2b3, 0xf2f2b3, 0xb3b3f2, 0xf2b3f2, 0xb3f2f2, 0xffffff});
    return colors;
}

const std::vector<Color>& Color::terminalAppColors() {
    static const auto colors = fromHex({0x000000, 0xc23621, 0x25bc24, 0xadad27, 0x492ee1, 0xd338d3, 0x33bbc8, 0xcbcccd,
                                        0x818383, 0xfc391f, 0x31e722, 0xeaec23, 0x5833ff, 0xf935f8, 0x14f0f0, 0xe9ebeb});
    return colors;
}

const std::vector<Color>& Color::defaultInstalledColors() { return terminalAppColors(); }

std::array<Color, 256> buildAnsiPalette(const std::vector<Color>& installed, Ansi256PaletteStrategy strategy,
                                        Color foreground, Color background) {
    std::array<Color, 256> palette{};
    const auto& base = installed.empty() ? Color::defaultInstalledColors() : installed;
    for (size_t i = 0; i < 16; ++i) palette[i] = i < base.size() ? base[i] : Color::xtermColors()[i];
    if (strategy == Ansi256PaletteStrategy::xterm || base.size() < 8)
        fillXterm(palette);
    else
        fillLab(palette, base, strategy == Ansi256PaletteStrategy::base16LabHarmonious, foreground, background);
    return palette;
}

} // namespace vellum
