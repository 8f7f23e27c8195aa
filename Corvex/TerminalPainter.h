#pragma once

#include <QColor>
#include <QFont>
#include <QSize>
#include <QString>
#include <array>
#include <optional>
#include <unordered_map>

#include "Vellum/TerminalRenderSnapshot.h"

class QPainter;

namespace corvex {

// What a row shows beyond its cells.
struct RowOverlay {
    std::optional<std::pair<int, int>> selection; // columns [first, last)
    bool cursor = false;                          // the cursor is on this row and shown now
    bool focused = true;                          // a view without focus shows a hollow cursor
    QString preedit;                              // an input method's uncommitted text, at the cursor
};

// Draws the retained snapshot's rows with QPainter: runs of cells with one rendition become
// one background rectangle and one text run; characters the main font lacks, and wide ones,
// are placed cell by cell so that fallback fonts keep the grid.
class TerminalPainter {
public:
    TerminalPainter();

    void setFont(const QFont& font);
    const QFont& font() const { return fonts_[0]; }
    QSize cellSize() const { return cell_; }

    void paintRow(QPainter& painter, const vellum::TerminalSnapshot& snapshot, int y, const RowOverlay& overlay);

    // Colours of the snapshot, with reverse video applied.
    static QColor defaultForeground(const vellum::TerminalRenderSnapshot& state);
    static QColor defaultBackground(const vellum::TerminalRenderSnapshot& state);

private:
    struct CellLook {
        QColor fg, bg;
        bool defaultBackground = true;
        int fontIndex = 0; // bold 1, italic 2
        vellum::UnderlineStyle underline = vellum::UnderlineStyle::none;
        QColor underlineColor;
        bool strike = false;
        bool operator==(const CellLook&) const = default;
    };
    CellLook look(const vellum::RenderSnapshotCell& cell, const vellum::TerminalRenderSnapshot& state, bool selected) const;
    bool fitsGrid(const vellum::RenderSnapshotCell& cell);
    void applyLineMode(QPainter& painter, vellum::BufferLine::RenderLineMode mode, int top) const;
    // Draws one cell's text on its own, shrunk to its cells when the glyph is wider.
    void drawCellText(QPainter& painter, const vellum::RenderSnapshotCell& cell, int fontIndex, int x, int top);
    void drawDecorations(QPainter& painter, const CellLook& look, int x, int width, int top);
    void drawCursor(QPainter& painter, const vellum::TerminalRenderSnapshot& state, const RowOverlay& overlay,
                    const vellum::RenderSnapshotCell* cell, int top);
    void drawPreedit(QPainter& painter, const vellum::TerminalRenderSnapshot& state, const QString& text, int top);

    std::array<QFont, 4> fonts_; // regular, bold, italic, bold italic
    QFont emojiFont_;            // colour emoji before the text fonts' own pictographs
    QSize cell_;
    int ascent_ = 0, underlinePos_ = 1, lineWidth_ = 1, strikePos_ = 0;
    std::unordered_map<char32_t, bool> inMainFont_;
};

} // namespace corvex
