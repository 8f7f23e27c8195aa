#include <gtest/gtest.h>

#include "CorvexKit/SessionCodecJSON.h"

using namespace corvex;
using nlohmann::json;

namespace {

// Every key the daemon may send, spelled as on the wire, plus keys this client doesn't know.
const char* fullState = R"({
  "rev": 7,
  "focus": {"workspace": 1, "tab": 2, "pane": 4},
  "future_field": {"anything": [1, 2]},
  "workspaces": [{
    "id": 1, "name": "Main", "active_tab": 2, "colour": "blue",
    "tabs": [{
      "id": 2, "title": "server", "active_pane": 4,
      "layout": {"type": "split", "id": 3, "axis": "vertical", "ratio": 0.25,
                 "a": {"type": "pane", "pane": 4},
                 "b": {"type": "split", "id": 6, "axis": "horizontal", "ratio": 0.6,
                       "a": {"type": "pane", "pane": 5}, "b": {"type": "pane", "pane": 7}}}
    }]
  }],
  "panes": [
    {"id": 4, "cols": 120, "rows": 40, "pid": 901, "command": ["/bin/bash", "-l"],
     "title": "✳ Claude Code", "cwd": "/home/ann/corvex", "seq": 18446744073709551615,
     "exited": {"code": 0, "signal": 9},
     "agent": {"kind": "claude", "state": "waiting", "source": "hook", "message": "Allow?",
               "since": 1700000000.5, "attention": true, "session": "s-1", "muted": false,
               "quiet": true, "prompt": "fix it", "tool": "Bash", "tool_input": "ls",
               "turn_started": 1700000001.25, "unknown": 1,
               "requests": [{"id": "r1", "tool": "Bash", "summary": "ls -la"}, {"id": "r2", "tool": "Edit"}]},
     "restored": {"at": 1699999999.0, "agent": "claude", "session": "s-0", "continued": true},
     "git": {"repo": "corvex", "root": "/home/ann/corvex", "remote": "origin", "branch": "main",
             "head": "abc123", "worktree": {"name": "wt", "path": "/w/wt"},
             "pr": {"number": 12, "state": "draft", "url": "https://x/12", "title": "Spine"},
             "pr_reason": "found"}},
    {"id": 5, "cols": 80, "rows": 24, "seq": 0},
    {"id": 7, "cols": 80, "rows": 24, "seq": 3}
  ]
})";

template <typename T>
void expectRoundTrip(const T& value) {
    auto text = encodeText(value);
    EXPECT_EQ(decodeText<T>(text), value) << text;
}

std::string decodeFailure(const char* type, const json& document) {
    try {
        if (std::string(type) == "state") decodeJSON<ModelState>(document);
        if (std::string(type) == "pane") decodeJSON<Pane>(document);
    } catch (const DecodingError& error) {
        return error.what();
    }
    return "";
}

json minimalPane() { return json{{"id", 4}, {"cols", 80}, {"rows", 24}, {"seq", 0}}; }

} // namespace

