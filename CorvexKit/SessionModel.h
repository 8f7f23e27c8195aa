#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CorvexKit/Layout.h"

// The value model of what runs on one machine. The same values are the daemon's JSON, the
// in-process backend's state, the store's published state and the on-disk cache.
namespace corvex {

// The last component of a slash-separated path, ignoring trailing slashes ("/a/b/" gives "b").
std::string lastPathComponent(std::string_view path);

struct Focus {
    std::optional<uint64_t> workspace;
    std::optional<uint64_t> tab;
    std::optional<uint64_t> pane;

    bool operator==(const Focus&) const = default;
};

struct Tab {
    uint64_t id = 0;
    std::optional<std::string> title; // the user's; absent means derived from the pane
    uint64_t activePane = 0;
    Layout layout;

    bool operator==(const Tab&) const = default;
};

struct Workspace {
    uint64_t id = 0;
    std::string name;
    std::vector<Tab> tabs;
    std::optional<uint64_t> activeTab;

    const Tab* tab(uint64_t id) const;
    bool operator==(const Workspace&) const = default;
};

struct PaneExit {
    std::optional<int32_t> code;
    std::optional<int32_t> signal;

    bool operator==(const PaneExit&) const = default;
};

struct PaneRestore {
    double at = 0; // seconds since the Unix epoch
    std::optional<std::string> agent;
    std::optional<std::string> session;
    bool continued = false;

    std::string note() const;
    bool operator==(const PaneRestore&) const = default;
};

struct Worktree {
    std::string name;
    std::optional<std::string> path;

    bool operator==(const Worktree&) const = default;
};

struct PullRequest {
    enum class State { open, draft, merged, closed };

    int number = 0;
    std::optional<State> state;
    std::optional<std::string> url;
    std::optional<std::string> title;

    bool operator==(const PullRequest&) const = default;
};

std::string_view wireName(PullRequest::State state);
std::optional<PullRequest::State> parsePullRequestState(std::string_view text);

struct PaneGit {
    std::string repo;
    std::optional<std::string> root;
    std::optional<std::string> remote;
    std::optional<std::string> branch;
    std::optional<std::string> head;
    std::optional<Worktree> worktree;
    std::optional<PullRequest> pr;
    std::optional<std::string> prReason;

    // The branch, else "@" and the head, else "detached".
    std::string place() const;
    // The place and the pull request's number.
    std::string shortText() const;
    std::string summary() const;
    std::string searchText() const;
    bool operator==(const PaneGit&) const = default;
};

struct PermissionRequest {
    std::string id;
    std::string tool;
    std::optional<std::string> summary;

    bool operator==(const PermissionRequest&) const = default;
};

enum class PermissionDecision { allow, deny };

std::string_view wireName(PermissionDecision decision);
std::optional<PermissionDecision> parsePermissionDecision(std::string_view text);

struct AgentInfo {
    enum class State { starting, running, waiting, done, error, unknown };

    std::string kind;
    State state = State::unknown;
    std::optional<std::string> source;
    std::optional<std::string> message;
    std::optional<double> since;
    std::optional<bool> attention;
    std::optional<std::string> session;
    std::optional<bool> muted;
    std::optional<bool> quietRise;
    std::optional<std::string> prompt;
    std::optional<std::string> tool;
    std::optional<std::string> toolInput;
    std::optional<double> turnStarted;
    std::optional<std::vector<PermissionRequest>> requests;

    // "Claude Code", "Codex", "Agent" for an empty kind, else the kind with its first letter
    // upper-cased. Known kinds compare without regard to case.
    static std::string kindName(std::string_view kind);
    // "Claude", "Codex", "Agent" for an empty kind, else the kind with its first letter upper-cased.
    static std::string shortName(std::string_view kind);
    bool operator==(const AgentInfo&) const = default;
};

std::string_view wireName(AgentInfo::State state);
// Unknown words read as `unknown`, so a newer daemon's states never fail a document.
AgentInfo::State parseAgentState(std::string_view text);

struct Pane {
    uint64_t id = 0;
    int cols = 0;
    int rows = 0;
    std::optional<int32_t> pid;
    std::optional<std::vector<std::string>> command;
    std::optional<std::string> title; // as the program set it through the terminal
    std::optional<std::string> cwd;
    uint64_t seq = 0;
    std::optional<PaneExit> exited;
    std::optional<AgentInfo> agent;
    std::optional<PaneRestore> restored;
    std::optional<PaneGit> git;

