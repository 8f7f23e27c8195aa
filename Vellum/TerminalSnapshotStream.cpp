#include "Vellum/TerminalSnapshotStream.h"

#include <any>
#include <optional>
#include <utility>
#include <vector>

#include "Vellum/Terminal.h"

namespace vellum {

namespace {

void appendColor(std::string& out, const Attribute::Color& color, int base) {
    switch (color.kind()) {
    case Attribute::Color::Kind::ansi256:
        if (base != 50 && color.code() < 8) {
            out += ";" + std::to_string(base + color.code());
        } else if (base != 50 && color.code() < 16) {
            out += ";" + std::to_string(base + 60 + color.code() - 8);
        } else {
            out += ";" + std::to_string(base + 8) + ";5;" + std::to_string(color.code());
        }
        break;
    case Attribute::Color::Kind::trueColor:
        out += ";" + std::to_string(base + 8) + ";2;" + std::to_string(color.red()) + ";" +
               std::to_string(color.green()) + ";" + std::to_string(color.blue());
        break;
    default: break; // the defaults are what SGR 0 leaves
    }
}

std::string sgr(const Attribute& a) {
    std::string out = "\x1b[0";
    if (a.style.contains(CharacterStyle::bold)) out += ";1";
    if (a.style.contains(CharacterStyle::dim)) out += ";2";
    if (a.style.contains(CharacterStyle::italic)) out += ";3";
    if (a.style.contains(CharacterStyle::underline)) {
        switch (a.underlineStyle) {
        case UnderlineStyle::double_: out += ";4:2"; break;
        case UnderlineStyle::curly: out += ";4:3"; break;
        case UnderlineStyle::dotted: out += ";4:4"; break;
        case UnderlineStyle::dashed: out += ";4:5"; break;
        default: out += ";4"; break;
        }
    }
    if (a.style.contains(CharacterStyle::blink)) out += ";5";
    if (a.style.contains(CharacterStyle::inverse)) out += ";7";
    if (a.style.contains(CharacterStyle::invisible)) out += ";8";
    if (a.style.contains(CharacterStyle::crossedOut)) out += ";9";
    appendColor(out, a.fg, 30);
    appendColor(out, a.bg, 40);
    if (a.underlineColor) appendColor(out, *a.underlineColor, 50);
    return out + "m";
}

std::string csi(int n, char final) { return "\x1b[" + std::to_string(n) + final; }
std::string cursorTo(int row, int col) { return "\x1b[" + std::to_string(row + 1) + ";" + std::to_string(col + 1) + "H"; }

// One row's bytes. `repair` (a range inside `bytes`) fixes up the row before, and is left out
// when that row is not written.
struct RowBytes {
    std::string bytes;
    size_t repairAt = 0;
    size_t repairLength = 0;
};

// Writes rows one at a time. Each row begins and ends with the default pen, so that rows can
// be dropped from the front without disturbing the rest.
class RowWriter {
public:
    RowWriter(int cols, bool plain) : cols_(cols), plain_(plain) {}

