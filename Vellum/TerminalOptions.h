#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Vellum/BidiPresentationState.h"
#include "Vellum/Palette.h"

namespace vellum {

enum class CursorStyle : uint8_t { blinkBlock, steadyBlock, blinkUnderline, steadyUnderline, blinkBar, steadyBar };

inline constexpr CursorStyle defaultCursorStyle = CursorStyle::blinkBlock;

std::string_view tagName(CursorStyle style);

enum class RegionalIndicatorWidth : uint8_t { wide, narrow };

struct KittyGraphicsConfiguration {
    int64_t storageLimitBytesPerScreen = 10'000'000;
    int localMediaPolicy = 0;
    std::optional<std::string> trustedTemporaryDirectory;

    bool operator==(const KittyGraphicsConfiguration&) const = default;
};

// What the clipboard protocol may do without asking; empty means nothing.
struct KittyClipboardPolicy {
    bool allowRead = false;
    bool allowWrite = false;
    bool allowPasteEvents = false;

    bool operator==(const KittyClipboardPolicy&) const = default;
};

inline constexpr int64_t minimumKittyClipboardWriteLimitBytes = 67'108'864;

// What a terminal is created with.
struct TerminalOptions {
    int cols = 80;
    int rows = 25;
    bool convertEol = false;
    std::string termName = "xterm-256color";
    CursorStyle cursorStyle = CursorStyle::blinkBlock;
    bool screenReaderMode = false;
    int scrollback = 500;
    int tabStopWidth = 8;
    bool enableSixelReported = true;
    KittyGraphicsConfiguration kittyGraphics;
    Ansi256PaletteStrategy ansi256PaletteStrategy = Ansi256PaletteStrategy::base16Lab;
    RegionalIndicatorWidth regionalIndicatorWidth = RegionalIndicatorWidth::wide;
    BidiPresentationState initialBidiState;
    int maximumBidiParagraphRows = 500;
    bool initialBidiArrowKeySwap = false;
    std::optional<std::string> featureReport;
    int64_t maximumOscBytes = 68'157'440;
    KittyClipboardPolicy kittyClipboardPolicy;
    int64_t kittyClipboardWriteLimitBytes = minimumKittyClipboardWriteLimitBytes;
    int kittyClipboardMaximumRepresentations = 256;
    int kittyClipboardMaximumAliases = 256;

    static TerminalOptions defaults() { return {}; }

    int64_t kittyImageCacheLimitBytes() const { return kittyGraphics.storageLimitBytesPerScreen; }
    void setKittyImageCacheLimitBytes(int64_t bytes) { kittyGraphics.storageLimitBytesPerScreen = bytes; }

    bool operator==(const TerminalOptions&) const = default;
};

} // namespace vellum
