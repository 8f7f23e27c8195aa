#include "CorvexKit/CommandTree.h"

#include <algorithm>
#include <functional>

namespace corvex {

using Node = CommandTree::Node;
using Kind = CommandTree::Node::Kind;

size_t CommandTree::NodeHash::operator()(const Node& node) const noexcept {
    size_t seed = std::hash<std::string>()(node.machine);
    seed ^= std::hash<uint64_t>()(node.id) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
    seed ^= std::hash<int>()(int(node.kind)) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
    return seed;
}

const CommandTree::Outline::Machine* CommandTree::Outline::machine(std::string_view key) const {
    for (const auto& candidate : machines) {
        if (candidate.key == key) return &candidate;
    }
    return nullptr;
}

const CommandTree::Outline::Workspace* CommandTree::Outline::workspace(uint64_t tab, std::string_view key) const {
    const auto* found = machine(key);
    if (!found || !found->workspaces) return nullptr;
    for (const auto& candidate : *found->workspaces) {
        if (std::find(candidate.tabs.begin(), candidate.tabs.end(), tab) != candidate.tabs.end()) return &candidate;
    }
    return nullptr;
}

CommandTree::CommandTree(Outline outline, std::string machine, std::optional<uint64_t> workspace,
                         std::optional<uint64_t> tab)
    : outline_(std::move(outline)), scope_(Scope::oneMachine(machine)) {
    if (workspace) expanded_.insert(Node::workspace(machine, *workspace));
    if (tab && outline_.workspace(*tab, machine)) {
        selection_ = Node::tab(machine, *tab);
    } else if (workspace) {
        selection_ = Node::workspace(machine, *workspace);
    }
    fixSelection();
}

void CommandTree::addWorkspaces(std::vector<Row>& rows, const Outline::Machine& machine, int depth) const {
    if (!machine.workspaces) return;
    for (const auto& workspace : *machine.workspaces) {
        Node node = Node::workspace(machine.key, workspace.id);
        bool expandable = !workspace.tabs.empty() && !workspacesOnly_;
        bool expanded = expandable && expanded_.contains(node);
        rows.push_back(Row{node, depth, Section::tree, expandable, expanded});
        if (!expanded) continue;
        for (uint64_t tab : workspace.tabs) {
            rows.push_back(Row{Node::tab(machine.key, tab), depth + 1, Section::tree, false, false});
        }
    }
}

std::vector<CommandTree::Row> CommandTree::rows() const {
    std::vector<Row> rows;
    for (const auto& agent : outline_.needsYou) {
        rows.push_back(Row{Node::agent(agent.machine, agent.pane), 0, Section::needsYou, false, false});
    }
    if (scope_.kind == Scope::Kind::machine) {
        if (const auto* machine = outline_.machine(scope_.machine)) addWorkspaces(rows, *machine, 0);
        return rows;
    }
    for (const auto& machine : outline_.machines) {
        Node node = Node::machineNode(machine.key);
        bool expandable = machine.workspaces && !machine.workspaces->empty();
        bool expanded = expanded_.contains(node);
        rows.push_back(Row{node, 0, Section::tree, expandable, expanded});
        if (expanded) addWorkspaces(rows, machine, 1);
    }
    return rows;
}

std::optional<size_t> CommandTree::indexOf(const Node& node, const std::vector<Row>& rows) const {
    for (size_t i = 0; i < rows.size(); ++i) {
        if (rows[i].node == node) return i;
    }
    return std::nullopt;
}

std::optional<size_t> CommandTree::selectedIndex() const {
    if (!selection_) return std::nullopt;
    return indexOf(*selection_, rows());
}

std::optional<Node> CommandTree::workspace(uint64_t containingTab, std::string_view machine) const {
    if (const auto* found = outline_.workspace(containingTab, machine)) {
        return Node::workspace(std::string(machine), found->id);
    }
    return std::nullopt;
}

void CommandTree::fixSelection() {
    auto all = rows();
    if (selection_ && indexOf(*selection_, all)) return;
    if (all.empty()) {
        selection_.reset();
        return;
    }
    auto tree = std::find_if(all.begin(), all.end(), [](const Row& row) { return row.section == Section::tree; });
    selection_ = tree != all.end() ? tree->node : all.front().node;
}

std::optional<Node> CommandTree::move(long delta) {
    auto all = rows();
    if (all.empty()) return std::nullopt;
    const long count = long(all.size());
    auto index = selection_ ? indexOf(*selection_, all) : std::nullopt;
    long start = index ? long(*index) : (delta <= 0 ? count : -1);
    long target = ((start + delta) % count + count) % count;
    selection_ = all[size_t(target)].node;
    return selection_;
}

void CommandTree::select(long index) {
    auto all = rows();
    if (index >= 0 && index < long(all.size())) selection_ = all[size_t(index)].node;
}

void CommandTree::selectFirstWorkspace(std::string_view machine, std::optional<uint64_t> except) {
    const auto* found = outline_.machine(machine);
    std::optional<uint64_t> first;
    if (found && found->workspaces) {
        for (const auto& workspace : *found->workspaces) {
            if (workspace.id != except) {
                first = workspace.id;
                break;
            }
        }
    }
    if (first) {
        selection_ = Node::workspace(std::string(machine), *first);
    } else if (except) {
        // The caller is leaving or has removed it; fixSelection decides where to go instead.
        selection_ = Node::workspace(std::string(machine), *except);
    }
    fixSelection();
}

bool CommandTree::expand() {
    if (!selection_) return false;
    auto all = rows();
    auto index = indexOf(*selection_, all);
    if (!index || !all[*index].expandable) return false;
    if (!all[*index].expanded) {
        expanded_.insert(*selection_);
        return true;
    }
    if (*index + 1 < all.size() && all[*index + 1].depth > all[*index].depth) {
        selection_ = all[*index + 1].node;
        return true;
    }
    return false;
}

bool CommandTree::collapse() {
    if (!selection_) return false;
    const Node node = *selection_;
    if (expanded_.contains(node)) {
        auto all = rows();
        if (auto index = indexOf(node, all); index && all[*index].expanded) {
            expanded_.erase(node);
            fixSelection();
            return true;
        }
    }
    switch (node.kind) {
    case Kind::agent:
    case Kind::machine:
        return false;
    case Kind::tab: {
        auto parent = workspace(node.id, node.machine);
        if (!parent) return false;
        expanded_.erase(*parent);
        selection_ = *parent;
        fixSelection();
        return true;
    }
    case Kind::workspace:
        // Climbing out of the one-machine view keeps that machine's own expansion state.
        if (scope_.kind == Scope::Kind::machine) {
            scope_ = Scope::allMachines();
        } else {
            expanded_.erase(Node::machineNode(node.machine));
        }
        selection_ = Node::machineNode(node.machine);
        fixSelection();
        return true;
    }
    return false;
}

CommandTree::Activation CommandTree::activate() {
    if (!selection_) return Activation::nothing();
    if (selection_->kind != Kind::machine) return Activation::open(*selection_);
    const auto* machine = outline_.machine(selection_->machine);
    if (!machine || !machine->workspaces) return Activation::connect(selection_->machine);
    if (machine->workspaces->empty()) return Activation::open(*selection_);
    expanded_.insert(*selection_);
    return Activation::expanded();
}

void CommandTree::showMachines() {
    if (scope_.kind != Scope::Kind::machine) return;
    selection_ = Node::machineNode(scope_.machine);
    scope_ = Scope::allMachines();
    fixSelection();
}

void CommandTree::show(const Node& node) {
    switch (node.kind) {
    case Kind::agent:
        return;
    case Kind::machine:
        scope_ = Scope::allMachines();
        return;
    case Kind::workspace:
        if (scope_.kind == Scope::Kind::machines) {
            expanded_.insert(Node::machineNode(node.machine));
        } else if (scope_.machine != node.machine) {
            scope_ = Scope::oneMachine(node.machine);
        }
        return;
    case Kind::tab:
        if (auto parent = workspace(node.id, node.machine)) {
            show(*parent);
            expanded_.insert(*parent);
        }
        return;
    }
}

void CommandTree::reveal(const Node& node) {
    show(node);
    if (node.kind == Kind::machine || node.kind == Kind::workspace) expanded_.insert(node);
    selection_ = node;
    fixSelection();
}

void CommandTree::revealParent(const Node& node) {
    switch (node.kind) {
    case Kind::agent:
    case Kind::machine:
        scope_ = Scope::allMachines();
        selection_ = node;
        break;
    case Kind::workspace:
        scope_ = Scope::allMachines();
        selection_ = Node::machineNode(node.machine);
        break;
    case Kind::tab:
        if (auto parent = workspace(node.id, node.machine)) {
            show(*parent);
            selection_ = *parent;
        }
        break;
    }
    fixSelection();
}

void CommandTree::update(Outline outline) {
    if (outline == outline_) return;
    auto remembered = selectedIndex();
    outline_ = std::move(outline);
    if (scope_.kind == Scope::Kind::machine && !outline_.machine(scope_.machine)) scope_ = Scope::allMachines();

    auto all = rows();
    if (selection_ && indexOf(*selection_, all)) return;
    // A tab that lost its row because its workspace collapsed or moved lands on that workspace.
    if (selection_ && selection_->kind == Kind::tab) {
        if (auto parent = workspace(selection_->id, selection_->machine); parent && indexOf(*parent, all)) {
            selection_ = *parent;
            return;
        }
    }
    if (all.empty()) {
        selection_.reset();
        return;
    }
    selection_ = all[std::min(remembered.value_or(0), all.size() - 1)].node;
}

void CommandTree::setWorkspacesOnly(bool on) {
    workspacesOnly_ = on;
    if (on && selection_ && selection_->kind == Kind::tab) {
        if (auto parent = workspace(selection_->id, selection_->machine)) selection_ = *parent;
    }
    fixSelection();
}

} // namespace corvex
