#pragma once

#include <cstdint>
#include <string>

#include "Vellum/KeyEncoder.h"

namespace vellum {

// Mouse reports in the terminal's tracking mode and encoding (xterm's modes 9, 1000, 1002,
// 1003 and encodings 1005, 1006, 1015, 1016).

// The terminal's `mouseMode` values.
enum class MouseTracking : uint8_t { none = 0, x10 = 1, normal = 2, buttonEvent = 3, anyEvent = 4 };
// The terminal's `mouseProtocol` values.
enum class MouseEncoding : uint8_t { legacy = 0, utf8 = 1, sgr = 2, urxvt = 3, sgrPixels = 4 };

enum class MouseButton : uint8_t { left, middle, right, none, wheelUp, wheelDown, wheelLeft, wheelRight, back, forward };
enum class MouseAction : uint8_t { press, release, motion };

struct MouseReport {
    MouseAction action = MouseAction::press;
    MouseButton button = MouseButton::left; // for motion, the button held, or none
    KeyModifiers modifiers;
    int col = 0, row = 0;       // the cell, 0-based
    int pixelX = 0, pixelY = 0; // within the screen, for the pixel encoding
};

// The bytes for one report; empty when the mode does not report it or the encoding cannot
// carry the position.
std::string encodeMouse(const MouseReport& report, MouseTracking tracking, MouseEncoding encoding);

inline std::string encodeMouse(const MouseReport& report, int mouseMode, int mouseProtocol) {
    if (mouseMode < 0 || mouseMode > 4 || mouseProtocol < 0 || mouseProtocol > 4) return {};
    return encodeMouse(report, MouseTracking(mouseMode), MouseEncoding(mouseProtocol));
}

} // namespace vellum
