#include "Vellum/MouseEncoder.h"

#include "Platform/Unicode.h"

namespace vellum {

namespace {

bool isWheel(MouseButton button) { return button >= MouseButton::wheelUp && button <= MouseButton::wheelRight; }

int buttonCode(MouseButton button) {
    switch (button) {
    case MouseButton::left: return 0;
    case MouseButton::middle: return 1;
    case MouseButton::right: return 2;
    case MouseButton::none: return 3;
    case MouseButton::wheelUp: return 64;
    case MouseButton::wheelDown: return 65;
    case MouseButton::wheelLeft: return 66;
    case MouseButton::wheelRight: return 67;
    case MouseButton::back: return 128;
    case MouseButton::forward: return 129;
    }
    return 3;
}

bool reported(const MouseReport& report, MouseTracking tracking) {
    switch (tracking) {
    case MouseTracking::none: return false;
    case MouseTracking::x10: return report.action == MouseAction::press;
    case MouseTracking::normal: return report.action != MouseAction::motion;
    case MouseTracking::buttonEvent: return report.action != MouseAction::motion || report.button != MouseButton::none;
    case MouseTracking::anyEvent: return true;
    }
    return false;
}

// A legacy coordinate or button byte: the value plus 32 in one byte, or in UTF-8 for 1005.
bool appendLegacy(std::string& out, int value, bool utf8) {
    int encoded = value + 32;
    if (!utf8) {
        if (encoded > 255) return false;
        out += char(encoded);
        return true;
    }
    if (encoded > 2047) return false;
    platform::unicode::appendUtf8(out, char32_t(encoded));
    return true;
}

} // namespace

std::string encodeMouse(const MouseReport& report, MouseTracking tracking, MouseEncoding encoding) {
    if (!reported(report, tracking)) return {};
    if (report.action == MouseAction::release && isWheel(report.button)) return {}; // wheels only press
    bool sgr = encoding == MouseEncoding::sgr || encoding == MouseEncoding::sgrPixels;
    // Legacy encodings cannot say which button came up: every release is button 3.
    int code = report.action == MouseAction::release && !sgr ? 3 : buttonCode(report.button);
    if (tracking != MouseTracking::x10) {
        if (report.modifiers.shift) code += 4;
        if (report.modifiers.alt || report.modifiers.meta) code += 8;
        if (report.modifiers.ctrl) code += 16;
    }
    if (report.action == MouseAction::motion) code += 32;
    int x = (encoding == MouseEncoding::sgrPixels ? report.pixelX : report.col) + 1;
    int y = (encoding == MouseEncoding::sgrPixels ? report.pixelY : report.row) + 1;
    if (x < 1 || y < 1) return {};

    std::string out = "\x1b[";
    switch (encoding) {
    case MouseEncoding::sgr:
    case MouseEncoding::sgrPixels:
        out += "<" + std::to_string(code) + ";" + std::to_string(x) + ";" + std::to_string(y);
        out += report.action == MouseAction::release ? 'm' : 'M';
        return out;
    case MouseEncoding::urxvt:
        return out + std::to_string(code + 32) + ";" + std::to_string(x) + ";" + std::to_string(y) + "M";
    case MouseEncoding::legacy:
    case MouseEncoding::utf8: {
        bool utf8 = encoding == MouseEncoding::utf8;
        out += 'M';
        if (!appendLegacy(out, code, utf8) || !appendLegacy(out, x, utf8) || !appendLegacy(out, y, utf8)) return {};
        return out;
    }
    }
    return {};
}

} // namespace vellum
