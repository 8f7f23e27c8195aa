#include <gtest/gtest.h>

#include "CorvexSession/PaneGitWatcher.h"

using namespace corvex;

TEST(PaneGitFrom, ReadsBranchHeadRemoteAndWorktree) {
    auto config = "[core]\n\tbare = false\n[remote \"upstream\"]\n\turl = u\n[remote \"origin\"]\n\turl = git@example.org:me/corvex.git\n";
    auto plain = paneGitFrom("/src/corvex\n/src/corvex/.git\n/src/corvex/.git\n", "ref: refs/heads/main\n", config);
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->repo, "corvex");
    EXPECT_EQ(plain->root, "/src/corvex");
    EXPECT_EQ(plain->branch, "main");
    EXPECT_EQ(plain->remote, "git@example.org:me/corvex.git");
    EXPECT_FALSE(plain->worktree);

    auto detached = paneGitFrom("/src/corvex\n/src/corvex/.git\n/src/corvex/.git\n",
                                "1a2b3c4d5e6f00112233445566778899aabbccdd\n", "");
    EXPECT_FALSE(detached->branch);
    EXPECT_EQ(detached->place(), "@1a2b3c4");
    EXPECT_FALSE(detached->remote);

    auto linked =
        paneGitFrom("/wt/agents\n/src/corvex/.git/worktrees/agents\n/src/corvex/.git\n", "ref: refs/heads/agents", "");
    EXPECT_EQ(linked->repo, "corvex");
    EXPECT_EQ(linked->worktree, (Worktree{"agents", "/wt/agents"}));

    EXPECT_EQ(linked->branch, "agents");

    EXPECT_FALSE(paneGitFrom("", "", ""));
}

TEST(PaneGitWatcher, AsksGitAtMostOnceASecondForARepository) {
    PaneGitWatcher watcher([](const std::vector<std::string>& arguments) -> std::optional<std::string> {
        if (arguments[1] == "/tmp") return std::nullopt;
        return std::string("/src/corvex\n/src/corvex/.git\n/src/corvex/.git\n");
    });
    auto start = PaneGitWatcher::Clock::now();
    EXPECT_EQ(watcher.facts("/src/corvex", start)->repo, "corvex");
    EXPECT_EQ(watcher.facts("/src/corvex", start + std::chrono::milliseconds(300))->repo, "corvex");
    EXPECT_EQ(watcher.runs(), 1);
    EXPECT_FALSE(watcher.facts("/tmp", start));
    EXPECT_EQ(watcher.runs(), 2) << "each folder outside a repository is its own";
    watcher.facts("/src/corvex", start + std::chrono::milliseconds(1100));
    EXPECT_EQ(watcher.runs(), 3) << "a second later, git is asked again";
}

TEST(GitRefreshSchedule, AsksWhenTheFolderChangesOrACommandHasFinishedAndRarelyWhenIdle) {
    GitRefreshSchedule schedule;
    auto start = GitRefreshSchedule::Clock::now();
    auto at = [&](int seconds) { return start + std::chrono::seconds(seconds); };
    EXPECT_TRUE(schedule.due(1, "/src/corvex", 100, at(0))) << "a new pane";
    EXPECT_FALSE(schedule.due(1, "/src/corvex", 100, at(1))) << "idle";
    EXPECT_FALSE(schedule.due(1, "/src/corvex", 180, at(2))) << "a command still writing";
    EXPECT_FALSE(schedule.due(1, "/src/corvex", 250, at(3)));
    EXPECT_TRUE(schedule.due(1, "/src/corvex", 250, at(4))) << "quiet again: the command is over";
    EXPECT_FALSE(schedule.due(1, "/src/corvex", 250, at(5)));
    EXPECT_TRUE(schedule.due(1, "/src/other", 250, at(6))) << "a new folder";

    int asked = 0;
    for (int second = 7; second < 67; ++second) asked += schedule.due(1, "/src/other", 250, at(second));
    EXPECT_EQ(asked, 2) << "an idle pane is asked about every half minute, not every second";

    schedule.keepOnly({});
    EXPECT_TRUE(schedule.due(1, "/src/other", 250, at(68))) << "a pane that went is forgotten";
}
