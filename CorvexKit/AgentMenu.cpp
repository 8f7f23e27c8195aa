#include "CorvexKit/AgentMenu.h"

#include "CorvexKit/AgentNotification.h"

namespace corvex {

using Action = AgentMenuItem::Action;

std::vector<AgentMenuItem> agentMenu(const AgentEntry& entry, bool canDecide, bool hasHistory) {
    std::vector<AgentMenuItem> items{{Action::open, "Open Pane", {}, {}, {}}};
    if (needsAttention(entry.info)) items.push_back({Action::resolve, "Resolve", {}, {}, {}});
    if (entry.canMute) {
        items.push_back(isMuted(entry.info) ? AgentMenuItem{Action::unmute, "Unmute", {}, {}, {}}
                                            : AgentMenuItem{Action::mute, "Mute", {}, {}, {}});
    }
    if (entry.offersReplies()) {
        items.push_back({Action::promptReply, "Reply\u2026", {}, {}, {}});
        for (const auto& reply : quickReplies) {
            items.push_back({Action::pressKey, std::string(reply.title), std::string(reply.label),
                             std::string(reply.key), {}});
        }
    }
    if (const auto& requests = pendingRequests(entry.info); canDecide && !requests.empty()) {
        items.push_back({Action::allow, "Allow", {}, {}, requests.front().id});
        items.push_back({Action::deny, "Deny", {}, {}, requests.front().id});
    }
    if (hasHistory) items.push_back({Action::history, "History\u2026", {}, {}, {}});
    return items;
}

} // namespace corvex
