#include "CorvexFake/FakeBackend.h"

#include <chrono>
#include <map>
#include <thread>

#include "CorvexSession/LocalPaneHost.h"
#include "CorvexSession/SessionHello.h"
#include "Platform/TimerThread.h"

namespace corvex {

namespace {

// The engine's stream is shared by whoever subscribes; this backend's one reader starts each
// pane where its subscribe said, skipping output it already has from a snapshot.
class StreamStarts {
public:
    std::optional<SessionEvent> pass(const SessionEvent& event) {
        std::lock_guard guard(lock_);
        if (auto subscribed = event.as<SessionEvent::Subscribed>()) {
            from_[subscribed->pane] = subscribed->subscription.seq;
            return event;
        }
        auto output = event.as<SessionEvent::Output>();
        if (!output) return event;
        auto start = from_.find(output->pane);
        if (start == from_.end() || output->seq >= start->second) return event;
        uint64_t end = output->seq + output->bytes.size();
        if (end <= start->second) return std::nullopt;
        auto skipped = static_cast<std::ptrdiff_t>(start->second - output->seq);
        return SessionEvent::Output{output->pane, start->second, Bytes(output->bytes.begin() + skipped, output->bytes.end())};
    }

private:
    std::mutex lock_;
    std::map<uint64_t, uint64_t> from_;
};

} // namespace

std::shared_ptr<FakeBackend> FakeBackend::create(std::shared_ptr<PaneHost> host) {
    auto backend = std::shared_ptr<FakeBackend>(new FakeBackend(host ? host : std::make_shared<LocalPaneHost>()));
    std::weak_ptr<SessionEventStream> events = backend->events_;
    backend->core_->setListener([events, starts = std::make_shared<StreamStarts>()](const SessionEvent& event) {
        auto stream = events.lock();
        if (!stream) return;
        if (auto passed = starts->pass(event)) stream->push(std::move(*passed));
    });
    return backend;
}

FakeBackend::FakeBackend(std::shared_ptr<PaneHost> host)
    : instance_(newInstanceID()), core_(SessionCore::create(std::move(host), currentSessionCoreEnvironment())) {}

FakeBackend::~FakeBackend() { stop(); }

void FakeBackend::start() {
    auto features = engineFeatureNames();
    // The engine reads agents off the panes' terminals and asks git about their folders here
    // as in the daemon; history and decisions need the daemon's hooks.
    for (auto feature : {Hello::Feature::agents, Hello::Feature::agentMute, Hello::Feature::git}) {
        features.emplace_back(Hello::wireName(feature));
    }
    events_->push(SessionEvent::Connected{sessionHello({"corvex-fake", "0.1.0", instance_, features})});
    events_->push(SessionEvent::State{core_->state()});
    if (watchTimer_) return;
    watchTimer_ = std::make_unique<platform::TimerThread>("corvex.session.watch");
    std::weak_ptr<SessionCore> core = core_;
    auto directories = [core] {
        if (auto held = core.lock()) held->pollWorkingDirectories();
    };
    watchTimer_->schedule(std::chrono::milliseconds(1000), [timer = watchTimer_.get(), directories] {
        directories();
        timer->scheduleRepeating(std::chrono::milliseconds(1500), directories);
    });
    // One thread for both: each poll keeps its state for the one thread that calls it.
    watchTimer_->scheduleRepeating(std::chrono::milliseconds(1000), [core] {
        auto held = core.lock();
        if (!held) return;
        held->pollAgents();
        held->pollGit();
    });
}

void FakeBackend::stop() {
    watchTimer_.reset();
    core_->stop();
    events_->finish();
}

CreatedWorkspace FakeBackend::createWorkspace(const std::optional<std::string>& name, const SpawnOptions& spawn) {
    return core_->createWorkspace(name, spawn);
}

CreatedTab FakeBackend::createTab(uint64_t workspace, const SpawnOptions& spawn) {
    return core_->createTab(workspace, spawn);
}

CreatedSplit FakeBackend::split(uint64_t pane, Direction direction, std::optional<double> ratio,
                                const SpawnOptions& spawn) {
    return core_->split(pane, direction, ratio, spawn);
}

void FakeBackend::focus(const FocusTarget& target) {
    double delay = 0;
    {
        std::lock_guard guard(lock_);
        delay = focusDelay_;
    }
    if (delay > 0) std::this_thread::sleep_for(std::chrono::duration<double>(delay));
    core_->focus(target);
}

Subscription FakeBackend::subscribe(uint64_t pane, std::optional<uint64_t> haveSeq, std::optional<int> scrollback,
                                    std::optional<Size> viewport) {
    return core_->subscribe(pane, haveSeq, viewport, scrollback.value_or(0));
}

void FakeBackend::focusPane(uint64_t pane) {
    core_->requirePane(pane);
    std::lock_guard guard(lock_);
    paneFocusCalls_.push_back(pane);
}

void FakeBackend::setTerminalColors(const std::optional<TerminalColors>& colors) {
    {
        std::lock_guard guard(lock_);
        colors_ = colors;
        ++terminalColorsCalls_;
    }
    core_->setTerminalColors(colors);
}

void FakeBackend::decide(uint64_t pane, const std::string& request, PermissionDecision decision,
                         const std::optional<std::string>& message) {
    core_->decide(pane, request, decision, message);
    std::lock_guard guard(lock_);
    decisions_.push_back(FakeDecision{pane, request, decision, message});
}

std::vector<uint64_t> FakeBackend::focusedPanes() const {
    std::lock_guard guard(lock_);
    return paneFocusCalls_;
}

std::vector<FakeDecision> FakeBackend::decisions() const {
    std::lock_guard guard(lock_);
    return decisions_;
}

std::optional<TerminalColors> FakeBackend::terminalColors() const {
    std::lock_guard guard(lock_);
    return colors_;
}

int FakeBackend::terminalColorsCalls() const {
    std::lock_guard guard(lock_);
    return terminalColorsCalls_;
}

void FakeBackend::setFocusDelay(double seconds) {
    std::lock_guard guard(lock_);
    focusDelay_ = seconds;
}

} // namespace corvex
