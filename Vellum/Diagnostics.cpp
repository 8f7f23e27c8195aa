#include "Vellum/Diagnostics.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

namespace vellum {

namespace {
std::mutex sinkMutex;
DiagnosticSink& currentSink() {
    static DiagnosticSink sink;
    return sink;
}
} // namespace

DiagnosticSink setDiagnosticSink(DiagnosticSink sink) {
    std::lock_guard lock(sinkMutex);
    std::swap(currentSink(), sink);
    return sink;
}

void diagnostic(std::string_view message) {
    std::string line = "Info: ";
    line.append(message);
    DiagnosticSink sink;
    {
        std::lock_guard lock(sinkMutex);
        sink = currentSink();
    }
    if (sink) {
        sink(line);
    } else {
        line.push_back('\n');
        std::fwrite(line.data(), 1, line.size(), stderr);
    }
}

void fatalError(std::string_view message) {
    std::fprintf(stderr, "vellum: fatal: %.*s\n", int(message.size()), message.data());
    std::abort();
}

} // namespace vellum
