#pragma once

#include <vector>

#include "CorvexKit/SessionBackend.h"
#include "Vellum/Palette.h"

namespace corvex {

// The colours a terminal view starts from in the light and dark appearance. Programs may
// change them (OSC 4, 10, 11, 12); the theme is what a reset goes back to and what the
// daemon's terminal is told, so that its answers to colour queries match what is drawn.
struct TerminalTheme {
    vellum::Color foreground, background, cursor;
    std::vector<vellum::Color> ansi; // the 16 installed colours

    static TerminalTheme dark();
    static TerminalTheme light();
    static TerminalTheme forAppearance(bool dark) { return dark ? TerminalTheme::dark() : TerminalTheme::light(); }
};

RGB toRGB(vellum::Color color);

} // namespace corvex
