#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "CorvexKit/Tests/Support/ScratchDirectory.h"
#include "Support/DaemonHarness.h"
#include "corvexd/Hooks.h"

using namespace corvexd::hooks;
using namespace corvexd::testing;
using corvex::testing::readFile;

namespace {

const std::string daemonPath = "/opt/corvex/bin/corvexd";

void put(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << text;
}

} // namespace

TEST(ClaudeHooks, InstallKeepsOtherSettingsAndOtherHooksAndUninstallRestoresThem) {
    std::string settings = R"json({
  "model": "opus",
  "hooks": {
    "Stop": [
      {
        "hooks": [
          {
            "type": "command",
            "command": "say done"
          }
        ]
      }
    ]
  },
  "permissions": {
    "allow": [
      "Bash(ls:*)"
    ]
  }
}
)json";
    EXPECT_EQ(claudeHookState(settings, daemonPath), HookState::missing);
    auto installed = withClaudeHooks(settings, daemonPath);
    EXPECT_EQ(claudeHookState(installed, daemonPath), HookState::installed);
    EXPECT_EQ(withClaudeHooks(installed, daemonPath), installed) << "installing twice changes nothing";

    auto parsed = nlohmann::ordered_json::parse(installed);
    std::vector<std::string> keys;
    for (auto& [key, value] : parsed.items()) keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"model", "hooks", "permissions"}));
    EXPECT_EQ(parsed["hooks"]["Stop"][0]["hooks"][0]["command"], "say done");
    for (const auto& event : claudeEvents()) {
        ASSERT_TRUE(parsed["hooks"].contains(event)) << event;
        auto command = parsed["hooks"][event].back()["hooks"][0]["command"].get<std::string>();
        EXPECT_NE(command.find("corvex-agent-status"), std::string::npos);
        EXPECT_NE(command.find("|| true"), std::string::npos) << "a hook never fails the agent's step";
    }
    EXPECT_EQ(parsed["hooks"]["PreToolUse"][0]["matcher"], "*");

    EXPECT_EQ(withoutClaudeHooks(installed), settings) << "the file as it was, byte for byte";

    auto moved = withClaudeHooks(settings, "/elsewhere/corvexd");
    EXPECT_EQ(claudeHookState(moved, daemonPath), HookState::outdated);
    EXPECT_EQ(withClaudeHooks(moved, daemonPath), installed) << "an update replaces ours, not adds to them";
}

TEST(ClaudeHooks, RefusesFilesItCanNotEdit) {
    EXPECT_THROW(withClaudeHooks(std::string("{\"model\": "), daemonPath), HookError);
    EXPECT_THROW(withClaudeHooks(std::string("[1, 2]"), daemonPath), HookError);
    EXPECT_THROW(withClaudeHooks(std::string(R"({"hooks": "none"})"), daemonPath), HookError);
    EXPECT_EQ(claudeHookState(std::string("not json"), daemonPath), HookState::missing);
    EXPECT_EQ(claudeHookState(std::nullopt, daemonPath), HookState::missing);
    EXPECT_EQ(claudeHookPreview(std::nullopt, daemonPath).size(), claudeEvents().size());
    EXPECT_TRUE(claudeHookPreview(withClaudeHooks(std::nullopt, daemonPath), daemonPath).empty());
}

TEST(CodexNotify, TakesTheSlotAndChainsWhatWasThere) {
    std::string config = "# mine\nmodel = \"o3\"\nnotify = [\"notify-send\", 'Codex \"done\"']\n\n[profiles.fast]\nnotify = [\"x\"]\n";
    EXPECT_EQ(codexHookState(config, daemonPath), HookState::missing);
    auto installed = withCodexNotify(config, daemonPath);
    EXPECT_EQ(codexNotify(installed),
              (std::vector<std::string>{daemonPath, "corvex-notify", "codex", "--", "notify-send", "Codex \"done\""}));
    EXPECT_EQ(codexHookState(installed, daemonPath), HookState::installed);
    EXPECT_EQ(withCodexNotify(installed, daemonPath), installed);
    EXPECT_NE(installed.find("[profiles.fast]\nnotify = [\"x\"]\n"), std::string::npos) << "tables are left alone";
    EXPECT_EQ(codexNotify(withoutCodexNotify(installed)), (std::vector<std::string>{"notify-send", "Codex \"done\""}));

    std::string tablesOnly = "[profiles.fast]\nnotify = [\"x\"]\n";
    auto added = withCodexNotify(tablesOnly, daemonPath);
    EXPECT_EQ(codexNotify(added), (std::vector<std::string>{daemonPath, "corvex-notify", "codex"}));
    EXPECT_EQ(withoutCodexNotify(added), tablesOnly);

    std::string multiLine = "notify = [\n  \"a\", # first\n  \"b\\u00e9\",\n]\nmodel = \"o3\"\n";
    auto chained = withCodexNotify(multiLine, daemonPath);
    EXPECT_EQ(codexNotify(chained), (std::vector<std::string>{daemonPath, "corvex-notify", "codex", "--", "a", "b\xc3\xa9"}));
    EXPECT_EQ(codexHookState(withCodexNotify(multiLine, "/old/corvexd"), daemonPath), HookState::outdated);
    EXPECT_THROW(withCodexNotify(std::string("notify = \"oops\"\n"), daemonPath), HookError);
}

TEST(HooksCommand, InstallsIntoTheHomeWithBackupsAndUndoes) {
    DaemonHarness daemon;
    std::string home = daemon.scratch().path() + "/home";
    std::map<std::string, std::string> env{{"HOME", home}};
    std::string settingsPath = home + "/.claude/settings.json";
    std::string configPath = home + "/.codex/config.toml";
    put(configPath, "notify = [\"say\"]\n");

    auto status = daemon.run({"hooks", "status"}, env);
    EXPECT_EQ(status.status, 0) << status.err;
    EXPECT_EQ(status.out, "claude missing\ncodex missing\n");
    auto preview = daemon.run({"hooks", "print", "claude"}, env);
    EXPECT_NE(preview.out.find("PermissionRequest: "), std::string::npos) << preview.out;
    EXPECT_FALSE(std::filesystem::exists(settingsPath)) << "print changes nothing";

    EXPECT_EQ(daemon.run({"hooks", "install", "claude"}, env).status, 0);
    EXPECT_EQ(daemon.run({"hooks", "install", "codex"}, env).status, 0);
    EXPECT_EQ(daemon.run({"hooks", "status"}, env).out, "claude installed\ncodex installed\n");
    EXPECT_EQ(readFile(configPath + ".corvex-backup"), "notify = [\"say\"]\n");
    EXPECT_NE(readFile(configPath).find("\"--\", \"say\"]"), std::string::npos) << readFile(configPath);
    EXPECT_EQ(daemon.run({"hooks", "print", "codex"}, env).out, "") << "nothing left to change";

    EXPECT_EQ(daemon.run({"hooks", "uninstall", "codex"}, env).status, 0);
    EXPECT_EQ(readFile(configPath), "notify = [\"say\"]\n");
    EXPECT_EQ(daemon.run({"hooks", "uninstall", "claude"}, env).status, 0);
    EXPECT_EQ(daemon.run({"hooks", "status"}, env).out, "claude missing\ncodex missing\n");

    put(settingsPath, "{ not json");
    auto refused = daemon.run({"hooks", "install", "claude"}, env);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("not valid JSON"), std::string::npos) << refused.err;
    EXPECT_EQ(readFile(settingsPath), "{ not json");
    EXPECT_EQ(daemon.run({"hooks", "install", "gemini"}, env).status, 1);
}
