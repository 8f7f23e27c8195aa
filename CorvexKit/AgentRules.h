#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CorvexKit/SessionModel.h"

// What an agent's reported fields mean for the user. The daemon decides state and attention;
// these rules only read them, the same way in every view.
namespace corvex {

// Theme roles; the interface maps them to its palette.
enum class AgentColor { dimText, accent, warning, success, danger };

struct AgentShownState {
    std::string_view symbol;
    AgentColor color = AgentColor::dimText;
    std::string_view label;

    bool operator==(const AgentShownState&) const = default;
};

bool isMuted(const AgentInfo& info);
bool isQuietRise(const AgentInfo& info);
// The agent itself reported through its status hooks, rather than the daemon guessing.
bool isHookSourced(const AgentInfo& info);
// The daemon's verdict, unless the user muted the agent.
bool needsAttention(const AgentInfo& info);
// Waiting, but nobody must look at it: shown as "Idle".
bool isQuiet(const AgentInfo& info);
// Seconds the finished turn took, for "done" and "error" only.
std::optional<double> turnDuration(const AgentInfo& info);
const std::vector<PermissionRequest>& pendingRequests(const AgentInfo& info);
std::optional<std::chrono::system_clock::time_point> sinceDate(const AgentInfo& info);
std::string kindName(const AgentInfo& info);
std::string shortName(const AgentInfo& info);

// The symbol and label of a state by itself, as the history shows it.
AgentShownState stateAppearance(AgentInfo::State state);
// As the agent lists show it: a quiet agent reads "Idle".
AgentShownState shownState(const AgentInfo& info);
// The colour of the agent's badge, if it has one.
std::optional<AgentColor> badgeColor(const AgentInfo& info);

// The row's detail: the state in lower case, then ": " and the prompt, else the message.
std::string agentDetail(const AgentInfo& info);

// A rise to attention that deserves a notification: the agent needs the user now and didn't
// before, it is waiting, done or failed, and the daemon didn't mark the rise quiet.
bool notifiesRise(const AgentInfo& to, const AgentInfo* from);
// The same rise, held back only because the daemon marked it quiet.
bool risesQuietly(const AgentInfo& to, const AgentInfo* from);

// Preference keys: "MonitorAgents.<machine>" (absent means monitored) and
// "NotifyAgent.<state>" (absent means notify).
std::string monitorAgentsKey(std::string_view machine);
std::string notifyAgentKey(AgentInfo::State state);

} // namespace corvex
