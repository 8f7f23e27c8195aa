#pragma once

#include <QColor>
#include <QRect>

#include "Vellum/BoxDrawingRenderer.h"

class QPainter;

namespace corvex {

// Box-drawing lines, block elements and Powerline separators drawn to the exact cell from the
// same coverage the GPU path puts in its atlas, so that both paths draw them alike and lines
// meet across cells whatever the font's glyphs look like. False for a character it does not draw.
bool drawBoxCharacter(QPainter& painter, char32_t character, const QRect& cell, const QColor& color);

inline bool isBoxCharacter(char32_t character) { return vellum::isSynthesizedGlyph(character); }

} // namespace corvex
