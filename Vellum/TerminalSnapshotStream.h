#pragma once

#include <cstddef>
#include <string>

namespace vellum {

class Terminal;

struct SnapshotStreamOptions {
    // Rows of history to include above the screen, newest kept; fewer when fewer exist.
    int scrollbackRows = 0;
    // The stream never grows past this; the oldest history goes first to make it fit.
    size_t byteLimit = 16u << 20;
};

// Bytes that, fed to a fresh terminal of the same size (with room for the history), rebuild
// this terminal's screen: cells with their renditions and widths, wrapped rows, the history
// asked for, the alternate screen over the normal one, the cursor and its pending wrap, the
// pen, the scroll region and margins, the title, and the modes that change what the program
// or the keyboard sees. Call it while nothing feeds the terminal.
std::string snapshotStream(Terminal& terminal, const SnapshotStreamOptions& options = {});

} // namespace vellum
