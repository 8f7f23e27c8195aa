#pragma once

#include <optional>
#include <string_view>

#include "CorvexKit/SessionBackend.h"

namespace corvex {

// The bytes a named key sends to a program, as a terminal in its normal modes sends them.
// Names are case-insensitive: "Enter", "Escape" (or "Esc"), "Tab", "Backspace", "Space",
// "Up", "Down", "Left", "Right", "Home", "End", "PageUp", "PageDown", "Insert", "Delete",
// and "C-" with a letter or one of "@[\]^_" for a control character ("C-c"). Absent for a
// name it doesn't know.
std::optional<Bytes> keyBytes(std::string_view name);

} // namespace corvex
