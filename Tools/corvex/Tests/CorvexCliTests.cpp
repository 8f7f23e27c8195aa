#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "CorvexKit/CorvexdBackend.h"
#include "CorvexKit/SessionCodecJSON.h"
#include "Platform/System.h"
#include "Platform/Tests/Support/ScopedEnvironment.h"
#include "Support/FakeDaemon.h"
#include "Support/ScratchDirectory.h"
#include "Tools/corvex/AttachKeys.h"
#include "Tools/corvex/Cli.h"
#include "Tools/corvex/EventLines.h"
#include "Tools/corvex/Terminal.h"

using namespace corvex;
using namespace corvex::testing;
using json = nlohmann::json;

namespace {

struct Result {
    int status;
    std::string out;
    std::string err;
};

class CorvexCliTest : public ::testing::Test {
protected:
    ScratchDirectory dir;
    FakeDaemon daemon{dir.file("corvexd.sock")};

    Result corvex(std::vector<std::string> args, const std::string& input = "") {
        args.insert(args.begin(), {"--socket", daemon.socketPath()});
        return corvexBare(args, input);
    }

    static Result corvexBare(const std::vector<std::string>& args, const std::string& input = "") {
        std::istringstream in(input);
        std::ostringstream out, err;
        int status = cli::run(args, in, out, err);
        return {status, out.str(), err.str()};
    }

    // Requests after the handshake, as method and params.
    std::vector<std::pair<std::string, json>> commandRequests() {
        std::vector<std::pair<std::string, json>> out;
        for (const auto& request : daemon.requests()) {
            if (request.method != "hello" && request.method != "events.subscribe" && request.method != "ping") {
                out.emplace_back(request.method, request.params);
            }
        }
        return out;
    }
};

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

} // namespace

