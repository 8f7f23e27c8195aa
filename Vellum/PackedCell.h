#pragma once

#include <cstdint>

namespace vellum {

// Width states of a cell. The width follows from the state: 1, 2, 0, 0.
enum class CellWidthState : uint8_t { narrow = 0, wide = 1, spacerTail = 2, spacerHead = 3 };

// One cell in one 64-bit word. Other parts of the engine read this layout directly:
//   bits  0-1   content tag: 0 scalar (0 = empty), 1 grapheme identifier,
//               2 empty with a palette background, 3 empty with a true-colour background
//   bits  2-25  content value, by tag
//   bits 26-41  style identifier into the arena's attribute table (zero for tags 2 and 3)
//   bits 42-43  width state
//   bit  44     protected
//   bits 45-60  payload code (TinyAtom)
//   bits 61-63  semantic content code
struct PackedCell {
    static constexpr int tagShift = 0, valueShift = 2, styleShift = 26, widthStateShift = 42,
                         protectedShift = 44, payloadShift = 45, semanticShift = 61;
    static constexpr uint64_t tagMask = 0x3, valueMask = 0xFFFFFF, styleMask = 0xFFFF, widthStateMask = 0x3,
                              payloadMask = 0xFFFF, semanticMask = 0x7;
    // Tag, value and width state: what a blanked cell loses.
    static constexpr uint64_t contentAndWidthBits =
        (tagMask << tagShift) | (valueMask << valueShift) | (widthStateMask << widthStateShift);
    // Tag and value alone: a cell's content, which fits 32 bits.
    static constexpr uint64_t contentBits = (tagMask << tagShift) | (valueMask << valueShift);
    // Protected, payload and semantic code: what replacing a cell's content keeps.
    static constexpr uint64_t highBits = ~uint64_t(0) << protectedShift;

    enum Tag : uint8_t { scalarTag = 0, graphemeTag = 1, paletteBackgroundTag = 2, trueColorBackgroundTag = 3 };

    uint64_t raw = 0;

    static constexpr PackedCell make(uint8_t tag, uint32_t value, uint16_t styleID, uint8_t widthState,
                                     bool isProtected, uint16_t payloadCode, uint8_t semanticCode) {
        return PackedCell{(uint64_t(tag) & tagMask) | (uint64_t(value) & valueMask) << valueShift |
                          uint64_t(styleID) << styleShift | (uint64_t(widthState) & widthStateMask) << widthStateShift |
                          uint64_t(isProtected) << protectedShift | uint64_t(payloadCode) << payloadShift |
                          (uint64_t(semanticCode) & semanticMask) << semanticShift};
    }

    constexpr uint8_t tag() const { return raw & tagMask; }
    constexpr uint32_t value() const { return uint32_t(raw >> valueShift) & valueMask; }
    constexpr uint16_t styleID() const { return uint16_t(raw >> styleShift); }
    constexpr uint8_t widthStateCode() const { return uint8_t(raw >> widthStateShift) & widthStateMask; }
    constexpr CellWidthState widthState() const { return CellWidthState(widthStateCode()); }
    constexpr bool isProtected() const { return (raw >> protectedShift) & 1; }
    constexpr uint16_t payloadCode() const { return uint16_t(raw >> payloadShift); }
    constexpr uint8_t semanticContentCode() const { return uint8_t(raw >> semanticShift); }

    constexpr int width() const {
        constexpr int widths[] = {1, 2, 0, 0};
        return widths[widthStateCode()];
    }
    constexpr bool isWideHead() const { return widthState() == CellWidthState::wide; }
    constexpr bool isSpacerTail() const { return widthState() == CellWidthState::spacerTail; }

    constexpr PackedCell withWidthState(CellWidthState state) const {
        return PackedCell{(raw & ~(widthStateMask << widthStateShift)) | uint64_t(state) << widthStateShift};
    }
    // The cell with its character gone: style, protection, payload and semantic code stay.
    constexpr PackedCell blanked() const { return PackedCell{raw & ~contentAndWidthBits}; }

    constexpr bool hasValidEncoding() const {
        if (semanticContentCode() >= 7) return false;
        uint32_t v = value();
        switch (tag()) {
        case scalarTag: return v <= 0x10FFFF && (v < 0xD800 || v > 0xDFFF);
        case graphemeTag: return v != 0;
        case paletteBackgroundTag: return (v & 0xFFFF00) == 0;
        default: return true;
        }
    }

    constexpr bool operator==(const PackedCell&) const = default;
};

static_assert(sizeof(PackedCell) == 8);

} // namespace vellum