TEST(SessionCodec, ReadsEveryWireKeyAndWritesBackAnEqualValue) {
    auto state = decodeText<ModelState>(fullState);
    EXPECT_EQ(state.rev, 7u);
    EXPECT_EQ(state.focus, (Focus{1, 2, 4}));
    const auto& tab = state.workspaces.at(0).tabs.at(0);
    EXPECT_EQ(state.workspaces[0].activeTab, 2u);
    EXPECT_EQ(tab.title, "server");
    EXPECT_EQ(tab.activePane, 4u);
    EXPECT_EQ(tab.layout, Layout::split(3, Axis::vertical, 0.25, Layout::leaf(4),
                                        Layout::split(6, Axis::horizontal, 0.6, Layout::leaf(5), Layout::leaf(7))));

    const auto& pane = state.panes.at(0);
    EXPECT_EQ(pane.seq, UINT64_MAX);
    EXPECT_EQ(pane.pid, 901);
    EXPECT_EQ(pane.exited, (PaneExit{0, 9}));
    ASSERT_TRUE(pane.agent);
    EXPECT_EQ(pane.agent->state, AgentInfo::State::waiting);
    EXPECT_EQ(pane.agent->quietRise, true);
    EXPECT_EQ(pane.agent->toolInput, "ls");
    EXPECT_EQ(pane.agent->turnStarted, 1700000001.25);
    EXPECT_EQ(pane.agent->requests->at(1), (PermissionRequest{"r2", "Edit", std::nullopt}));
    EXPECT_EQ(pane.restored->continued, true);
    EXPECT_EQ(pane.git->worktree->path, "/w/wt");
    EXPECT_EQ(pane.git->pr->state, PullRequest::State::draft);
    EXPECT_EQ(pane.git->prReason, "found");
    EXPECT_EQ(state.panes.at(1), (Pane{5, 80, 24}));

    expectRoundTrip(state);
    // Absent optionals are left out rather than written as null.
    auto expected = minimalPane();
    expected["id"] = 5;
    EXPECT_EQ(toJSON(state.panes.at(1)), expected);
}

TEST(SessionCodec, RequiredFieldsAndTypesFailTheWholeDocument) {
    EXPECT_EQ(decodeJSON<Pane>(minimalPane()), (Pane{4, 80, 24}));

    auto withoutSeq = minimalPane();
    withoutSeq.erase("seq");
    EXPECT_EQ(decodeFailure("pane", withoutSeq), "missing key \"seq\"");

    // The title is optional, but present with the wrong type it still fails.
    const std::pair<const char*, json> wrongTypes[] = {{"cols", "80"}, {"id", -4}, {"title", 3}};
    for (const auto& [key, value] : wrongTypes) {
        auto pane = minimalPane();
        pane[key] = value;
        EXPECT_NE(decodeFailure("pane", pane), "") << key;
    }

    auto nullOptional = minimalPane();
    nullOptional["cwd"] = nullptr;
    EXPECT_EQ(decodeJSON<Pane>(nullOptional).cwd, std::nullopt);

    // One bad pane deep inside fails the whole state.
    auto state = json::parse(fullState);
    state["panes"][2].erase("rows");
    EXPECT_NE(decodeFailure("state", state), "");

    EXPECT_THROW(decodeText<ModelState>("{\"rev\": 1,"), DecodingError);
    EXPECT_THROW(decodeText<ModelState>("[]"), DecodingError);
}

TEST(SessionCodec, UnknownLayoutNodesAndWordsFail) {
    auto state = json::parse(fullState);
    state["workspaces"][0]["tabs"][0]["layout"]["b"]["a"]["type"] = "grid";
    EXPECT_EQ(decodeFailure("state", state), "unknown layout node grid");

    state = json::parse(fullState);
    state["workspaces"][0]["tabs"][0]["layout"]["axis"] = "diagonal";
    EXPECT_NE(decodeFailure("state", state), "");

    state = json::parse(fullState);
    state["workspaces"][0]["tabs"][0]["layout"]["b"].erase("ratio");
    EXPECT_NE(decodeFailure("state", state), "");

    EXPECT_THROW(decodeText<Subscription>(R"({"mode":"paused","seq":0,"cols":80,"rows":24})"), DecodingError);

    // A hostile nesting depth is refused instead of overflowing the stack; a deep but sane one is read.
    auto nested = [](int depth) {
        json tree = {{"type", "pane"}, {"pane", 1}};
        for (int i = 0; i < depth; ++i) {
            json node = json::object();
            node["type"] = "split";
            node["id"] = 2;
            node["axis"] = "vertical";
            node["ratio"] = 0.5;
            node["a"] = std::move(tree);
            node["b"] = {{"type", "pane"}, {"pane", 3}};
            tree = std::move(node);
        }
        return tree;
    };
    EXPECT_THROW(decodeJSON<Layout>(nested(5000)), DecodingError);
    EXPECT_EQ(decodeJSON<Layout>(nested(100)).panes().size(), 101u);
}

