#pragma once

#include <functional>
#include <string_view>

namespace vellum {

// The engine drops bad input and reports oddities as plain lines that begin "Info: ".
// They go to standard error unless a sink is installed (tests capture them this way).
using DiagnosticSink = std::function<void(std::string_view line)>;

// Installs `sink` (an empty one restores standard error) and gives back the previous one.
DiagnosticSink setDiagnosticSink(DiagnosticSink sink);

// Emits "Info: " followed by `message`.
void diagnostic(std::string_view message);

// An internal error the engine cannot continue from: the message goes out, then abort.
[[noreturn]] void fatalError(std::string_view message);

} // namespace vellum
