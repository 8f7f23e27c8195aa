#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

// Text-level JSON coding of the session types, for callers that should not see the JSON
// library. Codec code that works on parsed documents uses SessionCodecJSON.h instead.
namespace corvex {

// A document of the wrong shape: a missing required key, a wrong JSON type, an unknown word
// where only known ones may stand, or text that isn't JSON at all.
class DecodingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Available for ModelState, Workspace, Tab, Layout, Pane, Focus, AgentInfo, PaneGit,
// PaneRestore, Hello, Subscription, PaneText, TerminalColors, Size, SpawnOptions, the Created*
// results, DaemonSettings, DaemonService, PaneSearchResult, AgentHistory, the push types and
// CachedMachineState. Absent optionals are left out; what is written decodes to an equal value.
template <typename T>
std::string encodeText(const T& value);

// Unknown keys are ignored; raises DecodingError.
template <typename T>
T decodeText(std::string_view text);

} // namespace corvex
