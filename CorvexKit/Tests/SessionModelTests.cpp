#include <gtest/gtest.h>

#include "CorvexKit/SessionModel.h"
#include "Support/SampleModel.h"

using namespace corvex;
using testkit::sampleState;
using testkit::tabIDs;

TEST(ModelState, FocusingAPaneOrTabActivatesItsTabAndWorkspaceButKeepsRevAndPanes) {
    auto state = sampleState();
    auto next = state.focusing(FocusTarget::pane(6));
    ASSERT_TRUE(next);
    EXPECT_EQ(next->focus, (Focus{1, 4, 6}));
    EXPECT_EQ(next->workspace(1)->activeTab, 4u);
    EXPECT_EQ(next->panes, state.panes);
    EXPECT_EQ(next->workspaces[1], state.workspaces[1]);

    EXPECT_FALSE(state.focusing(FocusTarget::pane(99)));
    EXPECT_FALSE(state.focusing(FocusTarget::tab(3))); // a pane's identifier names no tab

    // A tab brings its own active pane.
    next = state.focusing(FocusTarget::tab(4));
    ASSERT_TRUE(next);
    EXPECT_EQ(next->focus, (Focus{1, 4, 5}));
}

TEST(ModelState, FocusingAWorkspaceChoosesItsTabWithoutTouchingActiveTab) {
    auto state = sampleState();
    auto next = state.focusing(FocusTarget::workspace(8));
    ASSERT_TRUE(next);
    EXPECT_EQ(next->focus, (Focus{8, 9, 10}));

    // A stale activeTab falls back to the first tab, and stays stale: only the daemon moves it.
    state.workspaces[0].activeTab = 77;
    next = state.focusing(FocusTarget::workspace(1));
    ASSERT_TRUE(next);
    EXPECT_EQ(next->focus, (Focus{1, 2, 3}));
    EXPECT_EQ(next->workspace(1)->activeTab, 77u);

    next = state.focusing(FocusTarget::workspace(11));
    ASSERT_TRUE(next);
    EXPECT_EQ(next->focus, (Focus{11, std::nullopt, std::nullopt}));
    EXPECT_FALSE(state.focusing(FocusTarget::workspace(99)));
}

TEST(ModelState, MovingAWorkspaceClampsTheIndexAndRejectsWhatItCantTell) {
    auto state = sampleState();
    auto next = state.moving(MoveRequest::moveWorkspace(1, 1000));
    ASSERT_TRUE(next);
    ASSERT_EQ(next->workspaces.size(), 3u);
    EXPECT_EQ(next->workspaces[2].id, 1u);
    EXPECT_EQ(next->focus, state.focus);

    next = state.moving(MoveRequest::moveWorkspace(11, 0));
    ASSERT_TRUE(next);
    EXPECT_EQ(next->workspaces[0].id, 11u);

    EXPECT_FALSE(state.moving(MoveRequest::moveWorkspace(1, -1)));
    EXPECT_FALSE(state.moving(MoveRequest::moveWorkspace(99, 0)));
    EXPECT_FALSE(state.moving(MoveRequest::movePane(5, 10, Direction::right)));
    EXPECT_FALSE(state.moving(MoveRequest::joinTab(4, 10, Direction::down)));
}

TEST(ModelState, MovingATabWithinItsWorkspace) {
    auto state = sampleState();
    auto next = state.moving(MoveRequest::moveTab(2, std::nullopt, 1000));
    ASSERT_TRUE(next);
    EXPECT_EQ(tabIDs(next->workspaces[0]), (std::vector<uint64_t>{4, 2}));
    EXPECT_EQ(next->focus, state.focus);
    EXPECT_EQ(next->workspace(1)->activeTab, 2u);

    // An unfocused tab moved without the flag leaves focus alone.
    next = state.moving(MoveRequest::moveTab(4, std::nullopt, 0));
    ASSERT_TRUE(next);
    EXPECT_EQ(tabIDs(next->workspaces[0]), (std::vector<uint64_t>{4, 2}));
    EXPECT_EQ(next->focus, state.focus);
    EXPECT_EQ(next->workspace(1)->activeTab, 2u);

    // Replaying a move the daemon already made changes nothing.
    EXPECT_EQ(next->moving(MoveRequest::moveTab(4, std::nullopt, 0)), next);

    EXPECT_FALSE(state.moving(MoveRequest::moveTab(2, std::nullopt, -1)));
    EXPECT_FALSE(state.moving(MoveRequest::moveTab(99, std::nullopt, 0)));
    EXPECT_FALSE(state.moving(MoveRequest::moveTab(2, 99, 0)));
}

