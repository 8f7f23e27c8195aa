#pragma once

#include <csignal>
#include <optional>
#include <string_view>

namespace corvex::cli {

// Ctrl-\ ends an attach; the bytes typed before it still go to the pane.
inline constexpr char detachKey = '\x1c';
std::optional<size_t> findDetachKey(std::string_view typed);

// The signals an attached terminal takes on a thread of its own; blocked in every thread
// before any is started.
sigset_t interactiveSignals();

} // namespace corvex::cli
