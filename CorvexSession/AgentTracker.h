#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

#include "CorvexKit/Protocol.h"

// What the daemon knows of the coding agents in its panes: how a status hook's report moves
// an agent's state, what is recorded of it, and the permission requests held open for a
// person's decision.
namespace corvex {

using AgentReport = protocol::AgentReport;
using AgentVerdict = protocol::AgentVerdict;

// The agent after a report, absent when the report says it ended. `request` is the id a
// permission request is held under. Events it doesn't know leave the agent as it was.
std::optional<AgentInfo> agentAfterReport(const std::optional<AgentInfo>& current, const AgentReport& report,
                                          double now, const std::optional<std::string>& request = std::nullopt);

// The record of a change, absent when nothing a person would see changed.
std::optional<AgentHistoryEntry> historyEntry(const std::optional<AgentInfo>& before,
                                              const std::optional<AgentInfo>& after, double now,
                                              std::optional<int32_t> pid = std::nullopt);

// Per pane: the bounded history, the reporting process, and decisions not yet collected.
class AgentTracker {
public:
    static constexpr size_t historyLimit = 200;

    void record(uint64_t pane, const AgentHistoryEntry& entry);
    // Oldest first; the newest `limit` of those after `since`.
    AgentHistory history(uint64_t pane, std::optional<int> limit, std::optional<double> since) const;

    std::string openRequest();
    void decide(const std::string& request, PermissionDecision decision, const std::optional<std::string>& message);
    // A decision is handed out once.
    std::optional<AgentVerdict> takeDecision(const std::string& request);

    void setPid(uint64_t pane, std::optional<int32_t> pid);
    std::optional<int32_t> pid(uint64_t pane) const;
    void forget(uint64_t pane);

private:
    std::map<uint64_t, std::deque<AgentHistoryEntry>> history_;
    std::map<uint64_t, int32_t> pids_;
    std::map<std::string, AgentVerdict> decided_;
    uint64_t nextRequest_ = 1;
};

} // namespace corvex
