#include "Vellum/TerminalContentSnapshot.h"

#include "Vellum/Terminal.h"

namespace vellum {

TerminalInputStateSnapshot Terminal::inputStateSnapshot() const {
    return {
        .cols = cols_,
        .rows = rows_,
        .isAlternateBuffer = isAlternateBuffer(),
        .applicationCursor = applicationCursor,
        .applicationKeypad = applicationKeypad,
        .bracketedPasteMode = bracketedPasteMode,
        .mouseMode = mouseMode,
        .keyboardEnhancementFlags = keyboardEnhancementFlags(),
        .focusReportingEnabled = sendFocus,
    };
}

TerminalContentSnapshot Terminal::contentSnapshot(TerminalContentRegion region, bool alternate) {
    Buffer& b = alternate ? *altBuffer : *normalBuffer;
    TerminalContentSnapshot snapshot;
    snapshot.inputState = inputStateSnapshot();
    snapshot.liveTopRow = b.yBase;
    int history = region.kind == TerminalContentRegion::Kind::history ? std::max(region.maximumScrollbackRows, 0) : 0;
    snapshot.capturedStart = std::max(b.yBase - history, 0);
    snapshot.capturedEnd = b.yBase + rows_;
    snapshot.cursorRow = b.yBase + b.y;
    snapshot.cursorColumn = b.x;
    snapshot.rows.reserve(size_t(snapshot.capturedEnd - snapshot.capturedStart));
    for (int absolute = snapshot.capturedStart; absolute < snapshot.capturedEnd; ++absolute) {
        BufferLine& line = b.lines[absolute];
        TerminalContentRowSnapshot row{absolute, line.isWrapped(), {}};
        row.cells.reserve(size_t(line.count()));
        for (int col = 0; col < line.count(); ++col) {
            CharData data = line[col];
            row.cells.push_back({data.code == 0 ? std::string() : data.getText(), data.width, data.attribute});
        }
        snapshot.rows.push_back(std::move(row));
    }
    return snapshot;
}

} // namespace vellum
