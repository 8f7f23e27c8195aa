#include "Vellum/Terminal.h"

#include <algorithm>

#include "Platform/Unicode.h"

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
    void unhook() override { terminal.sendResponse(statusStringReply(terminal.statusStringPayload(request), terminal.cc)); }

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

// Consumes a DCS that we do not act on (sixel and the like) so it never prints.
class IgnoredDcsHandler final : public DcsHandler {
public:
    void hook(std::span<const uint8_t>, CsiParameters, uint8_t) override {}
    void put(std::span<const uint8_t>) override {}
    void unhook() override {}
};

void TerminalDelegate::setForegroundColor(Terminal& source, Color color) { source.foregroundColor = color; }
void TerminalDelegate::setBackgroundColor(Terminal& source, Color color) { source.backgroundColor = color; }
void TerminalDelegate::setCursorColor(Terminal& source, std::optional<Color> color) { source.cursorColor = color; }

Terminal::Terminal(TerminalDelegate* delegate, TerminalOptions options)
    : delegate(delegate), options_(std::move(options)), cols_(std::max(options_.cols, 2)), rows_(std::max(options_.rows, 1)),
      cellArena(std::make_shared<CellArena>()) {
    cursorStyle = options_.cursorStyle;
    parser.maximumOscBytes = options_.maximumOscBytes;
    normalBuffer = std::make_unique<Buffer>(cols_, rows_, options_.scrollback, cellArena, options_.tabStopWidth);
    altBuffer = std::make_unique<Buffer>(cols_, rows_, 0, cellArena, options_.tabStopWidth);
    buffer_ = normalBuffer.get();
    ansiColors = buildAnsiPalette(Color::defaultInstalledColors(), options_.ansi256PaletteStrategy, foregroundColor, backgroundColor);
    setup(false);
}

