#include <gtest/gtest.h>

#include <ostream>

#include "CorvexKit/CommandTree.h"

using namespace corvex;

namespace corvex {
void PrintTo(const CommandTree::Node& node, std::ostream* out) {
    static const char* kinds[] = {"agent", "machine", "workspace", "tab"};
    *out << kinds[int(node.kind)] << "(" << node.machine << ", " << node.id << ")";
}
} // namespace corvex

namespace {

using Node = CommandTree::Node;
using Outline = CommandTree::Outline;
using Section = CommandTree::Section;
using Activation = CommandTree::Activation;
using Scope = CommandTree::Scope;

// "local": workspace 1 (tabs 10, 11), 2 (tab 20), 3 (no tab). "remote": not connected.
// "empty": connected, no workspace. Two agents need the user.
Outline sample() {
    Outline outline;
    outline.machines = {
        {"local", std::vector<Outline::Workspace>{{1, {10, 11}}, {2, {20}}, {3, {}}}},
        {"remote", std::nullopt},
        {"empty", std::vector<Outline::Workspace>{}},
    };
    outline.needsYou = {{"local", 100}, {"remote", 200}};
    return outline;
}

Node local(uint64_t workspace) { return Node::workspace("local", workspace); }
Node tab(uint64_t id) { return Node::tab("local", id); }

std::vector<Node> nodes(const CommandTree& tree) {
    std::vector<Node> out;
    for (const auto& row : tree.rows()) out.push_back(row.node);
    return out;
}

} // namespace

TEST(CommandTree, OpensOnTheCurrentMachineWithItsWorkspaceExpanded) {
    CommandTree tree(sample(), "local", 1, 11);
    EXPECT_EQ(tree.scope(), Scope::oneMachine("local"));
    EXPECT_EQ(tree.selectedIndex(), 4u);
    auto rows = tree.rows();
    ASSERT_EQ(rows.size(), 7u);
    EXPECT_EQ(rows[0], (CommandTree::Row{Node::agent("local", 100), 0, Section::needsYou, false, false}));
    EXPECT_EQ(rows[1], (CommandTree::Row{Node::agent("remote", 200), 0, Section::needsYou, false, false}));
    EXPECT_EQ(rows[2], (CommandTree::Row{local(1), 0, Section::tree, true, true}));
    EXPECT_EQ(rows[3], (CommandTree::Row{tab(10), 1, Section::tree, false, false}));
    EXPECT_EQ(rows[4], (CommandTree::Row{tab(11), 1, Section::tree, false, false}));
    EXPECT_EQ(rows[5], (CommandTree::Row{local(2), 0, Section::tree, true, false}));
    EXPECT_EQ(rows[6], (CommandTree::Row{local(3), 0, Section::tree, false, false}));

    // A tab the outline doesn't know falls back to the workspace; nothing at all falls back to
    // the first tree row, never to an agent.
    EXPECT_EQ(CommandTree(sample(), "local", 2, 99).selection(), local(2));
    EXPECT_EQ(CommandTree(sample(), "local").selection(), local(1));
    // An unknown machine shows only the agents.
    CommandTree unknown(sample(), "gone");
    EXPECT_EQ(nodes(unknown), (std::vector<Node>{Node::agent("local", 100), Node::agent("remote", 200)}));
    EXPECT_EQ(unknown.selection(), Node::agent("local", 100));
}

TEST(CommandTree, MachineRowsExpandOnlyWithKnownWorkspaces) {
    CommandTree tree(sample(), "local", 1);
    tree.showMachines();
    EXPECT_EQ(tree.scope(), Scope::allMachines());
    EXPECT_EQ(tree.selection(), Node::machineNode("local"));
    auto rows = tree.rows();
    ASSERT_EQ(rows.size(), 5u);
    EXPECT_EQ(rows[2], (CommandTree::Row{Node::machineNode("local"), 0, Section::tree, true, false}));
    EXPECT_EQ(rows[3], (CommandTree::Row{Node::machineNode("remote"), 0, Section::tree, false, false}));
    EXPECT_EQ(rows[4], (CommandTree::Row{Node::machineNode("empty"), 0, Section::tree, false, false}));

    // Expanded, the machine's workspaces follow one level down, keeping their own expansion.
    EXPECT_TRUE(tree.expand());
    EXPECT_EQ(nodes(tree), (std::vector<Node>{Node::agent("local", 100), Node::agent("remote", 200),
                                              Node::machineNode("local"), local(1), tab(10), tab(11), local(2),
                                              local(3), Node::machineNode("remote"), Node::machineNode("empty")}));
    EXPECT_EQ(tree.rows()[4].depth, 2);
    // A second press steps into the first child.
    EXPECT_TRUE(tree.expand());
    EXPECT_EQ(tree.selection(), local(1));
    EXPECT_TRUE(tree.expand());
    EXPECT_EQ(tree.selection(), tab(10));
    EXPECT_FALSE(tree.expand());
}

