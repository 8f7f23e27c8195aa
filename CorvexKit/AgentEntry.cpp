#include "CorvexKit/AgentEntry.h"

#include <algorithm>

#include "CorvexKit/AgentNotice.h"

namespace corvex {

using State = AgentInfo::State;

std::string AgentEntry::place() const {
    if (tabTitle && paneTitle) return *tabTitle + " \u00B7 " + *paneTitle;
    if (tabTitle) return *tabTitle;
    if (paneTitle) return *paneTitle;
    return {};
}

bool AgentEntry::offersReplies() const {
    return canReply && info.state == State::waiting && needsAttention(info) && isHookSourced(info);
}

int AgentEntry::rank() const {
    if (needsAttention(info)) {
        if (info.state == State::waiting) return 0;
        if (info.state == State::error) return 1;
        return 2;
    }
    return info.state == State::starting || info.state == State::running ? 3 : 4;
}

std::vector<std::string> AgentEntry::toolTips() const {
    const auto name = kindName(info);
    std::vector<std::string> lines{name + " on " + place()};
    if (info.prompt && !info.prompt->empty()) lines.push_back("Asked: " + *info.prompt);
    if (auto took = turnDuration(info)) {
        if (auto text = AgentNotice::duration(*took)) lines.push_back("Took " + *text);
    }
    lines.push_back(isHookSourced(info) ? "Reported by " + name + "'s hooks" : "Detected from the terminal");
    if (info.tool && !info.tool->empty()) lines.push_back("Last tool: " + *info.tool);
    return lines;
}

std::vector<AgentEntry> AgentEntry::sorted(std::vector<AgentEntry> entries) {
    std::stable_sort(entries.begin(), entries.end(), [](const AgentEntry& a, const AgentEntry& b) {
        if (a.rank() != b.rank()) return a.rank() < b.rank();
        return a.info.since.value_or(0) > b.info.since.value_or(0);
    });
    return entries;
}

AgentEntry::Split AgentEntry::split(const std::vector<AgentEntry>& entries) {
    Split result;
    for (const auto& entry : entries) {
        (needsAttention(entry.info) ? result.attention : result.others).push_back(entry);
    }
    return result;
}

std::vector<AgentEntry> agentEntries(const std::string& machine, const std::string& machineName,
                                     const ModelState& state, const FeatureSet& features,
                                     const std::function<std::string(const Tab&)>& tabTitle) {
    std::vector<AgentEntry> entries;
    for (const auto& pane : state.panes) {
        if (pane.exited || !pane.agent) continue;
        AgentEntry entry;
        entry.machine = machine;
        entry.machineName = machineName;
        entry.pane = pane.id;
        if (auto location = state.location(pane.id)) {
            entry.workspace = location->workspace->id;
            entry.tab = location->tab->id;
            if (tabTitle) entry.tabTitle = tabTitle(*location->tab);
        }
        entry.paneTitle = Pane::displayTitle(pane.title, pane.cwd);
        entry.info = *pane.agent;
        entry.canReply = features.contains(Hello::Feature::paneKeys);
        entry.canMute = features.contains(Hello::Feature::agentMute);
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::optional<AgentColor> agentBadge(const std::vector<const AgentInfo*>& agents) {
    const AgentInfo* pick = nullptr;
    for (const auto* agent : agents) {
        if (!needsAttention(*agent)) continue;
        bool replaces = !pick || agent->state == State::waiting ||
                        (agent->state == State::error && pick->state != State::waiting);
        if (replaces) pick = agent;
    }
    if (pick) return badgeColor(*pick);
    for (const auto* agent : agents) {
        if (agent->state == State::starting || agent->state == State::running) return AgentColor::accent;
    }
    return std::nullopt;
}

std::optional<AgentColor> agentBadge(const ModelState& state, const std::vector<uint64_t>& panes) {
    std::vector<const AgentInfo*> agents;
    for (uint64_t id : panes) {
        if (const auto* pane = state.pane(id); pane && pane->agent) agents.push_back(&*pane->agent);
    }
    return agentBadge(agents);
}

std::optional<std::string> agentCountBadge(size_t attention) {
    if (attention == 0) return std::nullopt;
    return std::to_string(attention);
}

std::string unreachableAgentsNote(std::string_view machineName) {
    return std::string(machineName) + " is unreachable, so its agents aren't shown";
}

} // namespace corvex
