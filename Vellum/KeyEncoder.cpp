#include "Vellum/KeyEncoder.h"

namespace vellum {

namespace {

constexpr std::string_view csi = "\x1b[", ss3 = "\x1bO";

std::string withAlt(std::string bytes, bool alt) { return alt ? "\x1b" + bytes : bytes; }

// Cursor keys, Home, End and the keypad's Begin: SS3 in application cursor mode, CSI otherwise, CSI 1;m with modifiers.
std::string cursorKey(char final, const KeyInput& input, KeyboardModes modes) {
    if (input.modifiers.any()) return std::string(csi) + "1;" + std::to_string(input.modifiers.parameter()) + final;
    return std::string(modes.applicationCursor ? ss3 : csi) + final;
}

// Insert, Delete, Page Up, Page Down and F5 on: CSI n ~, or CSI n;m ~ with modifiers.
std::string tildeKey(int number, KeyModifiers modifiers) {
    std::string out = std::string(csi) + std::to_string(number);
    if (modifiers.any()) out += ";" + std::to_string(modifiers.parameter());
    return out + "~";
}

std::string functionKey(int number, KeyModifiers modifiers) {
    // F13 to F24 are the shifted F1 to F12, as the terminfo entry describes them.
    if (number > 12 && number <= 24) {
        number -= 12;
        modifiers.shift = true;
    }
    if (number >= 1 && number <= 4) {
        char final = char('P' + number - 1);
        if (!modifiers.any()) return std::string(ss3) + final;
        return std::string(csi) + "1;" + std::to_string(modifiers.parameter()) + final;
    }
    static constexpr int codes[] = {15, 17, 18, 19, 20, 21, 23, 24}; // F5 to F12
    if (number >= 5 && number <= 12) return tildeKey(codes[number - 5], modifiers);
    return {};
}

// Keypad keys other than digits in application keypad mode. Digits keep typing digits, as
// xterm does while Num Lock is on.
std::optional<char> applicationKeypadFinal(std::string_view text) {
    if (text.size() != 1) return std::nullopt;
    switch (text[0]) {
    case '*': return 'j';
    case '+': return 'k';
    case ',': return 'l';
    case '-': return 'm';
    case '/': return 'o';
    case '=': return 'X';
    default: return std::nullopt;
    }
}

char32_t firstScalar(std::string_view text) {
    if (text.empty()) return 0;
    auto c = uint8_t(text[0]);
    return c < 0x80 ? char32_t(c) : 0;
}

std::string characterKey(const KeyInput& input, KeyboardModes modes) {
    const KeyModifiers& m = input.modifiers;
    if (input.keypad && modes.applicationKeypad && !m.any()) {
        if (auto final = applicationKeypadFinal(input.text)) return std::string(ss3) + *final;
    }
    std::string out = input.text;
    if (m.ctrl) {
        char32_t key = firstScalar(input.text);
        if (!controlCharacter(key) && input.base) key = input.base;
        if (auto control = controlCharacter(key)) out.assign(1, *control);
    }
    if (out.empty()) return {};
    return withAlt(std::move(out), m.alt);
}

} // namespace

std::optional<char> controlCharacter(char32_t key) {
    if ((key >= 'a' && key <= 'z') || (key >= 'A' && key <= 'Z')) return char(key & 0x1f);
    switch (key) {
    case '@': case ' ': case '2': case '`': return char(0x00);
    case '[': case '3': return char(0x1b);
    case '\\': case '4': return char(0x1c);
    case ']': case '5': return char(0x1d);
    case '^': case '~': case '6': return char(0x1e);
    case '_': case '/': case '-': case '7': return char(0x1f);
    case '?': case '8': return char(0x7f);
    default: return std::nullopt;
    }
}

std::string encodeKey(const KeyInput& input, KeyboardModes modes) {
    const KeyModifiers& m = input.modifiers;
    switch (input.key) {
    case TerminalKey::character: return characterKey(input, modes);
    case TerminalKey::enter:
        if (input.keypad && modes.applicationKeypad && !m.any()) return std::string(ss3) + "M";
        return withAlt("\r", m.alt);
    case TerminalKey::tab: return m.shift ? std::string(csi) + "Z" : withAlt("\t", m.alt);
    case TerminalKey::backspace: return withAlt(m.ctrl ? "\x08" : "\x7f", m.alt);
    case TerminalKey::escape: return withAlt("\x1b", m.alt);
    case TerminalKey::up: return cursorKey('A', input, modes);
    case TerminalKey::down: return cursorKey('B', input, modes);
    case TerminalKey::right: return cursorKey('C', input, modes);
    case TerminalKey::left: return cursorKey('D', input, modes);
    case TerminalKey::home: return cursorKey('H', input, modes);
    case TerminalKey::end: return cursorKey('F', input, modes);
    case TerminalKey::begin: return cursorKey('E', input, modes);
    case TerminalKey::insert: return tildeKey(2, m);
    case TerminalKey::deleteKey: return tildeKey(3, m);
    case TerminalKey::pageUp: return tildeKey(5, m);
    case TerminalKey::pageDown: return tildeKey(6, m);
    case TerminalKey::function: return functionKey(input.functionNumber, m);
    }
    return {};
}

std::string encodePaste(std::string_view text, bool bracketed) {
    std::string body;
    body.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') continue; // CR LF: one CR
        body += text[i] == '\n' ? '\r' : text[i];
    }
    if (!bracketed) return body;
    static constexpr std::string_view endMarker = "\x1b[201~";
    // Erasing can join the pieces around a marker into a new one, so look again a little before.
    for (size_t at = body.find(endMarker); at != std::string::npos;
         at = body.find(endMarker, at >= endMarker.size() ? at - endMarker.size() : 0))
        body.erase(at, endMarker.size());
    return "\x1b[200~" + body + std::string(endMarker);
}

} // namespace vellum
