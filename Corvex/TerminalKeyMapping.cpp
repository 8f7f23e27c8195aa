#include "Corvex/TerminalKeyMapping.h"

#include <QKeyEvent>

namespace corvex {

namespace {

using vellum::TerminalKey;

std::optional<TerminalKey> specialKey(int key) {
    switch (key) {
    case Qt::Key_Return: case Qt::Key_Enter: return TerminalKey::enter;
    case Qt::Key_Tab: case Qt::Key_Backtab: return TerminalKey::tab;
    case Qt::Key_Backspace: return TerminalKey::backspace;
    case Qt::Key_Escape: return TerminalKey::escape;
    case Qt::Key_Up: return TerminalKey::up;
    case Qt::Key_Down: return TerminalKey::down;
    case Qt::Key_Left: return TerminalKey::left;
    case Qt::Key_Right: return TerminalKey::right;
    case Qt::Key_Home: return TerminalKey::home;
    case Qt::Key_End: return TerminalKey::end;
    case Qt::Key_Clear: return TerminalKey::begin;
    case Qt::Key_PageUp: return TerminalKey::pageUp;
    case Qt::Key_PageDown: return TerminalKey::pageDown;
    case Qt::Key_Insert: return TerminalKey::insert;
    case Qt::Key_Delete: return TerminalKey::deleteKey;
    default: break;
    }
    if (key >= Qt::Key_F1 && key <= Qt::Key_F24) return TerminalKey::function;
    return std::nullopt;
}

bool isModifierKey(int key) {
    switch (key) {
    case Qt::Key_Shift: case Qt::Key_Control: case Qt::Key_Alt: case Qt::Key_Meta: case Qt::Key_AltGr:
    case Qt::Key_CapsLock: case Qt::Key_NumLock: case Qt::Key_ScrollLock: case Qt::Key_Super_L:
    case Qt::Key_Super_R: case Qt::Key_Hyper_L: case Qt::Key_Hyper_R: return true;
    default: return false;
    }
}

// The key's own character without Shift: Qt names letters by their capitals.
char32_t baseCharacter(int key) {
    if (key >= Qt::Key_A && key <= Qt::Key_Z) return char32_t('a' + (key - Qt::Key_A));
    if (key >= 0x20 && key < 0x7f) return char32_t(key);
    return 0;
}

} // namespace

std::optional<vellum::KeyInput> keyInputFromEvent(const QKeyEvent& event) {
    int key = event.key();
    if (isModifierKey(key)) return std::nullopt;
    Qt::KeyboardModifiers mods = event.modifiers();
    vellum::KeyInput input;
    input.modifiers = {
        .shift = mods.testFlag(Qt::ShiftModifier) || key == Qt::Key_Backtab,
        .alt = mods.testFlag(Qt::AltModifier),
        .ctrl = mods.testFlag(Qt::ControlModifier),
        .meta = mods.testFlag(Qt::MetaModifier),
    };
    input.keypad = mods.testFlag(Qt::KeypadModifier);
    if (auto special = specialKey(key)) {
        input.key = *special;
        if (*special == TerminalKey::function) input.functionNumber = key - Qt::Key_F1 + 1;
        return input;
    }
    if (input.modifiers.meta) return std::nullopt;
    input.key = TerminalKey::character;
    input.base = baseCharacter(key);
    QString text = event.text();
    // With Ctrl, Qt already gives the control character; the encoder works from the key.
    bool control = !text.isEmpty() && text.at(0).unicode() < 0x20;
    if (!control) input.text = text.toStdString();
    if (input.text.empty() && !(input.modifiers.ctrl && input.base)) return std::nullopt;
    return input;
}

bool isApplicationShortcutChord(const QKeyEvent& event) {
    Qt::KeyboardModifiers mods = event.modifiers();
    if (!mods.testFlag(Qt::ControlModifier) || !mods.testFlag(Qt::ShiftModifier)) return false;
    return !specialKey(event.key()) && !isModifierKey(event.key());
}

} // namespace corvex