TEST(SessionCodec, TextThatIsNotUtf8IsWrittenWithReplacements) {
    Pane pane{4, 80, 24};
    pane.title = std::string("bad \xff byte");
    auto decoded = decodeText<Pane>(encodeText(pane));
    EXPECT_EQ(decoded.title, "bad \uFFFD byte");
}

TEST(SessionCodec, AgentAndPullRequestStatesAreReadTolerantly) {
    auto agent = decodeText<AgentInfo>(R"({"kind":"claude","state":"paused"})");
    EXPECT_EQ(agent.state, AgentInfo::State::unknown);
    EXPECT_THROW(decodeText<AgentInfo>(R"({"kind":"claude","state":3})"), DecodingError);
    EXPECT_THROW(decodeText<AgentInfo>(R"({"kind":"claude"})"), DecodingError);

    for (const char* text : {R"({"number":7,"state":"reopened"})", R"({"number":7,"state":5})", R"({"number":7})"}) {
        EXPECT_EQ(decodeText<PullRequest>(text), (PullRequest{7})) << text;
    }
    EXPECT_EQ(decodeText<PullRequest>(R"({"number":7,"state":"merged"})").state, PullRequest::State::merged);
    EXPECT_THROW(decodeText<PullRequest>(R"({"state":"open"})"), DecodingError);
}

TEST(SessionCodec, HelloFeaturesSkipUnknownNames) {
    auto hello = decodeText<Hello>(R"({
        "protocol": 1, "protocol_min": 1, "protocol_max": 2, "daemon": "corvexd", "version": "1.2",
        "instance": "ab12", "pid": 77, "machine": {"hostname": "box", "os": "linux", "arch": "arm64"},
        "features": ["pane.keys", "teleport", "split.set_ratio", "pane.focus"],
        "holder": {"pid": 70, "can_upgrade": true, "namespace": "dev"}, "holder_outdated": true,
        "namespace": "dev"})");
    EXPECT_EQ(hello.features(),
              (FeatureSet{Hello::Feature::paneKeys, Hello::Feature::splitSetRatio, Hello::Feature::paneFocus}));
    EXPECT_EQ(hello.holder->canUpgrade, true);
    EXPECT_EQ(hello.holder->nameSpace, "dev");

    auto bare = decodeText<Hello>(R"({"protocol":1,"daemon":"d","version":"v","instance":"i"})");
    EXPECT_TRUE(bare.features().empty());
    EXPECT_THROW(decodeText<Hello>(R"({"protocol":1,"daemon":"d","version":"v"})"), DecodingError);
}

TEST(SessionCodec, ColoursReadEitherCaseButOnlySixDigits) {
    EXPECT_EQ(decodeText<TerminalColors>(R"({"foreground":"#ABCDEF","background":"#000000"})").foreground,
              0xABCDEFu);
    EXPECT_THROW(decodeText<TerminalColors>(R"({"foreground":"#abc","background":"#000000"})"), DecodingError);
}

TEST(CachedMachineState, RoundTripsAndRequiresItsKeys) {
    CachedMachineState cache;
    cache.state = decodeText<ModelState>(fullState);
    cache.lastSeen = 1700000123.25;
    cache.daemonVersion = "1.2";
    cache.instance = "ab12";
    cache.featureNames = {"pane.keys", "unheard.of", "move"};
    expectRoundTrip(cache);
    EXPECT_EQ(cache.features(), (FeatureSet{Hello::Feature::paneKeys, Hello::Feature::move}));

    auto written = toJSON(cache);
    EXPECT_TRUE(written.contains("lastSeen"));
    EXPECT_TRUE(written.contains("featureNames"));
    EXPECT_TRUE(written["state"]["workspaces"][0].contains("active_tab"));

    auto future = written;
    future["format"] = 2;
    EXPECT_EQ(decodeJSON<CachedMachineState>(future).format, 2);

    auto withoutFeatures = written;
    withoutFeatures.erase("featureNames");
    EXPECT_THROW(decodeJSON<CachedMachineState>(withoutFeatures), DecodingError);
}
