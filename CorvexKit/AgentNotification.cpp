#include "CorvexKit/AgentNotification.h"

#include "CorvexKit/AgentRules.h"

namespace corvex {

using State = AgentInfo::State;

const std::array<QuickReply, 5> quickReplies{{
    {"1", "Press 1 (usually Yes)", "1"},
    {"2", "Press 2", "2"},
    {"3", "Press 3", "3"},
    {"\u21A9", "Press Return", "enter"},
    {"Esc", "Press Esc (cancel or deny)", "escape"},
}};

namespace {

constexpr AgentNotificationAction replyAction{"reply", "Reply", false, "Send", "Your reply"};

} // namespace

std::string_view identifier(AgentNotificationCategory category) {
    switch (category) {
    case AgentNotificationCategory::waiting: return "agent.waiting";
    case AgentNotificationCategory::permission: return "agent.permission";
    case AgentNotificationCategory::finished: break;
    }
    return "agent.finished";
}

std::optional<AgentNotificationCategory> parseAgentNotificationCategory(std::string_view text) {
    for (auto category : {AgentNotificationCategory::waiting, AgentNotificationCategory::permission,
                          AgentNotificationCategory::finished}) {
        if (identifier(category) == text) return category;
    }
    return std::nullopt;
}

std::vector<AgentNotificationAction> actions(AgentNotificationCategory category) {
    switch (category) {
    case AgentNotificationCategory::waiting:
        return {{"approve", "Approve (1)", false, {}, {}}, {"deny", "Deny (Esc)", true, {}, {}}, replyAction};
    case AgentNotificationCategory::permission:
        return {{"allow", "Allow", false, {}, {}}, {"deny", "Deny", true, {}, {}}};
    case AgentNotificationCategory::finished: break;
    }
    return {replyAction};
}

AgentNotificationChoice chooseAgentNotification(const AgentInfo& agent, const FeatureSet& features) {
    const auto& requests = pendingRequests(agent);
    if (features.contains(Hello::Feature::agentDecide) && agent.state == State::waiting && !requests.empty()) {
        return {AgentNotificationCategory::permission, requests.front().id};
    }
    if (features.contains(Hello::Feature::paneKeys)) {
        return {agent.state == State::waiting ? AgentNotificationCategory::waiting
                                              : AgentNotificationCategory::finished,
                std::nullopt};
    }
    return {};
}

std::string agentNotificationKey(std::string_view machine, uint64_t pane) {
    return std::string(machine) + "/" + std::to_string(pane);
}

std::string agentNotificationIdentifier(std::string_view machine, uint64_t pane) {
    return "agent." + std::string(machine) + "." + std::to_string(pane);
}

bool AgentNotificationLog::admit(const std::string& key, State state, Clock::time_point now) {
    if (auto found = last_.find(key); found != last_.end()) {
        if (found->second.state == state && now - found->second.at < repeatWindow) return false;
    }
    last_[key] = Posted{state, now};
    return true;
}

void AgentNotificationLog::forget(const std::string& key) { last_.erase(key); }

AgentAnswer agentAnswer(std::string_view action, const std::optional<std::string>& typedText,
                        const std::optional<std::string>& request) {
    AgentAnswer answer;
    if (action == defaultAgentAction) {
        answer.kind = AgentAnswer::Kind::open;
    } else if ((action == "allow" || action == "deny") && request) {
        answer.kind = AgentAnswer::Kind::decide;
        answer.decision = action == "allow" ? PermissionDecision::allow : PermissionDecision::deny;
        answer.request = request;
    } else if (action == "approve") {
        answer.kind = AgentAnswer::Kind::reply;
        answer.keys = {"1"};
    } else if (action == "deny") {
        answer.kind = AgentAnswer::Kind::reply;
        answer.keys = {"escape"};
    } else if (action == "reply" && typedText && !typedText->empty()) {
        answer.kind = AgentAnswer::Kind::reply;
        answer.text = typedText;
        answer.keys = {"enter"};
    }
    return answer;
}

} // namespace corvex
