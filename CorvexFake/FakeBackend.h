#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "CorvexSession/SessionCore.h"
#include "CorvexKit/SessionBackend.h"

namespace platform {
class TimerThread;
}

namespace corvex {

struct FakeDecision {
    uint64_t pane = 0;
    std::string request;
    PermissionDecision decision = PermissionDecision::allow;
    std::optional<std::string> message;

    bool operator==(const FakeDecision&) const = default;
};

// The whole backend inside the app's process: real shells on real pseudo-terminals, served by
// the same session engine as the daemon. Also the scripted driver's way to set agents,
// restore notes and git facts, and to read what the app asked for.
class FakeBackend : public SessionBackend, public std::enable_shared_from_this<FakeBackend> {
public:
    static std::shared_ptr<FakeBackend> create(std::shared_ptr<PaneHost> host = nullptr);
    ~FakeBackend() override;

    std::shared_ptr<SessionEventStream> events() override { return events_; }
    void start() override;
    void stop() override;

    ModelState getState() override { return core_->state(); }
    CreatedWorkspace createWorkspace(const std::optional<std::string>& name, const SpawnOptions& spawn) override;
    using SessionBackend::createWorkspace;
    void renameWorkspace(uint64_t id, const std::string& name) override { core_->renameWorkspace(id, name); }
    void closeWorkspace(uint64_t id) override { core_->closeWorkspace(id); }
    CreatedTab createTab(uint64_t workspace, const SpawnOptions& spawn) override;
    using SessionBackend::createTab;
    void renameTab(uint64_t id, const std::optional<std::string>& title) override { core_->renameTab(id, title); }
    void closeTab(uint64_t id) override { core_->closeTab(id); }
    CreatedSplit split(uint64_t pane, Direction direction, std::optional<double> ratio,
                       const SpawnOptions& spawn) override;
    using SessionBackend::split;
    void closePane(uint64_t id) override { core_->closePane(id); }
    void setRatio(uint64_t split, double ratio) override { core_->setRatio(split, ratio); }
    void focus(const FocusTarget& target) override;
    Subscription subscribe(uint64_t pane, std::optional<uint64_t> haveSeq = std::nullopt,
                           std::optional<int> scrollback = std::nullopt,
                           std::optional<Size> viewport = std::nullopt) override;
    void unsubscribe(uint64_t pane) override { core_->unsubscribe(pane); }
    void setViewport(uint64_t pane, Size size) override { core_->setViewport(pane, size); }
    void resize(uint64_t pane, Size size) override { core_->resize(pane, size); }
    void focusPane(uint64_t pane) override;
    void sendInput(uint64_t pane, ByteView bytes) override { core_->sendInput(pane, bytes); }
    void setTerminalColors(const std::optional<TerminalColors>& colors) override;

    void dismissRestored(uint64_t pane) override { core_->dismissRestored(pane); }
    void move(const MoveRequest& request) override { core_->move(request); }
    void ackAgent(uint64_t pane) override { core_->ackAgent(pane); }
    void muteAgent(uint64_t pane, bool muted) override { core_->muteAgent(pane, muted); }
    void decide(uint64_t pane, const std::string& request, PermissionDecision decision,
                const std::optional<std::string>& message) override;
    void sendKeys(uint64_t pane, const std::optional<std::string>& text,
                  const std::vector<std::string>& keys) override {
        core_->sendKeys(pane, text, keys);
    }
    PaneText paneText(uint64_t pane) override { return core_->paneText(pane); }
    PaneSearchResult searchPane(uint64_t pane, const std::string& query, const PaneSearchOptions& options) override {
        return core_->searchPane(pane, query, options);
    }

    void setAgent(uint64_t pane, const std::optional<AgentInfo>& info) { core_->setAgent(pane, info); }
    void setRestored(uint64_t pane, const std::optional<PaneRestore>& restored) { core_->setRestored(pane, restored); }
    // Facts set by hand hold until the pane's folder or output next moves git to be asked.
    void setGit(uint64_t pane, const std::optional<PaneGit>& git) { core_->setGit(pane, git); }

    std::vector<uint64_t> focusedPanes() const;
    std::vector<FakeDecision> decisions() const;
    std::optional<TerminalColors> terminalColors() const;
    int terminalColorsCalls() const;
    // Seconds that `focus` waits before acting, as a slow daemon would.
    void setFocusDelay(double seconds);

    std::shared_ptr<SessionCore> core() const { return core_; }

private:
    explicit FakeBackend(std::shared_ptr<PaneHost> host);

    std::shared_ptr<SessionEventStream> events_ = std::make_shared<SessionEventStream>();
    const std::string instance_;
    std::shared_ptr<SessionCore> core_;
    std::unique_ptr<platform::TimerThread> watchTimer_; // folders, agents and git

    mutable std::mutex lock_; // guards the records below
    std::optional<TerminalColors> colors_;
    int terminalColorsCalls_ = 0;
    double focusDelay_ = 0;
    std::vector<uint64_t> paneFocusCalls_;
    std::vector<FakeDecision> decisions_;
};

} // namespace corvex
