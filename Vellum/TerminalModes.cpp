#include "Vellum/Terminal.h"
#include "Vellum/TerminalParameters.h"

namespace vellum {

using sequence::describe;
using sequence::param;
using sequence::rawParam;

namespace {

// Modes that CSI ? s saves and CSI ? r restores.
bool isRestorable(int mode) {
    switch (mode) {
    case 1243: case 2004: case 2026: case 2027: case 2031: case 2033: case 2048: case 2500: case 2501: case 5522:
        return true;
    default:
        return false;
    }
}

} // namespace

void Terminal::setModes(CsiParameters pars, bool privateMode, bool value) {
    for (int i = 0; i < pars.size(); ++i) {
        int mode = static_cast<int>(pars[i]);
        if (privateMode) {
            setPrivateMode(mode, value);
            continue;
        }
        switch (mode) {
        case 2: break;
        case 4: normalBuffer->insertMode = altBuffer->insertMode = value; break;
        case 8:
            bidiState.supportMode = value ? BidiSupportMode::implicit : BidiSupportMode::explicitOnly;
            break;
        case 20: lineFeedMode = value; break;
        default:
            log(std::string(value ? "Unhandled verbatim setMode with " : "Unhandled verbatim resetMode with ") +
                std::to_string(mode) + " and ");
            break;
        }
    }
}

void Terminal::beginSynchronizedOutput() {
    if (synchronizedOutputActive) return;
    synchronizedOutputActive = true;
    ++synchronizedOutputGeneration_;
    if (!delegate) return;
    delegate->synchronizedOutputChanged(*this, true);
    delegate->scheduleSynchronizedOutputTimeout(*this, synchronizedOutputTimeoutMilliseconds);
}

void Terminal::endSynchronizedOutput() {
    if (!synchronizedOutputActive) return;
    synchronizedOutputActive = false;
    if (delegate) delegate->synchronizedOutputChanged(*this, false);
}

bool Terminal::applyDECPrivateMode(int mode, bool value) {
    switch (mode) {
    case 117: case 2027: return true;
    case 1243: bidiArrowKeySwap = value; return true;
    case 2004: bracketedPasteMode = value; return true;
    case 2026:
        value ? beginSynchronizedOutput() : endSynchronizedOutput();
        return true;
    case 2031: colorSchemeUpdatesEnabled = value; return true;
    case 2033:
        visibilityReportsEnabled = value;
        if (value) reportTerminalVisibility();
        return true;
    case 2048:
        inBandSizeReportsEnabled = value;
        if (value) reportInBandSizeIfAvailable();
        return true;
    case 2500: bidiState.boxMirroring = value; return true;
    case 2501: bidiState.autodetectDirection = value; return true;
    case 5522: kittyPasteEventsEnabled = value; return true;
    default: return false;
    }
}

void Terminal::setPrivateMode(int mode, bool value) {
    if (applyDECPrivateMode(mode, value)) return;
    Buffer& b = *buffer_;
    auto mouse = [&](int next) {
        mouseMode = value ? next : 0;
        if (delegate) delegate->mouseModeChanged(*this);
    };
    auto mouseEncoding = [&](int next) {
        mouseProtocol = value ? next : 0;
        if (delegate) delegate->mouseModeChanged(*this);
    };
    switch (mode) {
    case 1: applicationCursor = value; break;
    case 2:
        if (!value) goto unhandled;
        gCharsets = {};
        charset = nullptr;
        break;
    case 3: changeColumnMode(value ? 132 : 80); break;
    case 4: smoothScroll = value; break;
    case 5:
        if (reverseColors != value) {
            reverseColors = value;
            if (delegate) delegate->colorChanged(*this, std::nullopt);
        }
        break;
    case 6: originMode = value; break;
    case 7: normalBuffer->wraparound = altBuffer->wraparound = value; break;
    case 9: mouse(1); break;
    case 12: cursorBlink = value; break;
    case 25:
        cursorHidden = !value;
        if (delegate) value ? delegate->showCursor(*this) : delegate->hideCursor(*this);
        break;
    case 40: allow80To132 = value; break;
    case 41: case 1034: break;
    case 45: reverseWraparound = value && b.wraparound; break;
    case 47: value ? activateAltBuffer() : activateNormalBuffer(false); break;
    case 63:
        if (!value) goto unhandled;
        break;
    case 66: applicationKeypad = value; break;
    case 69:
        normalBuffer->marginMode = altBuffer->marginMode = value;
        if (!value) {
            b.marginLeft = 0;
            b.marginRight = cols_ - 1;
        }
        break;
    case 95: noClearOnColumnChange = value; break;
    case 1000: mouse(2); break;
    case 1002: mouse(3); break;
    case 1003: mouse(4); break;
    case 1004:
        sendFocus = value;
        if (value) sendResponse(std::string(csiIntroducer(cc)) + (focused ? "I" : "O"));
        break;
    case 1005: mouseEncoding(1); break;
    case 1006: mouseEncoding(2); break;
    case 1007: alternateScrollMode = value; break;
    case 1015: mouseEncoding(3); break;
    case 1016: mouseEncoding(4); break;
    case 1047: value ? activateAltBuffer() : activateNormalBuffer(true); break;
    case 1048: value ? saveCursor() : restoreCursor(); break;
    case 1049:
        if (value) {
            saveCursor();
            activateAltBuffer();
        } else {
            activateNormalBuffer(true);
            restoreCursor();
        }
        break;
    default:
    unhandled:
        log(std::string(value ? "Unhandled DEC Private Mode Set (DECSET) with " : "Unhandled DEC Private Mode Reset (DECRST) with ") +
            std::to_string(mode));
        break;
    }
}

std::optional<bool> Terminal::readDECPrivateMode(int mode) const {
    const Buffer& b = *buffer_;
    switch (mode) {
    case 1: return applicationCursor;
    case 3: return cols_ == 132;
    case 4: return smoothScroll;
    case 5: return reverseColors;
    case 6: return originMode;
    case 7: return b.wraparound;
    case 9: return mouseMode == 1;
    case 12: return cursorBlink;
    case 25: return !cursorHidden;
    case 40: return allow80To132;
    case 45: return reverseWraparound;
    case 47: case 1047: case 1049: return buffer_ == altBuffer.get();
    case 66: return applicationKeypad;
    case 69: return b.marginMode;
    case 95: return noClearOnColumnChange;
    case 1000: return mouseMode == 2;
    case 1002: return mouseMode == 3;
    case 1003: return mouseMode == 4;
    case 1004: return sendFocus;
    case 1005: return mouseProtocol == 1;
    case 1006: return mouseProtocol == 2;
    case 1007: return alternateScrollMode;
    case 1015: return mouseProtocol == 3;
    case 1016: return mouseProtocol == 4;
    case 1243: return bidiArrowKeySwap;
    case 2004: return bracketedPasteMode;
    case 2026: return synchronizedOutputActive;
    case 2031: return colorSchemeUpdatesEnabled;
    case 2033: return visibilityReportsEnabled;
    case 2048: return inBandSizeReportsEnabled;
    case 2500: return bidiState.boxMirroring;
    case 2501: return bidiState.autodetectDirection;
    case 5522: return kittyPasteEventsEnabled;
    default: return std::nullopt;
    }
}

std::optional<bool> Terminal::privateModeValue(int mode) const { return readDECPrivateMode(mode); }

void Terminal::savePrivateModes(CsiParameters pars) {
    for (int64_t mode : pars)
        if (auto value = readDECPrivateMode(static_cast<int>(mode))) savedPrivateModes[static_cast<int>(mode)] = *value;
}

void Terminal::restorePrivateModes(CsiParameters pars) {
    for (int64_t each : pars) {
        int mode = static_cast<int>(each);
        auto saved = savedPrivateModes.find(mode);
        if (isRestorable(mode) && saved != savedPrivateModes.end()) applyDECPrivateMode(mode, saved->second);
    }
}

void Terminal::changeColumnMode(int columns) {
    if (!allow80To132) return;
    resize(columns, rows_);
    for (Buffer* each : {normalBuffer.get(), altBuffer.get()}) {
        each->marginMode = false;
        each->resetRegion();
    }
    if (!noClearOnColumnChange) buffer_->fillViewport(currentEraseBlankCell);
    setCursor(0, 0);
}

namespace {

// Modes that are fixed here whatever a program asks, in both the DEC and the ANSI set (the
// ANSI answers that differ are in ansiModeReport).
std::optional<ModeReportValue> fixedMode(int mode) {
    switch (mode) {
    case 2: case 8: case 18: case 19: return ModeReportValue::set;
    case 10: case 42: case 44: case 46: case 67: case 80: return ModeReportValue::permanentlyReset;
    case 13: case 14: case 30: case 41: case 1001: return ModeReportValue::reset;
    default: return std::nullopt;
    }
}

// DEC private modes that are taken but have no effect.
std::optional<ModeReportValue> fixedPrivateMode(int mode) {
    switch (mode) {
    case 117: case 1034: return ModeReportValue::permanentlyReset;
    case 1048: return ModeReportValue::reset;
    case 2027: return ModeReportValue::permanentlySet;
    default: return fixedMode(mode);
    }
}

} // namespace

ModeReportValue Terminal::privateModeReport(int mode) {
    auto fromBool = [](bool on) { return on ? ModeReportValue::set : ModeReportValue::reset; };
    if (mode == 5522) {
        bool allowed = options_.kittyClipboardPolicy.allowPasteEvents && delegate &&
                       delegate->kittyClipboardCapabilities(*this).canSendPasteEvents;
        return allowed ? fromBool(kittyPasteEventsEnabled) : ModeReportValue::notRecognized;
    }
    if (auto on = readDECPrivateMode(mode)) return fromBool(*on);
    return fixedPrivateMode(mode).value_or(ModeReportValue::notRecognized);
}

ModeReportValue Terminal::ansiModeReport(int mode) const {
    auto fromBool = [](bool on) { return on ? ModeReportValue::set : ModeReportValue::reset; };
    switch (mode) {
    case 2: return ModeReportValue::permanentlyReset; // KAM: nothing here can lock the keyboard
    case 4: return fromBool(buffer_->insertMode);
    case 8: return fromBool(bidiState.supportMode == BidiSupportMode::implicit);
    case 20: return fromBool(lineFeedMode);
    default: return fixedMode(mode).value_or(ModeReportValue::notRecognized);
    }
}

void Terminal::requestMode(CsiParameters pars, bool privateMode) {
    if (pars.size() == 0) {
        sendResponse(modeReport(privateMode, std::nullopt, ModeReportValue::notRecognized, cc));
        return;
    }
    int mode = static_cast<int>(pars[0]);
    sendResponse(modeReport(privateMode, mode, privateMode ? privateModeReport(mode) : ansiModeReport(mode), cc));
}

bool Terminal::isDarkColorScheme() const {
    auto luminance = [](Color c) { return 299 * c.red + 587 * c.green + 114 * c.blue; };
    return luminance(backgroundColor) < luminance(foregroundColor);
}

void Terminal::reportColorScheme() {
    sendResponse(std::string(csiIntroducer(cc)) + (isDarkColorScheme() ? "?997;1n" : "?997;2n"));
}

void Terminal::reportTerminalVisibility() {
    sendResponse(std::string(csiIntroducer(cc)) + (terminalVisible ? "?999;1n" : "?999;2n"));
}

void Terminal::reportInBandSizeIfAvailable() {
    if (cellPixelWidth <= 0 || cellPixelHeight <= 0) return;
    sendResponse(std::string(csiIntroducer(cc)) + "48;" + std::to_string(rows_) + ";" + std::to_string(cols_) + ";" +
                 std::to_string(rows_ * cellPixelHeight) + ";" + std::to_string(cols_ * cellPixelWidth) + "t");
}

void Terminal::updatePixelGeometry(int cellWidth, int cellHeight) {
    bool changed = cellWidth != cellPixelWidth || cellHeight != cellPixelHeight;
    cellPixelWidth = std::max(cellWidth, 0);
    cellPixelHeight = std::max(cellHeight, 0);
    if (changed && inBandSizeReportsEnabled) reportInBandSizeIfAvailable();
}

void Terminal::setTerminalVisibility(bool visible) {
    if (visible == terminalVisible) return;
    terminalVisible = visible;
    if (visibilityReportsEnabled) reportTerminalVisibility();
}

void Terminal::setFocused(bool value) {
    if (value == focused) return;
    focused = value;
    if (sendFocus) sendResponse(std::string(csiIntroducer(cc)) + (focused ? "I" : "O"));
}

void Terminal::deviceStatus(CsiParameters pars, bool privateMode) {
    Buffer& b = *buffer_;
    int p = rawParam(pars, 0);
    int row = b.y + 1 - (originMode ? b.scrollTop : 0);
    int col = std::max(std::min(b.x, cols_ - 1) + 1 - (originMode && b.marginMode ? b.marginLeft : 0), 1);
    std::string csi(csiIntroducer(cc));
    if (!privateMode) {
        if (p == 5) sendResponse(csi + "0n");
        else if (p == 6) sendResponse(csi + std::to_string(row) + ";" + std::to_string(col) + "R");
        return;
    }
    switch (p) {
    case 6: sendResponse(csi + "?" + std::to_string(row) + ";" + std::to_string(col) + ";1R"); break;
    case 996: reportColorScheme(); break;
    case 998: reportTerminalVisibility(); break;
    default:
        if (auto reply = privateDeviceStatusReply(p, rawParam(pars, 1), cc)) sendResponse(*reply);
        break;
    }
}

void Terminal::sendDeviceAttributes(CsiParameters pars, std::span<const uint8_t> collect) {
    if (sequence::collectIs(collect, ">")) {
        if (rawParam(pars, 0) != 0) log("Got a CSI > c with an unknown set of argument");
        sendResponse(secondaryDeviceAttributesReply(cc));
        return;
    }
    if (rawParam(pars, 0) != 0 || !collect.empty()) {
        log("SendDeviceAttributes got " + describe(pars) + " and " + describe(collect));
        return;
    }
    if (auto reply = primaryDeviceAttributesReply(options_.termName, options_.enableSixelReported, cc)) sendResponse(*reply);
}

void Terminal::setConformanceLevel(CsiParameters pars) {
    int level = rawParam(pars, 0);
    switch (level) {
    case 61: conformance = 0; cc = CC::sevenBit; return;
    case 62: conformance = 1; break;
    case 63: conformance = 2; break;
    case 64: conformance = 3; break;
    default: conformance = 4; break;
    }
    int controls = rawParam(pars, 1);
    cc = controls == 0 || controls == 2 ? CC::eightBit : CC::sevenBit;
}

void Terminal::windowOptions(CsiParameters pars) {
    using Kind = WindowManipulationCommand::Kind;
    int operation = rawParam(pars, 0), p1 = rawParam(pars, 1), p2 = rawParam(pars, 2);
    std::optional<WindowManipulationCommand> command;
    auto make = [&](Kind kind) { command = WindowManipulationCommand{.kind = kind}; };
    switch (operation) {
    case 1: make(Kind::deiconifyWindow); break;
    case 2: make(Kind::iconifyWindow); break;
    case 3: command = WindowManipulationCommand{.kind = Kind::moveWindowTo, .x = p1, .y = p2}; break;
    case 4: command = WindowManipulationCommand{.kind = Kind::resizeWindowTo, .width = p2, .height = p1}; break;
    case 5: make(Kind::bringToFront); break;
    case 6: make(Kind::sendToBack); break;
    case 7: make(Kind::refreshWindow); break;
    case 8: command = WindowManipulationCommand{.kind = Kind::resizeTo, .cols = p2, .rows = p1}; break;
    case 9:
        if (p1 >= 0 && p1 <= 3)
            make(std::array{Kind::restoreMaximizedWindow, Kind::maximizeWindow, Kind::maximizeWindowVertically,
                            Kind::maximizeWindowHorizontally}[size_t(p1)]);
        break;
    case 10:
        if (p1 >= 0 && p1 <= 2) make(std::array{Kind::undoFullScreen, Kind::switchToFullScreen, Kind::toggleFullScreen}[size_t(p1)]);
        break;
    case 11: make(Kind::reportTerminalState); break;
    case 13: make(p1 == 2 ? Kind::reportTextAreaPosition : Kind::reportTerminalPosition); break;
    case 14: make(p1 == 2 ? Kind::reportTerminalWindowPixelDimension : Kind::reportTextAreaPixelDimension); break;
    case 15: make(Kind::reportSizeOfScreenInPixels); break;
    case 16: make(Kind::reportCellSizeInPixels); break;
    case 18: make(Kind::reportTextAreaCharacters); break;
    case 19: make(Kind::reportScreenSizeCharacters); break;
    case 20: make(Kind::reportIconLabel); break;
    case 21: make(Kind::reportWindowTitle); break;
    case 22:
        if (p1 == 0 || p1 == 2) {
            if (terminalTitleStack.size() >= 10) terminalTitleStack.erase(terminalTitleStack.begin());
            terminalTitleStack.push_back(terminalTitle);
        }
        if (p1 == 0 || p1 == 1) {
            if (iconTitleStack.size() >= 10) iconTitleStack.erase(iconTitleStack.begin());
            iconTitleStack.push_back(iconTitle);
        }
        return;
    case 23:
        if ((p1 == 0 || p1 == 2) && !terminalTitleStack.empty()) {
            terminalTitle = terminalTitleStack.back();
            terminalTitleStack.pop_back();
            if (delegate) delegate->setTerminalTitle(*this, terminalTitle);
        }
        if ((p1 == 0 || p1 == 1) && !iconTitleStack.empty()) {
            iconTitle = iconTitleStack.back();
            iconTitleStack.pop_back();
            if (delegate) delegate->setTerminalIconTitle(*this, iconTitle);
        }
        return;
    default:
        if (operation >= 24) command = WindowManipulationCommand{.kind = Kind::resizeToLines, .lines = operation};
        break;
    }
    if (!command) {
        log("Unhandled Window command: " + describe(pars));
        return;
    }
    if (delegate) {
        if (auto reply = delegate->windowCommand(*this, *command)) {
            sendResponse(*reply);
            return;
        }
    }
    windowReport(command->kind);
}

// The answers a pane gives by itself when its host gave none. A pane is its own window: it
// stands at the origin, is never iconified, and its screen is its text area.
void Terminal::windowReport(WindowManipulationCommand::Kind kind) {
    using Kind = WindowManipulationCommand::Kind;
    std::string csi(csiIntroducer(cc));
    auto oscString = [&](char kind, const std::string& text) {
        std::string out(oscIntroducer(cc));
        out.push_back(kind);
        out.append(text).append(stringTerminator(cc));
        return out;
    };
    auto report = [&](int code, int first, int second) {
        sendResponse(csi + std::to_string(code) + ";" + std::to_string(first) + ";" + std::to_string(second) + "t");
    };
    int cellWidth = cellPixelWidth, cellHeight = cellPixelHeight;
    if (delegate && (cellWidth <= 0 || cellHeight <= 0))
        if (auto size = delegate->cellSizeInPixels(*this)) std::tie(cellWidth, cellHeight) = *size;
    bool pixelsKnown = cellWidth > 0 && cellHeight > 0;
    switch (kind) {
    case Kind::reportTerminalState: sendResponse(csi + "1t"); break;
    case Kind::reportTerminalPosition:
    case Kind::reportTextAreaPosition: report(3, 0, 0); break;
    case Kind::reportTextAreaCharacters: report(8, rows_, cols_); break;
    case Kind::reportScreenSizeCharacters: report(9, rows_, cols_); break;
    case Kind::reportTextAreaPixelDimension:
    case Kind::reportTerminalWindowPixelDimension:
        if (pixelsKnown) report(4, rows_ * cellHeight, cols_ * cellWidth);
        break;
    case Kind::reportSizeOfScreenInPixels:
        if (pixelsKnown) report(5, rows_ * cellHeight, cols_ * cellWidth);
        break;
    case Kind::reportCellSizeInPixels:
        if (pixelsKnown) report(6, cellHeight, cellWidth);
        break;
    case Kind::reportIconLabel: sendResponse(oscString('L', reportableTitle(iconTitle))); break;
    case Kind::reportWindowTitle: sendResponse(oscString('l', reportableTitle(terminalTitle))); break;
    default: break; // moving, resizing and stacking a pane are the host's business
    }
}

// A title as it may go back to the program: never with control characters (C0, DEL, or C1 in
// UTF-8 form), which a title set
// from untrusted output could otherwise smuggle into the program's input; in hexadecimal when
// the program asked for that (CSI > 1 t).
std::string Terminal::reportableTitle(const std::string& title) const {
    std::string clean;
    for (size_t i = 0; i < title.size(); ++i) {
        auto c = static_cast<unsigned char>(title[i]);
        bool c1 = c == 0xc2 && i + 1 < title.size() && static_cast<unsigned char>(title[i + 1]) < 0xa0; // U+0080 to U+009F
        if (c1) ++i;
        else if (c >= 0x20 && c != 0x7f) clean.push_back(static_cast<char>(c));
    }
    if (!titleModeQueryHex) return clean;
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string hex;
    for (unsigned char c : clean) {
        hex.push_back(digits[c >> 4]);
        hex.push_back(digits[c & 15]);
    }
    return hex;
}

void Terminal::unknownCsi(uint8_t code, CsiParameters pars, std::span<const uint8_t> collect) {
    log("Vellum: Unknown CSI Code (collect=[" + describe(collect) + "] code=" + std::string(1, char(code)) +
        " pars=" + describe(pars) + ")");
}

} // namespace vellum
