// What the daemon reads out of its panes' terminals: snapshots, text, search; and the
// settings and colours that reach those terminals. A real daemon, real shells.

#include <gtest/gtest.h>
#include <filesystem>
#include <thread>

#include "CorvexKit/Frame.h"
#include "Platform/Tests/Support/Eventually.h"
#include "Support/DaemonHarness.h"
#include "Support/RawReplies.h"
#include "Vellum/Terminal.h"

using namespace corvexd::testing;
using platform::testing::eventually;

namespace {

void type(RawClient& client, uint64_t pane, const std::string& text) {
    ASSERT_TRUE(client.sendBytes(corvex::makeInputFrame(pane, text)));
}

// Types a command and waits for it to finish: a marker that the shell computes, so the
// echo of the typed line doesn't count.
void runAndWait(RawClient& client, uint64_t pane, const std::string& command, const std::string& marker) {
    type(client, pane, command + "; echo " + marker + "$((40+2))\r");
    ASSERT_TRUE(client.untilOutput(pane, marker + "42\r\n")) << client.outputOf(pane);
}

} // namespace

// How faithfully a snapshot rebuilds cells is the terminal's own test, and the live stream
// after it the backend contract suite's; here the daemon's snapshot is of the pane as it
// reads it, with the history asked for.
TEST(PaneService, ASnapshotRebuildsThePaneAsTheDaemonReadsIt) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient writer(daemon.socketPath());
    uint64_t pane = createPane(writer, shell());
    ASSERT_TRUE(writer.request("pane.subscribe", {{"pane", pane}}));
    runAndWait(writer, pane, "seq 1 150", "done");

    RawClient viewer(daemon.socketPath());
    json subscription = result(viewer.request("pane.subscribe", {{"pane", pane}, {"scrollback", 60}}));
    EXPECT_EQ(subscription["mode"], "snapshot");
    viewer.drain(200ms);
    ASSERT_EQ(viewer.snapshots().size(), 1u);
    const auto& snapshot = viewer.snapshots().front();
    EXPECT_EQ(snapshot.seq, subscription["seq"].get<uint64_t>());
    EXPECT_EQ(snapshot.cols, 40);
    EXPECT_EQ(snapshot.rows, 10);

    vellum::TerminalOptions options;
    options.cols = snapshot.cols;
    options.rows = snapshot.rows;
    options.scrollback = 1000;
    vellum::Terminal rebuilt(nullptr, options);
    rebuilt.feed(snapshot.bytes);
    json text = result(viewer.request("pane.text", {{"pane", pane}}));
    for (int row = 0; row < 10; ++row) EXPECT_EQ(rebuilt.lineText(row), text["lines"][row]) << "row " << row;
    EXPECT_EQ(text["cursor"], json::array({rebuilt.buffer().x, rebuilt.buffer().y}));
    EXPECT_EQ(rebuilt.buffer().scrollbackRows(), 60) << "as much history as asked";
    int top = std::atoi(rebuilt.lineText(0).c_str());
    ASSERT_GT(top, 60);
    EXPECT_EQ(rebuilt.buffer().lines[59].translateToString(true), std::to_string(top - 1)) << "the newest history";
}

