#include "Vellum/Diagnostics.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Vellum/LineSink.h"

namespace vellum {

namespace {
LineSink& diagnosticLines() {
    static LineSink lines;
    return lines;
}
} // namespace

DiagnosticSink setDiagnosticSink(DiagnosticSink sink) { return diagnosticLines().replace(std::move(sink)); }

void diagnostic(std::string_view message) {
    std::string line = "Info: ";
    line.append(message);
    diagnosticLines().write(line);
}

void fatalError(std::string_view message) {
    std::fprintf(stderr, "vellum: fatal: %.*s\n", int(message.size()), message.data());
    std::abort();
}

} // namespace vellum
