#include "Vellum/Attribute.h"

#include "Vellum/CellArena.h"

namespace vellum {

std::optional<Attribute::Color> Attribute::Color::fromImage(const uint8_t* bytes) {
    switch (bytes[3]) {
    case 0: return ansi256(bytes[0]);
    case 1: return trueColor(bytes[0], bytes[1], bytes[2]);
    case 2: return bytes[0] == 0 ? defaultColor() : defaultInvertedColor();
    default: return std::nullopt;
    }
}

void Attribute::Color::writeOptionalImage(const std::optional<Color>& color, uint8_t* out) {
    if (color) {
        color->writeImage(out);
    } else {
        out[0] = out[1] = out[2] = 0;
        out[3] = absentTag;
    }
}

namespace {
// Palette entries 0 to 16 use the short forms, keeping the separator after the digit.
void appendColor(std::string& out, const Attribute::Color& color, const char* extended, const char* low, const char* high) {
    switch (color.kind()) {
    case Attribute::Color::Kind::trueColor:
        out += extended;
        out += "2;" + std::to_string(color.red()) + ";" + std::to_string(color.green()) + ";" + std::to_string(color.blue());
        break;
    case Attribute::Color::Kind::ansi256:
        if (color.code() >= 17) {
            out += extended;
            out += "5;" + std::to_string(color.code());
        } else if (color.code() < 8) {
            out += low + std::to_string(color.code()) + ";";
        } else {
            out += high + std::to_string(color.code() - 8) + ";";
        }
        break;
    default:
        break;
    }
}
} // namespace

std::string Attribute::toSgr() const {
    std::string out = "0";
    if (style.contains(CharacterStyle::bold)) out += ";1";
    if (style.contains(CharacterStyle::underline)) out += ";4";
    if (style.contains(CharacterStyle::blink)) out += ";5";
    if (style.contains(CharacterStyle::inverse)) out += ";7";
    if (style.contains(CharacterStyle::invisible)) out += ";8";
    appendColor(out, fg, ";38;", ";3", ";9");
    appendColor(out, bg, ";48;", ";4", ";10");
    out += "m";
    return out;
}

} // namespace vellum

size_t std::hash<vellum::Attribute>::operator()(const vellum::Attribute& attribute) const noexcept {
    vellum::InternedAttributeKey key(attribute);
    uint64_t h = (key.word1 * 0x9E3779B97F4A7C15ull) ^ key.word0;
    return size_t(h * 0xBF58476D1CE4E5B9ull);
}
