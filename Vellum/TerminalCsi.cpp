// Control sequences (CSI): the decoder turns a final byte, its collect and parameters into one
// named operation; the operations below it act on the cursor and the screen.
#include "Vellum/Terminal.h"
#include "Vellum/TerminalParameters.h"

namespace vellum {

using sequence::collectIs;
using sequence::describe;
using sequence::param;
using sequence::rawParam;

void Terminal::dispatchCsi(uint8_t code, CsiParameters pars, std::span<const uint8_t> collect) {
    int n = param(pars, 0, 1);
    bool question = collectIs(collect, "?");
    switch (code) {
    case '@': insertChars(n); break;
    case 'A': cursorUp(n); break;
    case 'B': cursorDown(n); break;
    case 'C': cursorForward(n); break;
    case 'D': cursorBackward(n); break;
    case 'E': cursorDown(n); buffer_->x = buffer_->leftBound(); break;
    case 'F': cursorUp(n); buffer_->x = buffer_->leftBound(); break;
    case 'G': case '`': cursorCharAbsolute(n); break;
    case 'H': case 'f': setCursor(param(pars, 1, 1) - 1, n - 1); break;
    case 'I': tab(std::min(n, cols_ - 1)); break;
    case 'J': eraseInDisplay(rawParam(pars, 0), question); break;
    case 'K': eraseInLine(rawParam(pars, 0), question); break;
    case 'L': insertLines(n); break;
    case 'M': deleteLines(n); break;
    case 'P': deleteChars(n); break;
    case 'S':
        if (collectIs(collect, " ")) selectPresentationDirection(rawParam(pars, 0));
        else scrollUp(n);
        break;
    case 'T':
        if (collect.empty()) scrollDown(n);
        else if (collectIs(collect, ">")) setTitleModes(pars, false);
        break;
    case 'X': eraseChars(n); break;
    case 'Z': tabBackward(n); break;
    case 'a': cursorForwardRelative(n); break;
    case 'b': repeatPrecedingCharacter(n); break;
    case 'c': sendDeviceAttributes(pars, collect); break;
    case 'd': linePositionAbsolute(n); break;
    case 'e': linePositionRelative(n); break;
    case 'g': tabClear(rawParam(pars, 0)); break;
    case 'h':
    case 'l':
        if (collect.empty() || question) setModes(pars, question, code == 'h');
        else log(std::string(code == 'h' ? "Unhandled setMode (SM) with " : "Unhandled resetMode (RM) with ") + describe(pars));
        break;
    case 'k':
        if (collectIs(collect, " ")) selectCharacterPath(rawParam(pars, 0));
        else unknownCsi(code, pars, collect);
        break;
    case 'm': if (collect.empty()) selectGraphicRendition(pars, parser.parsColonMask()); break;
    case 'n': deviceStatus(pars, question); break;
    case 'p':
        if (collectIs(collect, "!")) softReset();
        else if (collectIs(collect, "\"")) setConformanceLevel(pars);
        else if (collectIs(collect, "$") || collectIs(collect, "?$")) requestMode(pars, collect.size() == 2);
        break;
    case 'q':
        if (collectIs(collect, " ")) setCursorStyle(rawParam(pars, 0));
        else if (collectIs(collect, "\"")) selectCharacterProtection(rawParam(pars, 0));
        else if (collectIs(collect, ">") && pars.size() == 1 && pars[0] == 0) sendResponse(xtVersionReply(cc));
        break;
    case 'r':
        if (collect.empty()) setScrollRegion(pars);
        else if (question) restorePrivateModes(pars);
        else if (collectIs(collect, "$")) changeAreaAttributes(pars, false);
        break;
    case 's':
        if (question) savePrivateModes(pars);
        else if (collectIs(collect, ">")) mouseShiftCapture = rawParam(pars, 0) == 1;
        else if (collect.empty()) buffer_->marginMode ? setMargins(pars) : saveCursor();
        break;
    case 't':
        if (collect.empty()) windowOptions(pars);
        else if (collectIs(collect, ">")) setTitleModes(pars, true);
        else if (collectIs(collect, "$")) changeAreaAttributes(pars, true);
        break;
    case 'u':
        if (!handleKittyKeyboardProtocol(pars, collect) && collect.empty()) restoreCursor();
        break;
    case 'v': if (collectIs(collect, "$")) copyRectangularArea(pars); break;
    case 'x':
        if (collectIs(collect, "$")) fillRectangularArea(pars);
        else if (collectIs(collect, "*")) rectangularAttributeChange = rawParam(pars, 0) == 2;
        else log("Not implemented CSI x with collect: collect=" + describe(collect));
        break;
    case 'y': if (collectIs(collect, "*")) requestChecksumRectangularArea(pars); break;
    case 'z':
        if (collectIs(collect, "$")) eraseRectangularArea(pars, false);
        else if (collectIs(collect, "'")) log("TODO: Enable Locator Reporting (DECELR)");
        break;
    case '{':
        if (collectIs(collect, "$")) eraseRectangularArea(pars, true);
        else log("CSI # { not implemented - XTPUSHSGR with " + describe(pars));
        break;
    case '}':
        if (collectIs(collect, "'")) insertColumns(n);
        else log("CSI # } not implemented- XTPOPSGR with " + describe(pars));
        break;
    case '~': deleteColumns(n); break;
    default: unknownCsi(code, pars, collect); break;
    }
}

// ---- Cursor movement

void Terminal::cursorUp(int count) {
    Buffer& b = *buffer_;
    b.y = std::max(b.y - count, b.y >= b.scrollTop ? b.scrollTop : 0);
    restrictCursor();
}

void Terminal::cursorDown(int count) {
    Buffer& b = *buffer_;
    b.y = std::min(b.y + count, b.y <= b.scrollBottom ? b.scrollBottom : rows_ - 1);
    if (b.x >= cols_) --b.x;
}

void Terminal::cursorForward(int count) {
    Buffer& b = *buffer_;
    int limit = b.marginMode && b.x > b.marginRight ? cols_ - 1 : b.rightBound();
    b.x = std::min(b.x + count, limit);
}

void Terminal::cursorBackward(int count) {
    Buffer& b = *buffer_;
    restrictCursor();
    int limit = b.x < b.leftBound() ? 0 : b.leftBound();
    b.x = std::max(b.x - count, limit);
}

void Terminal::cursorCharAbsolute(int col) { setCursor(col - 1, originMode ? buffer_->y - buffer_->scrollTop : buffer_->y); }

void Terminal::cursorForwardRelative(int count) {
    Buffer& b = *buffer_;
    setCursor(b.x + count - (originMode && b.marginMode ? b.marginLeft : 0), originMode ? b.y - b.scrollTop : b.y);
}

void Terminal::linePositionAbsolute(int row) { setCursor(buffer_->x, row - 1); }

void Terminal::linePositionRelative(int count) {
    Buffer& b = *buffer_;
    setCursor(b.x, b.y + count - (originMode ? b.scrollTop : 0));
}

void Terminal::tabBackward(int count) {
    Buffer& b = *buffer_;
    for (int i = 0; i < count; ++i) b.x = b.tabStops.previous(b.x);
}

void Terminal::tabClear(int mode) {
    if (mode == 0) buffer_->tabStops.clear(buffer_->x);
    else if (mode == 3) buffer_->tabStops.clearAll();
}

void Terminal::setScrollRegion(CsiParameters pars) {
    Buffer& b = *buffer_;
    int top = param(pars, 0, 1) - 1;
    int bottom = rawParam(pars, 1);
    if (bottom == 0 || bottom > rows_) bottom = rows_;
    bottom -= 1;
    if (top < bottom) {
        b.scrollTop = top;
        b.scrollBottom = bottom;
    }
    setCursor(0, 0);
}

// DECSLRM: no check that left is below right, and the cursor stays where it is.
void Terminal::setMargins(CsiParameters pars) {
    Buffer& b = *buffer_;
    int right = pars.size() > 1 ? std::min(param(pars, 1, cols_), cols_) - 1 : cols_ - 1;
    int left = param(pars, 0, 1) - 1;
    b.marginRight = right;
    b.marginLeft = std::min(right, left);
}

// ---- Characters and lines

bool Terminal::cursorInsideMargins() const {
    const Buffer& b = *buffer_;
    return b.x >= b.leftBound() && b.x <= b.rightBound();
}

bool Terminal::cursorInsideRegion() const {
    const Buffer& b = *buffer_;
    return b.y >= b.scrollTop && b.y <= b.scrollBottom && cursorInsideMargins();
}

void Terminal::insertChars(int count) {
    Buffer& b = *buffer_;
    if (!cursorInsideMargins()) return;
    b.row(b.y).insertPackedCells(std::min(b.x, cols_ - 1), count, b.rightBound(), currentEraseBlankCell);
}

void Terminal::deleteChars(int count) {
    Buffer& b = *buffer_;
    if (!cursorInsideMargins()) return;
    b.row(b.y).deletePackedCells(std::min(b.x, cols_ - 1), count, b.rightBound(), currentEraseBlankCell);
}

void Terminal::eraseChars(int count) {
    Buffer& b = *buffer_;
    int x = std::min(b.x, cols_ - 1);
    b.row(b.y).erasePackedCells(x, std::min(x + count, cols_), currentEraseBlankCell);
}

// IL and DL act only with the cursor inside the region and the margins; the cursor goes to the
// left margin.
void Terminal::insertLines(int count) {
    Buffer& b = *buffer_;
    if (!cursorInsideRegion()) return;
    b.insertLines(b.y, count, currentEraseBlankCell);
    b.x = b.leftBound();
}

void Terminal::deleteLines(int count) {
    Buffer& b = *buffer_;
    if (!cursorInsideRegion()) return;
    b.deleteLines(b.y, count, currentEraseBlankCell);
    b.x = b.leftBound();
}

void Terminal::scrollUp(int count) {
    Buffer& b = *buffer_;
    count = std::min(count, b.scrollBottom - b.scrollTop + 1);
    for (int i = 0; i < count; ++i) b.scroll(currentEraseBlankCell, false);
}

void Terminal::scrollDown(int count) { buffer_->insertLines(buffer_->scrollTop, std::min(count, rows_), currentEraseBlankCell); }

void Terminal::repeatPrecedingCharacter(int count) {
    for (int i = 0; i < std::min(count, 65535) && previousScalar; ++i) printScalar(previousScalar);
}

// ---- Settings

void Terminal::setCursorStyle(int style) {
    CursorStyle next = cursorStyle;
    if (style == 0) next = options_.cursorStyle;
    else if (style >= 1 && style <= 6) next = static_cast<CursorStyle>(style - 1);
    if (next == cursorStyle) return;
    cursorStyle = next;
    if (delegate) delegate->cursorStyleChanged(*this, next);
}

// DECSCA: 1 protects the cells printed from now on against selective erase; 0 and 2 do not.
void Terminal::selectCharacterProtection(int mode) {
    if (mode == 1) protectedPen = true;
    else if (mode == 0 || mode == 2) protectedPen = false;
}

void Terminal::selectPresentationDirection(int direction) {
    if (direction == 0 || direction == 3)
        bidiState.fallbackDirection = direction == 0 ? BidiDirection::leftToRight : BidiDirection::rightToLeft;
}

void Terminal::selectCharacterPath(int path) {
    if (path == 0) bidiState.fallbackDirection = options_.initialBidiState.fallbackDirection;
    else if (path == 1 || path == 2) bidiState.fallbackDirection = path == 1 ? BidiDirection::leftToRight : BidiDirection::rightToLeft;
}

} // namespace vellum
