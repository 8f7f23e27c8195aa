#include <algorithm>
#include <charconv>

#include "Platform/Unicode.h"
#include "Vellum/Base64.h"
#include "Vellum/Terminal.h"

namespace vellum {

namespace {

std::string_view asText(std::span<const uint8_t> data) {
    return {reinterpret_cast<const char*>(data.data()), data.size()};
}

bool isValidUtf8(std::string_view text) {
    namespace unicode = platform::unicode;
    return unicode::encodeUtf8(unicode::decodeUtf8(text)) == text;
}

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<uint8_t>(c) < 0x80; });
}

bool isPrintableAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> fields;
    size_t start = 0;
    while (true) {
        size_t end = text.find(separator, start);
        if (end == std::string_view::npos) {
            fields.push_back(text.substr(start));
            return fields;
        }
        fields.push_back(text.substr(start, end - start));
        start = end + 1;
    }
}

std::optional<int> smallNumber(std::string_view text, int limit) {
    int value = 0;
    if (text.empty() || text.size() > 9) return std::nullopt;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < 0 || value > limit) return std::nullopt;
    return value;
}

// "N" cells, "Npx" pixels, "N%" percent, "auto".
ImageSizeRequest parseDimension(std::string_view text) {
    if (text.empty() || text == "auto") return {};
    if (text.ends_with("px")) {
        if (auto n = smallNumber(text.substr(0, text.size() - 2), 1 << 20)) return {ImageSizeRequest::Unit::pixels, *n};
        return {};
    }
    if (text.ends_with("%")) {
        if (auto n = smallNumber(text.substr(0, text.size() - 1), 1000)) return {ImageSizeRequest::Unit::percent, *n};
        return {};
    }
    if (auto n = smallNumber(text, 1 << 20)) return {ImageSizeRequest::Unit::cells, *n};
    return {};
}

struct SemanticPromptOptions {
    std::optional<SemanticPromptKind> kind;
    std::optional<Terminal::SemanticPromptCursorClickMode> clickMode;
    std::optional<int> clickEvents;
    bool valid = true;
};

SemanticPromptOptions parseSemanticPromptOptions(const std::vector<std::string_view>& fields) {
    SemanticPromptOptions options;
    for (size_t i = 1; i < fields.size(); ++i) {
        size_t equals = fields[i].find('=');
        if (equals == std::string_view::npos) continue;
        std::string_view key = fields[i].substr(0, equals), value = fields[i].substr(equals + 1);
        auto oneOf = [&](std::initializer_list<std::string_view> allowed) {
            if (std::find(allowed.begin(), allowed.end(), value) == allowed.end()) options.valid = false;
        };
        if (key == "k") {
            oneOf({"i", "r", "c", "s"});
            if (value == "i") options.kind = SemanticPromptKind::initial;
            else if (value == "r") options.kind = SemanticPromptKind::right;
            else if (value == "c") options.kind = SemanticPromptKind::continuation;
            else if (value == "s") options.kind = SemanticPromptKind::secondary;
        } else if (key == "cl") {
            using Mode = Terminal::SemanticPromptCursorClickMode;
            oneOf({"line", "m", "v", "w"});
            if (value == "line") options.clickMode = Mode::line;
            else if (value == "m") options.clickMode = Mode::multiple;
            else if (value == "v") options.clickMode = Mode::conservativeVertical;
            else if (value == "w") options.clickMode = Mode::smartVertical;
        } else if (key == "click_events") {
            oneOf({"0", "1", "2"});
            if (options.valid) options.clickEvents = value[0] - '0';
        } else if (key == "special_key") {
            oneOf({"0", "1"});
        }
    }
    return options;
}

} // namespace

void Terminal::registerOscHandler(int64_t code, EscapeSequenceParser::OscHandler handler) {
    parser.oscHandlers[code] = std::move(handler);
}

std::string Terminal::oscTerminatorFor(uint8_t terminator) const {
    return terminator == 0x07 ? std::string("\x07") : std::string(stringTerminator(cc));
}