TEST(CommandTree, MoveWrapsBothWaysAndSelectIgnoresBadIndices) {
    CommandTree tree(sample(), "local", 1, 11);
    EXPECT_EQ(tree.move(1), local(2));
    EXPECT_EQ(tree.move(2), Node::agent("local", 100));
    EXPECT_EQ(tree.move(-1), local(3));
    EXPECT_EQ(tree.move(7), local(3));
    EXPECT_EQ(tree.move(-15), local(2));
    tree.select(0);
    EXPECT_EQ(tree.selection(), Node::agent("local", 100));
    tree.select(7);
    tree.select(-1);
    EXPECT_EQ(tree.selection(), Node::agent("local", 100));

    Outline single;
    single.machines = {{"m", std::vector<Outline::Workspace>{{5, {}}}}};
    CommandTree one(single, "m");
    EXPECT_EQ(one.move(-3), Node::workspace("m", 5));
    CommandTree none(Outline{}, "m");
    EXPECT_EQ(none.move(1), std::nullopt);
}

TEST(CommandTree, ExpandAndCollapseWorkspacesAndTabs) {
    CommandTree tree(sample(), "local", 1, 11);
    // Left on a tab closes its workspace and lands on it.
    EXPECT_TRUE(tree.collapse());
    EXPECT_EQ(tree.selection(), local(1));
    EXPECT_FALSE(tree.expanded().contains(local(1)));
    EXPECT_TRUE(tree.expand());
    EXPECT_TRUE(tree.expanded().contains(local(1)));
    EXPECT_EQ(tree.selection(), local(1));
    // Left on an open workspace closes it, staying put.
    EXPECT_TRUE(tree.collapse());
    EXPECT_EQ(tree.selection(), local(1));
    EXPECT_EQ(tree.scope(), Scope::oneMachine("local"));
    // Workspaces without tabs and tabs don't expand.
    tree.select(4);
    EXPECT_EQ(tree.selection(), local(3));
    EXPECT_FALSE(tree.expand());

    // Agents have no parent to climb to.
    tree.select(1);
    EXPECT_FALSE(tree.collapse());
    EXPECT_EQ(tree.selection(), Node::agent("remote", 200));
}

TEST(CommandTree, LeftClimbsOutOfTheOneMachineViewKeepingExpansion) {
    CommandTree tree(sample(), "local", 1);
    tree.reveal(local(2));
    ASSERT_TRUE(tree.expanded().contains(local(2)));
    tree.select(2);
    EXPECT_EQ(tree.selection(), local(1));
    EXPECT_TRUE(tree.collapse()); // closes workspace 1
    EXPECT_TRUE(tree.collapse()); // climbs to the machine list
    EXPECT_EQ(tree.scope(), Scope::allMachines());
    EXPECT_EQ(tree.selection(), Node::machineNode("local"));
    EXPECT_TRUE(tree.expanded().contains(local(2)));
    EXPECT_FALSE(tree.expanded().contains(Node::machineNode("local")));

    // In the machine list, Left on a workspace closes its machine.
    EXPECT_TRUE(tree.expand());
    tree.move(1);
    EXPECT_EQ(tree.selection(), local(1));
    EXPECT_TRUE(tree.collapse());
    EXPECT_EQ(tree.selection(), Node::machineNode("local"));
    EXPECT_FALSE(tree.expanded().contains(Node::machineNode("local")));
    // A closed machine row has nowhere further to go.
    EXPECT_FALSE(tree.collapse());
}

TEST(CommandTree, ReturnConnectsOpensOrExpands) {
    CommandTree tree(sample(), "local", 1, 10);
    EXPECT_EQ(tree.activate(), Activation::open(tab(10)));
    tree.select(0);
    EXPECT_EQ(tree.activate(), Activation::open(Node::agent("local", 100)));

    tree.showMachines();
    tree.reveal(Node::machineNode("remote"));
    EXPECT_EQ(tree.activate(), Activation::connect("remote"));
    tree.reveal(Node::machineNode("empty"));
    EXPECT_EQ(tree.activate(), Activation::open(Node::machineNode("empty")));
    tree.select(2);
    EXPECT_EQ(tree.selection(), Node::machineNode("local"));
    EXPECT_EQ(tree.activate(), Activation::expanded());
    EXPECT_TRUE(tree.expanded().contains(Node::machineNode("local")));
    EXPECT_EQ(tree.activate(), Activation::expanded());

    EXPECT_EQ(CommandTree(Outline{}, "local").activate(), Activation::nothing());
}

