#pragma once

#include <optional>

#include "Vellum/KeyEncoder.h"

class QKeyEvent;

namespace corvex {

// The terminal's view of a Qt key press; nothing for a key that types nothing by itself (a
// lone modifier, a dead key, a Super combination that belongs to the desktop).
std::optional<vellum::KeyInput> keyInputFromEvent(const QKeyEvent& event);

// Ctrl+Shift combinations are the application's shortcuts and never reach the program as
// text; cursor and function keys with Ctrl+Shift still do when no shortcut took them.
bool isApplicationShortcutChord(const QKeyEvent& event);

} // namespace corvex
