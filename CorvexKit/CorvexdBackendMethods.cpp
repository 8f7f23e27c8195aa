// The session operations, each one method of the protocol.

#include <thread>

#include "CorvexKit/CorvexdBackend.h"
#include "CorvexKit/ProtocolJSON.h"

namespace corvex {

using json = nlohmann::json;

template <typename M>
typename M::Result CorvexdBackend::call(const M& method) {
    if constexpr (M::gate.has_value()) {
        if (!hasFeature(*M::gate)) return typename M::Result{};
    }
    return protocol::decodeResult<M>(request(std::string(M::name), protocol::encodeParams(method)));
}

ModelState CorvexdBackend::getState() { return call(protocol::StateGet{}); }

CreatedWorkspace CorvexdBackend::createWorkspace(const std::optional<std::string>& name, const SpawnOptions& spawn) {
    protocol::WorkspaceCreate method;
    method.workspaceName = name;
    method.spawn = spawn;
    return call(method);
}

void CorvexdBackend::renameWorkspace(uint64_t id, const std::string& name) {
    protocol::WorkspaceRename method;
    method.workspace = id;
    method.workspaceName = name;
    call(method);
}

void CorvexdBackend::closeWorkspace(uint64_t id) {
    protocol::WorkspaceClose method;
    method.workspace = id;
    call(method);
}

CreatedTab CorvexdBackend::createTab(uint64_t workspace, const SpawnOptions& spawn) {
    protocol::TabCreate method;
    method.workspace = workspace;
    method.spawn = spawn;
    return call(method);
}

void CorvexdBackend::renameTab(uint64_t id, const std::optional<std::string>& title) {
    protocol::TabRename method;
    method.tab = id;
    method.title = title;
    call(method);
}

void CorvexdBackend::closeTab(uint64_t id) {
    protocol::TabClose method;
    method.tab = id;
    call(method);
}

CreatedSplit CorvexdBackend::split(uint64_t pane, Direction direction, std::optional<double> ratio,
                                   const SpawnOptions& spawn) {
    protocol::PaneSplit method;
    method.pane = pane;
    method.direction = direction;
    method.ratio = ratio;
    method.spawn = spawn;
    return call(method);
}

void CorvexdBackend::closePane(uint64_t id) {
    protocol::PaneClose method;
    method.pane = id;
    call(method);
}

void CorvexdBackend::setRatio(uint64_t split, double ratio) {
    protocol::SplitSetRatio method;
    method.split = split;
    method.ratio = ratio;
    call(method);
}

void CorvexdBackend::focus(const FocusTarget& target) {
    protocol::FocusCall method;
    method.target = target;
    call(method);
}

Subscription CorvexdBackend::subscribe(uint64_t pane, std::optional<uint64_t> haveSeq, std::optional<int> scrollback,
                                       std::optional<Size> viewport) {
    {
        std::lock_guard guard(lock_);
        subscriptions_[pane] = SubscriptionEntry{scrollback, viewport};
    }
    protocol::PaneSubscribe method;
    method.pane = pane;
    method.haveSeq = haveSeq;
    method.scrollback = scrollback;
    method.viewport = viewport;
    auto result = request(std::string(method.name), protocol::encodeParams(method), pane);
    return protocol::decodeResult<protocol::PaneSubscribe>(result);
}

void CorvexdBackend::unsubscribe(uint64_t pane) {
    {
        std::lock_guard guard(lock_);
        subscriptions_.erase(pane);
        deliveredSeq_.erase(pane);
    }
    protocol::PaneUnsubscribe method;
    method.pane = pane;
    call(method);
}

void CorvexdBackend::setViewport(uint64_t pane, Size size) {
    {
        std::lock_guard guard(lock_);
        if (auto entry = subscriptions_.find(pane); entry != subscriptions_.end()) entry->second.viewport = size;
    }
    protocol::PaneViewport method;
    method.pane = pane;
    method.size = size;
    call(method);
}

void CorvexdBackend::resize(uint64_t pane, Size size) {
    protocol::PaneResize method;
    method.pane = pane;
    method.size = size;
    call(method);
}

void CorvexdBackend::focusPane(uint64_t pane) {
    protocol::PaneFocus method;
    method.pane = pane;
    call(method);
}

void CorvexdBackend::setTerminalColors(const std::optional<TerminalColors>& colors) {
    bool sendNow = false;
    {
        std::lock_guard guard(lock_);
        if (terminalColors_ == colors) return;
        terminalColors_ = colors;
        sendNow = connection_ && colors && lastHello_ && lastHello_->has(*protocol::ClientColors::gate);
    }
    if (!sendNow) return;
    std::thread([weak = weak_from_this(), colors = *colors] {
        if (auto self = weak.lock()) self->sendColors(colors);
    }).detach();
}

void CorvexdBackend::dismissRestored(uint64_t pane) {
    protocol::PaneDismissRestored method;
    method.pane = pane;
    call(method);
}

namespace {

// A pane or a tab grafted beside another pane: the params both methods share.
template <typename M>
M graft(const MoveRequest& move) {
    M method;
    method.toPane = move.beside;
    method.direction = move.direction;
    method.focus = move.focus;
    method.ratio = move.ratio;
    return method;
}

} // namespace

void CorvexdBackend::move(const MoveRequest& move) {
    switch (move.kind) {
    case MoveRequest::Kind::workspace: {
        protocol::WorkspaceMove method;
        method.workspace = move.id;
        method.index = move.index;
        call(method);
        break;
    }
    case MoveRequest::Kind::tab: {
        protocol::TabMove method;
        method.tab = move.id;
        method.index = move.index;
        method.workspace = move.workspace;
        method.focus = move.focus;
        call(method);
        break;
    }
    case MoveRequest::Kind::pane: {
        auto method = graft<protocol::PaneMove>(move);
        method.pane = move.id;
        call(method);
        break;
    }
    case MoveRequest::Kind::tabJoin: {
        auto method = graft<protocol::TabJoin>(move);
        method.tab = move.id;
        call(method);
        break;
    }
    }
}

void CorvexdBackend::ackAgent(uint64_t pane) {
    protocol::AgentAck method;
    method.pane = pane;
    call(method);
}

void CorvexdBackend::muteAgent(uint64_t pane, bool muted) {
    protocol::AgentMute method;
    method.pane = pane;
    method.muted = muted;
    call(method);
}

PaneText CorvexdBackend::paneText(uint64_t pane) {
    protocol::PaneTextCall method;
    method.pane = pane;
    return call(method);
}

void CorvexdBackend::decide(uint64_t pane, const std::string& requestID, PermissionDecision decision,
                            const std::optional<std::string>& message) {
    protocol::AgentDecide method;
    method.pane = pane;
    method.request = requestID;
    method.decision = decision;
    method.message = message;
    call(method);
}

PaneSearchResult CorvexdBackend::searchPane(uint64_t pane, const std::string& query, const PaneSearchOptions& options) {
    protocol::PaneSearch method;
    method.pane = pane;
    method.query = query;
    method.options = options;
    return call(method);
}

AgentHistory CorvexdBackend::agentHistory(uint64_t pane, std::optional<int> limit, std::optional<double> since) {
    protocol::AgentHistoryCall method;
    method.pane = pane;
    method.limit = limit;
    method.since = since;
    return call(method);
}

void CorvexdBackend::sendKeys(uint64_t pane, const std::optional<std::string>& text, const std::vector<std::string>& keys) {
    protocol::PaneKeys method;
    method.pane = pane;
    method.keys = keys;
    method.text = text;
    call(method);
}

DaemonSettings CorvexdBackend::getSettings() { return call(protocol::SettingsGet{}); }

DaemonSettings CorvexdBackend::setSettings(const DaemonSettings::Change& change) {
    protocol::SettingsSet method;
    method.change = change;
    return call(method);
}

DaemonService CorvexdBackend::serviceStatus() { return call(protocol::ServiceStatus{}); }
DaemonService CorvexdBackend::installService() { return call(protocol::ServiceInstall{}); }
DaemonService CorvexdBackend::uninstallService() { return call(protocol::ServiceUninstall{}); }

void CorvexdBackend::pushRegister(const PushRegistration& registration) {
    protocol::PushRegister method;
    method.registration = registration;
    call(method);
}

void CorvexdBackend::pushUnregister(const std::string& device) {
    protocol::PushUnregister method;
    method.device = device;
    call(method);
}

std::vector<PushDevice> CorvexdBackend::pushList() { return call(protocol::PushList{}); }

void CorvexdBackend::pushTest(const std::string& device) {
    protocol::PushTest method;
    method.device = device;
    call(method);
}

void CorvexdBackend::pushActivity(uint64_t pane, const std::string& device, const std::string& token,
                                  const std::optional<std::string>& env) {
    protocol::PushActivityStart method;
    method.pane = pane;
    method.device = device;
    method.token = token;
    method.env = env;
    call(method);
}

void CorvexdBackend::pushActivityEnd(uint64_t pane, const std::string& device) {
    protocol::PushActivityEnd method;
    method.pane = pane;
    method.device = device;
    call(method);
}

std::vector<PushActivity> CorvexdBackend::pushActivities() { return call(protocol::PushActivities{}); }

} // namespace corvex
