#include "CorvexSession/SessionCore.h"
#include "CorvexSession/SessionCoreBatch.h"

namespace corvex {

void SessionCore::pollGit() {
    std::vector<std::pair<uint64_t, std::string>> folders;
    {
        std::lock_guard guard(lock_);
        std::vector<uint64_t> live;
        auto now = GitRefreshSchedule::Clock::now();
        for (const auto& pane : state_.panes) {
            if (!pane.cwd || !panes_.count(pane.id)) continue;
            live.push_back(pane.id);
            if (gitSchedule_.due(pane.id, *pane.cwd, pane.seq, now)) folders.emplace_back(pane.id, *pane.cwd);
        }
        gitSchedule_.keepOnly(live);
    }
    for (const auto& [pane, folder] : folders) {
        auto git = git_.facts(folder);
        Batch batch(*this);
        if (!panes_.count(pane)) continue;
        auto& state = statePane(pane);
        if (state.git == git || state.cwd != folder) continue;
        state.git = git;
        publishPane(batch, pane);
    }
}

} // namespace corvex
