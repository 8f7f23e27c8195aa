#include "Support/ScriptedBackend.h"

namespace corvex::testkit {

std::vector<std::string> ScriptedBackend::calls() const {
    std::lock_guard guard(mutex_);
    return calls_;
}

void ScriptedBackend::fail(const std::string& operation, BackendError error) {
    std::lock_guard guard(mutex_);
    failures_.insert_or_assign(operation, std::move(error));
}

void ScriptedBackend::raiseIfFailing(const std::string& operation) {
    std::lock_guard guard(mutex_);
    if (auto failure = failures_.find(operation); failure != failures_.end()) throw failure->second;
}

void ScriptedBackend::scriptSettings(DaemonSettings settings) {
    std::lock_guard guard(mutex_);
    settings_ = std::move(settings);
}

void ScriptedBackend::record(std::string call) {
    std::lock_guard guard(mutex_);
    calls_.push_back(std::move(call));
}

void ScriptedBackend::unscripted(const std::string& call) {
    record(call);
    throw BackendError("not_found", "not scripted: " + call);
}

void ScriptedBackend::start() {
    record("start");
    raiseIfFailing("start");
}

void ScriptedBackend::stop() { record("stop"); }

void ScriptedBackend::focus(const FocusTarget& target) {
    record("focus " + target.description());
    raiseIfFailing("focus");
}

void ScriptedBackend::move(const MoveRequest& request) {
    record("move " + request.description());
    raiseIfFailing("move");
}

void ScriptedBackend::focusPane(uint64_t pane) { record("focusPane " + std::to_string(pane)); }

void ScriptedBackend::sendInput(uint64_t pane, ByteView bytes) {
    record("input " + std::to_string(pane) + " " + std::string(bytes.begin(), bytes.end()));
}

DaemonSettings ScriptedBackend::getSettings() {
    record("getSettings");
    std::lock_guard guard(mutex_);
    return settings_;
}

DaemonSettings ScriptedBackend::setSettings(const DaemonSettings::Change& change) {
    record("setSettings");
    std::lock_guard guard(mutex_);
    if (change.scrollbackLines) settings_.scrollbackLines = *change.scrollbackLines;
    return settings_;
}

DaemonService ScriptedBackend::serviceStatus() {
    record("serviceStatus");
    std::lock_guard guard(mutex_);
    return service_;
}

DaemonService ScriptedBackend::installService() {
    record("installService");
    std::lock_guard guard(mutex_);
    service_.installed = true;
    return service_;
}

DaemonService ScriptedBackend::uninstallService() {
    record("uninstallService");
    std::lock_guard guard(mutex_);
    service_.installed = false;
    return service_;
}

ModelState ScriptedBackend::getState() { unscripted("getState"); }

CreatedWorkspace ScriptedBackend::createWorkspace(const std::optional<std::string>&, const SpawnOptions&) {
    unscripted("createWorkspace");
}

void ScriptedBackend::renameWorkspace(uint64_t, const std::string&) { unscripted("renameWorkspace"); }

void ScriptedBackend::closeWorkspace(uint64_t) { unscripted("closeWorkspace"); }

CreatedTab ScriptedBackend::createTab(uint64_t, const SpawnOptions&) { unscripted("createTab"); }

void ScriptedBackend::renameTab(uint64_t, const std::optional<std::string>&) { unscripted("renameTab"); }

void ScriptedBackend::closeTab(uint64_t) { unscripted("closeTab"); }

CreatedSplit ScriptedBackend::split(uint64_t, Direction, std::optional<double>, const SpawnOptions&) {
    unscripted("split");
}

void ScriptedBackend::closePane(uint64_t) { unscripted("closePane"); }

void ScriptedBackend::setRatio(uint64_t, double) { unscripted("setRatio"); }

namespace {

std::string cells(std::optional<Size> size) {
    return size ? std::to_string(size->cols) + "x" + std::to_string(size->rows) : "none";
}

} // namespace

Subscription ScriptedBackend::subscribe(uint64_t pane, std::optional<uint64_t> haveSeq, std::optional<int>,
                                        std::optional<Size> viewport) {
    record("subscribe " + std::to_string(pane) + " have " + (haveSeq ? std::to_string(*haveSeq) : "none") +
           " viewport " + cells(viewport));
    raiseIfFailing("subscribe");
    return {};
}

void ScriptedBackend::unsubscribe(uint64_t pane) { record("unsubscribe " + std::to_string(pane)); }

void ScriptedBackend::setViewport(uint64_t pane, Size size) { record("viewport " + std::to_string(pane) + " " + cells(size)); }

void ScriptedBackend::resize(uint64_t, Size) { unscripted("resize"); }

} // namespace corvex::testkit