TEST(PaneService, SearchReadsTheWholeHistoryNewestFirstInPages) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient client(daemon.socketPath());
    uint64_t pane = createPane(client, shell());
    ASSERT_TRUE(client.request("pane.subscribe", {{"pane", pane}}));
    runAndWait(client, pane, "seq -f 'line %g' 1 300; echo Alpha' 'Beta \xc3\x89" "COLE", "finished");

    auto search = [&](const std::string& query, json extra = json::object()) {
        extra["pane"] = pane;
        extra["query"] = query;
        extra["regex"] = extra.value("regex", false);
        extra["case_sensitive"] = extra.value("case_sensitive", false);
        return client.request("pane.search", extra);
    };

    json found = result(search("line 29"));
    ASSERT_EQ(found["matches"].size(), 11u) << found.dump();
    EXPECT_EQ(found["matches"][0]["line_text"], "line 299") << "newest first";
    EXPECT_EQ(found["matches"][10]["line_text"], "line 29");
    EXPECT_EQ(found["matches"][10]["text"], "line 29");
    EXPECT_EQ(found["matches"][10]["start"], (json{{"line", found["matches"][10]["start"]["line"]}, {"col", 0}}));
    EXPECT_EQ(found["matches"][10]["end"]["col"], 7);
    EXPECT_GT(found["history"].get<int>(), 250) << "the history reaches back to the first lines";
    EXPECT_LT(found["matches"][0]["start"]["line"].get<int>(), found["history"].get<int>() + 10);
    EXPECT_FALSE(found.contains("next"));

    EXPECT_EQ(result(search("ALPHA beta"))["matches"].size(), 1u);
    EXPECT_EQ(result(search("ALPHA", {{"case_sensitive", true}}))["matches"].size(), 0u);
    // Case is folded beyond ASCII; the typed line shows the word too.
    EXPECT_EQ(result(search("\xc3\xa9" "cole"))["matches"].size(), 2u);
    EXPECT_EQ(result(search("\xc3\xa9" "cole", {{"case_sensitive", true}}))["matches"].size(), 0u);
    json accented = result(search("^Alpha Beta .COLE$", {{"regex", true}}));
    ASSERT_EQ(accented["matches"].size(), 1u) << "a dot is one character, however many bytes";
    EXPECT_EQ(accented["matches"][0]["end"]["col"], 16) << "the cell after the last";

    // How pages fit together is PaneSearchTests'; here a page's `next` comes back as `before`.
    json first = result(search("^line 1[0-9]{2}$", {{"regex", true}, {"limit", 30}}));
    ASSERT_EQ(first["matches"].size(), 30u);
    json second = result(search("^line 1[0-9]{2}$", {{"regex", true}, {"limit", 30}, {"before", first["next"]}}));
    ASSERT_FALSE(second["matches"].empty());
    EXPECT_EQ(second["matches"][0]["line_text"], "line 169") << "the page after line 170";

    EXPECT_EQ(errorCode(search("")), "bad_request");
    EXPECT_EQ(errorCode(client.request("pane.search", {{"pane", 999}, {"query", "x"}, {"regex", false}, {"case_sensitive", false}})),
              "not_found");
    EXPECT_TRUE(client.request("ping")) << "a refused search costs the client nothing more";
}

TEST(PaneService, SettingsHaveLimitsReachRunningPanesAndOutliveTheDaemon) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    {
        RawClient client(daemon.socketPath());
        RawClient watcher(daemon.socketPath());
        ASSERT_TRUE(watcher.request("events.subscribe"));
        json settings = result(client.request("settings.get"));
        EXPECT_EQ(settings["scrollback_lines"], 5000);
        EXPECT_EQ(settings["limits"]["scrollback_lines"], (json{{"min", 100}, {"max", 100000}, {"default", 5000}}));

        uint64_t pane = createPane(client, shell());
        ASSERT_TRUE(client.request("pane.subscribe", {{"pane", pane}}));
        runAndWait(client, pane, "seq 1 400", "okay");
        EXPECT_EQ(errorCode(client.request("settings.set", {{"scrollback_lines", 50}})), "bad_request");
        EXPECT_EQ(errorCode(client.request("settings.set", {{"scrollback_lines", "many"}})), "bad_request");
        json changed = result(client.request("settings.set", {{"scrollback_lines", 150}}));
        EXPECT_EQ(changed["scrollback_lines"], 150);
        EXPECT_EQ(changed["applied_panes"], json::array({pane}));

        // The running pane keeps only the newest 150 rows of history.
        json found = result(client.request("pane.search", {{"pane", pane}, {"query", "^[0-9]+$"}, {"regex", true},
                                                           {"case_sensitive", false}, {"limit", 1000}}));
        EXPECT_EQ(found["history"], 150);
        int oldest = std::stoi(found["matches"].back()["text"].get<std::string>());
        EXPECT_GT(oldest, 235) << "the oldest rows are gone";
        EXPECT_LT(oldest, 250);
        // Room given back fills again with what comes next.
        ASSERT_TRUE(client.request("settings.set", {{"scrollback_lines", 1000}}));
        runAndWait(client, pane, "seq 1 300", "more");
        json grown = result(client.request("pane.search", {{"pane", pane}, {"query", "x"}, {"regex", false},
                                                           {"case_sensitive", false}}));
        EXPECT_GT(grown["history"].get<int>(), 400);
        ASSERT_TRUE(client.request("settings.set", {{"scrollback_lines", 150}}));
        bool told = false;
        while (auto event = watcher.nextEvent(2s)) {
            if ((*event)["event"] == "settings") {
                told = (*event)["data"]["scrollback_lines"] == 150;
                break;
            }
        }
        EXPECT_TRUE(told) << "every client hears of the change";
    }
    ASSERT_EQ(daemon.run({"stop"}).status, 0);
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient after(daemon.socketPath());
    EXPECT_EQ(result(after.request("settings.get"))["scrollback_lines"], 150) << "kept across a restart";
}

