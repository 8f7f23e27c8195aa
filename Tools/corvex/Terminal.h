#pragma once

#include <csignal>
#include <optional>
#include <string_view>

namespace corvex::cli {

// Ctrl-\ is the attach prefix unless --prefix names another.
inline constexpr char detachKey = '\x1c';

// The signals an attached terminal takes on a thread of its own; blocked in every thread
// before any is started.
sigset_t interactiveSignals();

} // namespace corvex::cli