void Terminal::setup(bool isReset) {
    if (isReset) {
        activateNormalBuffer(true);
        normalBuffer->clearScrollback();
    }
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

void Terminal::resize(int cols, int rows) {
    cols = std::max(cols, 2);
    rows = std::max(rows, 1);
    if (cols == cols_ && rows == rows_) return;
    normalBuffer->resize(cols, rows, currentEraseBlankCell);
    altBuffer->resize(cols, rows, currentEraseBlankCell);
    cols_ = cols;
    rows_ = rows;
    if (delegate) delegate->sizeChanged(*this);
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
    default: break;
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
        case '7': saveCursor(); break;
        case '8': restoreCursor(); break;
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
        default: break;
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
        if (first == ' ' && code == 'F') cc = CC::sevenBit;
        if (first == ' ' && code == 'G') cc = CC::eightBit;
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
        line.replacePackedCells(x, cols_, currentEraseBlankCell);
        if (b.y + 1 < rows_) b.row(b.y + 1).setWrapped(false);
        break;
    case 1: line.replacePackedCells(0, x + 1, currentEraseBlankCell); break;
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
        if (collect.empty() && b.x <= b.rightBound() && b.x >= b.leftBound())
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
    case 'S': if (collect.empty()) for (int i = 0; i < std::min(n, rows_); ++i) b.scroll(currentEraseBlankCell, false); break;
    case 'T':
        if (collect.empty()) b.insertLines(b.scrollTop, std::min(n, rows_), currentEraseBlankCell);
        break;
    case 'X': b.row(b.y).replacePackedCells(std::min(b.x, cols_ - 1), std::min(b.x + n, cols_), currentEraseBlankCell); break;
    case 'Z': for (int i = 0; i < n; ++i) b.x = b.tabStops.previous(b.x); break;
    case 'b':
        for (int i = 0; i < std::min(n, 65535) && previousScalar; ++i) printScalar(previousScalar);
        break;
    case 'c':
        if (collectIs(collect, ">")) {
            if (rawParam(pars, 0) == 0) sendResponse(secondaryDeviceAttributesReply(cc));
        } else if (collect.empty() && rawParam(pars, 0) == 0) {
            if (auto reply = primaryDeviceAttributesReply(options_.termName, options_.enableSixelReported, cc)) sendResponse(*reply);
        }
        break;
    case 'd': setCursor(b.x, n - 1); break;
    case 'e': setCursor(b.x, b.y + n - (originMode ? b.scrollTop : 0)); break;
    case 'a': setCursor(b.x + n - (originMode && b.marginMode ? b.marginLeft : 0), originMode ? b.y - b.scrollTop : b.y); break;
    case 'g':
        if (rawParam(pars, 0) == 0) b.tabStops.clear(b.x);
        else if (rawParam(pars, 0) == 3) b.tabStops.clearAll();
        break;
    case 'h': setModes(pars, question, true); break;
    case 'l': setModes(pars, question, false); break;
    case 'm': if (collect.empty()) selectGraphicRendition(pars); break;
    case 'n': deviceStatus(pars, question); break;
    case 'p':
        if (collectIs(collect, "!")) softReset();
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
    case 'r': if (collect.empty()) setScrollRegion(pars); break;
    case 's':
        if (collect.empty()) {
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
    case 't': windowOptions(pars); break;
    case 'u': if (collect.empty()) restoreCursor(); break;
    default: break;
    }
}

void Terminal::softReset() {
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

// ---- Modes

void Terminal::setModes(CsiParameters pars, bool privateMode, bool value) {
    for (int i = 0; i < pars.size(); ++i) {
        int mode = static_cast<int>(pars[i]);
        if (privateMode) {
            setPrivateMode(mode, value);
        } else if (mode == 4) {
            normalBuffer->insertMode = altBuffer->insertMode = value;
        } else if (mode == 20) {
            lineFeedMode = value;
        }
    }
}

void Terminal::setPrivateMode(int mode, bool value) {
    Buffer& b = *buffer_;
    switch (mode) {
    case 1: applicationCursor = value; break;
    case 2: if (value) { gCharsets = {}; charset = nullptr; } break;
    case 5: reverseColors = value; break;
    case 6: originMode = value; break;
    case 7: normalBuffer->wraparound = altBuffer->wraparound = value; break;
    case 9: mouseMode = value ? 1 : 0; if (delegate) delegate->mouseModeChanged(*this); break;
    case 12: cursorBlink = value; break;
    case 25:
        cursorHidden = !value;
        if (delegate) value ? delegate->showCursor(*this) : delegate->hideCursor(*this);
        break;
    case 45: reverseWraparound = value && b.wraparound; break;
    case 47: value ? activateAltBuffer() : activateNormalBuffer(false); break;
    case 66: applicationKeypad = value; break;
    case 69:
        normalBuffer->marginMode = altBuffer->marginMode = value;
        if (!value) { b.marginLeft = 0; b.marginRight = cols_ - 1; }
        break;
    case 1000: mouseMode = value ? 2 : 0; if (delegate) delegate->mouseModeChanged(*this); break;
    case 1002: mouseMode = value ? 3 : 0; if (delegate) delegate->mouseModeChanged(*this); break;
    case 1003: mouseMode = value ? 4 : 0; if (delegate) delegate->mouseModeChanged(*this); break;
    case 1004: sendFocus = value; break;
    case 1005: mouseProtocol = value ? 1 : 0; break;
    case 1006: mouseProtocol = value ? 2 : 0; break;
    case 1015: mouseProtocol = value ? 3 : 0; break;
    case 1016: mouseProtocol = value ? 4 : 0; break;
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
    case 2004: bracketedPasteMode = value; break;
    default: break;
    }
}

std::optional<bool> Terminal::privateModeValue(int mode) const {
    const Buffer& b = *buffer_;
    switch (mode) {
    case 1: return applicationCursor;
    case 5: return reverseColors;
    case 6: return originMode;
    case 7: return b.wraparound;
    case 9: return mouseMode == 1;
    case 12: return cursorBlink;
    case 25: return !cursorHidden;
    case 45: return reverseWraparound;
    case 47: case 1047: case 1049: return buffer_ == altBuffer.get();
    case 66: return applicationKeypad;
    case 69: return b.marginMode;
    case 1000: return mouseMode == 2;
    case 1002: return mouseMode == 3;
    case 1003: return mouseMode == 4;
    case 1004: return sendFocus;
    case 1005: return mouseProtocol == 1;
    case 1006: return mouseProtocol == 2;
    case 1015: return mouseProtocol == 3;
    case 1016: return mouseProtocol == 4;
    case 2004: return bracketedPasteMode;
    default: return std::nullopt;
    }
}

void Terminal::requestMode(CsiParameters pars, bool privateMode) {
    if (pars.size() == 0 || (pars.size() == 1 && pars[0] == 0 && false)) {
        sendResponse(modeReport(privateMode, std::nullopt, ModeReportValue::notRecognized, cc));
        return;
    }
    int mode = static_cast<int>(pars[0]);
    ModeReportValue value = ModeReportValue::notRecognized;
    auto fromBool = [](bool on) { return on ? ModeReportValue::set : ModeReportValue::reset; };
    if (privateMode) {
        if (mode == 117) value = ModeReportValue::permanentlyReset;
        else if (mode == 2027) value = ModeReportValue::permanentlySet;
        else if (mode == 3) value = fromBool(cols_ == 132);
        else if (auto on = privateModeValue(mode)) value = fromBool(*on);
    } else {
        switch (mode) {
        case 2: case 8: case 18: case 19: value = ModeReportValue::set; break;
        case 4: value = fromBool(buffer_->insertMode); break;
        case 20: value = fromBool(lineFeedMode); break;
        case 10: case 42: case 44: case 46: case 67: case 80: value = ModeReportValue::permanentlyReset; break;
        case 13: case 14: case 30: case 41: case 1001: value = ModeReportValue::reset; break;
        default: break;
        }
    }
    sendResponse(modeReport(privateMode, mode, value, cc));
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
    if (p == 6) {
        sendResponse(csi + "?" + std::to_string(row) + ";" + std::to_string(col) + ";1R");
        return;
    }
    if (p == 996) {
        bool dark = (foregroundColor.red + foregroundColor.green + foregroundColor.blue) >
                    (backgroundColor.red + backgroundColor.green + backgroundColor.blue);
        sendResponse(csi + (dark ? "?997;1n" : "?997;2n"));
        return;
    }
    if (auto reply = privateDeviceStatusReply(p, rawParam(pars, 1), cc)) sendResponse(*reply);
}

void Terminal::windowOptions(CsiParameters pars) {
    std::string csi(csiIntroducer(cc));
    switch (rawParam(pars, 0)) {
    case 18: sendResponse(csi + "8;" + std::to_string(rows_) + ";" + std::to_string(cols_) + "t"); break;
    case 22:
        if (terminalTitleStack.size() < 10) terminalTitleStack.push_back(terminalTitle);
        if (iconTitleStack.size() < 10) iconTitleStack.push_back(iconTitle);
        break;
    case 23:
        if (!terminalTitleStack.empty()) {
            terminalTitle = terminalTitleStack.back();
            terminalTitleStack.pop_back();
            if (delegate) delegate->setTerminalTitle(*this, terminalTitle);
        }
        if (!iconTitleStack.empty()) {
            iconTitle = iconTitleStack.back();
            iconTitleStack.pop_back();
        }
        break;
    default: break;
    }
}

void Terminal::activateAltBuffer() {
    if (buffer_ == altBuffer.get()) return;
    altBuffer->x = normalBuffer->x;
    altBuffer->y = normalBuffer->y;
    altBuffer->fillViewport(currentEraseBlankCell);
    buffer_ = altBuffer.get();
    if (cursorHidden) cursorHidden = false;
    if (delegate) delegate->bufferActivated(*this);
}

void Terminal::activateNormalBuffer(bool clearAlt) {
    if (buffer_ == normalBuffer.get()) return;
    normalBuffer->x = altBuffer->x;
    normalBuffer->y = altBuffer->y;
    if (clearAlt) altBuffer->fillViewport(currentEraseBlankCell);
    buffer_ = normalBuffer.get();
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
    if (collectIs(collect, "$") && code == 'q') return std::make_unique<DecrqssHandler>(*this);
    if (collectIs(collect, "+") && code == 'q') return std::make_unique<XtgettcapHandler>(*this);
    return std::make_unique<IgnoredDcsHandler>();
}

void Terminal::setForegroundColor(Color color) {
    foregroundColor = color;
    if (delegate && !settingFgColor) {
        settingFgColor = true;
        delegate->setForegroundColor(*this, color);
        settingFgColor = false;
    }
    if (options_.ansi256PaletteStrategy != Ansi256PaletteStrategy::xterm)
        ansiColors = buildAnsiPalette(Color::defaultInstalledColors(), options_.ansi256PaletteStrategy, foregroundColor, backgroundColor);
}

void Terminal::setBackgroundColor(Color color) {
    backgroundColor = color;
    if (delegate && !settingBgColor) {
        settingBgColor = true;
        delegate->setBackgroundColor(*this, color);
        settingBgColor = false;
    }
    if (options_.ansi256PaletteStrategy != Ansi256PaletteStrategy::xterm)
        ansiColors = buildAnsiPalette(Color::defaultInstalledColors(), options_.ansi256PaletteStrategy, foregroundColor, backgroundColor);
}

void Terminal::setCursorColorValue(std::optional<Color> color) {
    cursorColor = color;
    if (delegate && !settingCursorColor) {
        settingCursorColor = true;
        delegate->setCursorColor(*this, color);
        settingCursorColor = false;
    }
}

void Terminal::dispatchOsc(int64_t code, std::span<const uint8_t> data, uint8_t terminator) {
    if (parser.handleCustomOsc(code, data)) return;
    std::string text(data.begin(), data.end());
    std::string osc(oscIntroducer(cc)), st = terminator == 0x07 ? std::string("\x07") : std::string(stringTerminator(cc));
    switch (code) {
    case 0: case 1: case 2: {
        std::u32string decoded = unicode::decodeUtf8(text);
        if (decoded.find(U'\uFFFD') != std::u32string::npos && text.find("\xEF\xBF\xBD") == std::string::npos) text.clear();
        if (code != 1) {
            terminalTitle = text;
            if (delegate) delegate->setTerminalTitle(*this, text);
        }
        if (code != 2) {
            iconTitle = text;
            if (delegate) delegate->setTerminalIconTitle(*this, text);
        }
        break;
    }
    case 10: case 11: case 12: {
        int which = static_cast<int>(code) - 10;
        size_t start = 0;
        while (start <= text.size() && which <= 2) {
            size_t end = text.find(';', start);
            if (end == std::string::npos) end = text.size();
            std::string spec = text.substr(start, end - start);
            if (spec == "?") {
                Color value = which == 0 ? foregroundColor : which == 1 ? backgroundColor : cursorColor.value_or(foregroundColor);
                sendResponse(osc + std::to_string(10 + which) + ";" + value.formatAsXcolor() + st);
            } else if (auto color = Color::parseColor(spec)) {
                if (which == 0) setForegroundColor(*color);
                else if (which == 1) setBackgroundColor(*color);
                else setCursorColorValue(*color);
            }
            ++which;
            start = end + 1;
        }
        break;
    }
    case 4: {
        size_t start = 0;
        while (start < text.size()) {
            size_t semi = text.find(';', start);
            if (semi == std::string::npos) break;
            std::string indexText = text.substr(start, semi - start);
            if (indexText.empty() || indexText.size() > 3 || indexText.find_first_not_of("0123456789") != std::string::npos) break;
            int index = std::stoi(indexText);
            if (index > 255) break;
            size_t end = text.find(';', semi + 1);
            if (end == std::string::npos) end = text.size();
            std::string spec = text.substr(semi + 1, end - semi - 1);
            if (spec == "?") {
                sendResponse(osc + "4;" + std::to_string(index) + ";" + ansiColors[static_cast<size_t>(index)].formatAsXcolor() + st);
            } else if (auto color = Color::parseColor(spec)) {
                ansiColors[static_cast<size_t>(index)] = *color;
                if (delegate) delegate->colorChanged(*this, index);
            }
            start = end + 1;
        }
        break;
    }
    case 112: setCursorColorValue(std::nullopt); break;
    default: break;
    }
}

void Terminal::dispatchApc(uint8_t, std::span<const uint8_t>) {}

} // namespace vellum