    // `next` is the row written after this one, if any; a next row marked wrapped continues
    // this one, so this one must end where the terminal wraps by itself. Only a printed
    // character wraps, so an empty cell at either side of the seam is printed as a blank and
    // erased again once the wrap has happened.
    RowBytes write(const BufferLine& line, const BufferLine* next, bool continuesPrevious) {
        RowBytes row;
        std::string& out = row.bytes;
        bool continues = next && next->isWrapped();
        bool nextStartsWide = continues && next->packedCell(0).isWideHead();
        int end = continues ? cols_ : std::max(contentEnd(line), continuesPrevious ? 1 : 0);
        std::optional<Attribute> blankToErase = std::exchange(seamBlank_, std::nullopt);
        auto afterFirst = [&](int width) {
            if (!continuesPrevious || !blankToErase) return;
            row.repairAt = out.size();
            out += "\x1b[A" + csi(cols_, 'G');
            pen(out, *blankToErase);
            out += "\x1b[X\x1b[B" + csi(width + 1, 'G');
            row.repairLength = out.size() - row.repairAt;
        };
        for (int col = 0; col < end;) {
            // Plain ASCII, the bulk of any screen, goes without unpacking the cell.
            PackedCell packed = line.packedCell(col);
            if (packed.tag() == PackedCell::scalarTag && packed.value() >= 0x20 && packed.value() < 0x7f &&
                packed.widthState() == CellWidthState::narrow) {
                pen(out, attributeOf(line, packed.styleID()));
                link(out, packed.payloadCode());
                protection(out, packed.isProtected());
                out += char(packed.value());
                if (col == 0) afterFirst(1);
                ++col;
                continue;
            }
            CharData cell = line[col];
            auto state = CellWidthState(cell.widthStateCode);
            // A wide character that didn't fit leaves this mark; the next row's character
            // leaves it again when it wraps.
            if (state == CellWidthState::spacerHead && col == cols_ - 1 && nextStartsWide) break;
            // A wide character's tail is passed over with it; one met here has lost its
            // character and is a blank.
            bool empty = cell.code == 0 || (state != CellWidthState::narrow && state != CellWidthState::wide);
            if (empty && continuesPrevious && col == 0) {
                pen(out, cell.attribute);
                out += ' ';
                afterFirst(1);
                pen(out, cell.attribute);
                out += "\b\x1b[X\x1b[C";
                ++col;
                continue;
            }
            if (empty && continues && col == cols_ - 1) {
                pen(out, cell.attribute);
                out += ' ';
                seamBlank_ = cell.attribute;
                ++col;
                continue;
            }
            if (empty) {
                int run = 1;
                while (col + run < end && sameBlank(line, col + run, cell.attribute) &&
                       !(continues && col + run == cols_ - 1)) {
                    ++run;
                }
                blanks(out, cell.attribute, run, col + run < end);
                col += run;
                continue;
            }
            pen(out, cell.attribute);
            link(out, packed.payloadCode());
            protection(out, packed.isProtected());
            out += cell.getText();
            int width = cell.width == 2 ? 2 : 1;
            if (col == 0) afterFirst(width);
            col += width;
        }
        pen(out, Attribute::empty);
        link(out, 0);
        protection(out, false);
        if (next && !continues) out += "\r\n";
        return row;
    }

private:
    int contentEnd(const BufferLine& line) const {
        for (int col = std::min(line.count(), cols_) - 1; col >= 0; --col) {
            if (line.hasContent(col)) return col + 1;
        }
        return 0;
    }

    static bool sameBlank(const BufferLine& line, int col, const Attribute& attribute) {
        CharData cell = line[col];
        return cell.code == 0 && CellWidthState(cell.widthStateCode) == CellWidthState::narrow && cell.attribute == attribute;
    }

    const Attribute& attributeOf(const BufferLine& line, uint16_t styleID) {
        if (styleID != cachedStyleID_ || &line.arena() != cachedArena_) {
            cachedAttribute_ = line.arena().attributeFor(styleID);
            cachedStyleID_ = styleID;
            cachedArena_ = &line.arena();
        }
        return cachedAttribute_;
    }

    // A link (OSC 8) is carried by the cells printed while it is open.
    void link(std::string& out, uint16_t code) {
        if (plain_ || code == link_) return;
        std::string target;
        if (code != 0) {
            auto value = TinyAtom{code}.target();
            if (auto* text = value ? std::any_cast<std::string>(&*value) : nullptr) target = *text;
        }
        if (target.empty() && link_ == 0) return;
        out += "\x1b]8;" + (target.empty() ? std::string(";") : target) + "\x1b\\";
        link_ = target.empty() ? 0 : code;
    }

    // Cells that a selective erase passes over (DECSCA) are printed with protection on.
    void protection(std::string& out, bool on) {
        if (plain_ || on == protected_) return;
        out += on ? "\x1b[1\"q" : "\x1b[0\"q";
        protected_ = on;
    }

    void pen(std::string& out, const Attribute& attribute) {
        if (plain_ || attribute == pen_) return;
        out += sgr(attribute);
        pen_ = attribute;
    }

    // Empty cells: erased with their background when they have one, stepped over otherwise.
    void blanks(std::string& out, const Attribute& attribute, int count, bool moreFollow) {
        if (!plain_ && attribute != Attribute::empty) {
            pen(out, attribute);
            out += csi(count, 'X');
        }
        if (moreFollow) out += csi(count, 'C');
    }