TEST(ModelState, MovingATabAcrossWorkspaces) {
    auto state = sampleState();
    state.focus = Focus{8, 9, 10};

    // Tab 2 was workspace 1's active tab: the tab before its place takes over (none before
    // index 0, so the first of those left).
    auto next = state.moving(MoveRequest::moveTab(2, 8, 0));
    ASSERT_TRUE(next);
    EXPECT_EQ(tabIDs(next->workspaces[0]), (std::vector<uint64_t>{4}));
    EXPECT_EQ(next->workspace(1)->activeTab, 4u);
    EXPECT_EQ(tabIDs(next->workspaces[1]), (std::vector<uint64_t>{2, 9}));
    EXPECT_EQ(next->workspace(8)->activeTab, 9u); // the target had one; focus stays
    EXPECT_EQ(next->focus, state.focus);

    // Into a workspace without an active tab, the moved tab becomes it.
    next = state.moving(MoveRequest::moveTab(4, 11, 5));
    ASSERT_TRUE(next);
    EXPECT_EQ(next->workspace(11)->activeTab, 4u);
    EXPECT_EQ(next->workspace(1)->activeTab, 2u);

    // The only tab leaves its workspace without an active tab; the focused tab takes focus along.
    next = state.moving(MoveRequest::moveTab(9, 1, 1));
    ASSERT_TRUE(next);
    EXPECT_TRUE(next->workspace(8)->tabs.empty());
    EXPECT_EQ(next->workspace(8)->activeTab, std::nullopt);
    EXPECT_EQ(tabIDs(next->workspaces[0]), (std::vector<uint64_t>{2, 9, 4}));
    EXPECT_EQ(next->workspace(1)->activeTab, 9u);
    EXPECT_EQ(next->focus, (Focus{1, 9, 10}));

    // The flag makes an unfocused tab take focus too.
    next = state.moving(MoveRequest::moveTab(4, 8, 1, true));
    ASSERT_TRUE(next);
    EXPECT_EQ(next->focus, (Focus{8, 4, 5}));
    EXPECT_EQ(next->workspace(8)->activeTab, 4u);
}

TEST(PaneGit, TextHelpers) {
    PaneGit git;
    git.repo = "corvex";
    EXPECT_EQ(git.place(), "detached");
    git.head = "1a2b3c";
    EXPECT_EQ(git.shortText(), "@1a2b3c");
    EXPECT_EQ(git.summary(), "corvex · @1a2b3c");
    git.branch = "main";
    git.worktree = Worktree{"wt-spine", std::nullopt};
    git.pr = PullRequest{12, PullRequest::State::open, std::nullopt, std::nullopt};
    EXPECT_EQ(git.place(), "main");
    EXPECT_EQ(git.shortText(), "main · #12");
    EXPECT_EQ(git.summary(), "corvex · main · wt-spine");
    EXPECT_EQ(git.searchText(), "main wt-spine #12");
}

TEST(PaneDisplayTitle, DropsALeadingStatusGlyph) {
    auto shown = [](std::optional<std::string> title, std::optional<std::string> cwd = std::nullopt) {
        return Pane::displayTitle(title, cwd);
    };
    EXPECT_EQ(shown(std::nullopt), std::nullopt);
    EXPECT_EQ(shown("vim notes.md"), "vim notes.md");
    EXPECT_EQ(shown("✳ Fixing the parser"), "Fixing the parser");   // U+2733, dingbats
    EXPECT_EQ(shown("⠋  Working  "), "Working");                     // braille spinner, trimmed
    EXPECT_EQ(shown("* task"), "task");
    EXPECT_EQ(shown("∑ sums"), "sums");                               // Sm outside the ranges
    EXPECT_EQ(shown("🤖 robot"), "robot");                             // So, astral
    EXPECT_EQ(shown("é title"), "é title");                           // a letter stays
    EXPECT_EQ(shown("✳Fixing"), "✳Fixing");                           // no blank after the glyph
    EXPECT_EQ(shown("✳   "), std::nullopt);
    EXPECT_EQ(shown(""), "");
}

