#include "CorvexKit/AgentRules.h"

#include <cctype>

namespace corvex {

using State = AgentInfo::State;

bool isMuted(const AgentInfo& info) { return info.muted == true; }

bool isQuietRise(const AgentInfo& info) { return info.quietRise == true; }

bool isHookSourced(const AgentInfo& info) { return info.source == "hook"; }

bool needsAttention(const AgentInfo& info) { return info.attention == true && !isMuted(info); }

bool isQuiet(const AgentInfo& info) { return info.state == State::waiting && !needsAttention(info); }

std::optional<double> turnDuration(const AgentInfo& info) {
    if (info.state != State::done && info.state != State::error) return std::nullopt;
    if (!info.since || !info.turnStarted || *info.turnStarted > *info.since) return std::nullopt;
    return *info.since - *info.turnStarted;
}

const std::vector<PermissionRequest>& pendingRequests(const AgentInfo& info) {
    static const std::vector<PermissionRequest> none;
    return info.requests ? *info.requests : none;
}

std::optional<std::chrono::system_clock::time_point> sinceDate(const AgentInfo& info) {
    if (!info.since) return std::nullopt;
    auto offset = std::chrono::duration<double>(*info.since);
    return std::chrono::system_clock::time_point(std::chrono::duration_cast<std::chrono::system_clock::duration>(offset));
}

std::string kindName(const AgentInfo& info) { return AgentInfo::kindName(info.kind); }

std::string shortName(const AgentInfo& info) { return AgentInfo::shortName(info.kind); }

AgentShownState stateAppearance(State state) {
    switch (state) {
    case State::starting: return {"hourglass", AgentColor::dimText, "Starting"};
    case State::running: return {"circle.dashed", AgentColor::accent, "Running"};
    case State::waiting: return {"hand.raised.fill", AgentColor::warning, "Waiting for you"};
    case State::done: return {"checkmark.circle.fill", AgentColor::success, "Done"};
    case State::error: return {"exclamationmark.triangle.fill", AgentColor::danger, "Error"};
    case State::unknown: break;
    }
    return {"questionmark.circle", AgentColor::dimText, "Unknown"};
}

AgentShownState shownState(const AgentInfo& info) {
    if (isQuiet(info)) return {"moon.zzz", AgentColor::dimText, "Idle"};
    return stateAppearance(info.state);
}

std::optional<AgentColor> badgeColor(const AgentInfo& info) {
    if (needsAttention(info)) {
        switch (info.state) {
        case State::done: return AgentColor::success;
        case State::error: return AgentColor::danger;
        case State::waiting: return AgentColor::warning;
        case State::running: return AgentColor::accent;
        case State::starting:
        case State::unknown: return AgentColor::dimText;
        }
    }
    if (info.state == State::starting || info.state == State::running) return AgentColor::accent;
    return std::nullopt;
}

std::string agentDetail(const AgentInfo& info) {
    std::string detail(shownState(info).label);
    for (char& c : detail) c = char(std::tolower(static_cast<unsigned char>(c)));
    if (info.prompt && !info.prompt->empty()) return detail + ": " + *info.prompt;
    if (info.message && !info.message->empty()) return detail + ": " + *info.message;
    return detail;
}

namespace {

bool isRise(const AgentInfo& to, const AgentInfo* from) {
    return needsAttention(to) && !(from && needsAttention(*from)) &&
           (to.state == State::waiting || to.state == State::done || to.state == State::error);
}

} // namespace

bool notifiesRise(const AgentInfo& to, const AgentInfo* from) { return isRise(to, from) && !isQuietRise(to); }

bool risesQuietly(const AgentInfo& to, const AgentInfo* from) { return isRise(to, from) && isQuietRise(to); }

std::string monitorAgentsKey(std::string_view machine) { return "MonitorAgents." + std::string(machine); }

std::string notifyAgentKey(State state) { return "NotifyAgent." + std::string(wireName(state)); }

} // namespace corvex