    int cols_;
    bool plain_;
    Attribute pen_;
    std::optional<Attribute> seamBlank_; // the blank printed at the end of the row before
    uint16_t link_ = 0;
    bool protected_ = false;
    uint16_t cachedStyleID_ = 0;
    const CellArena* cachedArena_ = nullptr;
    Attribute cachedAttribute_;
};

// The rows `first` up to `last` (exclusive) of a buffer's ring.
std::vector<RowBytes> rowStrings(Buffer& buffer, int first, int last, int cols, bool plain) {
    RowWriter writer(cols, plain);
    std::vector<RowBytes> out;
    out.reserve(size_t(std::max(last - first, 0)));
    for (int index = first; index < last; ++index) {
        const BufferLine* next = index + 1 < last ? &buffer.lines[index + 1] : nullptr;
        out.push_back(writer.write(buffer.lines[index], next, index > first && buffer.lines[index].isWrapped()));
    }
    return out;
}

void append(std::string& out, const RowBytes& row, bool withRepair) {
    if (withRepair || row.repairLength == 0) {
        out += row.bytes;
        return;
    }
    out.append(row.bytes, 0, row.repairAt);
    out.append(row.bytes, row.repairAt + row.repairLength);
}

size_t totalSize(const std::vector<RowBytes>& rows) {
    size_t total = 0;
    for (const auto& row : rows) total += row.bytes.size();
    return total;
}

// A save of the cursor (`save` is ESC 7 or CSI ? 1049 h) that also keeps the character set it
// had: it is put in G0 just for the save, and G0 is emptied again after it.
std::string withSavedCharset(const Charset* charset, std::string_view save) {
    if (!charset) return std::string(save);
    return "\x1b(" + std::string(1, char(designatorFor(charset))) + "\x0f" + std::string(save) + "\x1b(B";
}

std::string savedCursor(const Buffer& buffer) {
    return cursorTo(buffer.savedY, buffer.savedX) + sgr(buffer.savedAttr) + withSavedCharset(buffer.savedCharset, "\x1b" "7") +
           "\x1b[0m";
}

bool hasSavedCursor(const Buffer& buffer) {
    return buffer.savedX != 0 || buffer.savedY != 0 || buffer.savedAttr != Attribute::empty || buffer.savedCharset;
}

// Tab stops, when a program moved them from the regular ones: all cleared, then each set.
std::string tabStops(const Buffer& buffer, int cols) {
    TabStops regular;
    regular.setup(cols, buffer.tabStopWidth);
    bool same = true;
    for (int col = 0; col < cols && same; ++col) same = buffer.tabStops.isSet(col) == regular.isSet(col);
    if (same) return {};
    std::string out = "\x1b[3g";
    for (int col = 0; col < cols; ++col)
        if (buffer.tabStops.isSet(col)) out += cursorTo(0, col) + "\x1bH";
    return out;
}

// The designated sets and the one invoked. Last of all, since they change what printing means.
std::string charsets(Terminal& terminal) {
    static constexpr char intermediates[] = {'(', ')', '*', '+'};
    static constexpr const char* invocations[] = {"\x0f", "\x0e", "\x1bn", "\x1bo"};
    std::string out;
    const auto& sets = terminal.designatedCharsets();
    for (size_t g = 0; g < sets.size(); ++g)
        if (sets[g]) out += "\x1b" + std::string(1, intermediates[g]) + std::string(1, char(designatorFor(sets[g])));
    if (terminal.invokedCharset() != 0) out += invocations[terminal.invokedCharset() & 3];
    return out;
}

std::string oscColor(std::string_view code, const Color& color) { return "\x1b]" + std::string(code) + ";" + color.formatAsXcolor() + "\x07"; }

// Colours a program changed: the text colours first, since the palette may derive from them.
std::string colors(Terminal& terminal) {
    const auto& program = terminal.programColors();
    std::string out;
    if (program.foreground) out += oscColor("10", *program.foreground);
    if (program.background) out += oscColor("11", *program.background);
    if (terminal.cursorColor) out += oscColor("12", *terminal.cursorColor);
    for (size_t i = 0; i < program.dynamic.size(); ++i)
        if (program.dynamic[i]) out += oscColor(std::to_string(13 + i), *program.dynamic[i]);
    for (size_t i = 0; i < program.special.size(); ++i)
        if (program.special[i]) out += oscColor("5;" + std::to_string(i), *program.special[i]);
    for (size_t i = 0; i < terminal.ansiColors.size(); ++i)
        if (terminal.ansiColors[i] != terminal.defaultAnsiColors[i]) out += oscColor("4;" + std::to_string(i), terminal.ansiColors[i]);
    return out;
}

// The cursor, its pending wrap, the pen, the region and the modes of the shown screen.
std::string finalState(Terminal& terminal) {
    Buffer& buffer = terminal.buffer();
    int cols = terminal.cols();
    int rows = terminal.rows();
    std::string out = tabStops(buffer, cols);
    if (hasSavedCursor(buffer)) out += savedCursor(buffer);
    if (buffer.scrollTop != 0 || buffer.scrollBottom != rows - 1) {
        out += "\x1b[" + std::to_string(buffer.scrollTop + 1) + ";" + std::to_string(buffer.scrollBottom + 1) + "r";
    }
    if (buffer.marginMode) {
        out += "\x1b[?69h\x1b[" + std::to_string(buffer.marginLeft + 1) + ";" + std::to_string(buffer.marginRight + 1) + "s";
    }
    if (terminal.originMode) out += "\x1b[?6h";
    int rowOrigin = terminal.originMode ? buffer.scrollTop : 0;
    int colOrigin = terminal.originMode && buffer.marginMode ? buffer.marginLeft : 0;
    int y = std::clamp(buffer.y, 0, rows - 1);
    if (buffer.x >= cols) {
        // A wrap is pending: print the last cell again so the terminal owes the same wrap.
        const BufferLine& line = buffer.row(y);
        int col = cols - 1;
        if (col > 0 && line.packedCell(col - 1).isWideHead()) --col;
        CharData cell = line[col];
        out += cursorTo(y - rowOrigin, col - colOrigin) + sgr(cell.attribute);
        out += cell.code == 0 ? std::string(" ") : cell.getText();
        out += "\x1b[0m";
    } else {
        out += cursorTo(y - rowOrigin, std::max(buffer.x, 0) - colOrigin);
    }
    if (terminal.currentAttribute() != Attribute::empty) out += sgr(terminal.currentAttribute());
    if (terminal.protectsPrintedCells()) out += "\x1b[1\"q";

    if (buffer.insertMode) out += "\x1b[4h";
    if (terminal.lineFeedMode) out += "\x1b[20h";
    auto privateMode = [&](bool on, int mode) {
        if (on) out += "\x1b[?" + std::to_string(mode) + "h";
    };
    privateMode(terminal.applicationCursor, 1);
    privateMode(terminal.reverseColors, 5);
    if (!buffer.wraparound) out += "\x1b[?7l";
    privateMode(terminal.cursorBlink, 12);
    privateMode(terminal.reverseWraparound, 45);
    privateMode(terminal.applicationKeypad, 66);
    static constexpr int mouseModes[] = {0, 9, 1000, 1002, 1003};
    if (terminal.mouseMode > 0 && terminal.mouseMode < 5) privateMode(true, mouseModes[terminal.mouseMode]);
    static constexpr int mouseProtocols[] = {0, 1005, 1006, 1015, 1016};
    if (terminal.mouseProtocol > 0 && terminal.mouseProtocol < 5) privateMode(true, mouseProtocols[terminal.mouseProtocol]);
    privateMode(terminal.sendFocus, 1004);
    privateMode(terminal.bracketedPasteMode, 2004);
    if (!terminal.alternateScrollMode) out += "\x1b[?1007l";
    if (uint32_t flags = terminal.keyboardEnhancementFlags()) out += "\x1b[>" + std::to_string(flags) + "u";
    if (terminal.cursorStyle != terminal.options().cursorStyle) out += csi(int(terminal.cursorStyle) + 1, ' ') + "q";
    if (terminal.cursorHidden) out += "\x1b[?25l";
    return out + charsets(terminal);
}

std::string build(Terminal& terminal, const SnapshotStreamOptions& options, bool plain) {
    int cols = terminal.cols();
    int rows = terminal.rows();
    Buffer& normal = terminal.normalScreen();
    bool alternate = terminal.isAlternateBuffer();

    std::string head;
    if (!terminal.title().empty()) head += "\x1b]2;" + terminal.title() + "\x07";
    head += colors(terminal);

    int history = std::clamp(options.scrollbackRows, 0, normal.yBase);
    int screenEnd = std::min(normal.yBase + rows, normal.lines.count());
    auto normalRows = rowStrings(normal, normal.yBase - history, screenEnd, cols, plain);

    std::string alternatePart;
    if (alternate) {
        Buffer& shown = terminal.buffer();
        alternatePart = tabStops(normal, cols) + cursorTo(normal.savedY, normal.savedX) + sgr(normal.savedAttr) +
                        withSavedCharset(normal.savedCharset, "\x1b[?1049h") + "\x1b[0m\x1b[H";
        for (auto& row : rowStrings(shown, shown.yBase, shown.yBase + rows, cols, plain)) append(alternatePart, row, true);
    }
    std::string tail = finalState(terminal);

    size_t fixed = head.size() + alternatePart.size() + tail.size();
    size_t total = fixed + totalSize(normalRows);
    size_t dropped = 0;
    while (total > options.byteLimit && int(dropped) < history) total -= normalRows[dropped++].bytes.size();

    std::string out;
    out.reserve(total);
    out += head;
    for (size_t i = dropped; i < normalRows.size(); ++i) append(out, normalRows[i], i > dropped);
    out += alternatePart;
    out += tail;
    return out;
}

} // namespace

std::string snapshotStream(Terminal& terminal, const SnapshotStreamOptions& options) {
    std::string out = build(terminal, options, false);
    // A screen too rich to fit even without history goes as text alone.
    if (out.size() > options.byteLimit) out = build(terminal, {0, options.byteLimit}, true);
    if (out.size() > options.byteLimit) out.resize(options.byteLimit);
    return out;
}

} // namespace vellum
