#pragma once

#include <cstdint>

namespace vellum {

// A window operation asked for with CSI Ps ; Ps ; Ps t, handed to the delegate.
struct WindowManipulationCommand {
    enum class Kind : uint8_t {
        moveWindowTo, resizeWindowTo, resizeTo, resizeTerminal, resizeToLines,
        deiconifyWindow, iconifyWindow, bringToFront, sendToBack, refreshWindow,
        restoreMaximizedWindow, maximizeWindow, maximizeWindowVertically, maximizeWindowHorizontally,
        undoFullScreen, switchToFullScreen, toggleFullScreen,
        reportTerminalState, reportTerminalPosition, reportTextAreaPosition, reportTextAreaPixelDimension,
        reportTerminalWindowPixelDimension, reportSizeOfScreenInPixels, reportCellSizeInPixels,
        reportTextAreaCharacters, reportScreenSizeCharacters, reportIconLabel, reportWindowTitle,
    };

    Kind kind = Kind::refreshWindow;
    // moveWindowTo: x, y. resizeWindowTo: width, height in pixels. resizeTo: cols, rows.
    // resizeToLines: lines.
    int x = 0, y = 0, width = 0, height = 0, cols = 0, rows = 0, lines = 0;

    bool operator==(const WindowManipulationCommand&) const = default;
};

} // namespace vellum
