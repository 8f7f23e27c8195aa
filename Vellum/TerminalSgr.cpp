// Select Graphic Rendition: the parameters of CSI ... m change the pen that printed cells take.
#include "Vellum/Terminal.h"

#include <array>

#include "Vellum/ByteRunScanner.h"

namespace vellum {

namespace {

uint8_t clampedComponent(CsiParameters pars, int i) {
    int64_t value = i < pars.size() ? pars[i] : 0;
    return static_cast<uint8_t>(std::min<int64_t>(value, 255));
}

bool hasSubParameter(uint64_t colonMask, int i) { return (colonMask >> i) & 1; }

// 38, 48 and 58 with what follows them: "5;n" or "2;r;g;b", or the colon forms "5:n", "2:r:g:b"
// and "2:space:r:g:b". `i` is left on the last parameter consumed. Too few values consume what
// there is and give nothing.
std::optional<Attribute::Color> extendedColor(CsiParameters pars, int& i, uint64_t colonMask) {
    if (hasSubParameter(colonMask, i)) {
        int end = i + 1;
        while (end < pars.size() && hasSubParameter(colonMask, end - 1)) ++end;
        int fields = end - i; // the 38, 48 or 58 included
        int64_t kind = fields > 1 ? pars[i + 1] : -1;
        int first = i;
        i = end - 1;
        if (kind == 5 && fields >= 3) return Attribute::Color::ansi256(clampedComponent(pars, first + 2));
        if (kind == 2 && fields == 5)
            return Attribute::Color::trueColor(clampedComponent(pars, first + 2), clampedComponent(pars, first + 3),
                                               clampedComponent(pars, first + 4));
        if (kind == 2 && fields >= 6)
            return Attribute::Color::trueColor(clampedComponent(pars, first + 3), clampedComponent(pars, first + 4),
                                               clampedComponent(pars, first + 5));
        return std::nullopt;
    }
    if (i + 1 >= pars.size()) return std::nullopt;
    int64_t kind = pars[i + 1];
    int first = i;
    if (kind == 5) {
        i = std::min(first + 2, pars.size() - 1);
        if (first + 2 < pars.size()) return Attribute::Color::ansi256(clampedComponent(pars, first + 2));
        return std::nullopt;
    }
    if (kind == 2) {
        i = std::min(first + 4, pars.size() - 1);
        if (first + 4 < pars.size())
            return Attribute::Color::trueColor(clampedComponent(pars, first + 2), clampedComponent(pars, first + 3),
                                               clampedComponent(pars, first + 4));
        return std::nullopt;
    }
    i = first + 1;
    return std::nullopt;
}

UnderlineStyle underlineStyleFor(int64_t sub) {
    static constexpr UnderlineStyle styles[] = {UnderlineStyle::none,  UnderlineStyle::single, UnderlineStyle::double_,
                                                UnderlineStyle::curly, UnderlineStyle::dotted, UnderlineStyle::dashed};
    return sub >= 0 && sub <= 5 ? styles[sub] : UnderlineStyle::single;
}

void setStyle(Attribute& a, CharacterStyle style, bool on) { on ? a.style.insert(style) : a.style.remove(style); }

// One parameter (with what it consumes after it) applied to `a`.
void applyRendition(Attribute& a, CsiParameters pars, int& i, uint64_t colonMask) {
    int64_t p = pars[i];
    switch (p) {
    case 0: a = Attribute::empty; return;
    case 1: setStyle(a, CharacterStyle::bold, true); return;
    case 2: setStyle(a, CharacterStyle::dim, true); return;
    case 3: setStyle(a, CharacterStyle::italic, true); return;
    case 4:
        setStyle(a, CharacterStyle::underline, true);
        a.underlineStyle = UnderlineStyle::single;
        if (hasSubParameter(colonMask, i) && i + 1 < pars.size()) {
            int64_t sub = pars[++i];
            a.underlineStyle = underlineStyleFor(sub);
            if (sub == 0) setStyle(a, CharacterStyle::underline, false);
        }
        return;
    case 5: setStyle(a, CharacterStyle::blink, true); return;
    case 7: setStyle(a, CharacterStyle::inverse, true); return;
    case 8: setStyle(a, CharacterStyle::invisible, true); return;
    case 9: setStyle(a, CharacterStyle::crossedOut, true); return;
    case 21:
        setStyle(a, CharacterStyle::underline, true);
        a.underlineStyle = UnderlineStyle::double_;
        return;
    case 22:
        setStyle(a, CharacterStyle::bold, false);
        setStyle(a, CharacterStyle::dim, false);
        return;
    case 23: setStyle(a, CharacterStyle::italic, false); return;
    case 24:
        setStyle(a, CharacterStyle::underline, false);
        a.underlineStyle = UnderlineStyle::none;
        return;
    case 25: setStyle(a, CharacterStyle::blink, false); return;
    case 27: setStyle(a, CharacterStyle::inverse, false); return;
    case 28: setStyle(a, CharacterStyle::invisible, false); return;
    case 29: setStyle(a, CharacterStyle::crossedOut, false); return;
    case 38: if (auto c = extendedColor(pars, i, colonMask)) a.fg = *c; return;
    case 39: a.fg = Attribute::Color::defaultColor(); return;
    case 48: if (auto c = extendedColor(pars, i, colonMask)) a.bg = *c; return;
    case 49: a.bg = Attribute::Color::defaultColor(); return;
    case 58: if (auto c = extendedColor(pars, i, colonMask)) a.underlineColor = *c; return;
    case 59: a.underlineColor.reset(); return;
    default: break;
    }
    if (p >= 30 && p <= 37) a.fg = Attribute::Color::ansi256(static_cast<uint8_t>(p - 30));
    else if (p >= 40 && p <= 47) a.bg = Attribute::Color::ansi256(static_cast<uint8_t>(p - 40));
    else if (p >= 90 && p <= 97) a.fg = Attribute::Color::ansi256(static_cast<uint8_t>(p - 90 + 8));
    else if (p >= 100 && p <= 107) a.bg = Attribute::Color::ansi256(static_cast<uint8_t>(p - 100 + 8));
}

// The commonest colour sequences, 38;5;n, 48;5;n, 38;2;r;g;b and 48;2;r;g;b on their own:
// the colour and the one it replaces, or nothing for any other sequence.
struct LoneColor {
    Attribute::Color* target;
    Attribute::Color color;
};

std::optional<LoneColor> extendedColorAlone(Attribute& a, CsiParameters pars, uint64_t colonMask) {
    if (colonMask != 0 || (pars.size() != 3 && pars.size() != 5)) return std::nullopt;
    Attribute::Color* target = pars[0] == 38 ? &a.fg : pars[0] == 48 ? &a.bg : nullptr;
    if (!target) return std::nullopt;
    if (pars.size() == 3 && pars[1] == 5) return LoneColor{target, Attribute::Color::ansi256(clampedComponent(pars, 2))};
    if (pars.size() == 5 && pars[1] == 2)
        return LoneColor{target, Attribute::Color::trueColor(clampedComponent(pars, 2), clampedComponent(pars, 3),
                                                             clampedComponent(pars, 4))};
    return std::nullopt;
}

// What each plain SGR code does to the pen's interning key: the bits of its first word kept and
// then set, and whether the underline colour (its second word) is kept. Folding a sequence over
// these takes no branch per code, where a switch would be mispredicted at every change of
// shape. Codes past the table and the ones nobody acts on leave the pen alone; 38, 48 and 58
// take the parameters after them and are left to the general path.
struct KeyEffect {
    uint64_t keep = ~uint64_t(0);
    uint64_t set = 0;
    uint64_t keepUnderlineColor = ~uint64_t(0);
    bool takesParameters = false;
};

constexpr int keyEffectCount = 128;

constexpr std::array<KeyEffect, keyEffectCount> makeKeyEffects() {
    using Key = InternedAttributeKey;
    std::array<KeyEffect, keyEffectCount> effects{};
    auto style = [](CharacterStyle flags) { return uint64_t(flags.rawValue) << Key::styleShift; };
    constexpr uint64_t underlineStyles = uint64_t(0xF) << Key::underlineStyleShift;
    auto underline = [](UnderlineStyle kind) { return uint64_t(kind) << Key::underlineStyleShift; };
    auto turnOn = [&](int code, CharacterStyle flags) { effects[code].set = style(flags); };
    auto turnOff = [&](int code, CharacterStyle flags) { effects[code].keep = ~style(flags); };
    effects[0] = {0, 0, 0, false};
    turnOn(1, CharacterStyle::bold);
    turnOn(2, CharacterStyle::dim);
    turnOn(3, CharacterStyle::italic);
    effects[4] = {~underlineStyles, style(CharacterStyle::underline) | underline(UnderlineStyle::single)};
    turnOn(5, CharacterStyle::blink);
    turnOn(7, CharacterStyle::inverse);
    turnOn(8, CharacterStyle::invisible);
    turnOn(9, CharacterStyle::crossedOut);
    effects[21] = {~underlineStyles, style(CharacterStyle::underline) | underline(UnderlineStyle::double_)};
    turnOff(22, CharacterStyle::bold | CharacterStyle::dim);
    turnOff(23, CharacterStyle::italic);
    effects[24].keep = ~(style(CharacterStyle::underline) | underlineStyles);
    turnOff(25, CharacterStyle::blink);
    turnOff(27, CharacterStyle::inverse);
    turnOff(28, CharacterStyle::invisible);
    turnOff(29, CharacterStyle::crossedOut);
    auto colour = [&](int code, int shift, uint64_t internCode) { effects[code] = {~(Key::codeMask << shift), internCode << shift}; };
    for (int i = 0; i < 8; ++i) {
        colour(30 + i, 0, Attribute::Color::ansi256(uint8_t(i)).internCode());
        colour(40 + i, Key::backgroundShift, Attribute::Color::ansi256(uint8_t(i)).internCode());
        colour(90 + i, 0, Attribute::Color::ansi256(uint8_t(8 + i)).internCode());
        colour(100 + i, Key::backgroundShift, Attribute::Color::ansi256(uint8_t(8 + i)).internCode());
    }
    colour(39, 0, Attribute::Color::defaultColor().internCode());
    colour(49, Key::backgroundShift, Attribute::Color::defaultColor().internCode());
    effects[59].keepUnderlineColor = 0;
    for (int code : {38, 48, 58}) effects[code].takesParameters = true;
    return effects;
}

constexpr std::array<KeyEffect, keyEffectCount> keyEffects = makeKeyEffects();

uint32_t colourComponent(int64_t value) { return uint32_t(std::min<int64_t>(value, 255)); }

// Interning codes of the two colour kinds, written straight from the parameters: a colour built
// from its bytes and read back as a word waits for the bytes to be stored.
constexpr uint32_t paletteCode = Attribute::Color::ansi256(0).internCode(),
                   trueColourCode = Attribute::Color::trueColor(0, 0, 0).internCode();
static_assert(Attribute::Color::ansi256(200).internCode() == (paletteCode | 200));
static_assert(Attribute::Color::trueColor(1, 2, 3).internCode() == (trueColourCode | 1 << 16 | 2 << 8 | 3));

} // namespace

// A plain SGR (whole numbers, no colons) as the ground lane reads them: a lone 38 or 48 colour
// or a run of codes from the table is applied to the pen's interning key; the pen's attribute is
// made only when something reads it. Anything else goes the general way. True when the key
// changed: its identifier is then only asked for, and the caller looks it up before the pen
// prints or anything else interns.
bool Terminal::applyPlainRendition(const int64_t* pars, int count) {
    using Key = InternedAttributeKey;
    Key before = curKey;
    uint64_t word0 = before.word0, word1 = before.word1;
    int64_t first = pars[0];
    if ((first == 38 || first == 48) && ((count == 3 && pars[1] == 5) || (count == 5 && pars[1] == 2))) {
        uint32_t code = count == 3 ? paletteCode | colourComponent(pars[2])
                                   : trueColourCode | colourComponent(pars[2]) << 16 | colourComponent(pars[3]) << 8 | colourComponent(pars[4]);
        int shift = first == 38 ? 0 : Key::backgroundShift;
        word0 = (word0 & ~(Key::codeMask << shift)) | uint64_t(code) << shift;
    } else {
        for (int i = 0; i < count; ++i) {
            const KeyEffect& effect = keyEffects[size_t(std::min<int64_t>(pars[i], keyEffectCount - 1))];
            if (effect.takesParameters) {
                selectGraphicRendition(CsiParameters(pars, count), 0);
                return false;
            }
            word0 = (word0 & effect.keep) | effect.set;
            word1 &= effect.keepUnderlineColor;
        }
    }
    if (word0 == before.word0 && word1 == before.word1) return false;
    curKey = Key::fromWords(word0, word1);
    penAttributeStale = true;
    bool backgroundChanged = ((word0 ^ before.word0) >> Key::backgroundShift & Key::codeMask) != 0;
    // Interning stays in order with the lookup left to the caller: the codes here only set
    // default, palette and true-colour backgrounds, whose erase blanks are inline and intern nothing.
    if (backgroundChanged) updateEraseBlank();
    return true;
}

// The common shapes learn whether the pen changed before they write it: comparing the whole pen
// right after writing one field of it would wait for that store to reach memory.
void Terminal::selectGraphicRendition(CsiParameters pars, uint64_t colonMask) {
    Attribute& curAttr = writablePen();
    Attribute::Color backgroundBefore = curAttr.bg;
    if (auto lone = extendedColorAlone(curAttr, pars, colonMask)) {
        if (*lone->target == lone->color) return;
        *lone->target = lone->color;
        curKey = InternedAttributeKey(curAttr);
    } else if (pars.size() == 1 && pars[0] == 0) {
        if (curAttr == Attribute::empty) return;
        curAttr = Attribute::empty;
        curKey = {};
    } else {
        Attribute before = curAttr;
        for (int i = 0; i < pars.size(); ++i) applyRendition(curAttr, pars, i, colonMask);
        if (curAttr == before) return;
        curKey = InternedAttributeKey(curAttr);
    }
    curStyleID = uint16_t(std::max(cellArena->internedIdentifier(curKey), 0));
    if (curAttr.bg != backgroundBefore) updateEraseBlank();
}

// The renditions a VT420 can change in an area, in the numbering of SGR. Changing also takes
// colours as SGR would; 0 turns the flags off but leaves the colours. Reversing toggles flags
// and ignores anything else.
void Terminal::changeAreaRendition(Attribute& a, CsiParameters renditions, bool reverse) {
    auto toggleUnderline = [&](bool on) {
        setStyle(a, CharacterStyle::underline, on);
        a.underlineStyle = on ? UnderlineStyle::single : UnderlineStyle::none;
    };
    constexpr CharacterStyle allFlags = CharacterStyle::bold | CharacterStyle::blink | CharacterStyle::inverse |
                                        CharacterStyle::invisible;
    for (int i = 0; i < renditions.size(); ++i) {
        int64_t p = renditions[i];
        if (!reverse) {
            if (p == 0) {
                a.style.remove(allFlags);
                toggleUnderline(false);
            } else {
                applyRendition(a, renditions, i, 0);
            }
            continue;
        }
        switch (p) {
        case 0:
            a.style = CharacterStyle(a.style.rawValue ^ allFlags.rawValue);
            toggleUnderline(!a.style.contains(CharacterStyle::underline));
            break;
        case 1: setStyle(a, CharacterStyle::bold, !a.style.contains(CharacterStyle::bold)); break;
        case 4: toggleUnderline(!a.style.contains(CharacterStyle::underline)); break;
        case 5: setStyle(a, CharacterStyle::blink, !a.style.contains(CharacterStyle::blink)); break;
        case 7: setStyle(a, CharacterStyle::inverse, !a.style.contains(CharacterStyle::inverse)); break;
        case 8: setStyle(a, CharacterStyle::invisible, !a.style.contains(CharacterStyle::invisible)); break;
        default: break;
        }
    }
}

namespace {

constexpr uint8_t laneEscape = 0x1B;

// ESC [ parameters final at `from`, the parameters whole numbers of up to five digits separated
// by semicolons, wholly inside the chunk with room to read a parameter past the end: the index
// after the final byte, or 0 for anything else (a marker, an intermediate, a colon, a long
// number, too many parameters, the end of the chunk near), which the parser then reads.
size_t readLaneCsi(const uint8_t* p, size_t from, size_t size, int64_t* pars, int& parsCount, uint8_t& final) {
    if (from + 2 >= size || p[from + 1] != '[') return 0;
    size_t i = from + 2;
    int count = 1;
    if (i + 8 <= size && csiShapes::readColourPrefix(p + i, pars)) {
        count = 3;
        i += 5;
    }
    while (i + 6 <= size) {
        unsigned number = csiShapes::readWholeNumber(p, i);
        pars[count - 1] = std::min<int64_t>(number, maximumParameterValue);
        uint8_t c = p[i++];
        if (c - 0x40u <= 0x3Eu) {
            parsCount = count;
            final = c;
            return i;
        }
        if (c != ';' || count == CsiParameterStorage::capacity) return 0;
        ++count;
    }
    return 0;
}

} // namespace

// Words and renditions alternate in coloured output: this loop takes them with the row, the
// cursor column and the print word in locals, and hands back to the parser at anything else
// (another byte, a sequence it does not read, a word that would wrap or that has more than ASCII
// in it), and whenever printing takes more than a plain write. Carriage returns and line feeds
// are executed in place and the row looked up again. Another plain CSI is dispatched
// here, since it is read already, and ends the loop: it may move the cursor or change the modes.
constexpr size_t laneInputLookahead = 1024;

size_t Terminal::consumeGroundLane(const uint8_t* p, size_t from, size_t size) {
    Buffer& buf = *buffer_;
    if (charset || !readingBuffer.empty() || pendingHyperlink || buf.insertMode) return from;
    constexpr uint64_t styleBits = PackedCell::styleMask << PackedCell::styleShift;
    BufferLine* line = &buf.row(buf.y);
    int right = buf.rightBound();
    int x = buf.x;
    const uint64_t word = printBase().raw & ~PackedCell::contentAndWidthBits & ~styleBits;
    int64_t pars[CsiParameterStorage::capacity]; // filled as read: no need to clear it
    int parsCount = 0;
    size_t i = from;
    int rowEnd = -1; // the end of the last word put on the row, until the row is finished
    bool lookupPending = false; // the pen's identifier is yet to be looked up
    auto finishRow = [&] {
        if (rowEnd >= 0) Buffer::finishAsciiWrites(*line, rowEnd);
        rowEnd = -1;
    };
    auto resolvePending = [&] {
        if (lookupPending) resolveStyleID();
        lookupPending = false;
    };
    while (i < size) {
        uint8_t b = p[i];
        if (b - 0x20u < 0x5Fu) {
            size_t end = ByteRunScanner::firstNonPrintableByte({p, size}, i + 1);
            int count = int(end - i);
            if ((end < size && p[end] >= 0x7F) || count > right - x + 1) break;
            resolvePending();
            buf.putAsciiCells(*line, x, p + i, count, word | uint64_t(curStyleID) << PackedCell::styleShift);
            x += count;
            rowEnd = x;
            previousScalar = p[end - 1];
            i = end;
            continue;
        }
        resolvePending();
        if (b == laneEscape) {
            uint8_t final = 0;
            size_t end = readLaneCsi(p, i, size, pars, parsCount, final);
            if (end == 0) break;
            if (final == 'm') {
                // The identifier is looked up when the next byte that is not text comes, or
                // before the word that follows is written.
                lookupPending = applyPlainRendition(pars, parsCount);
                i = end;
                continue;
            }
            buf.x = x;
            finishRow();
            dispatchCsi(final, CsiParameters(pars, parsCount), {});
            return end;
        }
        if (b != '\r' && b != '\n') break;
        // Line ends come once a row: taken here, the lane goes on along the next row.
        // The input ahead is asked for now, a few rows early: its pages are met one after
        // another and would otherwise each be waited for when the scanner reaches them.
        for (size_t ahead = laneInputLookahead; ahead < laneInputLookahead + 192; ahead += 64) __builtin_prefetch(p + i + ahead);
        buf.x = x;
        finishRow();
        dispatchExecute(b);
        line = &buf.row(buf.y);
        right = buf.rightBound();
        x = buf.x;
        ++i;
    }
    resolvePending();
    buf.x = x;
    finishRow();
    return i;
}

} // namespace vellum
