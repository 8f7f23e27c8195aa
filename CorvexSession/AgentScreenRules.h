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
// The agent goes when its program no longer holds the terminal.
namespace corvex {

struct ScreenReading {
    AgentInfo::State state = AgentInfo::State::unknown;
    bool attention = false;
    std::optional<std::string> message;

    bool operator==(const ScreenReading&) const = default;
};

ScreenReading readAgentScreen(const std::vector<std::string>& lines, bool outputStreaming);

// The agent as guessed from a reading: a change of state starts a new `since`; attention
// once cleared by the user stays cleared while the reading is the same.
AgentInfo guessedAgent(const std::optional<AgentInfo>& current, const std::string& kind, const ScreenReading& reading,
                       double now);

} // namespace corvex
