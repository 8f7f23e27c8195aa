#include "Vellum/Terminal.h"

#include <algorithm>

#include "Platform/Unicode.h"
#include "Vellum/Diagnostics.h"
#include "Vellum/TerminalParameters.h"

namespace vellum {

namespace unicode = platform::unicode;

namespace {

int param(CsiParameters pars, int i, int fallback) {
    if (i >= pars.size() || pars[i] == 0) return fallback;
    return static_cast<int>(pars[i]);
}

int rawParam(CsiParameters pars, int i) { return i < pars.size() ? static_cast<int>(pars[i]) : 0; }

bool collectIs(std::span<const uint8_t> collect, std::string_view text) {
    return collect.size() == text.size() && std::equal(collect.begin(), collect.end(), text.begin());
}

} // namespace

// A DECRQSS request: the payload is gathered and answered at the end of the string.
class DecrqssHandler final : public DcsHandler {
public:
    explicit DecrqssHandler(Terminal& terminal) : terminal(terminal) {}
    void hook(std::span<const uint8_t>, CsiParameters, uint8_t) override {}
    void put(std::span<const uint8_t> data) override {
        if (request.size() + data.size() <= 64) request.append(data.begin(), data.end());
    }
    void unhook() override {
        auto payload = terminal.statusStringPayload(request);
        if (!payload) terminal.log("Unknown DCS + " + request);
        terminal.sendResponse(statusStringReply(payload, terminal.cc));
    }

private:
    Terminal& terminal;
    std::string request;
};

// XTGETTCAP: hex names separated by ";", answered from the terminfo table.
class XtgettcapHandler final : public DcsHandler {
public:
    static constexpr size_t limit = 0x100000;
    explicit XtgettcapHandler(Terminal& terminal) : terminal(terminal) {}
    void hook(std::span<const uint8_t>, CsiParameters, uint8_t) override {}
    void put(std::span<const uint8_t> data) override {
        if (request.size() + data.size() > limit) overflowed = true;
        if (!overflowed) request.append(data.begin(), data.end());
    }
    void unhook() override {
        if (overflowed) return;
        std::string reply = terminfoCapabilityReplies(request, terminal.options_.termName, terminal.cc);
        if (!reply.empty()) terminal.sendResponse(reply);
    }

private:
    Terminal& terminal;
    std::string request;
    bool overflowed = false;
};

std::unique_ptr<DcsHandler> makeSixelDcsHandler();

void TerminalDelegate::setForegroundColor(Terminal& source, Color color) { source.foregroundColor = color; }
void TerminalDelegate::setBackgroundColor(Terminal& source, Color color) { source.backgroundColor = color; }
void TerminalDelegate::setCursorColor(Terminal& source, std::optional<Color> color) { source.cursorColor = color; }
std::pair<Color, Color> TerminalDelegate::getColors(Terminal& source) {
    return {source.foregroundColor, source.backgroundColor};
}
std::set<uint8_t> TerminalDelegate::standardPasteControlBytes() {
    // C0 controls other than tab, line feed and carriage return, and DEL. Pasted text is UTF-8,
    // so bytes from 0x80 on are parts of characters, not C1 controls.
    std::set<uint8_t> bytes;
    for (int b = 0; b < 0x20; ++b)
        if (b != '\t' && b != '\n' && b != '\r') bytes.insert(static_cast<uint8_t>(b));
    bytes.insert(0x7f);
    return bytes;
}

bool TerminalDelegate::kittyClipboardSendPasteEvent(Terminal& source, std::span<const uint8_t> data) {
    send(source, data);
    return true;
}

Terminal::Terminal(TerminalDelegate* delegate, TerminalOptions options)
    : delegate(delegate), options_(std::move(options)), cols_(std::max(options_.cols, 2)), rows_(std::max(options_.rows, 1)),
      cellArena(std::make_shared<CellArena>()) {
    cursorStyle = options_.cursorStyle;
    parser.maximumOscBytes = options_.maximumOscBytes;
    normalBuffer = std::make_unique<Buffer>(cols_, rows_, options_.scrollback, cellArena, options_.tabStopWidth);
    altBuffer = std::make_unique<Buffer>(cols_, rows_, 0, cellArena, options_.tabStopWidth);
    buffer_ = normalBuffer.get();
    ansiColors = buildAnsiPalette(Color::defaultInstalledColors(), options_.ansi256PaletteStrategy, foregroundColor, backgroundColor);
    defaultAnsiColors = ansiColors;
    setup(false);
}

Terminal::~Terminal() { TinyAtom::release(payloadCodes); }

void Terminal::log(std::string_view message) const {
    if (!silentLogging) diagnostic(message);
}

void Terminal::setup(bool isReset) {
    if (isReset) {
        programStatusStore.clearAll();
        activateNormalBuffer(true);
        normalBuffer->clearScrollback();
        resetSemanticPromptState();
        savedPrivateModes.clear();
    }
    if (reverseColors && delegate) delegate->colorChanged(*this, std::nullopt);
    alternateScrollMode = true;
    endSynchronizedOutput();
    colorSchemeUpdatesEnabled = visibilityReportsEnabled = inBandSizeReportsEnabled = kittyPasteEventsEnabled = false;
    keyboardFlagStacks = {};
    conformance = 4;
    allow80To132 = noClearOnColumnChange = false;
    titleModeSetHex = titleModeQueryHex = titleModeSetUtf8 = titleModeQueryUtf8 = false;
    pendingHyperlink.reset();
    activeHyperlinkCode = 0;
    bidiState = options_.initialBidiState;
    bidiArrowKeySwap = options_.initialBidiArrowKeySwap;
    cursorHidden = false;
    applicationKeypad = applicationCursor = reverseColors = originMode = false;
    bracketedPasteMode = reverseWraparound = false;
    for (Buffer* b : {normalBuffer.get(), altBuffer.get()}) {
        b->insertMode = b->marginMode = false;
        b->wraparound = true;
        b->resetRegion();
        b->savedX = b->savedY = 0;
        b->savedAttr = Attribute::empty;
        b->savedCharset = nullptr;
        b->tabStops.setup(cols_, options_.tabStopWidth);
    }
    gCharsets = {};
    charset = nullptr;
    gLevel = 0;
    curAttr = Attribute::empty;
    curStyleID = 0;
    updateEraseWords();
    mouseMode = 0;
    mouseProtocol = 0;
    cc = CC::sevenBit;
    cursorBlink = false;
    lineFeedMode = options_.convertEol;
    readingBuffer.clear();
    previousScalar = 0;
    if (isReset) {
        normalBuffer->fillViewport(currentEraseBlankCell);
        normalBuffer->x = normalBuffer->y = 0;
        terminalTitleStack.clear();
        iconTitleStack.clear();
    }
}

void Terminal::feed(std::span<const uint8_t> bytes) { parser.parseBorrowed(bytes, *this); }

void Terminal::feed(std::string_view text) {
    feed(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

void Terminal::sendResponse(std::string_view bytes) {
    if (delegate) delegate->send(*this, std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
}

void Terminal::setScrollback(int rows) {
    options_.scrollback = std::max(rows, 0);
    normalBuffer->setScrollback(options_.scrollback);
}

void Terminal::resize(int cols, int rows) {
    cols = std::max(cols, 2);
    rows = std::max(rows, 1);
    if (cols == cols_ && rows == rows_) return;
    normalBuffer->resize(cols, rows, currentEraseBlankCell);
    altBuffer->resize(cols, rows, currentEraseBlankCell);
    cols_ = cols;
    rows_ = rows;
    if (delegate) delegate->sizeChanged(*this);
    if (inBandSizeReportsEnabled) reportInBandSizeIfAvailable();
}

std::string Terminal::lineText(int screenRow) {
    if (screenRow < 0 || screenRow >= rows_) return {};
    return buffer_->row(screenRow).translateToString(true, 0, -1, true);
}

CharData Terminal::getCharData(int col, int row) { return buffer_->row(row)[col]; }

void Terminal::updateEraseWords() {
    curStyleID = cellArena->intern(curAttr).value_or(0);
    updateEraseBlank();
}

PackedCell Terminal::eraseSpaceCell() {
    Attribute erase = Attribute::empty;
    erase.bg = curAttr.bg;
    return cellArena->pack(erase, U" ", 0).value_or(PackedCell::make(PackedCell::scalarTag, 32, 0, 0, false, 0, 0));
}

// Erased cells keep only the background, which an empty cell carries inline: no style is
// interned for it, so a colour change costs nothing here.
void Terminal::updateEraseBlank() {
    Attribute erase = Attribute::empty;
    erase.bg = curAttr.bg;
    currentEraseBlankCell = cellArena->pack(erase, std::u32string_view(U"\0", 1), 0).value_or(PackedCell{});
}

// ---- C0 and ESC

void Terminal::dispatchExecute(uint8_t code) {
    switch (code) {
    case 0x07: if (delegate) delegate->bell(*this); break;
    case 0x08: backspace(); break;
    case 0x09: tab(1); break;
    case 0x0a: case 0x0b: case 0x0c: lineFeed(); break;
    case 0x0d: carriageReturn(); break;
    case 0x0e: setgLevel(1); break;
    case 0x0f: setgLevel(0); break;
    case 0x84: index(); break;
    case 0x85: carriageReturn(); index(); break;
    case 0x88: buffer_->tabStops.set(buffer_->x); break;
    case 0x8d: reverseIndex(); break;
    default: log("Vellum: Unknown EXECUTE code"); break;
    }
}

void Terminal::lineFeed() {
    Buffer& b = *buffer_;
    bool outsideMargins = b.marginMode && (b.x < b.marginLeft || b.x > b.marginRight);
    if (b.y == b.scrollBottom) {
        if (!outsideMargins) b.scroll(currentEraseBlankCell, false);
    } else if (b.y < rows_ - 1) {
        ++b.y;
        b.row(b.y).setWrapped(false);
    }
    if (b.x >= cols_) --b.x;
    if (lineFeedMode) b.x = originMode && b.marginMode ? b.marginLeft : 0;
    previousScalar = 0;
}

void Terminal::index() {
    Buffer& b = *buffer_;
    if (b.y == b.scrollBottom) b.scroll(currentEraseBlankCell, false);
    else if (b.y < rows_ - 1) ++b.y;
    if (b.x >= cols_) --b.x;
}

void Terminal::reverseIndex() {
    Buffer& b = *buffer_;
    if (b.y == b.scrollTop) b.insertLines(b.scrollTop, 1, currentEraseBlankCell);
    else if (b.y > 0) --b.y;
}

void Terminal::carriageReturn() {
    Buffer& b = *buffer_;
    b.x = b.marginMode && b.x >= b.marginLeft ? b.marginLeft : 0;
    previousScalar = 0;
}

void Terminal::backspace() {
    Buffer& b = *buffer_;
    restrictCursor(!reverseWraparound);
    int left = b.marginMode ? b.marginLeft : 0;
    if (b.x > left) {
        --b.x;
    } else if (reverseWraparound && b.x == left) {
        if (b.y > b.scrollTop && b.y <= b.scrollBottom) {
            b.row(b.y).setWrapped(false);
            --b.y;
            b.x = b.rightBound();
        } else if (b.y == b.scrollTop) {
            b.y = b.scrollBottom;
            b.x = b.rightBound();
        }
    }
    previousScalar = 0;
}

void Terminal::tab(int count) {
    Buffer& b = *buffer_;
    restrictCursor();
    for (int i = 0; i < count; ++i) b.x = b.tabStops.next(b.x, b.marginMode ? b.marginRight : cols_ - 1);
    previousScalar = 0;
}

void Terminal::setgLevel(int level) {
    gLevel = level;
    charset = gCharsets[static_cast<size_t>(level)];
}

void Terminal::dispatchEsc(std::span<const uint8_t> collect, uint8_t code) {
    Buffer& b = *buffer_;
    if (collect.empty()) {
        switch (code) {
        case '6': columnScroll(true); break;
        case '7': saveCursor(); break;
        case '8': restoreCursor(); break;
        case '9': columnScroll(false); break;
        case '=': applicationKeypad = true; break;
        case '>': applicationKeypad = false; break;
        case 'D': index(); break;
        case 'E': b.x = originMode && b.marginMode ? b.marginLeft : 0; index(); break;
        case 'H': b.tabStops.set(b.x); break;
        case 'M': reverseIndex(); break;
        case 'c': parser.reset(*this); setup(true); break;
        case 'n': case '}': setgLevel(2); break;
        case 'o': case '|': setgLevel(3); break;
        case '~': setgLevel(1); break;
        case '\\': break;
        default: unknownEsc(collect, code); break;
        }
        return;
    }
    uint8_t first = collect[0];
    if (collect.size() == 1) {
        int slot = -1;
        switch (first) {
        case '(': slot = 0; break;
        case ')': case '-': slot = 1; break;
        case '*': case '.': slot = 2; break;
        case '+': case '/': slot = 3; break;
        default: break;
        }
        if (slot >= 0) {
            if (const Charset* set = charsetForDesignator(code)) {
                gCharsets[static_cast<size_t>(slot)] = code == 'B' ? nullptr : set;
                if (slot == gLevel) charset = gCharsets[static_cast<size_t>(slot)];
            }
            return;
        }
        if (first == '#' && code >= '3' && code <= '6') {
            using Mode = BufferLine::RenderLineMode;
            static constexpr Mode modes[] = {Mode::doubledTop, Mode::doubledDown, Mode::single, Mode::doubleWidth};
            b.row(b.y).setRenderMode(modes[code - '3']);
            return;
        }
        if (first == '#' && code == '8') {
            auto e = cellArena->pack(curStyleID, U"E", 0);
            for (int r = 0; r < rows_; ++r) b.row(r).fill(e.value_or(currentEraseBlankCell));
            b.x = b.y = 0;
            return;
        }
        if (first == '%' && (code == '@' || code == 'G')) {
            setgLevel(0);
            gCharsets[0] = nullptr;
            charset = nullptr;
            return;
        }
        if (first == ' ' && (code == 'F' || code == 'G')) {
            cc = code == 'F' ? CC::sevenBit : CC::eightBit;
            return;
        }
    }
    unknownEsc(collect, code);
}

void Terminal::unknownEsc(std::span<const uint8_t> collect, uint8_t code) {
    log("Vellum: Unknown ESC Code: ESC + " + std::string(1, static_cast<char>(code)) + " txt=[" + sequence::describe(collect) + "]");
}

void Terminal::setTitleModes(CsiParameters pars, bool value) {
    for (int64_t mode : pars) {
        switch (mode) {
        case 0: titleModeSetHex = value; break;
        case 1: titleModeQueryHex = value; break;
        case 2: titleModeSetUtf8 = value; break;
        case 3: titleModeQueryUtf8 = value; break;
        default: break;
        }
    }
}

// ---- Cursor

void Terminal::restrictCursor(bool noPendingWrap) {
    Buffer& b = *buffer_;
    b.x = std::clamp(b.x, 0, noPendingWrap ? cols_ - 1 : cols_);
    if (originMode) b.y = std::clamp(b.y, b.scrollTop, b.scrollBottom);
    else b.y = std::clamp(b.y, 0, rows_ - 1);
}

void Terminal::setCursor(int col, int row) {
    Buffer& b = *buffer_;
    if (originMode) {
        row += b.scrollTop;
        if (b.marginMode) col += b.marginLeft;
    }
    b.x = col;
    b.y = row;
    restrictCursor();
    previousScalar = 0;
}

void Terminal::saveCursor() {
    Buffer& b = *buffer_;
    b.savedX = b.x;
    b.savedY = b.y;
    b.savedAttr = curAttr;
    b.savedCharset = charset;
    b.savedWraparound = b.wraparound;
    b.savedOriginMode = originMode;
    b.savedMarginMode = b.marginMode;
    b.savedReverseWraparound = reverseWraparound;
}

void Terminal::restoreCursor() {
    Buffer& b = *buffer_;
    b.x = std::min(b.savedX, cols_ - 1);
    b.y = std::min(b.savedY, rows_ - 1);
    curAttr = b.savedAttr;
    updateEraseWords();
    charset = b.savedCharset;
    originMode = b.savedOriginMode;
    for (Buffer* each : {normalBuffer.get(), altBuffer.get()}) {
        each->marginMode = b.savedMarginMode;
        each->wraparound = b.savedWraparound;
    }
    reverseWraparound = b.savedReverseWraparound;
    previousScalar = 0;
}

// ---- Erasing

void Terminal::eraseInDisplay(int mode) {
    Buffer& b = *buffer_;
    PackedCell blankCell = currentEraseBlankCell;
    switch (mode) {
    case 0:
        eraseInLine(0);
        for (int r = b.y + 1; r < rows_; ++r) {
            b.row(r).fill(blankCell);
            b.row(r).setWrapped(false);
        }
        break;
    case 1:
        eraseInLine(1);
        for (int r = 0; r < b.y; ++r) {
            b.row(r).fill(blankCell);
            b.row(r).setWrapped(false);
        }
        break;
    case 2: b.fillViewport(blankCell); break;
    case 3: b.clearScrollback(); break;
    default: break;
    }
}

void Terminal::eraseInLine(int mode) {
    Buffer& b = *buffer_;
    BufferLine& line = b.row(b.y);
    int x = std::min(b.x, cols_ - 1);
    switch (mode) {
    case 0:
        line.erasePackedCells(x, cols_, currentEraseBlankCell);
        if (b.y + 1 < rows_) b.row(b.y + 1).setWrapped(false);
        break;
    case 1: line.erasePackedCells(0, x + 1, currentEraseBlankCell); break;
    case 2: line.replacePackedCells(0, cols_, currentEraseBlankCell); break;
    default: break;
    }
}

// ---- CSI

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

void Terminal::dispatchCsi(uint8_t code, CsiParameters pars, std::span<const uint8_t> collect) {
    Buffer& b = *buffer_;
    int n = param(pars, 0, 1);
    bool question = collectIs(collect, "?");
    switch (code) {
    case '@':
        if (b.x <= b.rightBound() && b.x >= b.leftBound())
            b.row(b.y).insertPackedCells(std::min(b.x, cols_ - 1), n, b.rightBound(), currentEraseBlankCell);
        break;
    case 'A': b.y = std::max(b.y - n, b.y >= b.scrollTop ? b.scrollTop : 0); restrictCursor(); break;
    case 'B':
        b.y = std::min(b.y + n, b.y <= b.scrollBottom ? b.scrollBottom : rows_ - 1);
        if (b.x >= cols_) --b.x;
        break;
    case 'C': {
        int limit = b.marginMode && b.x > b.marginRight ? cols_ - 1 : b.rightBound();
        b.x = std::min(b.x + n, limit);
        break;
    }
    case 'D': {
        restrictCursor();
        int limit = b.x < b.leftBound() ? 0 : b.leftBound();
        b.x = std::max(b.x - n, limit);
        break;
    }
    case 'E': b.y = std::min(b.y + n, b.y <= b.scrollBottom ? b.scrollBottom : rows_ - 1); b.x = b.leftBound(); break;
    case 'F': b.y = std::max(b.y - n, b.y >= b.scrollTop ? b.scrollTop : 0); b.x = b.leftBound(); break;
    case 'G': case '`': setCursor(n - 1, originMode ? b.y - b.scrollTop : b.y); break;
    case 'H': case 'f': setCursor(param(pars, 1, 1) - 1, n - 1); break;
    case 'I': tab(std::min(n, cols_ - 1)); break;
    case 'J': eraseInDisplay(rawParam(pars, 0)); break;
    case 'K': eraseInLine(rawParam(pars, 0)); break;
    case 'L': if (b.y >= b.scrollTop && b.y <= b.scrollBottom) { b.insertLines(b.y, n, currentEraseBlankCell); b.x = b.leftBound(); } break;
    case 'M': if (b.y >= b.scrollTop && b.y <= b.scrollBottom) { b.deleteLines(b.y, n, currentEraseBlankCell); b.x = b.leftBound(); } break;
    case 'P': b.row(b.y).deletePackedCells(std::min(b.x, cols_ - 1), n, b.rightBound(), currentEraseBlankCell); break;
    case 'S':
        if (collectIs(collect, " ")) {
            int direction = rawParam(pars, 0);
            if (direction == 0 || direction == 3)
                bidiState.fallbackDirection = direction == 0 ? BidiDirection::leftToRight : BidiDirection::rightToLeft;
            break;
        }
        for (int i = 0; i < std::min(n, rows_); ++i) b.scroll(currentEraseBlankCell, false);
        break;
    case 'T':
        if (collect.empty()) b.insertLines(b.scrollTop, std::min(n, rows_), currentEraseBlankCell);
        else if (collectIs(collect, ">")) setTitleModes(pars, false);
        break;
    case 'X': b.row(b.y).erasePackedCells(std::min(b.x, cols_ - 1), std::min(b.x + n, cols_), currentEraseBlankCell); break;
    case 'Z': for (int i = 0; i < n; ++i) b.x = b.tabStops.previous(b.x); break;
    case 'b':
        for (int i = 0; i < std::min(n, 65535) && previousScalar; ++i) printScalar(previousScalar);
        break;
    case 'c': sendDeviceAttributes(pars, collect); break;
    case 'd': setCursor(b.x, n - 1); break;
    case 'e': setCursor(b.x, b.y + n - (originMode ? b.scrollTop : 0)); break;
    case 'a': setCursor(b.x + n - (originMode && b.marginMode ? b.marginLeft : 0), originMode ? b.y - b.scrollTop : b.y); break;
    case 'g':
        if (rawParam(pars, 0) == 0) b.tabStops.clear(b.x);
        else if (rawParam(pars, 0) == 3) b.tabStops.clearAll();
        break;
    case 'h':
    case 'l':
        if (collect.empty() || question) setModes(pars, question, code == 'h');
        else log(std::string(code == 'h' ? "Unhandled setMode (SM) with " : "Unhandled resetMode (RM) with ") + sequence::describe(pars));
        break;
    case 'k':
        if (collectIs(collect, " ")) {
            int path = rawParam(pars, 0);
            if (path == 0) bidiState.fallbackDirection = options_.initialBidiState.fallbackDirection;
            else if (path == 1 || path == 2)
                bidiState.fallbackDirection = path == 1 ? BidiDirection::leftToRight : BidiDirection::rightToLeft;
        } else {
            unknownCsi(code, pars, collect);
        }
        break;
    case 'm': if (collect.empty()) selectGraphicRendition(pars); break;
    case 'n': deviceStatus(pars, question); break;
    case 'p':
        if (collectIs(collect, "!")) softReset();
        else if (collectIs(collect, "\"")) setConformanceLevel(pars);
        else if (collectIs(collect, "$") || collectIs(collect, "?$")) requestMode(pars, collect.size() == 2);
        break;
    case 'q':
        if (collectIs(collect, " ")) {
            int style = rawParam(pars, 0);
            CursorStyle next = cursorStyle;
            if (style == 0) next = options_.cursorStyle;
            else if (style >= 1 && style <= 6) next = static_cast<CursorStyle>(style - 1);
            if (next != cursorStyle) {
                cursorStyle = next;
                if (delegate) delegate->cursorStyleChanged(*this, next);
            }
        } else if (collectIs(collect, ">") && pars.size() == 1 && pars[0] == 0) {
            sendResponse(xtVersionReply(cc));
        }
        break;
    case 'r':
        if (collect.empty()) setScrollRegion(pars);
        else if (question) restorePrivateModes(pars);
        break;
    case 's':
        if (question) {
            savePrivateModes(pars);
        } else if (collectIs(collect, ">")) {
            mouseShiftCapture = rawParam(pars, 0) == 1;
        } else if (collect.empty()) {
            if (b.marginMode) {
                int right = pars.size() > 1 ? std::min(param(pars, 1, cols_), cols_) - 1 : cols_ - 1;
                int left = param(pars, 0, 1) - 1;
                b.marginRight = right;
                b.marginLeft = std::min(right, left);
            } else {
                saveCursor();
            }
        }
        break;
    case 't':
        if (collect.empty()) windowOptions(pars);
        else if (collectIs(collect, ">")) setTitleModes(pars, true);
        break;
    case 'u':
        if (!handleKittyKeyboardProtocol(pars, collect) && collect.empty()) restoreCursor();
        break;
    case 'v': if (collectIs(collect, "$")) copyRectangularArea(pars); break;
    case 'x':
        if (collectIs(collect, "$")) fillRectangularArea(pars);
        else log("Not implemented CSI x with collect: collect=" + sequence::describe(collect));
        break;
    case 'y': if (collectIs(collect, "*")) requestChecksumRectangularArea(pars); break;
    case 'z':
        if (collectIs(collect, "$")) eraseRectangularArea(pars, false);
        else if (collectIs(collect, "'")) log("TODO: Enable Locator Reporting (DECELR)");
        break;
    case '{':
        if (collectIs(collect, "$")) eraseRectangularArea(pars, true);
        else log("CSI # { not implemented - XTPUSHSGR with " + sequence::describe(pars));
        break;
    case '}':
        if (collectIs(collect, "'")) insertColumns(n);
        else log("CSI # } not implemented- XTPOPSGR with " + sequence::describe(pars));
        break;
    case '~': deleteColumns(n); break;
    default: unknownCsi(code, pars, collect); break;
    }
}

void Terminal::softReset() {
    bidiState = options_.initialBidiState;
    bidiArrowKeySwap = options_.initialBidiArrowKeySwap;
    for (int mode : {1243, 2500, 2501}) savedPrivateModes.erase(mode);
    cursorHidden = false;
    originMode = reverseWraparound = applicationKeypad = applicationCursor = false;
    for (Buffer* each : {normalBuffer.get(), altBuffer.get()}) {
        each->insertMode = false;
        each->wraparound = true;
    }
    buffer_->scrollTop = 0;
    buffer_->scrollBottom = rows_ - 1;
    curAttr = Attribute::empty;
    updateEraseWords();
    gCharsets = {};
    charset = nullptr;
    gLevel = 0;
    for (Buffer* each : {normalBuffer.get(), altBuffer.get()}) {
        each->savedX = each->savedY = 0;
        each->savedAttr = Attribute::empty;
        each->savedCharset = nullptr;
    }
}

// ---- SGR

void Terminal::selectGraphicRendition(CsiParameters pars) {
    Attribute before = curAttr;
    Attribute& a = curAttr;
    uint64_t colonMask = parser.parsColonMask();
    auto extendedColor = [&](int& i) -> std::optional<Attribute::Color> {
        bool colon = (colonMask >> i) & 1;
        std::optional<Attribute::Color> result;
        if (colon) {
            int end = i + 1;
            while (end < pars.size() && ((colonMask >> (end - 1)) & 1)) ++end;
            int fields = end - i; // including the 38/48/58
            int kind = fields > 1 ? rawParam(pars, i + 1) : -1;
            auto clamp255 = [&](int index) { return static_cast<uint8_t>(std::min(rawParam(pars, index), 255)); };
            if (kind == 5 && fields >= 3) result = Attribute::Color::ansi256(clamp255(i + 2));
            else if (kind == 2 && fields == 5) result = Attribute::Color::trueColor(clamp255(i + 2), clamp255(i + 3), clamp255(i + 4));
            else if (kind == 2 && fields >= 6) result = Attribute::Color::trueColor(clamp255(i + 3), clamp255(i + 4), clamp255(i + 5));
            i = end - 1;
            return result;
        }
        int kind = rawParam(pars, i + 1);
        if (i + 1 >= pars.size()) return std::nullopt;
        if (kind == 5) {
            if (i + 2 < pars.size()) result = Attribute::Color::ansi256(static_cast<uint8_t>(std::min(rawParam(pars, i + 2), 255)));
            i = std::min(i + 2, pars.size() - 1);
        } else if (kind == 2) {
            if (i + 4 < pars.size())
                result = Attribute::Color::trueColor(static_cast<uint8_t>(std::min(rawParam(pars, i + 2), 255)),
                                                     static_cast<uint8_t>(std::min(rawParam(pars, i + 3), 255)),
                                                     static_cast<uint8_t>(std::min(rawParam(pars, i + 4), 255)));
            i = std::min(i + 4, pars.size() - 1);
        } else {
            i = i + 1;
        }
        return result;
    };
    if (pars.size() == 1 && pars[0] == 0) {
        a = Attribute::empty;
    } else {
        for (int i = 0; i < pars.size(); ++i) {
            int p = static_cast<int>(pars[i]);
            auto setStyle = [&](CharacterStyle s, bool on) { on ? a.style.insert(s) : a.style.remove(s); };
            switch (p) {
            case 0: a = Attribute::empty; break;
            case 1: setStyle(CharacterStyle::bold, true); break;
            case 2: setStyle(CharacterStyle::dim, true); break;
            case 3: setStyle(CharacterStyle::italic, true); break;
            case 4:
                setStyle(CharacterStyle::underline, true);
                a.underlineStyle = UnderlineStyle::single;
                if (((colonMask >> i) & 1) && i + 1 < pars.size()) {
                    int sub = rawParam(pars, ++i);
                    static constexpr UnderlineStyle styles[] = {UnderlineStyle::none, UnderlineStyle::single, UnderlineStyle::double_,
                                                                UnderlineStyle::curly, UnderlineStyle::dotted, UnderlineStyle::dashed};
                    a.underlineStyle = sub >= 0 && sub <= 5 ? styles[sub] : UnderlineStyle::single;
                    if (sub == 0) setStyle(CharacterStyle::underline, false);
                }
                break;
            case 5: setStyle(CharacterStyle::blink, true); break;
            case 7: setStyle(CharacterStyle::inverse, true); break;
            case 8: setStyle(CharacterStyle::invisible, true); break;
            case 9: setStyle(CharacterStyle::crossedOut, true); break;
            case 21: setStyle(CharacterStyle::underline, true); a.underlineStyle = UnderlineStyle::double_; break;
            case 22: setStyle(CharacterStyle::bold, false); setStyle(CharacterStyle::dim, false); break;
            case 23: setStyle(CharacterStyle::italic, false); break;
            case 24: setStyle(CharacterStyle::underline, false); a.underlineStyle = UnderlineStyle::none; break;
            case 25: setStyle(CharacterStyle::blink, false); break;
            case 27: setStyle(CharacterStyle::inverse, false); break;
            case 28: setStyle(CharacterStyle::invisible, false); break;
            case 29: setStyle(CharacterStyle::crossedOut, false); break;
            case 38: if (auto c = extendedColor(i)) a.fg = *c; break;
            case 39: a.fg = Attribute::Color::defaultColor(); break;
            case 48: if (auto c = extendedColor(i)) a.bg = *c; break;
            case 49: a.bg = Attribute::Color::defaultColor(); break;
            case 58: if (auto c = extendedColor(i)) a.underlineColor = *c; break;
            case 59: a.underlineColor.reset(); break;
            default:
                if (p >= 30 && p <= 37) a.fg = Attribute::Color::ansi256(static_cast<uint8_t>(p - 30));
                else if (p >= 40 && p <= 47) a.bg = Attribute::Color::ansi256(static_cast<uint8_t>(p - 40));
                else if (p >= 90 && p <= 97) a.fg = Attribute::Color::ansi256(static_cast<uint8_t>(p - 90 + 8));
                else if (p >= 100 && p <= 107) a.bg = Attribute::Color::ansi256(static_cast<uint8_t>(p - 100 + 8));
                break;
            }
        }
    }
    if (a == before) return;
    curStyleID = cellArena->intern(a).value_or(0);
    if (a.bg != before.bg) updateEraseBlank();
}

void Terminal::activateAltBuffer() {
    if (buffer_ == altBuffer.get()) return;
    altBuffer->x = normalBuffer->x;
    altBuffer->y = normalBuffer->y;
    altBuffer->fillViewport(currentEraseBlankCell);
    buffer_ = altBuffer.get();
    semanticNoteAlternateScreenSwitch(true);
    if (cursorHidden) cursorHidden = false;
    if (delegate) delegate->bufferActivated(*this);
}

void Terminal::activateNormalBuffer(bool clearAlt) {
    if (buffer_ == normalBuffer.get()) return;
    normalBuffer->x = altBuffer->x;
    normalBuffer->y = altBuffer->y;
    if (clearAlt) altBuffer->fillViewport(currentEraseBlankCell);
    buffer_ = normalBuffer.get();
    semanticNoteAlternateScreenSwitch(false);
    if (delegate) delegate->bufferActivated(*this);
}

// ---- DCS, OSC, APC

std::optional<std::string> Terminal::statusStringPayload(std::string_view request) const {
    const Buffer& b = *buffer_;
    if (request == "\"q") return std::string("\"q");
    if (request == "\"p") return std::string("65;1\"p");
    if (request == "r") return std::to_string(b.scrollTop + 1) + ";" + std::to_string(b.scrollBottom + 1) + "r";
    if (request == "m") return curAttr.toSgr();
    if (request == "s") return std::to_string(b.marginLeft + 1) + ";" + std::to_string(b.marginRight + 1) + "s";
    if (request == " q") return std::to_string(static_cast<int>(cursorStyle) + 1) + " q";
    return std::nullopt;
}

std::unique_ptr<DcsHandler> Terminal::dispatchDcs(std::span<const uint8_t> collect, uint8_t code, CsiParameters) {
    if (code != 'q') return nullptr;
    if (collectIs(collect, "$")) return std::make_unique<DecrqssHandler>(*this);
    if (collectIs(collect, "+")) return std::make_unique<XtgettcapHandler>(*this);
    if (collect.empty()) return makeSixelDcsHandler();
    return nullptr;
}

void Terminal::setForegroundColor(Color color) {
    bool wasDark = isDarkColorScheme();
    foregroundColor = color;
    if (delegate && !settingFgColor) {
        settingFgColor = true;
        delegate->setForegroundColor(*this, color);
        settingFgColor = false;
    }
    if (options_.ansi256PaletteStrategy != Ansi256PaletteStrategy::xterm)
        defaultAnsiColors = ansiColors = buildAnsiPalette(Color::defaultInstalledColors(), options_.ansi256PaletteStrategy, foregroundColor, backgroundColor);
    if (colorSchemeUpdatesEnabled && wasDark != isDarkColorScheme()) reportColorScheme();
}

void Terminal::setBackgroundColor(Color color) {
    bool wasDark = isDarkColorScheme();
    backgroundColor = color;
    if (delegate && !settingBgColor) {
        settingBgColor = true;
        delegate->setBackgroundColor(*this, color);
        settingBgColor = false;
    }
    if (options_.ansi256PaletteStrategy != Ansi256PaletteStrategy::xterm)
        defaultAnsiColors = ansiColors = buildAnsiPalette(Color::defaultInstalledColors(), options_.ansi256PaletteStrategy, foregroundColor, backgroundColor);
    if (colorSchemeUpdatesEnabled && wasDark != isDarkColorScheme()) reportColorScheme();
}

void Terminal::setCursorColorValue(std::optional<Color> color) {
    cursorColor = color;
    if (delegate && !settingCursorColor) {
        settingCursorColor = true;
        delegate->setCursorColor(*this, color);
        settingCursorColor = false;
    }
}


} // namespace vellum