void Terminal::dispatchOsc(int64_t code, std::span<const uint8_t> data, uint8_t terminator) {
    oscEvents.publish(code, data, {buffer_->x, buffer_->y});
    if (parser.handleCustomOsc(code, data)) return;
    std::string_view text = asText(data);
    std::string st = oscTerminatorFor(terminator);
    switch (code) {
    case 0: case 1: case 2: oscTitle(code, text); break;
    case 4: oscChangeOrQueryColorIndex(text, st); break;
    case 5: oscChangeOrQuerySpecialColor(text, st); break;
    case 6: oscSetCurrentDirectory(text, true); break;
    case 7: oscSetCurrentDirectory(text, false); break;
    case 8: oscHyperlink(text); break;
    case 9: oscProgressReport(text); break;
    case 10: case 11: case 12: case 13: case 14: case 15: case 16: case 17: case 18: case 19:
        oscSetColors(text, static_cast<int>(code - 10), st);
        break;
    case 52: oscClipboard(text, st); break;
    case 104: oscResetColor(text); break;
    case 105: oscResetSpecialColor(text); break;
    case 110: case 111: case 112: case 113: case 114: case 115: case 116: case 117: case 118: case 119:
        resetDynamicColor(static_cast<int>(code - 110));
        break;
    case 133: oscSemanticPrompt(text); break;
    case 777: oscNotification(text); break;
    case 1337: osciTerm2(data, st); break;
    case 5522: handleKittyClipboard(text, st); break;
    case 7501: oscProgramStatus(text); break;
    default: log("Vellum: Unknown OSC code: " + std::to_string(code)); break;
    }
}

void Terminal::oscTitle(int64_t code, std::string_view text) {
    std::string title = isValidUtf8(text) ? std::string(text) : std::string();
    if (code == 1) {
        iconTitle = title;
        if (delegate) delegate->setTerminalIconTitle(*this, iconTitle);
    } else {
        terminalTitle = title;
        if (delegate) delegate->setTerminalTitle(*this, terminalTitle);
    }
}

void Terminal::oscChangeOrQueryColorIndex(std::string_view text, std::string_view terminator) {
    auto fields = split(text, ';');
    for (size_t i = 0; i + 1 < fields.size(); i += 2) {
        auto index = smallNumber(fields[i], 255);
        if (!index) break;
        if (fields[i + 1] == "?") {
            sendResponse(std::string(oscIntroducer(cc)) + "4;" + std::to_string(*index) + ";" +
                         ansiColors[size_t(*index)].formatAsXcolor() + std::string(terminator));
        } else if (auto color = Color::parseColor(fields[i + 1])) {
            ansiColors[size_t(*index)] = *color;
            if (delegate) delegate->colorChanged(*this, *index);
        }
    }
}

// OSC 10 to 19: foreground, background, cursor, pointer foreground and background, Tektronix
// foreground and background, highlight background, Tektronix cursor, highlight foreground.
// Each spec after the first goes to the next colour of the list.
void Terminal::oscSetColors(std::string_view text, int startAt, std::string_view terminator) {
    int which = startAt;
    for (std::string_view spec : split(text, ';')) {
        if (which > 9) break;
        if (spec == "?") {
            sendResponse(std::string(oscIntroducer(cc)) + std::to_string(10 + which) + ";" + dynamicColor(which).formatAsXcolor() +
                         std::string(terminator));
        } else if (auto color = Color::parseColor(spec)) {
            setDynamicColor(which, *color);
        }
        ++which;
    }
}

Color Terminal::dynamicColor(int which) const {
    switch (which) {
    case 0: return foregroundColor;
    case 1: return backgroundColor;
    case 2: return cursorColor.value_or(foregroundColor);
    default: break;
    }
    if (auto set = programColors_.dynamic[size_t(which - 3)]) return *set;
    // The pointer and the Tektronix window follow the text colours, the highlight is reversed.
    static constexpr bool followsForeground[] = {true, false, true, false, true, true, false};
    return followsForeground[which - 3] ? foregroundColor : backgroundColor;
}

// The program's foreground and background set aside the host's, so that a reset (OSC 110,
// OSC 111) gives the host's back.
void Terminal::setDynamicColor(int which, Color color) {
    switch (which) {
    case 0:
        if (!hostForeground) hostForeground = foregroundColor;
        programColors_.foreground = color;
        setForegroundColor(color);
        break;
    case 1:
        if (!hostBackground) hostBackground = backgroundColor;
        programColors_.background = color;
        setBackgroundColor(color);
        break;
    case 2: setCursorColorValue(color); break;
    default: programColors_.dynamic[size_t(which - 3)] = color; break;
    }
}

