// The status hooks as an agent runs them: installed by `corvexd hooks install` into a home of
// the test's own, run from inside a real pane with the payloads Claude Code and Codex send,
// and seen through CorvexdBackend. Agents read off the screen and a pane's git facts are in
// the backend contract suite.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "CorvexKit/RemoteSetup.h"
#include "CorvexKit/Tests/Support/ScratchDirectory.h"
#include "Platform/Tests/Support/Eventually.h"
#include "corvexd/Hooks.h"
#include "corvexd/Tests/Support/DaemonHarness.h"

namespace corvex {
using namespace corvexd::testing;
namespace {

using json = nlohmann::json;
using platform::testing::eventually;
using State = AgentInfo::State;

// Payloads as Claude Code writes them on a hook's standard input.
json claudePayload(const std::string& event, json extra = json::object()) {
    json payload{{"session_id", "5f3c9e1a-demo"},
                 {"transcript_path", "/home/u/.claude/projects/demo/5f3c9e1a-demo.jsonl"},
                 {"cwd", "/home/u/demo"},
                 {"permission_mode", "default"},
                 {"hook_event_name", event}};
    payload.update(extra);
    return payload;
}

class AgentHooks : public ::testing::Test {
protected:
    void SetUp() override {
        if (!isBuilt("corvexd")) GTEST_SKIP() << "corvexd is not built";
        daemon.serve();
        home = daemon.scratch().file("home");
        client = daemon.connect("agents");
        created = client->createWorkspace("agents", plainShell());
    }

    Ran corvexd(const std::vector<std::string>& arguments, std::map<std::string, std::string> env = {},
                const std::string& input = {}) {
        std::vector<std::string> argv{builtProgram("corvexd")};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        auto full = daemon.environment();
        full["HOME"] = home;
        for (const auto& [key, value] : env) full[key] = value;
        return runProgram(argv, full, input);
    }

    // The command line `corvexd hooks install claude` wrote for `event`.
    std::string installedClaudeCommand(const std::string& event) {
        auto settings = json::parse(testing::readFile(home + "/.claude/settings.json"));
        return settings["hooks"][event].back()["hooks"][0]["command"].get<std::string>();
    }

    // Runs a hook's command line in the pane as the agent would: through sh, the payload on
    // its standard input. Its standard output lands in `out`.
    void runInPane(const std::string& commandLine, const json& payload, const std::string& out) {
        auto name = std::to_string(++hooksRun);
        std::ofstream(daemon.scratch().file("payload" + name)) << payload.dump();
        std::ofstream(daemon.scratch().file("hook" + name)) << commandLine << "\n";
        client->sendInput(created.pane, asBytes("sh " + daemon.scratch().file("hook" + name) + " < " +
                                                daemon.scratch().file("payload" + name) + " > " + out +
                                                "; echo ran-" + name + " >> " + daemon.scratch().file("log") + "\r"));
    }
    void reportInPane(const std::string& event, json extra = json::object()) {
        int before = hooksRun;
        runInPane(installedClaudeCommand(event), claudePayload(event, std::move(extra)), "/dev/null");
        auto ran = "ran-" + std::to_string(before + 1);
        ASSERT_TRUE(eventually([&] { return testing::readFile(daemon.scratch().file("log")).find(ran) != std::string::npos; }));
    }

    std::optional<AgentInfo> agent() {
        auto state = client->getState();
        for (const auto& pane : state.panes) {
            if (pane.id == created.pane) return pane.agent;
        }
        return std::nullopt;
    }
    std::string fakeBin() { return daemon.scratch().file("bin"); }
    // A program of that name on the pane's PATH, a shell script with `body`.
    void installFakeAgent(const std::string& name, const std::string& body) {
        std::filesystem::create_directories(fakeBin());
        std::ofstream(fakeBin() + "/" + name) << "#!/bin/sh\n" << body;
        std::filesystem::permissions(fakeBin() + "/" + name, std::filesystem::perms::owner_all);
    }
    bool agentIs(State state) {
        auto now = agent();
        return now && now->state == state;
    }

