#include "Vellum/TerminalOptions.h"

namespace vellum {

std::string_view tagName(CursorStyle style) {
    switch (style) {
    case CursorStyle::blinkBlock: return "blinkBlock";
    case CursorStyle::steadyBlock: return "steadyBlock";
    case CursorStyle::blinkUnderline: return "blinkUnderline";
    case CursorStyle::steadyUnderline: return "steadyUnderline";
    case CursorStyle::blinkBar: return "blinkBar";
    case CursorStyle::steadyBar: return "steadyBar";
    }
    return "blinkBlock";
}

} // namespace vellum
