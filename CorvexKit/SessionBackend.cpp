#include "CorvexKit/SessionBackend.h"

namespace corvex {

namespace {

constexpr std::string_view subscriptionModes[] = {"live", "replay", "snapshot"};

constexpr std::string_view knownFeatureNames[] = {
    "pane.keys", "agents",         "agent.report.pid", "ping",          "split.set_ratio", "push",
    "push.activity", "fs",         "pane.clipboard",   "agent.mute",    "pane.search",     "agent.history",
    "agent.decide", "settings",    "service",          "client.colors", "restore",         "move",
    "git",       "pane.move",      "pane.focus",
};

constexpr std::string_view historyEvents[] = {"state", "attention", "update", "mute", "unmute", "gone"};

[[noreturn]] void unknownMethod(const char* message) { throw BackendError("unknown_method", message); }

} // namespace

BackendError::BackendError(std::string code, std::string message)
    : std::runtime_error(message), code_(std::move(code)), message_(std::move(message)) {}

std::string_view wireName(Subscription::Mode mode) { return subscriptionModes[static_cast<size_t>(mode)]; }

std::optional<Subscription::Mode> parseSubscriptionMode(std::string_view text) {
    for (size_t i = 0; i < std::size(subscriptionModes); ++i) {
        if (subscriptionModes[i] == text) return static_cast<Subscription::Mode>(i);
    }
    return std::nullopt;
}

std::string PaneText::text() const {
    std::string out;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (i > 0) out += '\n';
        out += lines[i];
    }
    return out;
}

std::string_view Hello::wireName(Feature feature) { return knownFeatureNames[static_cast<size_t>(feature)]; }

std::optional<Hello::Feature> Hello::parseFeature(std::string_view name) {
    for (size_t i = 0; i < std::size(knownFeatureNames); ++i) {
        if (knownFeatureNames[i] == name) return static_cast<Feature>(i);
    }
    return std::nullopt;
}

std::set<Hello::Feature> Hello::features(const std::vector<std::string>& names) {
    std::set<Feature> out;
    for (const auto& name : names) {
        if (auto feature = parseFeature(name)) out.insert(*feature);
    }
    return out;
}

std::set<Hello::Feature> Hello::features() const {
    return featureNames ? features(*featureNames) : std::set<Feature>{};
}

bool Hello::has(Feature feature) const { return features().count(feature) > 0; }

AgentHistoryEntry::Event AgentHistoryEntry::event() const {
    for (size_t i = 0; i < std::size(historyEvents); ++i) {
        if (historyEvents[i] == eventName) return static_cast<Event>(i);
    }
    return Event::unknown;
}

std::optional<AgentInfo::State> AgentHistoryEntry::state() const {
    return stateName ? std::optional(parseAgentState(*stateName)) : std::nullopt;
}

std::optional<AgentInfo::State> AgentHistoryEntry::from() const {
    return fromName ? std::optional(parseAgentState(*fromName)) : std::nullopt;
}

bool SessionEventStream::push(SessionEvent event) {
    if (!channel_.send(std::move(event))) return false;
    wake();
    return true;
}

void SessionEventStream::finish() {
    channel_.close();
    wake();
}

std::optional<SessionEvent> SessionEventStream::next() { return channel_.receive(); }

std::optional<SessionEvent> SessionEventStream::next(std::chrono::steady_clock::duration timeout) {
    return channel_.receive(timeout);
}

std::optional<SessionEvent> SessionEventStream::tryNext() { return channel_.tryReceive(); }

bool SessionEventStream::isFinished() const { return channel_.isClosed() && channel_.size() == 0; }

size_t SessionEventStream::pending() const { return channel_.size(); }

void SessionEventStream::setWakeup(std::function<void()> wakeup) {
    {
        std::lock_guard guard(wakeupMutex_);
        wakeup_ = wakeup ? std::make_shared<std::function<void()>>(std::move(wakeup)) : nullptr;
    }
    if (channel_.size() > 0 || channel_.isClosed()) wake();
}

void SessionEventStream::wake() {
    std::shared_ptr<std::function<void()>> wakeup;
    {
        std::lock_guard guard(wakeupMutex_);
        wakeup = wakeup_;
    }
    if (wakeup) (*wakeup)();
}

void SessionBackend::dismissRestored(uint64_t) { unknownMethod("this backend doesn't restore panes"); }

void SessionBackend::move(const MoveRequest&) { unknownMethod("this backend can't move tabs or workspaces"); }

void SessionBackend::muteAgent(uint64_t, bool) { unknownMethod("this backend can't mute agents"); }

PaneText SessionBackend::paneText(uint64_t) { unknownMethod("this backend can't read a pane's text"); }

void SessionBackend::decide(uint64_t, const std::string&, PermissionDecision, const std::optional<std::string>&) {
    unknownMethod("this backend can't answer permission requests");
}

PaneSearchResult SessionBackend::searchPane(uint64_t, const std::string&, const PaneSearchOptions&) {
    unknownMethod("this backend can't search scrollback");
}

AgentHistory SessionBackend::agentHistory(uint64_t, std::optional<int>, std::optional<double>) {
    unknownMethod("this backend keeps no agent history");
}

void SessionBackend::sendKeys(uint64_t, const std::optional<std::string>&, const std::vector<std::string>&) {
    unknownMethod("this backend can't send keys");
}

DaemonSettings SessionBackend::getSettings() { unknownMethod("this backend has no settings"); }

DaemonSettings SessionBackend::setSettings(const DaemonSettings::Change&) {
    unknownMethod("this backend has no settings");
}

DaemonService SessionBackend::serviceStatus() { unknownMethod("this backend can't start at login"); }

DaemonService SessionBackend::installService() { unknownMethod("this backend can't start at login"); }

DaemonService SessionBackend::uninstallService() { unknownMethod("this backend can't start at login"); }

void SessionBackend::pushRegister(const PushRegistration&) { unknownMethod("this backend has no push alerts"); }

void SessionBackend::pushUnregister(const std::string&) { unknownMethod("this backend has no push alerts"); }

std::vector<PushDevice> SessionBackend::pushList() { unknownMethod("this backend has no push alerts"); }

void SessionBackend::pushTest(const std::string&) { unknownMethod("this backend has no push alerts"); }

void SessionBackend::pushActivity(uint64_t, const std::string&, const std::string&, const std::optional<std::string>&) {
    unknownMethod("this backend has no Live Activities");
}

void SessionBackend::pushActivityEnd(uint64_t, const std::string&) {
    unknownMethod("this backend has no Live Activities");
}

std::vector<PushActivity> SessionBackend::pushActivities() { unknownMethod("this backend has no Live Activities"); }

} // namespace corvex
