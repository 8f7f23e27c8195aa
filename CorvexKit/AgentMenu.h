#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CorvexKit/AgentEntry.h"

namespace corvex {

// One entry of an agent row's context menu.
struct AgentMenuItem {
    enum class Action { open, resolve, mute, unmute, promptReply, pressKey, allow, deny, history };

    Action action = Action::open;
    std::string title;
    std::optional<std::string> keyHint;
    std::optional<std::string> key;     // for pressKey: the key sent
    std::optional<std::string> request; // for allow and deny

    bool operator==(const AgentMenuItem&) const = default;
};

// "Open Pane"; "Resolve" when the agent needs the user; "Mute" or "Unmute" where the daemon
// mutes; the replies and the first pending permission request; "History…" where kept.
std::vector<AgentMenuItem> agentMenu(const AgentEntry& entry, bool canDecide, bool hasHistory);

// Tool-tips of the row's controls.
inline constexpr std::string_view resolveToolTip = "Resolve: hide it until it needs you again (on every device)";
inline constexpr std::string_view muteToolTip = "Mute: don't bring this agent back until unmuted";
inline constexpr std::string_view mutedToolTip = "Muted: it won't come back until you unmute it (right-click)";

} // namespace corvex