TEST(PaneDisplayTitle, ShowsTheFolderInsteadOfTheAgentsProductTitle) {
    EXPECT_EQ(Pane::displayTitle("✳ Claude Code", "/home/ann/corvex"), "corvex");
    EXPECT_EQ(Pane::displayTitle("Claude Code", "/home/ann/corvex/"), "corvex");
    EXPECT_EQ(Pane::displayTitle("Claude Code", "/"), "Claude Code");
    EXPECT_EQ(Pane::displayTitle("Claude Code", std::nullopt), "Claude Code");
    EXPECT_EQ(Pane::displayTitle("Claude Codex", "/tmp"), "Claude Codex");
}

// The one rule for which tab takes over when the active one leaves, however it leaves.
TEST(SuccessorTab, TheTabBeforeOrElseTheNext) {
    auto tabs = [](std::vector<uint64_t> ids) {
        std::vector<Tab> out;
        for (auto id : ids) out.push_back(Tab{id, std::nullopt, id, Layout::leaf(id)});
        return out;
    };
    struct Case {
        std::vector<uint64_t> ids;
        size_t leaving;
        std::optional<uint64_t> successor;
    };
    const Case table[] = {
        {{1, 2, 3}, 2, 2}, {{1, 2, 3}, 1, 1}, {{1, 2, 3}, 0, 2},
        {{1, 2}, 0, 2},    {{7}, 0, std::nullopt}, {{}, 0, std::nullopt}, {{1, 2}, 5, std::nullopt},
    };
    for (const auto& c : table) EXPECT_EQ(successorTab(tabs(c.ids), c.leaving), c.successor) << c.leaving;
}

TEST(ModelState, TreeEditsHandOverTabsPanesAndFocus) {
    // Closing the focused tab: its predecessor takes the focus and the workspace.
    auto state = sampleState();
    state.focus = Focus{1, 4, 6};
    state.settleActiveTabs();
    ASSERT_TRUE(state.removeTab(4));
    state.repairFocus();
    EXPECT_EQ(state.focus, (Focus{1, 2, 3}));
    EXPECT_EQ(state.workspace(1)->activeTab, 2u);
    EXPECT_FALSE(state.removeTab(4));

    // A pane leaves: its sibling's first pane becomes the tab's active one; the last pane of
    // a tab takes the tab along, and the workspace hands over as for a closed tab.
    state = sampleState();
    state.workspaces[0].tabs[1].activePane = 6;
    state.removePaneFromTabs(6);
    EXPECT_EQ(state.workspace(1)->tab(4)->activePane, 5u);
    EXPECT_EQ(state.workspace(1)->tab(4)->layout, Layout::leaf(5));
    state.focus = Focus{8, 9, 10};
    state.removePaneFromTabs(10);
    state.repairFocus();
    EXPECT_TRUE(state.workspace(8)->tabs.empty());
    EXPECT_EQ(state.focus, (Focus{8, std::nullopt, std::nullopt}));

    // The focused workspace gone: the first one, at its own active tab.
    state = sampleState();
    state.workspaces[0].activeTab = 4;
    state.focus = Focus{99, 98, 97};
    state.repairFocus();
    EXPECT_EQ(state.focus, (Focus{1, 4, 5}));

    // Settling: the focused workspace shows the focused tab; another keeps a tab it holds.
    state = sampleState();
    state.focus = Focus{1, 4, 5};
    state.workspaces[1].activeTab = 77;
    state.settleActiveTabs();
    EXPECT_EQ(state.workspace(1)->activeTab, 4u);
    EXPECT_EQ(state.workspace(8)->activeTab, 9u);
    EXPECT_EQ(state.workspace(11)->activeTab, std::nullopt);
}
