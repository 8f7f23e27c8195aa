#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace corvex {

// The navigable outline behind the command bar: agents that need the user, then machines,
// their workspaces and tabs. A value of ids and expansion state only, so that all keyboard
// behaviour can be checked without a screen. Every mutating operation leaves the selection on
// a visible row, or empty when there are no rows.
class CommandTree {
public:
    struct Node {
        enum class Kind { agent, machine, workspace, tab };

        Kind kind = Kind::machine;
        std::string machine;
        uint64_t id = 0; // the pane of an agent; unused for a machine

        static Node agent(std::string machine, uint64_t pane) { return {Kind::agent, std::move(machine), pane}; }
        static Node machineNode(std::string key) { return {Kind::machine, std::move(key), 0}; }
        static Node workspace(std::string machine, uint64_t id) { return {Kind::workspace, std::move(machine), id}; }
        static Node tab(std::string machine, uint64_t id) { return {Kind::tab, std::move(machine), id}; }

        bool operator==(const Node&) const = default;
    };

    struct NodeHash {
        size_t operator()(const Node& node) const noexcept;
    };

    struct Outline {
        struct Workspace {
            uint64_t id = 0;
            std::vector<uint64_t> tabs;

            bool operator==(const Workspace&) const = default;
        };
        struct Machine {
            std::string key;
            // Absent: not connected, contents unknown. Empty: connected with no workspace.
            std::optional<std::vector<Workspace>> workspaces;

            bool operator==(const Machine&) const = default;
        };
        struct Agent {
            std::string machine;
            uint64_t pane = 0;

            bool operator==(const Agent&) const = default;
        };

        std::vector<Machine> machines;
        std::vector<Agent> needsYou;

        const Machine* machine(std::string_view key) const;
        const Workspace* workspace(uint64_t tab, std::string_view machine) const;

        bool operator==(const Outline&) const = default;
    };

    struct Scope {
        enum class Kind { machine, machines };

        Kind kind = Kind::machines;
        std::string machine; // for `machine`

        static Scope oneMachine(std::string key) { return {Kind::machine, std::move(key)}; }
        static Scope allMachines() { return {Kind::machines, {}}; }

        bool operator==(const Scope&) const = default;
    };

    enum class Section { needsYou, tree };

    struct Row {
        Node node;
        int depth = 0;
        Section section = Section::tree;
        bool expandable = false;
        bool expanded = false;

        bool operator==(const Row&) const = default;
    };

    struct Activation {
        enum class Kind { open, connect, expanded, nothing };

        Kind kind = Kind::nothing;
        std::optional<Node> node;   // for `open`
        std::string machine;        // for `connect`

        static Activation open(Node node) { return {Kind::open, std::move(node), {}}; }
        static Activation connect(std::string machine) { return {Kind::connect, std::nullopt, std::move(machine)}; }
        static Activation expanded() { return {Kind::expanded, std::nullopt, {}}; }
        static Activation nothing() { return {}; }

        bool operator==(const Activation&) const = default;
    };

    using NodeSet = std::unordered_set<Node, NodeHash>;

    // Opens on one machine's workspaces, with the current workspace expanded and the current
    // tab (else workspace) selected.
    CommandTree(Outline outline, std::string machine, std::optional<uint64_t> workspace = std::nullopt,
                std::optional<uint64_t> tab = std::nullopt);

    const Outline& outline() const { return outline_; }
    const Scope& scope() const { return scope_; }
    const NodeSet& expanded() const { return expanded_; }
    const std::optional<Node>& selection() const { return selection_; }
    bool workspacesOnly() const { return workspacesOnly_; }

    // Rebuilt on every call.
    std::vector<Row> rows() const;
    std::optional<size_t> selectedIndex() const;
    std::optional<Node> workspace(uint64_t containingTab, std::string_view machine) const;

    // Up and Down: wraps both ways; with no selection a step forward lands on the first row and
    // a step back on the last.
    std::optional<Node> move(long delta);
    void select(long index);
    void selectFirstWorkspace(std::string_view machine, std::optional<uint64_t> except);
    // Right arrow: opens the row, or steps into its first child when already open.
    bool expand();
    // Left arrow: closes the row, or climbs to its parent (out of the one-machine view too).
    bool collapse();
    // Return.
    Activation activate();
    void showMachines();
    void reveal(const Node& node);
    // Shift-Tab.
    void revealParent(const Node& node);
    // The model changed under the open bar.
    void update(Outline outline);
    // Tabs are no choice in this mode (picking a target workspace).
    void setWorkspacesOnly(bool on);

private:
    void addWorkspaces(std::vector<Row>& rows, const Outline::Machine& machine, int depth) const;
    std::optional<size_t> indexOf(const Node& node, const std::vector<Row>& rows) const;
    void show(const Node& node);
    void fixSelection();

    Outline outline_;
    Scope scope_;
    NodeSet expanded_;
    std::optional<Node> selection_;
    bool workspacesOnly_ = false;
};

} // namespace corvex
