#pragma once

#include <optional>
#include <span>
#include <string>
#include <utility>

#include "Vellum/Palette.h"
#include "Vellum/TerminalOptions.h"

namespace vellum {

class Terminal;

// Everything that leaves the terminal. All calls are made on the thread that feeds the
// terminal, under its lock; only `send` and `sizeChanged` must be provided.
class TerminalDelegate {
public:
    virtual ~TerminalDelegate() = default;

    virtual void showCursor(Terminal&) {}
    virtual void hideCursor(Terminal&) {}
    virtual void setTerminalTitle(Terminal&, const std::string&) {}
    virtual void setTerminalIconTitle(Terminal&, const std::string&) {}
    virtual void sizeChanged(Terminal&) = 0;
    virtual void send(Terminal&, std::span<const uint8_t> data) = 0;
    virtual void bufferActivated(Terminal&) {}
    virtual void bell(Terminal&) {}
    virtual bool isProcessTrusted(Terminal&) { return true; }
    virtual std::optional<std::pair<int, int>> cellSizeInPixels(Terminal&) { return std::nullopt; }
    virtual void mouseModeChanged(Terminal&) {}
    virtual void cursorStyleChanged(Terminal&, CursorStyle) {}
    virtual void colorChanged(Terminal&, std::optional<int>) {}
    // The defaults store the colour in the terminal; the terminal guards against re-entry.
    virtual void setForegroundColor(Terminal& source, Color color);
    virtual void setBackgroundColor(Terminal& source, Color color);
    virtual void setCursorColor(Terminal& source, std::optional<Color> color);
};

} // namespace vellum
