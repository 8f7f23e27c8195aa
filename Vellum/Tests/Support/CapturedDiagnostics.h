#pragma once

#include <string>
#include <vector>

#include "Vellum/Diagnostics.h"

namespace vellum::testing {

// Collects the engine's diagnostic lines for the life of the object.
class CapturedDiagnostics {
public:
    CapturedDiagnostics() {
        previous_ = setDiagnosticSink([this](std::string_view line) { lines.emplace_back(line); });
    }
    ~CapturedDiagnostics() { setDiagnosticSink(std::move(previous_)); }
    CapturedDiagnostics(const CapturedDiagnostics&) = delete;
    CapturedDiagnostics& operator=(const CapturedDiagnostics&) = delete;

    std::vector<std::string> lines;

private:
    DiagnosticSink previous_;
};

} // namespace vellum::testing
