#include <algorithm>
#include <chrono>
#include <utility>

#include "CorvexSession/AgentDetector.h"
#include "CorvexSession/AgentScreenRules.h"
#include "CorvexSession/SessionCore.h"
#include "CorvexSession/SessionCoreBatch.h"
#include "Platform/ProcessInfo.h"

// The engine's side of the agents in its panes: what hooks report, what people decide, and
// what is recorded of both.
namespace corvex {

namespace {

double now() { return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(); }

BackendError noAgent(uint64_t pane) { return BackendError("not_found", "no agent in pane " + std::to_string(pane)); }

bool holds(const std::optional<AgentInfo>& agent, const std::string& request) {
    if (!agent || !agent->requests) return false;
    return std::any_of(agent->requests->begin(), agent->requests->end(),
                       [&](const PermissionRequest& r) { return r.id == request; });
}

} // namespace

void SessionCore::changeAgent(Batch& batch, uint64_t pane, const std::optional<AgentInfo>& agent) {
    auto& state = statePane(pane);
    if (state.agent == agent) return;
    if (auto entry = historyEntry(state.agent, agent, now(), agents_.pid(pane))) agents_.record(pane, *entry);
    state.agent = agent;
    publishPane(batch, pane);
    batch.push(SessionEvent::Agent{pane, agent});
}

void SessionCore::setAgent(uint64_t pane, const std::optional<AgentInfo>& info) {
    Batch batch(*this);
    changeAgent(batch, pane, info);
}

void SessionCore::ackAgent(uint64_t pane) {
    Batch batch(*this);
    auto agent = statePane(pane).agent;
    if (!agent || !agent->attention.value_or(false)) return;
    agent->attention = false;
    changeAgent(batch, pane, agent);
}

void SessionCore::muteAgent(uint64_t pane, bool muted) {
    Batch batch(*this);
    auto agent = statePane(pane).agent;
    if (!agent) throw noAgent(pane);
    agent->muted = muted;
    changeAgent(batch, pane, agent);
}

void SessionCore::decide(uint64_t pane, const std::string& request, PermissionDecision decision,
                         const std::optional<std::string>& message) {
    Batch batch(*this);
    auto answered = [&] { return BackendError("not_found", request + " was already answered or retired"); };
    if (std::none_of(state_.panes.begin(), state_.panes.end(), [&](const Pane& p) { return p.id == pane; })) {
        throw answered();
    }
    auto agent = statePane(pane).agent;
    if (!holds(agent, request)) throw answered();
    auto& requests = *agent->requests;
    requests.erase(std::find_if(requests.begin(), requests.end(), [&](const auto& r) { return r.id == request; }));
    // The agent goes back to work once its hook hands the answer over.
    agent->attention = false;
    agents_.decide(request, decision, message);
    changeAgent(batch, pane, agent);
}

std::optional<std::string> SessionCore::reportAgent(const AgentReport& report) {
    Batch batch(*this);
    auto current = statePane(report.pane).agent;
    std::optional<std::string> request;
    if (report.event == "PermissionRequest") request = agents_.openRequest();
    if (report.pid) agents_.setPid(report.pane, report.pid);
    changeAgent(batch, report.pane, agentAfterReport(current, report, now(), request));
    if (!statePane(report.pane).agent) agents_.setPid(report.pane, std::nullopt);
    return request;
}

AgentVerdict SessionCore::agentVerdict(uint64_t pane, const std::string& request) {
    std::lock_guard guard(lock_);
    if (auto decided = agents_.takeDecision(request)) return *decided;
    auto found = std::find_if(state_.panes.begin(), state_.panes.end(), [&](const Pane& p) { return p.id == pane; });
    return AgentVerdict{found != state_.panes.end() && holds(found->agent, request), std::nullopt, std::nullopt};
}

AgentHistory SessionCore::agentHistory(uint64_t pane, std::optional<int> limit, std::optional<double> since) const {
    std::lock_guard guard(lock_);
    return agents_.history(pane, limit, since);
}

void SessionCore::pollAgents() {
    struct Look {
        uint64_t pane;
        int32_t pid;
        std::optional<AgentInfo> agent;
        std::optional<int32_t> reporter;
    };
    std::vector<Look> looks;
    {
        std::lock_guard guard(lock_);
        for (const auto& pane : state_.panes) {
            if (!pane.pid || !panes_.count(pane.id)) continue;
            looks.push_back({pane.id, *pane.pid, pane.agent, agents_.pid(pane.id)});
        }
    }
    std::erase_if(guessed_, [&](const auto& entry) {
        return std::none_of(looks.begin(), looks.end(), [&](const Look& look) { return look.pane == entry.first; });
    });
    for (const auto& look : looks) {
        auto next = nextGuess(look.pane, look.pid, look.agent, look.reporter);
        if (next == look.agent) continue;
        Batch batch(*this);
        auto found = std::find_if(state_.panes.begin(), state_.panes.end(), [&](const Pane& p) { return p.id == look.pane; });
        // A report that came meanwhile wins over what was read before it.
        if (found == state_.panes.end() || found->agent != look.agent) continue;
        if (!next) agents_.setPid(look.pane, std::nullopt);
        changeAgent(batch, look.pane, next);
    }
}

std::optional<AgentInfo> SessionCore::nextGuess(uint64_t pane, int32_t pid, const std::optional<AgentInfo>& agent,
                                                std::optional<int32_t> reporter) {
    auto screen = [&]() -> std::optional<PaneText> {
        try {
            return paneText(pane);
        } catch (const BackendError&) {
            return std::nullopt;
        }
    };
    if (agent && agent->source == "hook") {
        guessed_.erase(pane);
        // A hook-reported agent lasts as long as the process that reported it.
        if (!reporter || platform::processLives(*reporter)) return agent;
        return std::nullopt;
    }
    if (auto job = foregroundAgent(pid)) {
        auto text = screen();
        if (!text) return agent;
        auto& look = guessed_[pane];
        if (!look.process || look.process->pid() != job->pid) look.process = std::make_shared<AgentProcessWatch>(job->pid);
        bool streaming = look.screenSeq != text->seq;
        look.screenSeq = text->seq;
        return guessedAgent(agent, job->kind, readAgentScreen(text->lines, streaming), now());
    }
    auto mine = guessed_.find(pane);
    // An agent this detector didn't guess is someone else's to end.
    if (!agent || mine == guessed_.end()) {
        if (mine != guessed_.end()) guessed_.erase(mine);
        return agent;
    }
    bool finished = agent->state == AgentInfo::State::done || agent->state == AgentInfo::State::error;
    if (!finished) {
        auto process = std::exchange(mine->second.process, nullptr);
        if (process && !process->ended()) {
            // Stopped and put in the background: no longer in the pane, and not finished.
            guessed_.erase(mine);
            return std::nullopt;
        }
        auto text = screen();
        auto lines = text ? text->lines : std::vector<std::string>{};
        return guessedAgent(agent, agent->kind, readAgentExit(process ? process->exitStatus() : std::nullopt, lines), now());
    }
    // A finished agent stays until the user has seen it.
    if (agent->attention.value_or(false)) return agent;
    guessed_.erase(mine);
    return std::nullopt;
}

} // namespace corvex
