#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vellum {

// The legacy (xterm) keyboard: what a key sends to the program in the terminal's modes.

enum class TerminalKey : uint8_t {
    character, // a key that types text: `text`, and `base` for control combinations
    enter,
    tab,
    backspace,
    escape,
    up,
    down,
    left,
    right,
    home,
    end,
    begin, // the keypad's middle key with Num Lock off
    pageUp,
    pageDown,
    insert,
    deleteKey,
    function, // F1 to F24: `functionNumber`
};

struct KeyModifiers {
    bool shift = false, alt = false, ctrl = false, meta = false;

    bool any() const { return shift || alt || ctrl || meta; }
    // The xterm modifier parameter: 1 plus shift 1, alt 2, ctrl 4, meta 8.
    int parameter() const { return 1 + (shift ? 1 : 0) + (alt ? 2 : 0) + (ctrl ? 4 : 0) + (meta ? 8 : 0); }
    bool operator==(const KeyModifiers&) const = default;
};

struct KeyInput {
    TerminalKey key = TerminalKey::character;
    std::string text;  // UTF-8 the key types, shift applied ("A" for Shift+a)
    char32_t base = 0; // the key's unshifted character ('a', '2', '['), 0 when unknown
    int functionNumber = 0;
    bool keypad = false; // the key is on the numeric keypad
    KeyModifiers modifiers;
};

struct KeyboardModes {
    bool applicationCursor = false; // DECCKM
    bool applicationKeypad = false; // DECKPAM
};

// The bytes for one key press; empty when the key sends nothing.
std::string encodeKey(const KeyInput& input, KeyboardModes modes);

// The control character Ctrl gives with a key, or nothing when Ctrl changes nothing.
std::optional<char> controlCharacter(char32_t key);

// Pasted text as the program receives it: line ends become carriage returns, and inside
// bracketed paste the end marker cannot be forged by the text.
std::string encodePaste(std::string_view text, bool bracketed);

} // namespace vellum
