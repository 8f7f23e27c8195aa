#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "CorvexKit/SessionModel.h"

namespace corvex {

// The wording of a desktop notification about an agent.
struct AgentNotice {
    static constexpr size_t bodyLimit = 240;

    // What the wording is made of; empty strings count as absent.
    struct Facts {
        std::string kind;
        AgentInfo::State state = AgentInfo::State::unknown;
        std::string machine;
        std::string workspace;
        std::optional<std::string> project;
        std::optional<double> duration; // seconds
        std::optional<std::string> message;
        std::optional<std::string> tool;
        std::optional<std::string> toolInput;
        std::optional<std::string> fallback;
    };

    std::string title;
    std::string subtitle;
    std::string body;

    static AgentNotice make(const Facts& facts);
    // From an agent as the model holds it: the first open permission request, when there is
    // one, names the tool; the user's last prompt is the fallback body.
    static AgentNotice make(const AgentInfo& info, std::string_view machine, std::string_view workspace,
                            const std::optional<std::string>& cwd);

    // The folder's name: the last non-empty path component, never "~".
    static std::optional<std::string> project(std::string_view cwd);
    // "42s", "5m", "2h", "2h 5m"; nothing under a second.
    static std::optional<std::string> duration(double seconds);
    // A permission question ("Allow Bash: ls -la?") when the agent waits on a tool, else the message.
    static std::optional<std::string> result(AgentInfo::State state, const std::optional<std::string>& message,
                                             const std::optional<std::string>& tool,
                                             const std::optional<std::string>& toolInput);
    // White space collapsed to single blanks; longer texts are cut on a word boundary and end
    // in "…", at most `limit` characters in all.
    static std::string clip(std::string_view text, size_t limit);

    bool operator==(const AgentNotice&) const = default;
};

} // namespace corvex
