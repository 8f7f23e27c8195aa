#pragma once

#include <optional>
#include <string>

#include "CorvexSession/SessionCore.h"

namespace corvexd {

// What a serving process leaves in the runtime folder for the build that replaces it. The
// instance stays, so clients keep their positions in every pane across the swap.
struct HandOver {
    std::string instance;
    corvex::SessionHandOver session;
};

// Written whole (a reader never sees a part); raises DaemonError.
void writeHandOver(const std::string& path, const HandOver& handOver);
// Reads the hand-over and removes it, so that it is taken once; absent when there is none or
// it doesn't read.
std::optional<HandOver> takeHandOver(const std::string& path);

} // namespace corvexd