    // The title as the interface shows it: without an agent's leading status glyph, and with
    // the folder's name in place of the agent's fixed product title.
    static std::optional<std::string> displayTitle(const std::optional<std::string>& title,
                                                   const std::optional<std::string>& cwd);
    bool operator==(const Pane&) const = default;
};

// What a focus request names.
struct FocusTarget {
    enum class Kind { pane, tab, workspace };

    Kind kind = Kind::pane;
    uint64_t id = 0;

    static FocusTarget pane(uint64_t id) { return {Kind::pane, id}; }
    static FocusTarget tab(uint64_t id) { return {Kind::tab, id}; }
    static FocusTarget workspace(uint64_t id) { return {Kind::workspace, id}; }

    std::string description() const;
    bool operator==(const FocusTarget&) const = default;
};

// A reordering or regrafting request. The fields in use depend on `kind`:
// workspace: id, index. tab: id, workspace (target; absent means its own), index, focus.
// pane and tabJoin: id, beside, direction, ratio, focus.
struct MoveRequest {
    enum class Kind { workspace, tab, pane, tabJoin };

    Kind kind = Kind::workspace;
    uint64_t id = 0;
    int index = 0;
    std::optional<uint64_t> workspace;
    uint64_t beside = 0;
    Direction direction = Direction::right;
    std::optional<double> ratio;
    bool focus = false;

    static MoveRequest moveWorkspace(uint64_t id, int index);
    static MoveRequest moveTab(uint64_t id, std::optional<uint64_t> workspace, int index, bool focus = false);
    static MoveRequest movePane(uint64_t id, uint64_t beside, Direction direction,
                                std::optional<double> ratio = std::nullopt, bool focus = false);
    static MoveRequest joinTab(uint64_t id, uint64_t beside, Direction direction,
                               std::optional<double> ratio = std::nullopt, bool focus = false);

    std::string description() const;
    bool operator==(const MoveRequest&) const = default;
};

struct PaneLocation {
    const Workspace* workspace = nullptr;
    const Tab* tab = nullptr;
};

// The tab that becomes active when the tab at `leaving` leaves `tabs` (which still hold it):
// the one before it, or the one after when it was the first; absent when it was alone.
std::optional<uint64_t> successorTab(const std::vector<Tab>& tabs, size_t leaving);

// One machine's whole session tree. Lookups return pointers into this value (null when
// absent); they stay valid while the value is neither changed nor destroyed.
struct ModelState {
    uint64_t rev = 0;
    Focus focus;
    std::vector<Workspace> workspaces; // in display order
    std::vector<Pane> panes;           // every pane of every tab

    const Pane* pane(std::optional<uint64_t> id) const;
    // The first tab of that identifier in any workspace.
    const Tab* tab(std::optional<uint64_t> id) const;
    const Workspace* workspace(std::optional<uint64_t> id) const;
    std::optional<PaneLocation> location(uint64_t pane) const;
    const Workspace* workspaceContaining(uint64_t tab) const;

    // The state as it will look once the daemon has done that operation; absent when that
    // can't be told without the daemon.
    std::optional<ModelState> focusing(const FocusTarget& target) const;
    std::optional<ModelState> moving(const MoveRequest& request) const;

    // Each workspace's `activeTab`.
    std::map<uint64_t, std::optional<uint64_t>> activeTabs() const;

    // The tree edits that the session engine makes and a client may foresee. They touch
    // the tree only: panes' records and programs are the caller's.

    // Takes the tab out of its workspace; an active tab hands over to its successor.
    // False when there is no such tab.
    bool removeTab(uint64_t tab);
    // Takes the pane out of its tab's layout: an active pane hands over to the first pane of
    // its sibling, and a tab left empty is removed.
    void removePaneFromTabs(uint64_t pane);
    // Points the focus at what still exists: its workspace or else the first, there the
    // focused tab or else the workspace's active one (or first), there the focused pane or
    // else the tab's active one.
    void repairFocus();
    // The focused workspace's active tab is the focused tab; every other workspace keeps an
    // active tab that it holds, or else takes its first.
    void settleActiveTabs();

    bool operator==(const ModelState&) const = default;
};

} // namespace corvex