void Terminal::resetDynamicColor(int which) {
    switch (which) {
    case 0:
        if (hostForeground) setForegroundColor(*std::exchange(hostForeground, std::nullopt));
        programColors_.foreground.reset();
        break;
    case 1:
        if (hostBackground) setBackgroundColor(*std::exchange(hostBackground, std::nullopt));
        programColors_.background.reset();
        break;
    case 2: setCursorColorValue(std::nullopt); break;
    default: programColors_.dynamic[size_t(which - 3)].reset(); break;
    }
}

// OSC 5: the colours of bold, underline, blink, reverse and italic text, in "index;spec" pairs.
// Until set they read as the foreground.
void Terminal::oscChangeOrQuerySpecialColor(std::string_view text, std::string_view terminator) {
    auto fields = split(text, ';');
    for (size_t i = 0; i + 1 < fields.size(); i += 2) {
        auto index = smallNumber(fields[i], int(programColors_.special.size()) - 1);
        if (!index) break;
        auto& slot = programColors_.special[size_t(*index)];
        if (fields[i + 1] == "?") {
            sendResponse(std::string(oscIntroducer(cc)) + "5;" + std::to_string(*index) + ";" +
                         slot.value_or(foregroundColor).formatAsXcolor() + std::string(terminator));
        } else if (auto color = Color::parseColor(fields[i + 1])) {
            slot = *color;
        }
    }
}

void Terminal::oscResetSpecialColor(std::string_view text) {
    if (text.empty()) {
        programColors_.special = {};
        return;
    }
    for (std::string_view field : split(text, ';'))
        if (auto index = smallNumber(field, int(programColors_.special.size()) - 1)) programColors_.special[size_t(*index)].reset();
}

void Terminal::resetAllColors() {
    ansiColors = defaultAnsiColors;
    if (delegate) delegate->colorChanged(*this, std::nullopt);
}

void Terminal::resetColor(int index) {
    if (index < 0 || index > 255) return;
    ansiColors[size_t(index)] = defaultAnsiColors[size_t(index)];
    if (delegate) delegate->colorChanged(*this, index);
}

void Terminal::oscResetColor(std::string_view text) {
    if (text.empty()) {
        resetAllColors();
        return;
    }
    for (std::string_view field : split(text, ';'))
        if (auto index = smallNumber(field, 255)) resetColor(*index);
}

void Terminal::oscSetCurrentDirectory(std::string_view text, bool document) {
    if (!delegate || !delegate->isProcessTrusted(*this)) return;
    std::string value = isValidUtf8(text) ? std::string(text) : std::string();
    if (value.empty() && !text.empty())
        for (char c : text) value.push_back(static_cast<uint8_t>(c) < 0x80 ? c : '?');
    if (document) {
        hostCurrentDocument = value;
        delegate->hostCurrentDocumentUpdated(*this);
    } else {
        hostCurrentDirectory = value;
        delegate->hostCurrentDirectoryUpdated(*this);
    }
}

void Terminal::oscHyperlink(std::string_view text) {
    activeHyperlinkCode = 0;
    pendingHyperlink.reset();
    if (text == ";") return;
    pendingHyperlink = PendingHyperlink{isAscii(text) ? std::string(text) : std::string()};
}

std::optional<std::string> Terminal::parseHyperlinkPayload(std::string_view payload) {
    size_t semicolon = payload.find(';');
    if (semicolon == std::string_view::npos) return std::nullopt;
    std::string_view uri = payload.substr(semicolon + 1);
    if (uri.empty()) return std::nullopt;
    return std::string(uri);
}

uint16_t Terminal::allocatePendingHyperlink() {
    std::string target = std::move(pendingHyperlink->target);
    pendingHyperlink.reset();
    if (!parseHyperlinkPayload(target)) return activeHyperlinkCode = 0;
    // Codes are never handed out twice in a process, so the same link printed again (a
    // listing redrawn, a prompt) takes the code it already has.
    if (auto known = hyperlinkCodes.find(target); known != hyperlinkCodes.end()) return activeHyperlinkCode = known->second;
    auto atom = TinyAtom::lookup(TinyAtom::Value(target));
    activeHyperlinkCode = atom ? atom->code : 0;
    if (atom) {
        payloadCodes.push_back(atom->code);
        if (hyperlinkCodes.size() < maximumRememberedHyperlinks) hyperlinkCodes.emplace(std::move(target), atom->code);
    }
    return activeHyperlinkCode;
}

