#pragma once

#include <QColor>
#include <QRect>

class QPainter;

namespace corvex {

// Box-drawing lines (U+2500 to U+257F) and block elements (U+2580 to U+259F) drawn to the
// exact cell, so that lines meet across cells whatever the font's glyphs look like. Dashed
// lines are drawn solid. False for a character it does not draw.
bool drawBoxCharacter(QPainter& painter, char32_t character, const QRect& cell, const QColor& color);

inline bool isBoxCharacter(char32_t character) { return character >= 0x2500 && character <= 0x259F; }

} // namespace corvex
