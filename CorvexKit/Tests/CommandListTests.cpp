#include <gtest/gtest.h>

#include <algorithm>

#include "CorvexKit/CommandList.h"

using namespace corvex;

namespace {

using ID = CommandListItem::ID;

CommandContext remoteTab() {
    CommandContext context;
    context.machine = "box";
    context.machineName = "Build Box";
    context.workspace = 3;
    context.workspaceName = "Work";
    context.tab = 7;
    context.tabName = "vim";
    context.isLocal = false;
    context.canOpenBeside = true;
    return context;
}

std::vector<ID> ids(const std::vector<CommandListItem>& items) {
    std::vector<ID> out;
    for (const auto& item : items) out.push_back(item.id);
    return out;
}

std::vector<std::string> titles(const std::vector<CommandListItem>& items) {
    std::vector<std::string> out;
    for (const auto& item : items) out.push_back(item.title);
    return out;
}

const std::vector<ID> appCommands{ID::files,           ID::settings,         ID::machines,        ID::toggleSidebar,
                                  ID::appearanceSystem, ID::appearanceLight, ID::appearanceDark};

std::vector<ID> concat(std::vector<ID> a, const std::vector<ID>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

} // namespace

TEST(CommandList, ATabOnARemoteMachineOffersEverythingInOrder) {
    auto items = CommandList::items(remoteTab());
    EXPECT_EQ(titles(items), (std::vector<std::string>{
                                 "New Tab in Work",
                                 "New Workspace on Build Box",
                                 "Split Right",
                                 "Split Down",
                                 "Claude Here",
                                 "Codex Here",
                                 "Resume Last Claude in This Folder",
                                 "Rename Tab \u201Cvim\u201D",
                                 "Move Tab \u201Cvim\u201D to\u2026",
                                 "Open \u201Cvim\u201D Beside This Pane",
                                 "Close Tab \u201Cvim\u201D",
                                 "Open Files",
                                 "Open Settings",
                                 "Open Machines",
                                 "Toggle Sidebar",
                                 "Appearance: Match System",
                                 "Appearance: Light",
                                 "Appearance: Dark",
                                 "Turn Build Box Off",
                             }));
    EXPECT_EQ(items[8], (CommandListItem{ID::moveTab, "Move Tab \u201Cvim\u201D to\u2026", {"workspace", "send"},
                                         CommandListItem::Target::workspace}));
    for (size_t i = 0; i < items.size(); ++i) {
        if (i != 8) {
            EXPECT_EQ(items[i].target, std::nullopt) << items[i].title;
        }
    }

    // Unsupported commands are left out, the rest keep their order.
    auto some = CommandList::items(remoteTab(), {ID::closeTab, ID::newTab, ID::machineOff});
    EXPECT_EQ(ids(some), (std::vector<ID>{ID::newTab, ID::closeTab, ID::machineOff}));
}

TEST(CommandList, TheSubjectDecidesTheSubjectCommands) {
    // A workspace without a tab: the workspace's rename and close stand in for the tab's.
    auto workspace = remoteTab();
    workspace.tab.reset();
    workspace.tabName.reset();
    EXPECT_EQ(ids(CommandList::items(workspace)),
              concat({ID::newTab, ID::newWorkspace, ID::claudeHere, ID::codexHere, ID::resumeClaude, ID::rename,
                      ID::closeWorkspace},
                     concat(appCommands, {ID::machineOff})));
    EXPECT_EQ(CommandList::items(workspace)[6].title, "Close Workspace \u201CWork\u201D");

    // A tab without a known name can't be renamed; splits still work. No beside without leave.
    auto unnamed = remoteTab();
    unnamed.tabName.reset();
    unnamed.canOpenBeside = false;
    EXPECT_EQ(ids(CommandList::items(unnamed)),
              concat({ID::newTab, ID::newWorkspace, ID::splitRight, ID::splitDown, ID::claudeHere, ID::codexHere,
                      ID::resumeClaude, ID::rename, ID::closeWorkspace},
                     concat(appCommands, {ID::machineOff})));

    // A machine row: no workspace, so no " in " part and nothing of the workspace or tab.
    CommandContext machine;
    machine.machine = "local";
    machine.machineName = "Studio";
    auto items = CommandList::items(machine);
    EXPECT_EQ(ids(items), concat({ID::newTab, ID::newWorkspace}, appCommands));
    EXPECT_EQ(items[0].title, "New Tab");

    // Nothing selected at all.
    EXPECT_EQ(ids(CommandList::items(CommandContext{})), appCommands);
}

TEST(CommandList, MachineCommandsFollowItsState) {
    auto offline = remoteTab();
    offline.connected = false;
    EXPECT_EQ(ids(CommandList::items(offline)), concat(appCommands, {ID::machineOff, ID::reconnect}));
    EXPECT_EQ(CommandList::items(offline).back().title, "Reconnect to Build Box");

    auto unreachable = remoteTab();
    unreachable.unreachable = true;
    EXPECT_EQ(CommandList::items(unreachable).back().id, ID::reconnect);

    auto disabled = remoteTab();
    disabled.enabled = false;
    auto items = CommandList::items(disabled);
    EXPECT_EQ(ids(items), concat(appCommands, {ID::machineOn}));
    EXPECT_EQ(items.back(), (CommandListItem{ID::machineOn, "Turn Build Box On", {"enable", "connect", "machine"}, {}}));

    // The local machine is never turned off or reconnected.
    for (bool connected : {true, false}) {
        for (bool enabled : {true, false}) {
            auto local = remoteTab();
            local.isLocal = true;
            local.connected = connected;
            local.enabled = enabled;
            for (auto id : ids(CommandList::items(local))) {
                EXPECT_TRUE(id != ID::machineOn && id != ID::machineOff && id != ID::reconnect);
            }
        }
    }
}

TEST(CommandList, CommandQueryNeedsALeadingChevron) {
    EXPECT_EQ(CommandList::commandQuery("  >foo"), "foo");
    EXPECT_EQ(CommandList::commandQuery(">"), "");
    EXPECT_EQ(CommandList::commandQuery("> new tab "), " new tab ");
    EXPECT_EQ(CommandList::commandQuery("foo>"), std::nullopt);
    EXPECT_EQ(CommandList::commandQuery("   "), std::nullopt);
    // Only plain blanks may stand before it.
    EXPECT_EQ(CommandList::commandQuery("\t>foo"), std::nullopt);
}

TEST(CommandList, WordsFoldCaseAndDiacritics) {
    using Words = std::vector<std::string>;
    EXPECT_EQ(CommandList::words("Rename Tab \u201Cvim\u201D"), (Words{"rename", "tab", "vim"}));
    EXPECT_EQ(CommandList::words("E\u0301DIT"), (Words{"edit"}));
    EXPECT_EQ(CommandList::words("Stra\u00DFe"), (Words{"strasse"}));
    EXPECT_EQ(CommandList::words("ssh-host_2 \u30BF\u30D6 x86"), (Words{"ssh", "host", "2", "\u30BF\u30D5", "x86"}));
    EXPECT_EQ(CommandList::words(" \u2026 -- "), Words{});
}

TEST(CommandList, MatchingNeedsEveryWordAndRanksTitleHitsFirst) {
    auto items = CommandList::items(remoteTab());
    EXPECT_EQ(CommandList::matching(items, "  "), items);
    EXPECT_EQ(ids(CommandList::matching(items, "cl")),
              (std::vector<ID>{ID::claudeHere, ID::resumeClaude, ID::closeTab}));
    EXPECT_EQ(ids(CommandList::matching(items, "KILL")), (std::vector<ID>{ID::closeTab}));
    EXPECT_EQ(ids(CommandList::matching(items, "tab new")), (std::vector<ID>{ID::newTab}));
    // "open" is in four titles and prefixes two keywords ("open", "openai"); keyword hits come last.
    EXPECT_EQ(ids(CommandList::matching(items, "open")),
              (std::vector<ID>{ID::openBeside, ID::files, ID::settings, ID::machines, ID::newTab, ID::codexHere}));
    // Each keyword-only word counts: one keyword word ranks before two.
    EXPECT_EQ(ids(CommandList::matching(items, "theme dark")), (std::vector<ID>{ID::appearanceDark}));
    EXPECT_EQ(ids(CommandList::matching(items, "agent code")), (std::vector<ID>{ID::codexHere, ID::claudeHere,
                                                                               ID::resumeClaude}));
    EXPECT_TRUE(CommandList::matching(items, "new zebra").empty());
    // Prefixes only: "ab" isn't found inside "Sidebar".
    EXPECT_TRUE(CommandList::matching(items, "bar").empty());

    std::vector<CommandListItem> edit{{ID::rename, "Edit\u2026", {}, {}}};
    EXPECT_EQ(CommandList::matching(edit, "\u00E9"), edit);
}
