#include "CorvexKit/SessionModel.h"

#include <algorithm>
#include <cctype>

namespace corvex {

namespace {

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
    std::string out;
    for (const auto& part : parts) {
        if (!out.empty()) out += separator;
        out += part;
    }
    return out;
}

std::string lowercased(std::string_view text) {
    std::string out(text);
    for (auto& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string pullRequestNumber(const PullRequest& pr) {
    std::string text = "#";
    text += std::to_string(pr.number);
    return text;
}

std::string firstLetterUppercased(std::string_view text) {
    std::string out(text);
    if (!out.empty()) out[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(out[0])));
    return out;
}

template <typename Enum, size_t N>
std::optional<Enum> parseWord(std::string_view text, const std::string_view (&words)[N]) {
    for (size_t i = 0; i < N; ++i) {
        if (words[i] == text) return static_cast<Enum>(i);
    }
    return std::nullopt;
}

constexpr std::string_view pullRequestStates[] = {"open", "draft", "merged", "closed"};
constexpr std::string_view permissionDecisions[] = {"allow", "deny"};
constexpr std::string_view agentStates[] = {"starting", "running", "waiting", "done", "error", "unknown"};

} // namespace

std::string lastPathComponent(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    auto slash = path.rfind('/');
    if (slash == std::string_view::npos || path.size() == 1) return std::string(path);
    return std::string(path.substr(slash + 1));
}

std::string_view wireName(PullRequest::State state) { return pullRequestStates[static_cast<size_t>(state)]; }

std::optional<PullRequest::State> parsePullRequestState(std::string_view text) {
    return parseWord<PullRequest::State>(text, pullRequestStates);
}

std::string_view wireName(PermissionDecision decision) {
    return permissionDecisions[static_cast<size_t>(decision)];
}

std::optional<PermissionDecision> parsePermissionDecision(std::string_view text) {
    return parseWord<PermissionDecision>(text, permissionDecisions);
}

std::string_view wireName(AgentInfo::State state) { return agentStates[static_cast<size_t>(state)]; }

AgentInfo::State parseAgentState(std::string_view text) {
    return parseWord<AgentInfo::State>(text, agentStates).value_or(AgentInfo::State::unknown);
}

std::string AgentInfo::kindName(std::string_view kind) {
    if (kind.empty()) return "Agent";
    auto lower = lowercased(kind);
    if (lower == "claude") return "Claude Code";
    if (lower == "codex") return "Codex";
    return firstLetterUppercased(kind);
}

std::string AgentInfo::shortName(std::string_view kind) {
    if (kind.empty()) return "Agent";
    auto lower = lowercased(kind);
    if (lower == "claude") return "Claude";
    if (lower == "codex") return "Codex";
    return firstLetterUppercased(kind);
}

const Tab* Workspace::tab(uint64_t tabID) const {
    for (const auto& candidate : tabs) {
        if (candidate.id == tabID) return &candidate;
    }
    return nullptr;
}

std::string PaneRestore::note() const {
    if (continued) return "Continued the latest conversation in this folder";
    if (agent) {
        // Known kinds read by their product name; others stay as the daemon wrote them.
        auto lower = lowercased(*agent);
        auto name = (lower == "claude" || lower == "codex") ? AgentInfo::kindName(*agent) : *agent;
        return "Restored after restart · resumed " + name + " session";
    }
    return "Restored after restart";
}

std::string PaneGit::place() const {
    if (branch) return *branch;
    if (head) return "@" + *head;
    return "detached";
}

std::string PaneGit::shortText() const {
    std::vector<std::string> parts{place()};
    if (pr) parts.push_back(pullRequestNumber(*pr));
    return joined(parts, " · ");
}

std::string PaneGit::summary() const {
    std::vector<std::string> parts{repo, place()};
    if (worktree) parts.push_back(worktree->name);
    return joined(parts, " · ");
}

std::string PaneGit::searchText() const {
    std::vector<std::string> parts{place()};
    if (worktree) parts.push_back(worktree->name);
    if (pr) parts.push_back(pullRequestNumber(*pr));
    return joined(parts, " ");
}

std::string FocusTarget::description() const {
    switch (kind) {
    case Kind::pane: return "pane " + std::to_string(id);
    case Kind::tab: return "tab " + std::to_string(id);
    case Kind::workspace: return "workspace " + std::to_string(id);
    }
    return {};
}

MoveRequest MoveRequest::moveWorkspace(uint64_t id, int index) {
    MoveRequest request;
    request.kind = Kind::workspace;
    request.id = id;
    request.index = index;
    return request;
}

MoveRequest MoveRequest::moveTab(uint64_t id, std::optional<uint64_t> workspace, int index, bool focus) {
    MoveRequest request;
    request.kind = Kind::tab;
    request.id = id;
    request.workspace = workspace;
    request.index = index;
    request.focus = focus;
    return request;
}

MoveRequest MoveRequest::movePane(uint64_t id, uint64_t beside, Direction direction, std::optional<double> ratio,
                                  bool focus) {
    MoveRequest request;
    request.kind = Kind::pane;
    request.id = id;
    request.beside = beside;
    request.direction = direction;
    request.ratio = ratio;
    request.focus = focus;
    return request;
}

MoveRequest MoveRequest::joinTab(uint64_t id, uint64_t beside, Direction direction, std::optional<double> ratio,
                                 bool focus) {
    auto request = movePane(id, beside, direction, ratio, focus);
    request.kind = Kind::tabJoin;
    return request;
}

std::string MoveRequest::description() const {
    auto id = std::to_string(this->id);
    switch (kind) {
    case Kind::workspace: return "workspace " + id + " to index " + std::to_string(index);
    case Kind::tab: {
        auto text = "tab " + id + " to index " + std::to_string(index);
        if (workspace) text += " of workspace " + std::to_string(*workspace);
        return text;
    }
    case Kind::pane:
    case Kind::tabJoin:
        return std::string(kind == Kind::pane ? "pane " : "tab ") + id + " beside pane " + std::to_string(beside) +
               " (" + std::string(wireName(direction)) + ")";
    }
    return {};
}

const Pane* ModelState::pane(std::optional<uint64_t> id) const {
    if (!id) return nullptr;
    for (const auto& candidate : panes) {
        if (candidate.id == *id) return &candidate;
    }
    return nullptr;
}

const Tab* ModelState::tab(std::optional<uint64_t> id) const {
    if (!id) return nullptr;
    for (const auto& ws : workspaces) {
        if (const auto* found = ws.tab(*id)) return found;
    }
    return nullptr;
}

const Workspace* ModelState::workspace(std::optional<uint64_t> id) const {
    if (!id) return nullptr;
    for (const auto& candidate : workspaces) {
        if (candidate.id == *id) return &candidate;
    }
    return nullptr;
}

std::optional<PaneLocation> ModelState::location(uint64_t paneID) const {
    for (const auto& ws : workspaces) {
        for (const auto& candidate : ws.tabs) {
            if (candidate.layout.contains(paneID)) return PaneLocation{&ws, &candidate};
        }
    }
    return std::nullopt;
}

const Workspace* ModelState::workspaceContaining(uint64_t tabID) const {
    for (const auto& ws : workspaces) {
        if (ws.tab(tabID)) return &ws;
    }
    return nullptr;
}

std::map<uint64_t, std::optional<uint64_t>> ModelState::activeTabs() const {
    std::map<uint64_t, std::optional<uint64_t>> out;
    for (const auto& ws : workspaces) out[ws.id] = ws.activeTab;
    return out;
}

std::optional<ModelState> ModelState::focusing(const FocusTarget& target) const {
    ModelState next = *this;
    switch (target.kind) {
    case FocusTarget::Kind::pane:
        for (auto& ws : next.workspaces) {
            for (auto& candidate : ws.tabs) {
                if (!candidate.layout.contains(target.id)) continue;
                candidate.activePane = target.id;
                ws.activeTab = candidate.id;
                next.focus = Focus{ws.id, candidate.id, target.id};
                return next;
            }
        }
        return std::nullopt;
    case FocusTarget::Kind::tab:
        for (auto& ws : next.workspaces) {
            const auto* found = ws.tab(target.id);
            if (!found) continue;
            ws.activeTab = found->id;
            next.focus = Focus{ws.id, found->id, found->activePane};
            return next;
        }
        return std::nullopt;
    case FocusTarget::Kind::workspace: {
        const auto* ws = next.workspace(target.id);
        if (!ws) return std::nullopt;
        if (ws->tabs.empty()) {
            next.focus = Focus{ws->id, std::nullopt, std::nullopt};
            return next;
        }
        // The workspace's own activeTab stays as it is: only the daemon moves it.
        const Tab* chosen = ws->activeTab ? ws->tab(*ws->activeTab) : nullptr;
        if (!chosen) chosen = &ws->tabs.front();
        next.focus = Focus{ws->id, chosen->id, chosen->activePane};
        return next;
    }
    }
    return std::nullopt;
}

namespace {

std::optional<size_t> indexOfWorkspace(const std::vector<Workspace>& workspaces, uint64_t id) {
    for (size_t i = 0; i < workspaces.size(); ++i) {
        if (workspaces[i].id == id) return i;
    }
    return std::nullopt;
}

std::optional<ModelState> movingWorkspace(const ModelState& state, const MoveRequest& request) {
    if (request.index < 0) return std::nullopt;
    auto from = indexOfWorkspace(state.workspaces, request.id);
    if (!from) return std::nullopt;
    ModelState next = state;
    auto moved = std::move(next.workspaces[*from]);
    next.workspaces.erase(next.workspaces.begin() + static_cast<ptrdiff_t>(*from));
    auto to = std::min(static_cast<size_t>(request.index), next.workspaces.size());
    next.workspaces.insert(next.workspaces.begin() + static_cast<ptrdiff_t>(to), std::move(moved));
    return next;
}

std::optional<ModelState> movingTab(const ModelState& state, const MoveRequest& request) {
    if (request.index < 0) return std::nullopt;
    const auto* source = state.workspaceContaining(request.id);
    if (!source) return std::nullopt;
    auto sourceIndex = *indexOfWorkspace(state.workspaces, source->id);
    auto targetIndex = indexOfWorkspace(state.workspaces, request.workspace.value_or(source->id));
    if (!targetIndex) return std::nullopt;
    bool follows = request.focus || state.focus.tab == request.id;
    bool crossing = sourceIndex != *targetIndex;

    ModelState next = state;
    auto& from = next.workspaces[sourceIndex];
    auto removedAt = static_cast<size_t>(
        std::find_if(from.tabs.begin(), from.tabs.end(), [&](const Tab& t) { return t.id == request.id; }) -
        from.tabs.begin());
    if (crossing && from.activeTab == request.id) from.activeTab = successorTab(from.tabs, removedAt);
    Tab moved = std::move(from.tabs[removedAt]);
    from.tabs.erase(from.tabs.begin() + static_cast<ptrdiff_t>(removedAt));

    auto& to = next.workspaces[*targetIndex];
    auto insertAt = std::min(static_cast<size_t>(request.index), to.tabs.size());
    uint64_t tabID = moved.id;
    uint64_t activePane = moved.activePane;
    to.tabs.insert(to.tabs.begin() + static_cast<ptrdiff_t>(insertAt), std::move(moved));
    if (follows) {
        to.activeTab = tabID;
        next.focus = Focus{to.id, tabID, activePane};
    } else if (crossing && !to.activeTab) {
        to.activeTab = tabID;
    }
    return next;
}

} // namespace

std::optional<ModelState> ModelState::moving(const MoveRequest& request) const {
    switch (request.kind) {
    case MoveRequest::Kind::workspace: return movingWorkspace(*this, request);
    case MoveRequest::Kind::tab: return movingTab(*this, request);
    case MoveRequest::Kind::pane:
    case MoveRequest::Kind::tabJoin: return std::nullopt; // only the daemon knows the new tree
    }
    return std::nullopt;
}

} // namespace corvex
