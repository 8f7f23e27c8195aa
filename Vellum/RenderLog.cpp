#include "Vellum/RenderLog.h"

#include "Vellum/LineSink.h"

namespace vellum {

namespace {
LineSink& renderLines() {
    static LineSink lines;
    return lines;
}
} // namespace

RenderLogSink setRenderLogSink(RenderLogSink sink) { return renderLines().replace(std::move(sink)); }

void renderLog(std::string_view line) { renderLines().write(line); }

} // namespace vellum
