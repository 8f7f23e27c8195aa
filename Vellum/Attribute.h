#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>

namespace vellum {

// An option set of rendition flags over one byte.
struct CharacterStyle {
    uint8_t rawValue = 0;

    constexpr CharacterStyle() = default;
    constexpr explicit CharacterStyle(uint8_t raw) : rawValue(raw) {}
    // Bits 18 to 25 of an older 32-bit packed attribute form.
    static constexpr CharacterStyle fromAttribute(int32_t attribute) {
        return CharacterStyle(uint8_t(uint32_t(attribute) >> 18));
    }

    static const CharacterStyle none, bold, underline, blink, inverse, invisible, dim, italic, crossedOut;

    constexpr bool contains(CharacterStyle other) const { return (rawValue & other.rawValue) == other.rawValue; }
    constexpr bool isEmpty() const { return rawValue == 0; }
    constexpr void insert(CharacterStyle other) { rawValue |= other.rawValue; }
    constexpr void remove(CharacterStyle other) { rawValue &= uint8_t(~other.rawValue); }
    constexpr CharacterStyle operator|(CharacterStyle other) const { return CharacterStyle(rawValue | other.rawValue); }
    constexpr CharacterStyle operator&(CharacterStyle other) const { return CharacterStyle(rawValue & other.rawValue); }
    constexpr bool operator==(const CharacterStyle&) const = default;
};

inline constexpr CharacterStyle CharacterStyle::none{0};
inline constexpr CharacterStyle CharacterStyle::bold{1};
inline constexpr CharacterStyle CharacterStyle::underline{2};
inline constexpr CharacterStyle CharacterStyle::blink{4};
inline constexpr CharacterStyle CharacterStyle::inverse{8};
inline constexpr CharacterStyle CharacterStyle::invisible{16};
inline constexpr CharacterStyle CharacterStyle::dim{32};
inline constexpr CharacterStyle CharacterStyle::italic{64};
inline constexpr CharacterStyle CharacterStyle::crossedOut{128};

enum class UnderlineStyle : uint8_t { none, single, double_, curly, dotted, dashed };

struct Attribute {
    // A colour in its compact four-byte image: three payload bytes and a tag byte.
    // Tag 0 palette (index in the first byte), 1 true colour (red, green, blue), 2 the default
    // (payload all zero) or inverted default (first byte 1). Unused payload bytes are always zero.
    class Color {
    public:
        enum class Kind : uint8_t { ansi256, trueColor, defaultColor, defaultInvertedColor };
        static constexpr uint8_t absentTag = 255; // the image of an absent optional colour

        constexpr Color() : payload_{0, 0, 0}, tag_(2) {}
        static constexpr Color ansi256(uint8_t code) { return Color(code, 0, 0, 0); }
        static constexpr Color trueColor(uint8_t red, uint8_t green, uint8_t blue) { return Color(red, green, blue, 1); }
        static constexpr Color defaultColor() { return Color(); }
        static constexpr Color defaultInvertedColor() { return Color(1, 0, 0, 2); }

        constexpr Kind kind() const {
            if (tag_ == 0) return Kind::ansi256;
            if (tag_ == 1) return Kind::trueColor;
            return payload_[0] == 0 ? Kind::defaultColor : Kind::defaultInvertedColor;
        }
        constexpr uint8_t code() const { return payload_[0]; } // ansi256
        constexpr uint8_t red() const { return payload_[0]; }
        constexpr uint8_t green() const { return payload_[1]; }
        constexpr uint8_t blue() const { return payload_[2]; }

        // The interning code of the colour (see InternedAttributeKey), without a branch on the
        // kind: SGR streams switch kinds at random. Unused payload bytes are zero, so with the
        // image's bytes reversed every kind's code is the payload moved into place (by a shift
        // that the kind picks) under the kind's base.
        constexpr uint32_t internCode() const {
            uint32_t payloadHigh = __builtin_bswap32(word()) & 0xFFFFFF00u; // payload0 in the top byte
            unsigned kind = tag_ & 3u;
            return internBases[kind] | payloadHigh >> internShifts[kind];
        }
        // The colour of an interning code, the inverse of internCode, again without a branch.
        static constexpr Color fromInternCode(uint32_t code) {
            unsigned tag = internTags[code >> 24 & 3];
            uint32_t payloadHigh = (code - internBases[tag]) << internShifts[tag];
            uint32_t image = __builtin_bswap32(payloadHigh) | tag << 24;
            if constexpr (std::endian::native == std::endian::little) return std::bit_cast<Color>(image);
            return Color(uint8_t(image), uint8_t(image >> 8), uint8_t(image >> 16), uint8_t(tag));
        }
        // Image bytes in order payload0, payload1, payload2, tag.
        void writeImage(uint8_t* out) const { out[0] = payload_[0], out[1] = payload_[1], out[2] = payload_[2], out[3] = tag_; }
        static std::optional<Color> fromImage(const uint8_t* bytes);
        static void writeOptionalImage(const std::optional<Color>& color, uint8_t* out);

        // As one four-byte word rather than byte by byte: SGR compares colours on every change.
        constexpr bool operator==(const Color& other) const { return word() == other.word(); }

    private:
        // One load where the byte order allows; the compiler does not merge the four byte loads.
        constexpr uint32_t word() const {
            if constexpr (std::endian::native == std::endian::little) return std::bit_cast<uint32_t>(*this);
            return uint32_t(payload_[0]) | uint32_t(payload_[1]) << 8 | uint32_t(payload_[2]) << 16 | uint32_t(tag_) << 24;
        }

    public:

    private:
        // By tag: palette index n, red-green-blue, and the default pair (payload 0 or 1).
        static constexpr uint32_t internBases[4] = {0x2000000, 0x3000000, 0, 0};
        static constexpr uint8_t internShifts[4] = {24, 8, 0, 0};
        // By the code's top bits: the default pair, palette, true colour.
        static constexpr uint8_t internTags[4] = {2, 2, 0, 1};

        constexpr Color(uint8_t a, uint8_t b, uint8_t c, uint8_t tag) : payload_{a, b, c}, tag_(tag) {}
        uint8_t payload_[3];
        uint8_t tag_;
    };

    Color fg;
    Color bg;
    CharacterStyle style;
    UnderlineStyle underlineStyle = UnderlineStyle::none;
    std::optional<Color> underlineColor; // absent: the underline takes the foreground

    static const Attribute empty;

    // Parameter text of an SGR sequence for this rendition, e.g. "0;1;38;5;200m".
    std::string toSgr() const;

    bool operator==(const Attribute&) const = default;
};

inline constexpr Attribute Attribute::empty{};

} // namespace vellum

template <>
struct std::hash<vellum::Attribute> {
    size_t operator()(const vellum::Attribute& attribute) const noexcept;
};