void Terminal::oscProgressReport(std::string_view text) {
    auto report = isAscii(text) ? ProgressReport::parse(text) : std::nullopt;
    if (!report) {
        log("Vellum: Unknown OSC code: 9");
        return;
    }
    if (delegate) delegate->progressReport(*this, *report);
}

void Terminal::oscClipboard(std::string_view text, std::string_view terminator) {
    size_t semicolon = text.find(';');
    if (semicolon == std::string_view::npos) return;
    // No selection named means the clipboard.
    std::string selection(semicolon == 0 ? std::string_view("c") : text.substr(0, semicolon));
    std::string_view payload = text.substr(semicolon + 1);
    if (!delegate) return;
    if (payload == "?") {
        if (delegate->clipboardReadRequest(*this, selection)) return;
        if (auto content = delegate->clipboardRead(*this))
            sendResponse(std::string(oscIntroducer(cc)) + "52;" + selection + ";" + base64Encode(*content) +
                         std::string(terminator));
        return;
    }
    if (auto decoded = base64Decode(payload)) delegate->clipboardCopy(*this, *decoded);
}

void Terminal::oscNotification(std::string_view text) {
    auto fields = split(text, ';');
    if (fields.size() < 2 || fields[0] != "notify") return;
    std::string body;
    if (fields.size() > 2) body = std::string(text.substr(fields[0].size() + fields[1].size() + 2));
    if (delegate) delegate->notify(*this, std::string(fields[1]), body);
}

void Terminal::osciTerm2(std::span<const uint8_t> data, std::string_view terminator) {
    std::string_view text = asText(data);
    if (text == "Capabilities") {
        if (options_.featureReport && isPrintableAscii(*options_.featureReport))
            sendResponse(std::string(oscIntroducer(cc)) + "1337;Capabilities=" + *options_.featureReport +
                         std::string(terminator));
        return;
    }
    if (text.starts_with("File=")) {
        std::string_view value = text.substr(5);
        size_t colon = value.find(':');
        if (colon == std::string_view::npos) return;
        bool inlineImage = false, preserveAspectRatio = true;
        ImageSizeRequest width, height;
        for (std::string_view pair : split(value.substr(0, colon), ';')) {
            size_t equals = pair.find('=');
            if (equals == std::string_view::npos) continue;
            std::string_view key = pair.substr(0, equals), argument = pair.substr(equals + 1);
            if (key == "inline") inlineImage = argument == "1";
            else if (key == "width") width = parseDimension(argument);
            else if (key == "height") height = parseDimension(argument);
            else if (key == "preserveAspectRatio") preserveAspectRatio = argument != "0";
        }
        if (!inlineImage) return;
        auto decoded = base64Decode(value.substr(colon + 1));
        if (decoded && delegate) delegate->createImage(*this, *decoded, width, height, preserveAspectRatio);
        return;
    }
    if (delegate) delegate->iTermContent(*this, data);
}

void Terminal::freshLine() {
    if (buffer_->x == 0) return;
    carriageReturn();
    lineFeed();
}

void Terminal::beginSemanticPromptGroup() { activeSemanticGroupID = ++semanticGroupCounter; }

void Terminal::resetSemanticPromptState() {
    semanticContent = suspendedSemanticContent = SemanticContent::none();
    activeSemanticGroupID.reset();
    semanticClickMode.reset();
    semanticClickEvents = 0;
    semanticInputStart.reset();
}

// A full-screen program on the alternate screen is no part of the prompt or the command's
// output; the state comes back with the normal screen.
void Terminal::semanticNoteAlternateScreenSwitch(bool toAlternate) {
    if (toAlternate) {
        suspendedSemanticContent = std::exchange(semanticContent, SemanticContent::none());
    } else {
        semanticContent = suspendedSemanticContent;
        suspendedSemanticContent = SemanticContent::none();
    }
}