TEST(CommandTree, RevealAndRevealParentMakeRowsReachable) {
    CommandTree tree(sample(), "local");
    tree.reveal(tab(20));
    EXPECT_EQ(tree.scope(), Scope::oneMachine("local"));
    EXPECT_TRUE(tree.expanded().contains(local(2)));
    EXPECT_EQ(tree.selection(), tab(20));

    // Shift-Tab: tab to workspace, workspace to machine in the machine list.
    tree.revealParent(tab(20));
    EXPECT_EQ(tree.selection(), local(2));
    tree.revealParent(local(2));
    EXPECT_EQ(tree.scope(), Scope::allMachines());
    EXPECT_EQ(tree.selection(), Node::machineNode("local"));

    // From the machine list, revealing a tab opens its machine and its workspace.
    CommandTree fresh(sample(), "local");
    fresh.showMachines();
    fresh.reveal(tab(11));
    EXPECT_EQ(fresh.selection(), tab(11));
    EXPECT_TRUE(fresh.expanded().contains(Node::machineNode("local")));
    EXPECT_TRUE(fresh.expanded().contains(local(1)));

    // A workspace on another machine switches the one-machine view to it.
    Outline two = sample();
    two.machines.push_back({"other", std::vector<Outline::Workspace>{{7, {70}}}});
    CommandTree elsewhere(two, "local");
    elsewhere.reveal(Node::workspace("other", 7));
    EXPECT_EQ(elsewhere.scope(), Scope::oneMachine("other"));
    EXPECT_EQ(elsewhere.selection(), Node::workspace("other", 7));
    EXPECT_TRUE(elsewhere.rows().back().node == Node::tab("other", 70));

    // Stale nodes end on a visible row.
    elsewhere.reveal(Node::tab("other", 999));
    EXPECT_EQ(elsewhere.selection(), Node::workspace("other", 7));
    elsewhere.revealParent(Node::tab("other", 999));
    EXPECT_EQ(elsewhere.selection(), Node::workspace("other", 7));
    elsewhere.revealParent(Node::agent("remote", 200));
    EXPECT_EQ(elsewhere.scope(), Scope::allMachines());
    EXPECT_EQ(elsewhere.selection(), Node::agent("remote", 200));
}

TEST(CommandTree, SelectFirstWorkspaceSkipsTheOneBeingLeft) {
    CommandTree tree(sample(), "local", 2);
    tree.selectFirstWorkspace("local", 1);
    EXPECT_EQ(tree.selection(), local(2));
    tree.selectFirstWorkspace("local", std::nullopt);
    EXPECT_EQ(tree.selection(), local(1));

    Outline lone;
    lone.machines = {{"m", std::vector<Outline::Workspace>{{4, {}}}}};
    CommandTree alone(lone, "m");
    alone.selectFirstWorkspace("m", 4);
    EXPECT_EQ(alone.selection(), Node::workspace("m", 4));
    // With the workspace gone, the invariant picks what remains.
    alone.update(Outline{{{"m", std::vector<Outline::Workspace>{}}}, {{"m", 9}}});
    alone.selectFirstWorkspace("m", 4);
    EXPECT_EQ(alone.selection(), Node::agent("m", 9));
}

TEST(CommandTree, UpdateKeepsTheSelectionOrItsPlace) {
    CommandTree tree(sample(), "local", 1, 11);
    tree.update(sample());
    EXPECT_EQ(tree.selection(), tab(11));

    // A tab moved into a collapsed workspace lands on that workspace.
    Outline moved = sample();
    (*moved.machines[0].workspaces)[0].tabs = {10};
    (*moved.machines[0].workspaces)[1].tabs = {20, 11};
    tree.update(moved);
    EXPECT_EQ(tree.selection(), local(2));

    // A removed workspace keeps the selection's position, clamped to the last row.
    Outline removed = moved;
    removed.machines[0].workspaces->erase(removed.machines[0].workspaces->begin() + 1);
    tree.update(removed);
    EXPECT_EQ(tree.selection(), local(3));
    tree.update(Outline{removed.machines, {}});
    EXPECT_EQ(tree.selection(), local(3));
    Outline shorter{removed.machines, {}};
    shorter.machines[0].workspaces->pop_back();
    tree.update(shorter);
    EXPECT_EQ(tree.selection(), tab(10));

    // The machine of the one-machine view vanishing shows the machine list.
    Outline gone{{{"remote", std::nullopt}}, {}};
    tree.update(gone);
    EXPECT_EQ(tree.scope(), Scope::allMachines());
    EXPECT_EQ(tree.selection(), Node::machineNode("remote"));
    tree.update(Outline{});
    EXPECT_EQ(tree.selection(), std::nullopt);
}

TEST(CommandTree, WorkspacesOnlyHidesTabs) {
    CommandTree tree(sample(), "local", 1, 11);
    tree.setWorkspacesOnly(true);
    EXPECT_EQ(tree.selection(), local(1));
    EXPECT_EQ(nodes(tree), (std::vector<Node>{Node::agent("local", 100), Node::agent("remote", 200), local(1),
                                              local(2), local(3)}));
    EXPECT_FALSE(tree.rows()[2].expandable);
    EXPECT_FALSE(tree.rows()[2].expanded);
    EXPECT_FALSE(tree.expand());
    tree.reveal(tab(20));
    EXPECT_EQ(tree.selection(), local(1));
    tree.setWorkspacesOnly(false);
    EXPECT_EQ(tree.rows().size(), 8u);
}