TEST(PaneService, ProgramsAskingForColoursHearTheClients) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient client(daemon.socketPath());
    // Each program asks for the background, then prints the answer without its controls.
    json asker = shell({"/bin/sh", "-c",
                        "stty raw -echo; sleep 0.5; printf '\\033]11;?\\007'; "
                        "dd bs=1 count=24 2>/dev/null | tr -d '\\033\\007'; echo; sleep 30"});
    uint64_t before = createPane(client, asker);
    ASSERT_TRUE(client.request("pane.subscribe", {{"pane", before}}));
    ASSERT_TRUE(client.request("client.colors", {{"colors", {{"foreground", "#102030"}, {"background", "#123456"}}}}));
    uint64_t after = createPane(client, asker);
    ASSERT_TRUE(client.request("pane.subscribe", {{"pane", after}}));
    EXPECT_TRUE(client.untilOutput(before, "]11;rgb:1212/3434/5656")) << client.outputOf(before);
    EXPECT_TRUE(client.untilOutput(after, "]11;rgb:1212/3434/5656")) << client.outputOf(after);
}

TEST(PaneService, TheTreeComesBackAfterAStopButNotAfterAShutdown) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    json before;
    {
        RawClient client(daemon.socketPath());
        json spawn = shell();
        spawn["name"] = "work";
        spawn["cwd"] = daemon.scratch().path();
        json created = result(client.request("workspace.create", spawn));
        json split = shell();
        split["pane"] = created["pane"];
        split["direction"] = "right";
        ASSERT_TRUE(client.request("pane.split", split));
        ASSERT_TRUE(client.request("tab.create", {{"workspace", created["workspace"]}, {"command", {"/bin/sh"}}}));
        // The first shell moves on; the pane follows it there.
        std::string moved = daemon.scratch().path() + "/moved on";
        std::filesystem::create_directory(moved);
        uint64_t first = created["pane"];
        type(client, first, "cd '" + moved + "'\r");
        ASSERT_TRUE(eventually([&] {
            before = result(client.request("state.get"));
            return before["panes"][0]["cwd"] == moved;
        })) << before["panes"][0]["cwd"];
    }
    ASSERT_EQ(daemon.run({"stop"}).status, 0);
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    {
        RawClient client(daemon.socketPath());
        json after = result(client.request("state.get"));
        EXPECT_EQ(after["workspaces"], before["workspaces"]) << "the same places under the same identifiers";
        EXPECT_EQ(after["focus"], before["focus"]);
        ASSERT_EQ(after["panes"].size(), 3u);
        for (const auto& pane : after["panes"]) {
            EXPECT_TRUE(pane.contains("restored")) << pane.dump();
            EXPECT_NE(pane["pid"], nullptr);
        }
        EXPECT_EQ(after["panes"][0]["cwd"], daemon.scratch().path() + "/moved on") << "back in the folder it had moved to";
        // New things don't take identifiers of the old run's places.
        json more = result(client.request("tab.create", {{"workspace", before["workspaces"][0]["id"]}, {"command", {"/bin/sh"}}}));
        for (const auto& pane : before["panes"]) EXPECT_NE(more["pane"], pane["id"]);
        uint64_t pane = after["panes"][0]["id"];
        ASSERT_TRUE(client.request("pane.dismiss_restored", {{"pane", pane}}));
        EXPECT_FALSE(result(client.request("state.get"))["panes"][0].contains("restored"));
    }
    ASSERT_EQ(daemon.run({"shutdown"}).status, 0);
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient client(daemon.socketPath());
    EXPECT_EQ(result(client.request("state.get"))["workspaces"], json::array()) << "a shutdown ends the shells for good";
}