    DaemonHarness daemon;
    std::string home;
    std::shared_ptr<CorvexdBackend> client;
    CreatedWorkspace created;
    int hooksRun = 0;
};

TEST_F(AgentHooks, ClaudeReportsThroughItsHooksAndTheDaemonKeepsTheHistory) {
    ASSERT_EQ(corvexd({"hooks", "install", "claude"}).status, 0);
    Watcher watch(client);

    reportInPane("SessionStart", {{"source", "startup"}});
    ASSERT_TRUE(eventually([&] { return agentIs(State::waiting); }));
    EXPECT_EQ(agent()->source, "hook");
    EXPECT_EQ(agent()->kind, "claude");
    EXPECT_EQ(agent()->session, "5f3c9e1a-demo");
    EXPECT_FALSE(agent()->attention.value_or(false));

    reportInPane("UserPromptSubmit", {{"prompt", "Write a haiku about terminals"}});
    reportInPane("PreToolUse", {{"tool_name", "Bash"}, {"tool_input", {{"command", "ls -la"}, {"description", "List"}}}});
    ASSERT_TRUE(eventually([&] { return agent() && agent()->tool == "Bash"; }));
    EXPECT_EQ(agent()->state, State::running);
    EXPECT_EQ(agent()->prompt, "Write a haiku about terminals");
    EXPECT_EQ(agent()->toolInput, "ls -la");

    reportInPane("Stop", {{"stop_hook_active", false}});
    ASSERT_TRUE(eventually([&] { return agentIs(State::done); }));
    EXPECT_TRUE(agent()->attention.value_or(false));
    EXPECT_TRUE(watch.untilEvent<SessionEvent::Agent>([&](const auto& event) {
        return event.pane == created.pane && event.info && event.info->state == State::done;
    })) << "every change is an agent event";

    client->ackAgent(created.pane);
    EXPECT_FALSE(agent()->attention.value_or(false));
    client->muteAgent(created.pane, true);
    EXPECT_TRUE(agent()->muted.value_or(false));

    reportInPane("SessionEnd", {{"reason", "prompt_input_exit"}});
    ASSERT_TRUE(eventually([&] { return !agent(); }));

    auto history = client->agentHistory(created.pane, std::nullopt, std::nullopt);
    std::vector<std::string> events;
    for (const auto& entry : history.entries) events.push_back(entry.eventName);
    EXPECT_EQ(events, (std::vector<std::string>{"state", "state", "update", "state", "attention", "mute", "gone"}));
    EXPECT_TRUE(history.entries[0].pid.has_value()) << "the reporting agent's process";
    EXPECT_EQ(client->agentHistory(created.pane, 2, std::nullopt).entries.size(), 2u);
}

TEST_F(AgentHooks, APermissionRequestWaitsForADecisionFromAnyClient) {
    ASSERT_EQ(corvexd({"hooks", "install", "claude"}).status, 0);
    auto answer = daemon.scratch().file("answer.json");
    runInPane(installedClaudeCommand("PermissionRequest"),
              claudePayload("PermissionRequest", {{"tool_name", "Bash"}, {"tool_input", {{"command", "rm -rf build"}}}}),
              answer);
    ASSERT_TRUE(eventually([&] { return agent() && agent()->requests && !agent()->requests->empty(); }));
    auto request = agent()->requests->front();
    EXPECT_EQ(request.tool, "Bash");
    EXPECT_EQ(request.summary, "rm -rf build");
    EXPECT_EQ(agent()->state, State::waiting);
    EXPECT_TRUE(agent()->attention.value_or(false));

    Ran listed = daemon.corvex({"agents"});
    EXPECT_EQ(listed.status, 0) << listed.err;
    EXPECT_NE(listed.out.find("\tagents\t"), std::string::npos) << listed.out;
    EXPECT_NE(listed.out.find("Waiting for you"), std::string::npos) << listed.out;

    // Any client answers: here the command line.
    Ran decided = daemon.corvex({"decide", std::to_string(created.pane), "deny", "--message", "not on main"});
    EXPECT_EQ(decided.status, 0) << decided.err;
    ASSERT_TRUE(eventually([&] { return testing::readFile(answer).find('}') != std::string::npos; }));
    auto reply = json::parse(testing::readFile(answer));
    EXPECT_EQ(reply["hookSpecificOutput"]["hookEventName"], "PermissionRequest");
    EXPECT_EQ(reply["hookSpecificOutput"]["decision"]["behavior"], "deny");
    EXPECT_EQ(reply["hookSpecificOutput"]["decision"]["message"], "not on main");
    EXPECT_TRUE(!agent()->requests || agent()->requests->empty());

    try {
        client->decide(created.pane, request.id, PermissionDecision::allow, std::nullopt);
        ADD_FAILURE() << "a request can be answered once";
    } catch (const BackendError& error) {
        EXPECT_EQ(error.code(), "not_found");
    }
}

TEST_F(AgentHooks, CodexNotifyReportsAndStillRunsTheNotifyItReplaced) {
    auto chained = daemon.scratch().file("chained.json");
    std::filesystem::create_directories(home + "/.codex");
    std::ofstream(home + "/.codex/config.toml")
        << "model = \"o3\"\nnotify = [\"/bin/sh\", \"-c\", \"printf %s \\\"$1\\\" > " << chained << "\", \"sh\"]\n";
    ASSERT_EQ(corvexd({"hooks", "install", "codex"}).status, 0);
    auto words = corvexd::hooks::codexNotify(testing::readFile(home + "/.codex/config.toml"));
    ASSERT_TRUE(words);

    json payload{{"type", "agent-turn-complete"},
                 {"thread-id", "b5f6c1c2-demo"},
                 {"turn-id", "12345"},
                 {"cwd", "/home/u/demo"},
                 {"input-messages", {"Fix the failing tests"}},
                 {"last-assistant-message", "All 42 tests pass now."}};
    // Codex runs its notify itself, so the reporting process is the agent's own child.
    std::string line = "exec ";
    for (const auto& word : *words) line += RemoteSetup::quote(word) + " ";
    line += RemoteSetup::quote(payload.dump());
    std::ofstream(daemon.scratch().file("notify")) << line << "\n";
    client->sendInput(created.pane, asBytes("sh " + daemon.scratch().file("notify") + "\r"));

    ASSERT_TRUE(eventually([&] { return agentIs(State::done); }));
    EXPECT_EQ(agent()->kind, "codex");
    EXPECT_EQ(agent()->source, "hook");
    EXPECT_EQ(agent()->message, "All 42 tests pass now.");
    EXPECT_EQ(agent()->prompt, "Fix the failing tests");
    EXPECT_EQ(agent()->session, "b5f6c1c2-demo");
    ASSERT_TRUE(eventually([&] { return !testing::readFile(chained).empty(); }));
    EXPECT_EQ(json::parse(testing::readFile(chained)), payload);
}

TEST_F(AgentHooks, AGuessedAgentThatFailsIsAnErrorUntilResolved) {
    installFakeAgent("codex", "echo '>_ OpenAI Codex'\nsleep 2\nexit 3\n");
    client->sendInput(created.pane, asBytes("PATH=" + fakeBin() + ":$PATH codex --full-auto\r"));
    ASSERT_TRUE(eventually([&] { return agent() && agent()->kind == "codex"; }, 10s));
    ASSERT_TRUE(eventually([&] { return agentIs(State::error); }, 10s));
    EXPECT_EQ(agent()->message, "exited with status 3");
    EXPECT_TRUE(agent()->attention.value_or(false));

    // Not seen yet, it stays however long the user is away.
    auto seen = client->getState().rev;
    ASSERT_FALSE(eventually([&] { return !agentIs(State::error); }, 2500ms));
    EXPECT_EQ(client->getState().rev, seen) << "a finished agent makes no traffic while it waits";

    client->ackAgent(created.pane);
    ASSERT_TRUE(eventually([&] { return !agent(); }, 10s));
}

TEST_F(AgentHooks, BadReportsHarmNeitherTheAgentNorTheDaemon) {
    std::string pane = std::to_string(created.pane);
    auto quick = [&](const Ran& ran) { return ran.status == 0; };
    // Outside any pane, with nonsense, with too much, for a pane that isn't there.
    EXPECT_TRUE(quick(corvexd({"corvex-agent-status", "claude"}, {{"CORVEX_PANE", ""}}, claudePayload("Stop").dump())));
    EXPECT_TRUE(quick(corvexd({"corvex-agent-status", "claude"}, {{"CORVEX_PANE", pane}}, "{not json")));
    EXPECT_TRUE(quick(corvexd({"corvex-agent-status", "claude"}, {{"CORVEX_PANE", pane}},
                              claudePayload("Stop", {{"padding", std::string(3 << 20, 'x')}}).dump())));
    EXPECT_TRUE(quick(corvexd({"corvex-agent-status", "claude"}, {{"CORVEX_PANE", "999999"}},
                              claudePayload("PermissionRequest", {{"tool_name", "Bash"}}).dump())));
    EXPECT_TRUE(quick(corvexd({"corvex-notify", "codex", "[1,2"}, {{"CORVEX_PANE", pane}})));
    EXPECT_FALSE(agent()) << "none of these made an agent";

    // A daemon that has gone keeps the agent waiting no more than a moment.
    auto started = std::chrono::steady_clock::now();
    auto gone = corvexd({"corvex-agent-status", "claude"},
                        {{"CORVEX_PANE", pane}, {"CORVEXD_RUNTIME_DIR", daemon.scratch().file("nobody")}},
                        claudePayload("PermissionRequest", {{"tool_name", "Bash"}}).dump());
    EXPECT_EQ(gone.status, 0);
    EXPECT_EQ(gone.out, "") << "no decision means Claude Code asks in the terminal";
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);

    try {
        client->decide(created.pane, "r999", PermissionDecision::allow, std::nullopt);
        ADD_FAILURE() << "no such request";
    } catch (const BackendError& error) {
        EXPECT_EQ(error.code(), "not_found");
    }
    EXPECT_NO_THROW(client->getState()) << "the daemon is still serving";
}

} // namespace
} // namespace corvex
