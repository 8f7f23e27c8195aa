#pragma once

#include <functional>
#include <string_view>

namespace vellum {

// Lines the renderer writes to the application's log ("glyph atlas ...", "Vellum: ...").
// Standard error unless the application installs its log, or a test captures them.
using RenderLogSink = std::function<void(std::string_view line)>;

RenderLogSink setRenderLogSink(RenderLogSink sink);
void renderLog(std::string_view line);

} // namespace vellum
