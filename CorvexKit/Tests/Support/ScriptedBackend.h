#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CorvexKit/SessionBackend.h"

namespace corvex::testkit {

// A backend whose events the test pushes by hand and whose answers it sets in advance. It
// records every call as a short line ("focus pane 5", "move tab 2 to index 0") so tests can
// tell what reached the backend. Operations that the tests don't script answer "not_found".
class ScriptedBackend final : public SessionBackend {
public:
    void push(SessionEvent event) { stream_->push(std::move(event)); }
    std::vector<std::string> calls() const;

    // Raised by the next calls of that operation ("start", "focus", "move" or "subscribe")
    // while set.
    void fail(const std::string& operation, BackendError error);
    void scriptSettings(DaemonSettings settings);

    std::shared_ptr<SessionEventStream> events() override { return stream_; }
    void start() override;
    void stop() override;
    ModelState getState() override;
    CreatedWorkspace createWorkspace(const std::optional<std::string>& name, const SpawnOptions& spawn) override;
    void renameWorkspace(uint64_t id, const std::string& name) override;
    void closeWorkspace(uint64_t id) override;
    CreatedTab createTab(uint64_t workspace, const SpawnOptions& spawn) override;
    void renameTab(uint64_t id, const std::optional<std::string>& title) override;
    void closeTab(uint64_t id) override;
    CreatedSplit split(uint64_t pane, Direction direction, std::optional<double> ratio,
                       const SpawnOptions& spawn) override;
    void closePane(uint64_t id) override;
    void setRatio(uint64_t split, double ratio) override;
    void focus(const FocusTarget& target) override;
    Subscription subscribe(uint64_t pane, std::optional<uint64_t> haveSeq, std::optional<int> scrollback,
                           std::optional<Size> viewport) override;
    void unsubscribe(uint64_t pane) override;
    void setViewport(uint64_t pane, Size size) override;
    void resize(uint64_t pane, Size size) override;
    void focusPane(uint64_t pane) override;
    void sendInput(uint64_t pane, ByteView bytes) override;
    void move(const MoveRequest& request) override;
    DaemonSettings getSettings() override;
    DaemonSettings setSettings(const DaemonSettings::Change& change) override;
    DaemonService serviceStatus() override;
    DaemonService installService() override;
    DaemonService uninstallService() override;

    using SessionBackend::createTab;
    using SessionBackend::createWorkspace;
    using SessionBackend::split;

private:
    void record(std::string call);
    void raiseIfFailing(const std::string& operation);
    [[noreturn]] void unscripted(const std::string& call);

    std::shared_ptr<SessionEventStream> stream_ = std::make_shared<SessionEventStream>();
    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
    std::map<std::string, BackendError> failures_;
    DaemonSettings settings_;
    DaemonService service_;
};

} // namespace corvex::testkit
