#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Vellum/Attribute.h"

namespace vellum {

// What the input side needs to encode keys, mouse and paste for the program.
struct TerminalInputStateSnapshot {
    int cols = 0, rows = 0;
    bool isAlternateBuffer = false;
    bool applicationCursor = false;
    bool applicationKeypad = false;
    bool bracketedPasteMode = false;
    int mouseMode = 0;
    uint32_t keyboardEnhancementFlags = 0; // Kitty keyboard flags in force on the active screen
    bool focusReportingEnabled = false;

    bool operator==(const TerminalInputStateSnapshot&) const = default;
};

// Which rows a content snapshot takes: the screen alone, or the screen with up to
// `maximumScrollbackRows` rows of history above it.
struct TerminalContentRegion {
    enum class Kind : uint8_t { viewport, history };
    Kind kind = Kind::viewport;
    int maximumScrollbackRows = 0;

    static TerminalContentRegion viewport() { return {}; }
    static TerminalContentRegion history(int maximumScrollbackRows) { return {Kind::history, maximumScrollbackRows}; }
};

struct TerminalCellSnapshot {
    std::string text; // empty for an empty cell and for the second half of a wide one
    int width = 1;
    Attribute attribute;

    bool operator==(const TerminalCellSnapshot&) const = default;
};

struct TerminalContentRowSnapshot {
    int absoluteRow = 0; // counted from the oldest row the buffer keeps
    bool isWrapped = false;
    std::vector<TerminalCellSnapshot> cells;
};

// A copy of rows of one buffer, readable without the terminal's lock.
struct TerminalContentSnapshot {
    TerminalInputStateSnapshot inputState;
    int capturedStart = 0, capturedEnd = 0; // absolute rows [start, end)
    int liveTopRow = 0;                     // absolute row of the screen's first row
    std::vector<TerminalContentRowSnapshot> rows;
    int cursorRow = 0; // absolute
    int cursorColumn = 0;
};

} // namespace vellum
