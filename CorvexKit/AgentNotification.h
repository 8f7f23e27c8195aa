#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CorvexKit/SessionBackend.h"
#include "CorvexKit/SessionModel.h"

// The decisions around agent notifications and the user's answers to them; the controller
// posts and receives, these say what to post and what an answer means.
namespace corvex {

// A key press offered for a waiting agent.
struct QuickReply {
    std::string_view label; // the key hint
    std::string_view title;
    std::string_view key;   // as sendKeys names it

    bool operator==(const QuickReply&) const = default;
};

extern const std::array<QuickReply, 5> quickReplies;

enum class AgentNotificationCategory { waiting, permission, finished };

struct AgentNotificationAction {
    std::string_view identifier;
    std::string_view title;
    bool destructive = false;
    // A text input action: its button and placeholder.
    std::optional<std::string_view> textButton;
    std::optional<std::string_view> textPlaceholder;

    bool operator==(const AgentNotificationAction&) const = default;
};

// "agent.waiting", "agent.permission", "agent.finished".
std::string_view identifier(AgentNotificationCategory category);
std::optional<AgentNotificationCategory> parseAgentNotificationCategory(std::string_view identifier);
std::vector<AgentNotificationAction> actions(AgentNotificationCategory category);

struct AgentNotificationChoice {
    std::optional<AgentNotificationCategory> category; // none: a notification without actions
    std::optional<std::string> request;                // the permission request it answers

    bool operator==(const AgentNotificationChoice&) const = default;
};

// A daemon that decides permission requests gets Allow and Deny for the first one; one that
// can send keys gets key and text replies; an older one gets a plain notification.
AgentNotificationChoice chooseAgentNotification(const AgentInfo& agent, const FeatureSet& features);

// The key of a pane in notification bookkeeping: "<machine>/<pane>".
std::string agentNotificationKey(std::string_view machine, uint64_t pane);
// The notification request identifier: "agent.<machine>.<pane>", so that a newer notice for
// the same pane replaces the older one.
std::string agentNotificationIdentifier(std::string_view machine, uint64_t pane);

// The last notification posted for each pane. The same state again within a minute is a
// repeat and isn't posted; another state is.
class AgentNotificationLog {
public:
    using Clock = std::chrono::system_clock;
    static constexpr std::chrono::seconds repeatWindow{60};

    // True when the notice should be posted; it is then remembered.
    bool admit(const std::string& key, AgentInfo::State state, Clock::time_point now);
    // The agent went away: its rise is forgotten.
    void forget(const std::string& key);
    bool remembers(const std::string& key) const { return last_.contains(key); }

private:
    struct Posted {
        AgentInfo::State state;
        Clock::time_point at;
    };
    std::map<std::string, Posted> last_;
};

// What an answer from a notification asks for.
struct AgentAnswer {
    enum class Kind { nothing, open, decide, reply };

    Kind kind = Kind::nothing;
    std::optional<PermissionDecision> decision; // for decide
    std::optional<std::string> request;         // for decide
    std::optional<std::string> text;            // for reply
    std::vector<std::string> keys;              // for reply

    bool operator==(const AgentAnswer&) const = default;
};

// The identifier of a plain click on the notification.
inline constexpr std::string_view defaultAgentAction = "default";

AgentAnswer agentAnswer(std::string_view action, const std::optional<std::string>& typedText,
                        const std::optional<std::string>& request);

} // namespace corvex
