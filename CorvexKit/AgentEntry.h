#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CorvexKit/AgentRules.h"
#include "CorvexKit/SessionBackend.h"
#include "CorvexKit/SessionModel.h"

namespace corvex {

// One row of the agent lists.
struct AgentEntry {
    std::string machine;
    std::string machineName;
    uint64_t pane = 0;
    std::optional<uint64_t> workspace;
    std::optional<uint64_t> tab;
    std::optional<std::string> paneTitle;
    std::optional<std::string> tabTitle;
    AgentInfo info;
    bool canReply = false;
    bool canMute = false;

    struct Split {
        std::vector<AgentEntry> attention; // the "needs you" set
        std::vector<AgentEntry> others;
    };

    // The tab and pane titles that exist, joined with " · ".
    std::string place() const;
    // Only an agent that reported through its hooks that it waits may be answered: a guessed
    // "waiting" might not be a prompt at all.
    bool offersReplies() const;
    // 0 waiting for the user, 1 failed and needing the user, 2 needing the user otherwise,
    // 3 busy, 4 the rest.
    int rank() const;
    // The row's tool-tip lines.
    std::vector<std::string> toolTips() const;

    // By rank, then the newest `since` first (an absent one counts as 0); stable otherwise.
    static std::vector<AgentEntry> sorted(std::vector<AgentEntry> entries);
    static Split split(const std::vector<AgentEntry>& entries);

    bool operator==(const AgentEntry&) const = default;
};

// The entries for the live agents of one machine, unsorted. `tabTitle` gives a tab's title
// as the interface shows it.
std::vector<AgentEntry> agentEntries(const std::string& machine, const std::string& machineName,
                                     const ModelState& state, const FeatureSet& features,
                                     const std::function<std::string(const Tab&)>& tabTitle);

// The colour of a tab or workspace row from the agents of its panes: the most urgent agent
// needing the user (waiting beats error beats the rest), else accent when one is busy.
std::optional<AgentColor> agentBadge(const std::vector<const AgentInfo*>& agents);
// The same for the given panes of a model.
std::optional<AgentColor> agentBadge(const ModelState& state, const std::vector<uint64_t>& panes);

// The application badge for the "needs you" count: none for 0.
std::optional<std::string> agentCountBadge(size_t attention);

// Where the agents of a monitored machine can't be shown.
std::string unreachableAgentsNote(std::string_view machineName);

} // namespace corvex
