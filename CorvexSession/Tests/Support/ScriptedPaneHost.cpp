#include "CorvexSession/Tests/Support/ScriptedPaneHost.h"

namespace corvex::testing {

void ScriptedPaneHost::Process::write(ByteView bytes) {
    std::lock_guard guard(mutex);
    written.insert(written.end(), bytes.begin(), bytes.end());
}

void ScriptedPaneHost::Process::resize(Size size) {
    std::lock_guard guard(mutex);
    resizes.push_back(size);
}

void ScriptedPaneHost::Process::hangUp() {
    std::lock_guard guard(mutex);
    hungUp = true;
}

std::shared_ptr<PaneProcess> ScriptedPaneHost::spawn(const PaneLaunch& launch, PaneProcessEvents events) {
    std::lock_guard guard(mutex_);
    if (failNext) {
        failNext = false;
        return nullptr;
    }
    auto process = std::make_shared<Process>();
    process->launch = launch;
    process->events = std::move(events);
    processes_[launch.pane] = process;
    return process;
}

std::shared_ptr<ScriptedPaneHost::Process> ScriptedPaneHost::process(uint64_t pane) {
    std::lock_guard guard(mutex_);
    auto found = processes_.find(pane);
    return found == processes_.end() ? nullptr : found->second;
}

} // namespace corvex::testing
