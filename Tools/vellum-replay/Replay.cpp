#include "Tools/vellum-replay/Replay.h"

#include <algorithm>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "Vellum/HeadlessTerminal.h"

namespace vellum::replay {

namespace {

nlohmann::json colorJson(Attribute::Color color) {
    switch (color.kind()) {
    case Attribute::Color::Kind::ansi256: return color.code();
    case Attribute::Color::Kind::trueColor: {
        char text[8];
        std::snprintf(text, sizeof text, "#%02x%02x%02x", color.red(), color.green(), color.blue());
        return text;
    }
    case Attribute::Color::Kind::defaultInvertedColor: return "inverted";
    default: return "default";
    }
}

nlohmann::json cellsJson(BufferLine& line) {
    nlohmann::json cells = nlohmann::json::array();
    for (int col = 0; col < line.count(); ++col) {
        PackedCellView view = line.view(col);
        Attribute attribute = view.attribute();
        cells.push_back({{"text", view.text()},
                         {"width", line.packedCell(col).width()},
                         {"fg", colorJson(attribute.fg)},
                         {"bg", colorJson(attribute.bg)},
                         {"style", attribute.style.rawValue}});
    }
    return cells;
}

} // namespace

std::string replay(std::string_view bytes, const ReplayOptions& options) {
    TerminalOptions terminalOptions;
    terminalOptions.cols = options.cols;
    terminalOptions.rows = options.rows;
    terminalOptions.scrollback = options.scrollback;
    HeadlessTerminal headless(terminalOptions);
    size_t chunk = options.chunk == 0 ? std::max<size_t>(bytes.size(), 1) : options.chunk;
    for (size_t at = 0; at < bytes.size(); at += chunk) headless.feed(bytes.substr(at, chunk));

    Terminal& terminal = *headless.terminal;
    Buffer& buffer = terminal.buffer();
    nlohmann::json lines = nlohmann::json::array(), wrapped = nlohmann::json::array(), scrollback = nlohmann::json::array(),
                   cells = nlohmann::json::array();
    for (int row = 0; row < terminal.rows(); ++row) {
        lines.push_back(terminal.lineText(row));
        wrapped.push_back(buffer.row(row).isWrapped());
        if (options.cells) cells.push_back(cellsJson(buffer.row(row)));
    }
    for (int row = 0; row < buffer.yBase; ++row) scrollback.push_back(buffer.lines[row].translateToString(true, 0, -1, true));

    nlohmann::json out{{"cols", terminal.cols()},
                       {"rows", terminal.rows()},
                       {"cursor", {{"x", buffer.x}, {"y", buffer.y}, {"visible", !terminal.cursorHidden}}},
                       {"alternate", terminal.isAlternateBuffer()},
                       {"title", terminal.title()},
                       {"lines", lines},
                       {"wrapped", wrapped},
                       {"scrollback", scrollback},
                       {"replies", headless.replies}};
    if (options.cells) out["cells"] = cells;
    return out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace vellum::replay
