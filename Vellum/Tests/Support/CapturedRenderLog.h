#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "Vellum/RenderLog.h"

namespace vellum::testing {

// Collects the renderer's log lines for the life of the object.
struct CapturedRenderLog {
    std::vector<std::string> lines;
    RenderLogSink previous;
    CapturedRenderLog() { previous = setRenderLogSink([this](std::string_view l) { lines.emplace_back(l); }); }
    ~CapturedRenderLog() { setRenderLogSink(previous); }
    bool has(std::string_view text) const {
        return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.find(text) != std::string::npos; });
    }
};

} // namespace vellum::testing