TEST_F(CorvexCliTest, UsageErrorsExitWithTwoBeforeAnythingConnects) {
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    std::vector<Case> cases{
        {{}, "corvex: missing command"},
        {{"frob"}, "corvex: unknown command: frob"},
        {{"--verbose", "state"}, "corvex: unknown option --verbose"},
        {{"--socket", "/a", "--ssh", "h", "state"}, "corvex: --socket and --ssh exclude each other"},
        {{"--remote-command", "x", "state"}, "corvex: --remote-command needs --ssh"},
        {{"--socket"}, "corvex: --socket needs a value"},
        {{"state", "extra"}, "corvex: unexpected argument: extra"},
        {{"close", "pane"}, "corvex: missing identifier"},
        {{"close", "window", "3"}, "corvex: bad kind: window (pane, tab or workspace)"},
        {{"close", "pane", "x3"}, "corvex: bad identifier: x3"},
        {{"split", "3", "--direction", "sideways"}, "corvex: bad direction: sideways (right, down, left or up)"},
        {{"new-workspace", "--env", "NOEQUALS"}, "corvex: bad --env: NOEQUALS (NAME=VALUE)"},
        {{"new-workspace", "--size", "80by24"}, "corvex: bad --size: 80by24 (COLSxROWS, such as 120x40)"},
        {{"new-workspace", "--size", "0x0"}, "corvex: bad --size: 0x0 (columns and rows from 1 to 9999)"},
        {{"new-workspace", "--name", ""}, "corvex: a workspace name can't be empty"},
        {{"new-workspace", "--cwd", ""}, "corvex: bad --cwd: an empty folder name"},
        {{"rename", "workspace", "1", " "}, "corvex: a workspace name can't be empty"},
        {{"split", "3", "--ratio", "2"}, "corvex: bad ratio: 2 (a number between 0 and 1, such as 0.3)"},
        {{"move", "pane", "4", "--beside", "4"}, "corvex: pane 4 can't be moved beside itself"},
        {{"move", "tab", "2", "first"}, "corvex: bad index: first"},
        {{"keys", "3", "--text", "XYZ", "Upp"}, "corvex: unknown key Upp (such as Enter, Up, C-c, F5)"},
        {{"move", "pane", "4"}, "corvex: missing --beside PANE"},
        {{"move", "workspace", "1", "0", "--focus"}, "corvex: a workspace moves by index alone"},
        {{"rename", "pane", "3", "x"}, "corvex: panes take their title from their program; rename a tab or workspace"},
        {{"keys", "3"}, "corvex: missing keys"},
        {{"search", "3", "q", "--before", "12"}, "corvex: bad --before: 12 (LINE:COL)"},
        {{"watch", "--count", "-1x"}, "corvex: bad count: -1x"},
        {{"text", "3", "--all"}, "corvex: unknown option --all"},
    };
    for (const auto& c : cases) {
        Result result = corvexBare(c.args);
        EXPECT_EQ(result.status, 2) << c.message;
        EXPECT_EQ(firstLine(result.err), c.message);
        EXPECT_NE(result.err.find("usage: corvex"), std::string::npos);
        EXPECT_LE(std::count(result.err.begin(), result.err.end(), '\n'), 3) << "one command's usage, not all of them";
    }
    EXPECT_EQ(corvexBare({"split", "3", "--ratio", "2"}).err,
              "corvex: bad ratio: 2 (a number between 0 and 1, such as 0.3)\n"
              "usage: corvex split PANE [--direction right|down|left|up] [--ratio R] [SPAWN]\n");
    EXPECT_EQ(daemon.connectionCount(), 0);
    Result help = corvexBare({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(firstLine(help.out).rfind("usage: corvex", 0), 0u);
    Result version = corvexBare({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("corvex ", 0), 0u);
    Result attachHelp = corvexBare({"attach", "--help"});
    EXPECT_EQ(attachHelp.status, 0);
    for (const auto& binding : cli::attachBindings()) {
        EXPECT_NE(attachHelp.out.find(std::string("  ") + binding.key + "   " + binding.meaning), std::string::npos)
            << binding.meaning;
    }
}

TEST_F(CorvexCliTest, FailuresPrintTheirCodeAndMessage) {
    Result absent = corvex({"state"});
    EXPECT_EQ(absent.status, 1);
    EXPECT_EQ(absent.err, "corvex: disconnected: no corvexd is running on " + daemon.socketPath() + "\n");
    Result creating = corvex({"new-workspace"});
    EXPECT_EQ(creating.err, "corvex: disconnected: can't connect to " + daemon.socketPath() + ": No such file or directory\n");
    // A refusal is printed as code and message with exit 1: SendDeliversBytesBeforeItExits, and
    // from a real daemon EndToEnd.TheCommandLineTypesIntoAndReshapesARealSession.
}

TEST_F(CorvexCliTest, CommandsSendTheirRequestsAndPrintResultsAsJSON) {
    PaneText text;
    text.lines = {"$ ls", "a b"};
    text.cols = 80;
    text.rows = 2;
    ModelState state;
    state.rev = 4;
    auto handler = daemon.setHandler([&](FakePeer& peer, const ReceivedRequest& request) {
        if (request.method == "workspace.create") peer.reply(request.id, json{{"workspace", 1}, {"tab", 2}, {"pane", 3}});
        else if (request.method == "pane.split") peer.reply(request.id, json{{"pane", 4}, {"split", 5}});
        else if (request.method == "pane.text") peer.reply(request.id, toJSON(text));
        else if (request.method == "state.get") peer.reply(request.id, toJSON(state));
        else return false;
        return true;
    });
    daemon.listen();

    Result created = corvex({"new-workspace", "--name", "dev", "--cwd", "/srv", "--env", "A=B=C", "--size", "100x30", "--",
                             "zsh", "-l"});
    EXPECT_EQ(created.status, 0) << created.err;
    EXPECT_EQ(json::parse(created.out), (json{{"workspace", 1}, {"tab", 2}, {"pane", 3}}));
    EXPECT_EQ(corvex({"split", "3", "--direction", "down", "--ratio", "0.25"}).out, "{\"pane\":4,\"split\":5}\n");
    EXPECT_EQ(corvex({"state"}).out, toJSON(state).dump() + "\n");
    EXPECT_EQ(corvex({"text", "3"}).out, "$ ls\na b\n");
    EXPECT_EQ(corvex({"rename", "tab", "2"}).status, 0);
    EXPECT_EQ(corvex({"focus", "workspace", "1"}).status, 0);
    EXPECT_EQ(corvex({"move", "tab", "2", "3", "--workspace", "1", "--focus"}).status, 0);
    EXPECT_EQ(corvex({"move", "tab-join", "2", "--beside", "3", "--direction", "up"}).status, 0);
    EXPECT_EQ(corvex({"keys", "3", "Enter", "C-c", "--text", "hi"}).status, 0);
    EXPECT_EQ(corvex({"search", "3", "err", "--regex", "--limit", "5", "--before", "10:2"}).status, 1)
        << "the stand-in answers {} which is no search result";

    std::vector<std::pair<std::string, json>> expected{
        {"workspace.create",
         {{"name", "dev"}, {"cwd", "/srv"}, {"env", {{"A", "B=C"}}}, {"cols", 100}, {"rows", 30}, {"command", {"zsh", "-l"}}}},
        {"pane.split", {{"pane", 3}, {"direction", "down"}, {"ratio", 0.25}}},
        {"state.get", nullptr},
        {"pane.text", {{"pane", 3}}},
        {"tab.rename", {{"tab", 2}}},
        {"focus", {{"workspace", 1}}},
        {"state.get", nullptr}, // a tab's index is checked against the tree first
        {"tab.move", {{"tab", 2}, {"index", 3}, {"workspace", 1}, {"focus", true}}},
        {"tab.join", {{"tab", 2}, {"to_pane", 3}, {"direction", "up"}, {"focus", false}}},
        {"pane.keys", {{"pane", 3}, {"keys", {"Enter", "C-c"}}, {"text", "hi"}}},
        {"pane.search",
         {{"pane", 3}, {"query", "err"}, {"regex", true}, {"case_sensitive", false}, {"limit", 5},
          {"before", {{"line", 10}, {"col", 2}}}}},
    };
    EXPECT_EQ(commandRequests(), expected);
}

TEST_F(CorvexCliTest, SendDeliversBytesBeforeItExits) {
    ModelState state;
    for (uint64_t id : {3, 4, 5}) state.panes.push_back(Pane{.id = id});
    auto handler = daemon.setHandler([&](FakePeer& peer, const ReceivedRequest& request) {
        if (request.method != "state.get") return false;
        peer.reply(request.id, toJSON(state));
        return true;
    });
    daemon.listen();
    Result absent = corvex({"send", "9", "text"});
    EXPECT_EQ(absent.status, 1);
    EXPECT_EQ(absent.err, "corvex: not_found: no pane 9\n");
    EXPECT_EQ(corvex({"send", "3", "-e", "-n", "echo", "\\x41\\tb\\\\"}).status, 0);
    EXPECT_EQ(corvex({"send", "4"}, std::string("from\0stdin", 10)).status, 0);
    EXPECT_EQ(corvex({"send", "5", "--", "-n", "literally"}).status, 0);
    auto input = daemon.input();
    EXPECT_EQ(input[3], "echo A\tb\\\r");
    EXPECT_EQ(input[4], std::string("from\0stdin", 10));
    EXPECT_EQ(input[5], "-n literally");
    EXPECT_EQ(input.count(9), 0u);
}

TEST_F(CorvexCliTest, CatStreamsThePaneUntilItsProgramExits) {
    Pane exited;
    exited.id = 7;
    exited.exited = PaneExit{0, std::nullopt};
    auto handler = daemon.setHandler([&](FakePeer& peer, const ReceivedRequest& request) {
        if (request.method != "pane.subscribe") return false;
        peer.reply(request.id, json{{"mode", "snapshot"}, {"seq", 10}, {"cols", 80}, {"rows", 24}});
        peer.sendRaw(makeSnapshotFrame(7, 10, 80, 24, "SCREEN|"));
        peer.sendRaw(makeOutputFrame(8, 0, "other pane"));
        peer.sendRaw(makeOutputFrame(7, 10, std::string("raw\0\xff", 5)));
        peer.event("pane", toJSON(exited));
        return true;
    });
    daemon.listen();
    Result cat = corvex({"cat", "7"});
    EXPECT_EQ(cat.status, 0) << cat.err;
    EXPECT_EQ(cat.out, std::string("SCREEN|raw\0\xff", 12));
}

TEST_F(CorvexCliTest, WatchPrintsEventsAsJSONLines) {
    daemon.setStateOnSubscribe(toJSON(ModelState{}));
    auto handler = daemon.setHandler([](FakePeer& peer, const ReceivedRequest& request) {
        if (request.method != "events.subscribe") return false;
        peer.reply(request.id, json::object());
        peer.event("bell", json{{"pane", 3}});
        return true;
    });
    daemon.listen();
    Result watch = corvex({"watch", "--count", "2"});
    EXPECT_EQ(watch.status, 0);
    std::istringstream lines(watch.out);
    std::string line;
    std::vector<std::string> names;
    while (std::getline(lines, line)) names.push_back(json::parse(line)["event"]);
    EXPECT_EQ(names, (std::vector<std::string>{"connected", "bell"}));
}

TEST(CorvexCliEvents, LinesCarryTheirFieldsAndSurviveBadUTF8) {
    EXPECT_EQ(cli::eventLine(SessionEvent::Clipboard{3, "hi", true}),
              R"({"event":"clipboard","pane":3,"selection":true,"text":"hi"})");
    EXPECT_EQ(cli::eventLine(SessionEvent::Output{3, 7, Bytes{'a', 0xff}}),
              "{\"event\":\"output\",\"pane\":3,\"seq\":7,\"size\":2,\"text\":\"a\xef\xbf\xbd\"}");
    EXPECT_EQ(cli::eventLine(SessionEvent::Agent{3, std::nullopt}), R"({"agent":null,"event":"agent","pane":3})");
}

namespace {

// Stands in for ssh: relays standard input and output to the Unix socket named by the
// remote command, or fails as an unreachable host does. It can't print a configuration.
const char* relayingSSH = R"(#!/bin/sh
if [ "$1" = -G ]; then exit 255; fi
for last; do :; done
if [ "$last" = unreachable ]; then echo "Permission denied (publickey)." >&2; exit 255; fi
exec python3 -c '
import os, socket, sys, threading
s = socket.socket(socket.AF_UNIX)
s.connect(sys.argv[1])
def up():
    while True:
        b = os.read(0, 65536)
        if not b:
            s.shutdown(socket.SHUT_WR)
            return
        s.sendall(b)
threading.Thread(target=up, daemon=True).start()
while True:
    b = s.recv(65536)
    if not b:
        break
    os.write(1, b)
' "$last"
)";

} // namespace

TEST_F(CorvexCliTest, SSHTargetsGoThroughTheSSHProgramOnPath) {
    if (std::system("python3 -c pass >/dev/null 2>&1") != 0) GTEST_SKIP() << "the relay needs python3";
    ScratchDirectory bin;
    bin.writeExecutable("ssh", relayingSSH);
    platform::testing::ScopedEnvironment path("PATH", (bin.path() + ":" + platform::environmentValue("PATH")).c_str());
    daemon.listen();

    Result hello = corvexBare({"--ssh", "devbox", "--remote-command", daemon.socketPath(), "hello"});
    EXPECT_EQ(hello.status, 0) << hello.err;
    EXPECT_EQ(json::parse(hello.out)["instance"], "A");

    Result unreachable = corvexBare({"--ssh", "devbox", "--remote-command", "unreachable", "state"});
    EXPECT_EQ(unreachable.status, 1);
    EXPECT_EQ(unreachable.err, "corvex: disconnected: Can't reach devbox over SSH: Permission denied (publickey).\n");
}
