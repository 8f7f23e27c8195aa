#include "CorvexSession/AgentTracker.h"

#include <algorithm>

namespace corvex {

namespace {

using State = AgentInfo::State;

AgentInfo fresh(const std::optional<AgentInfo>& current, const AgentReport& report) {
    AgentInfo agent = current.value_or(AgentInfo{});
    agent.kind = report.kind;
    agent.source = "hook";
    if (report.session) agent.session = report.session;
    return agent;
}

void moveTo(AgentInfo& agent, State state, bool attention, double now) {
    if (agent.state != state || !agent.since) agent.since = now;
    agent.state = state;
    agent.attention = attention;
}

// Claude Code reminds about an idle prompt with a notification; it doesn't turn a finished
// turn back into a question.
bool isIdleReminder(const AgentReport& report) {
    return report.message && report.message->find("waiting for your input") != std::string::npos;
}

} // namespace

std::optional<AgentInfo> agentAfterReport(const std::optional<AgentInfo>& current, const AgentReport& report,
                                          double now, const std::optional<std::string>& request) {
    const auto& event = report.event;
    if (event == "SessionEnd") return std::nullopt;
    AgentInfo agent = fresh(current, report);
    if (event == "SessionStart") {
        // A new session sits at its prompt: idle, nobody needs to look.
        bool sameSession = current && current->session == report.session;
        if (!sameSession) agent = AgentInfo{report.kind, State::waiting, "hook", {}, {}, {}, report.session,
                                            current ? current->muted : std::nullopt};
        moveTo(agent, State::waiting, false, now);
    } else if (event == "UserPromptSubmit") {
        moveTo(agent, State::running, false, now);
        agent.prompt = report.prompt;
        agent.turnStarted = now;
        agent.message = agent.tool = agent.toolInput = std::nullopt;
        agent.requests = std::nullopt;
    } else if (event == "PreToolUse" || event == "PostToolUse") {
        moveTo(agent, State::running, false, now);
        if (report.tool) agent.tool = report.tool;
        if (report.toolInput) agent.toolInput = report.toolInput;
        agent.requests = std::nullopt;
    } else if (event == "Notification") {
        if (isIdleReminder(report) && current && (current->state == State::done || current->state == State::error)) {
            return current;
        }
        moveTo(agent, State::waiting, true, now);
        if (report.message) agent.message = report.message;
    } else if (event == "PermissionRequest") {
        moveTo(agent, State::waiting, true, now);
        agent.tool = report.tool;
        agent.toolInput = report.toolInput;
        if (request) {
            auto requests = agent.requests.value_or(std::vector<PermissionRequest>{});
            requests.push_back(PermissionRequest{*request, report.tool.value_or(""), report.toolInput});
            agent.requests = requests;
        }
    } else if (event == "Stop" || event == "agent-turn-complete") {
        moveTo(agent, State::done, true, now);
        agent.message = report.message;
        if (report.prompt) agent.prompt = report.prompt;
        agent.requests = std::nullopt;
    } else if (event == "StopFailure") {
        moveTo(agent, State::error, true, now);
        agent.message = report.message;
        agent.requests = std::nullopt;
    } else {
        return current;
    }
    return agent;
}

std::optional<AgentHistoryEntry> historyEntry(const std::optional<AgentInfo>& before,
                                              const std::optional<AgentInfo>& after, double now,
                                              std::optional<int32_t> pid) {
    if (!before && !after) return std::nullopt;
    if (before && after && *before == *after) return std::nullopt;
    const AgentInfo& shown = after ? *after : *before;
    AgentHistoryEntry entry;
    entry.at = now;
    entry.kind = shown.kind;
    entry.stateName = std::string(wireName(shown.state));
    entry.message = shown.message;
    entry.session = shown.session;
    entry.pid = pid;
    entry.source = shown.source;
    entry.guess = shown.source != "hook";
    entry.attention = shown.attention;
    entry.muted = shown.muted;
    if (!after) {
        entry.eventName = "gone";
    } else if (!before || before->state != after->state) {
        entry.eventName = "state";
        if (before) entry.fromName = std::string(wireName(before->state));
    } else if (before->attention.value_or(false) != after->attention.value_or(false)) {
        entry.eventName = "attention";
    } else if (before->muted.value_or(false) != after->muted.value_or(false)) {
        entry.eventName = after->muted.value_or(false) ? "mute" : "unmute";
    } else {
        entry.eventName = "update";
    }
    return entry;
}

void AgentTracker::record(uint64_t pane, const AgentHistoryEntry& entry) {
    auto& entries = history_[pane];
    entries.push_back(entry);
    while (entries.size() > historyLimit) entries.pop_front();
}

AgentHistory AgentTracker::history(uint64_t pane, std::optional<int> limit, std::optional<double> since) const {
    AgentHistory out;
    out.pane = pane;
    out.max = int64_t(historyLimit);
    auto found = history_.find(pane);
    if (found == history_.end()) return out;
    for (const auto& entry : found->second) {
        if (!since || entry.at > *since) out.entries.push_back(entry);
    }
    if (limit && *limit >= 0 && out.entries.size() > size_t(*limit)) {
        out.entries.erase(out.entries.begin(), out.entries.end() - *limit);
    }
    return out;
}

std::string AgentTracker::openRequest() { return "r" + std::to_string(nextRequest_++); }

void AgentTracker::decide(const std::string& request, PermissionDecision decision,
                          const std::optional<std::string>& message) {
    decided_[request] = AgentVerdict{false, decision, message};
}

std::optional<AgentVerdict> AgentTracker::takeDecision(const std::string& request) {
    auto found = decided_.find(request);
    if (found == decided_.end()) return std::nullopt;
    auto verdict = found->second;
    decided_.erase(found);
    return verdict;
}

void AgentTracker::setPid(uint64_t pane, std::optional<int32_t> pid) {
    if (pid) pids_[pane] = *pid;
    else pids_.erase(pane);
}

std::optional<int32_t> AgentTracker::pid(uint64_t pane) const {
    auto found = pids_.find(pane);
    if (found == pids_.end()) return std::nullopt;
    return found->second;
}

void AgentTracker::forget(uint64_t pane) {
    history_.erase(pane);
    pids_.erase(pane);
}

} // namespace corvex
