#include "Vellum/RenderLog.h"

#include <cstdio>
#include <mutex>
#include <string>

namespace vellum {

namespace {
std::mutex sinkMutex;
RenderLogSink& currentSink() {
    static RenderLogSink sink;
    return sink;
}
} // namespace

RenderLogSink setRenderLogSink(RenderLogSink sink) {
    std::lock_guard lock(sinkMutex);
    std::swap(currentSink(), sink);
    return sink;
}

void renderLog(std::string_view line) {
    RenderLogSink sink;
    {
        std::lock_guard lock(sinkMutex);
        sink = currentSink();
    }
    if (sink) {
        sink(line);
        return;
    }
    std::string text(line);
    text.push_back('\n');
    std::fwrite(text.data(), 1, text.size(), stderr);
}

} // namespace vellum
