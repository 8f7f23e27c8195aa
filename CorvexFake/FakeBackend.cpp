#include "CorvexFake/FakeBackend.h"

#include <chrono>
#include <random>
#include <sstream>
#include <sys/utsname.h>
#include <thread>
#include <unistd.h>

#include "CorvexFake/LocalPaneHost.h"
#include "Platform/TimerThread.h"

namespace corvex {

namespace {

Hello fakeHello() {
    Hello hello;
    hello.protocol = 1;
    hello.protocolMin = 1;
    hello.protocolMax = 1;
    hello.daemon = "corvex-fake";
    hello.version = "0.1.0";
    std::ostringstream instance;
    instance << std::hex << std::mt19937_64(std::random_device{}())();
    hello.instance = instance.str();
    hello.pid = static_cast<int32_t>(getpid());
    Hello::Machine machine;
    char name[256] = {};
    machine.hostname = gethostname(name, sizeof name - 1) == 0 && name[0] ? name : "localhost";
    utsname system{};
    if (uname(&system) == 0) {
        machine.os = system.sysname;
        machine.arch = system.machine;
    }
    hello.machine = machine;
    return hello;
}

} // namespace

std::shared_ptr<FakeBackend> FakeBackend::create(std::shared_ptr<PaneHost> host) {
    auto backend = std::shared_ptr<FakeBackend>(new FakeBackend(host ? host : std::make_shared<LocalPaneHost>()));
    std::weak_ptr<SessionEventStream> events = backend->events_;
    backend->core_->setListener([events](const SessionEvent& event) {
        if (auto stream = events.lock()) stream->push(event);
    });
    return backend;
}

FakeBackend::FakeBackend(std::shared_ptr<PaneHost> host)
    : core_(SessionCore::create(std::move(host), currentSessionCoreEnvironment())) {}

FakeBackend::~FakeBackend() { stop(); }

void FakeBackend::start() {
    events_->push(SessionEvent::Connected{fakeHello()});
    events_->push(SessionEvent::State{core_->state()});
    if (cwdTimer_) return;
    cwdTimer_ = std::make_unique<platform::TimerThread>("corvex.fake.cwd");
    std::weak_ptr<SessionCore> core = core_;
    auto poll = [core] {
        if (auto held = core.lock()) held->pollWorkingDirectories();
    };
    cwdTimer_->schedule(std::chrono::milliseconds(1000), [timer = cwdTimer_.get(), poll] {
        poll();
        timer->scheduleRepeating(std::chrono::milliseconds(1500), poll);
    });
}

void FakeBackend::stop() {
    cwdTimer_.reset();
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
    (void)scrollback; // everything retained is sent; there is no separate history here
    return core_->subscribe(pane, haveSeq, viewport);
}

void FakeBackend::focusPane(uint64_t pane) {
    core_->requirePane(pane);
    std::lock_guard guard(lock_);
    paneFocusCalls_.push_back(pane);
}

void FakeBackend::setTerminalColors(const std::optional<TerminalColors>& colors) {
    std::lock_guard guard(lock_);
    colors_ = colors;
    ++terminalColorsCalls_;
}

void FakeBackend::decide(uint64_t pane, const std::string& request, PermissionDecision decision,
                         const std::optional<std::string>& message) {
    core_->decide(pane, request);
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
