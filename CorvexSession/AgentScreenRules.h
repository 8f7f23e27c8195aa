#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CorvexKit/SessionModel.h"

// What an agent without status hooks is doing, read off its terminal. The rules, in order:
//  1. Output still streaming (the terminal took bytes since the last look): running.
//  2. Quiet, and the lines near the cursor ask something (a line ending in "?", a numbered
//     choice such as "1. Yes", "(y/n)", "[Y/n]", "Allow", "Do you want", "Press enter"):
//     waiting, and the user is needed; the question is the message.
//  3. Quiet otherwise, with the agent's prompt on screen: waiting and idle, nobody needed.
// When its program ends, the agent is done or failed, and the user is needed either way:
//  4. Exit status 0: done. Another status or a signal: an error that says which.
//  5. No status to be had: an error when the program's last words above the shell's prompt
//     report one ("error", "fatal", "panic", "failed" opening a line), done otherwise.
// A finished agent stays until the user has seen it (resolved, or typed in the pane), or
// another agent takes the pane; its history outlives it.
namespace corvex {

struct ScreenReading {
    AgentInfo::State state = AgentInfo::State::unknown;
    bool attention = false;
    std::optional<std::string> message;

    bool operator==(const ScreenReading&) const = default;
};

ScreenReading readAgentScreen(const std::vector<std::string>& lines, bool outputStreaming);

// How an agent's program ended, from its wait status when known and else from the screen the
// shell took back.
ScreenReading readAgentExit(std::optional<int> waitStatus, const std::vector<std::string>& lines);

// The agent as guessed from a reading: a change of state starts a new `since`; attention
// once cleared by the user stays cleared while the reading is the same.
AgentInfo guessedAgent(const std::optional<AgentInfo>& current, const std::string& kind, const ScreenReading& reading,
                       double now);

} // namespace corvex
