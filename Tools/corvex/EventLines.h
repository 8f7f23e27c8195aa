#pragma once

#include <string>

#include "CorvexKit/SessionBackend.h"

namespace corvex::cli {

// One event as one line of JSON: {"event": NAME, ...}. Pane bytes appear as "size" and a
// "text" in which bytes that aren't UTF-8 read as U+FFFD.
std::string eventLine(const SessionEvent& event);

} // namespace corvex::cli