void Terminal::oscSemanticPrompt(std::string_view text) {
    if (isAlternateBuffer()) return;
    auto fields = split(text, ';');
    if (fields[0].size() != 1) return;
    SemanticPromptOptions options = parseSemanticPromptOptions(fields);
    if (!options.valid) return;
    Buffer& b = *buffer_;
    auto markPrompt = [&](SemanticPromptKind kind) {
        semanticContent = SemanticContent::prompt(kind);
        if (activeSemanticGroupID) b.row(b.y).setSemanticMark(kind, std::min(b.x, cols_ - 1), *activeSemanticGroupID);
    };
    switch (fields[0][0]) {
    case 'A':
    case 'N':
        freshLine();
        beginSemanticPromptGroup();
        semanticClickMode = options.clickMode;
        semanticClickEvents = options.clickEvents.value_or(0);
        semanticInputStart.reset();
        markPrompt(options.kind.value_or(SemanticPromptKind::initial));
        break;
    case 'P': markPrompt(options.kind.value_or(SemanticPromptKind::initial)); break;
    case 'B':
        semanticContent = SemanticContent::input();
        semanticInputStart = std::pair{b.yBase + b.y, std::min(b.x, cols_ - 1)};
        break;
    case 'I': semanticContent = SemanticContent::input(); break;
    case 'C':
        semanticContent = SemanticContent::output();
        semanticInputStart.reset();
        break;
    case 'D':
        semanticContent = SemanticContent::none();
        activeSemanticGroupID.reset();
        semanticInputStart.reset();
        break;
    case 'L': freshLine(); break;
    default: break;
    }
}

bool Terminal::handleSemanticPromptClick(Position target, bool modifierHeld) {
    using Behavior = SemanticPromptClickBehavior;
    if (semanticPromptClickBehavior == Behavior::disabled) return false;
    if (semanticPromptClickBehavior == Behavior::requireModifier && !modifierHeld) return false;
    if (isAlternateBuffer() || !semanticInputStart || semanticContent != SemanticContent::input()) return false;
    if (!semanticClickMode && semanticClickEvents == 0) return false;
    const Buffer& b = *buffer_;
    int col = std::clamp(target.col, 0, cols_ - 1), row = std::clamp(target.row, 0, rows_ - 1);
    auto [startRow, startCol] = *semanticInputStart;
    int absoluteRow = b.yBase + row;
    if (absoluteRow < startRow || (absoluteRow == startRow && col < startCol)) return false;

    std::string csi(csiIntroducer(cc));
    if (semanticClickEvents != 0) {
        std::string position = std::to_string(col + 1) + ";" + std::to_string(row + 1);
        sendResponse(csi + "<0;" + position + "M" + csi + "<0;" + position + "m");
        return true;
    }
    std::string arrow = applicationCursor ? "\x1bO" : csi;
    auto repeat = [&](char key, int count) {
        std::string out;
        for (int i = 0; i < count; ++i) out += arrow + key;
        return out;
    };
    int cursorCol = std::min(b.x, cols_ - 1), cursorRow = b.y;
    std::string moves;
    switch (*semanticClickMode) {
    case SemanticPromptCursorClickMode::line:
        if (row != cursorRow) return false;
        moves = col < cursorCol ? repeat('D', cursorCol - col) : repeat('C', col - cursorCol);
        break;
    case SemanticPromptCursorClickMode::multiple: {
        int distance = (row * cols_ + col) - (cursorRow * cols_ + cursorCol);
        moves = distance < 0 ? repeat('D', -distance) : repeat('C', distance);
        break;
    }
    case SemanticPromptCursorClickMode::conservativeVertical:
    case SemanticPromptCursorClickMode::smartVertical:
        moves = row < cursorRow ? repeat('A', cursorRow - row) : repeat('B', row - cursorRow);
        moves += col < cursorCol ? repeat('D', cursorCol - col) : repeat('C', col - cursorCol);
        break;
    }
    if (moves.empty()) return false;
    sendResponse(moves);
    return true;
}

void Terminal::oscProgramStatus(std::string_view text) {
    auto report = ProgramStatusReport::parse(text);
    if (!report) return;
    if (programStatusStore.apply(*report) && delegate)
        delegate->programStatusChanged(*this, programStatusStore.orderedRecords());
}

} // namespace vellum
