#include "Vellum/Terminal.h"

#include <algorithm>

#include "Platform/Unicode.h"
#include "Vellum/Diagnostics.h"
#include "Vellum/TerminalParameters.h"

namespace vellum {

namespace unicode = platform::unicode;

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
        b->savedProtected = false;
        b->savedCharset = nullptr;
        b->tabStops.setup(cols_, options_.tabStopWidth);
    }
    gCharsets = {};
    charset = nullptr;
    gLevel = 0;
    writablePen() = Attribute::empty;
    curStyleID = 0;
    protectedPen = rectangularAttributeChange = false;
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
    curKey = InternedAttributeKey(pen());
    curStyleID = cellArena->intern(curAttr).value_or(0);
    updateEraseBlank();
}

PackedCell Terminal::eraseSpaceCell() {
    Attribute erase = Attribute::empty;
    erase.bg = pen().bg;
    return cellArena->pack(erase, U" ", 0).value_or(PackedCell::make(PackedCell::scalarTag, 32, 0, 0, false, 0, 0));
}

// The colour codes as updateEraseBlank reads them.
static_assert(Attribute::Color::defaultColor().internCode() == 0 && Attribute::Color::defaultInvertedColor().internCode() == 0x1000000);
static_assert(Attribute::Color::ansi256(7).internCode() == 0x2000007 && Attribute::Color::trueColor(1, 2, 3).internCode() == 0x3010203);

// Erased cells keep only the background, which an empty cell carries inline except for the
// inverted default: no style is interned for the others, so a colour change costs nothing there.
void Terminal::updateEraseBlankInverted() {
    Attribute erase = Attribute::empty;
    erase.bg = Attribute::Color::defaultInvertedColor();
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
    if (b.y == b.scrollBottom) {
        if (cursorInsideMargins()) b.scroll(currentEraseBlankCell, false);
    } else if (b.y < rows_ - 1) {
        ++b.y;
        b.row(b.y).setWrapped(false);
    }
    if (b.x >= cols_) --b.x;
    if (lineFeedMode) b.x = originMode && b.marginMode ? b.marginLeft : 0;
    previousScalar = 0;
}

// A cursor outside the left and right margins moves, but never scrolls the region.
void Terminal::index() {
    Buffer& b = *buffer_;
    if (b.y == b.scrollBottom) {
        if (cursorInsideMargins()) b.scroll(currentEraseBlankCell, false);
    } else if (b.y < rows_ - 1) {
        ++b.y;
    }
    if (b.x >= cols_) --b.x;
}

void Terminal::reverseIndex() {
    Buffer& b = *buffer_;
    if (b.y == b.scrollTop) {
        if (cursorInsideMargins()) b.insertLines(b.scrollTop, 1, currentEraseBlankCell);
    } else if (b.y > 0) {
        --b.y;
    }
}

void Terminal::carriageReturn() {
    Buffer& b = *buffer_;
    b.x = b.marginMode && b.x >= b.marginLeft ? b.marginLeft : 0;
    previousScalar = 0;
}

void Terminal::backspace() {
    Buffer& b = *buffer_;
    restrictCursor(!reverseWraparound);
    int left = b.leftBound();
    // Left of the left margin the cursor still moves, down to the first column.
    if (b.x > left || (b.x < left && b.x > 0)) {
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
        case 'Z': sendDeviceAttributes({}, {}); break;
        case '=': applicationKeypad = true; break;
        case '>': applicationKeypad = false; break;
        case 'D': index(); break;
        case 'E': // NEL: an index then a carriage return, each keeping to the margins as alone
            index();
            carriageReturn();
            break;
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
            b.resetRegion();
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
    b.savedAttr = pen();
    b.savedCharset = charset;
    b.savedWraparound = b.wraparound;
    b.savedOriginMode = originMode;
    b.savedMarginMode = b.marginMode;
    b.savedReverseWraparound = reverseWraparound;
    b.savedProtected = protectedPen;
}

void Terminal::restoreCursor() {
    Buffer& b = *buffer_;
    b.x = std::min(b.savedX, cols_ - 1);
    b.y = std::min(b.savedY, rows_ - 1);
    writablePen() = b.savedAttr;
    updateEraseWords();
    charset = b.savedCharset;
    originMode = b.savedOriginMode;
    for (Buffer* each : {normalBuffer.get(), altBuffer.get()}) {
        each->marginMode = b.savedMarginMode;
        each->wraparound = b.savedWraparound;
    }
    reverseWraparound = b.savedReverseWraparound;
    protectedPen = b.savedProtected;
    previousScalar = 0;
}

// ---- Erasing

// Rows below or above the cursor's row are reset whole; the cursor's row is cut at the cursor.
void Terminal::eraseInDisplay(int mode, bool selective) {
    Buffer& b = *buffer_;
    auto eraseRows = [&](int first, int end) {
        for (int r = first; r < end; ++r) {
            BufferLine& line = b.row(r);
            eraseRow(line, 0, cols_, selective);
            if (!selective) line.setWrapped(false);
        }
    };
    switch (mode) {
    case 0:
        eraseInLine(0, selective);
        eraseRows(b.y + 1, rows_);
        break;
    case 1:
        eraseInLine(1, selective);
        eraseRows(0, b.y);
        break;
    case 2: eraseRows(0, rows_); break;
    case 3: b.clearScrollback(); break;
    default: break;
    }
}

void Terminal::eraseInLine(int mode, bool selective) {
    Buffer& b = *buffer_;
    BufferLine& line = b.row(b.y);
    int x = std::min(b.x, cols_ - 1);
    switch (mode) {
    case 0:
        eraseRow(line, x, cols_, selective);
        if (b.y + 1 < rows_) b.row(b.y + 1).setWrapped(false);
        break;
    case 1: eraseRow(line, 0, x + 1, selective); break;
    case 2: eraseRow(line, 0, cols_, selective); break;
    default: break;
    }
}

// Columns [start, end) become the erase word. A selective erase passes over protected cells.
// Erasing to the end of a row that already ends in the same blank writes only the used part.
void Terminal::eraseRow(BufferLine& line, int start, int end, bool selective) {
    line.repairWideSeam(start);
    line.repairWideSeam(end);
    if (!selective) {
        line.fill(currentEraseBlankCell, start, end - start);
        return;
    }
    for (int c = start; c < end; ++c)
        if (!line.packedCell(c).isProtected()) line.fill(currentEraseBlankCell, c, 1);
}

// ---- CSI

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
    writablePen() = Attribute::empty;
    protectedPen = false;
    updateEraseWords();
    gCharsets = {};
    charset = nullptr;
    gLevel = 0;
    for (Buffer* each : {normalBuffer.get(), altBuffer.get()}) {
        each->savedX = each->savedY = 0;
        each->savedAttr = Attribute::empty;
        each->savedProtected = false;
        each->savedCharset = nullptr;
    }
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
