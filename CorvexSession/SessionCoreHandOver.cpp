// Passing a running session from one serving process to the next. The programs keep running
// elsewhere (the host holds them); what moves is everything only the serving process knew:
// the tree, each pane's retained output and position, and its terminal's state.

#include <algorithm>
#include <utility>

#include "CorvexSession/SessionCore.h"
#include "CorvexSession/SessionCoreBatch.h"
#include "Vellum/Terminal.h"
#include "Vellum/TerminalSnapshotStream.h"

namespace corvex {

namespace {

// The whole history goes across: the rows the next process shows must be the rows this one had.
constexpr int allHistory = 1 << 24;
constexpr size_t screenLimit = 256u << 20;

} // namespace

void OutputRetention::resume(uint64_t start, Bytes bytes) {
    seq_ = start + bytes.size();
    if (bytes.size() > retainedBytes) bytes.erase(bytes.begin(), bytes.end() - static_cast<std::ptrdiff_t>(retainedBytes));
    ring_ = std::move(bytes);
    oldest_ = 0; // laid out in order, so a full ring's oldest byte is its first
}

SessionHandOver SessionCore::handOver() {
    std::vector<std::pair<uint64_t, std::shared_ptr<PaneProcess>>> running;
    {
        std::scoped_lock both(lock_, outboxLock_);
        listener_ = nullptr;
        outbox_.clear();
        for (auto& [id, pane] : panes_) running.emplace_back(id, pane.process);
    }
    // Outside the lock: a settle waits for output on its way, which enters through it.
    for (auto& [id, process] : running) process->settle();

    SessionHandOver session;
    std::vector<PaneHandOver> panes;
    {
        std::lock_guard guard(lock_);
        session.state = state_;
        session.nextID = nextID_;
        session.scrollbackLines = scrollbackLines_;
        for (auto& [id, process] : running) {
            auto found = panes_.find(id);
            if (found == panes_.end()) continue;
            const auto& output = found->second.output;
            panes.push_back(PaneHandOver{id, output.start(), output.bytes(), {}});
        }
    }
    for (auto& pane : panes) {
        auto held = std::find_if(running.begin(), running.end(), [&](const auto& item) { return item.first == pane.pane; });
        held->second->withTerminal([&](vellum::Terminal& terminal) {
            pane.screen = vellum::snapshotStream(terminal, {allHistory, screenLimit});
        });
        session.panes.push_back(std::move(pane));
    }
    return session;
}

void SessionCore::takeOver(const SessionHandOver& session) {
    Batch batch(*this);
    if (!state_.workspaces.empty() || !panes_.empty()) return;
    state_ = session.state;
    nextID_ = std::max(nextID_, session.nextID);
    scrollbackLines_ = session.scrollbackLines;
    std::vector<uint64_t> lost;
    for (const auto& handed : session.panes) {
        const Pane* pane = state_.pane(handed.pane);
        if (!pane) continue;
        Size size{pane->cols, pane->rows};
        PaneLaunch launch;
        launch.pane = handed.pane;
        launch.command = pane->command.value_or(std::vector<std::string>{});
        launch.cwd = pane->cwd.value_or(std::string());
        launch.size = size;
        launch.scrollbackLines = scrollbackLines_;
        launch.resume = PaneResume{handed.screen, handed.retainedStart + handed.retained.size()};
        // Output that the program wrote meanwhile waits on this lock until the pane is entered.
        auto process = host_->spawn(launch, eventsFor(handed.pane));
        if (!process) {
            lost.push_back(handed.pane);
            continue;
        }
        auto& record = panes_[handed.pane];
        record = PaneRecord{process, size, {}, false};
        record.output.resume(handed.retainedStart, handed.retained);
    }
    for (uint64_t id : lost) removeFromLayout(id);
    publishState(batch);
}

} // namespace corvex
