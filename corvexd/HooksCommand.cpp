#include "corvexd/HooksCommand.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>
#include <pwd.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/ProcessInfo.h"
#include "corvexd/CommandSupport.h"
#include "corvexd/Hooks.h"
#include "corvexd/RuntimeDirectory.h"
#include "corvexd/SettingsFile.h"

namespace corvexd {

namespace {

using namespace hooks;

const char* hooksUsage = "usage: corvexd hooks status | print AGENT | install AGENT | uninstall AGENT (AGENT: claude, codex)\n";

std::string home() {
    if (const char* value = std::getenv("HOME"); value && *value) return value;
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir) return entry->pw_dir;
    return "/";
}

std::string thisExecutable() { return platform::executablePath(); }

std::optional<std::string> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void makeDirectory(const std::string& path) {
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        throw DaemonError("can't make " + path + ": " + std::strerror(errno));
    }
}

// One agent's file and the edits of it.
struct Agent {
    std::string name;
    std::string folder;
    std::string file;
    std::function<std::string(const std::optional<std::string>&, const std::string&)> install;
    std::function<std::string(const std::string&)> uninstall;
    std::function<HookState(const std::optional<std::string>&, const std::string&)> state;
    std::function<std::vector<std::string>(const std::optional<std::string>&, const std::string&)> preview;

    std::string path() const { return folder + "/" + file; }
};

std::vector<Agent> agents() {
    std::string base = home();
    auto codexPreview = [](const std::optional<std::string>& config, const std::string& corvexd) {
        std::vector<std::string> lines;
        if (codexHookState(config, corvexd) == HookState::installed) return lines;
        std::string after = withCodexNotify(config, corvexd);
        auto words = codexNotify(after);
        std::string line = codexNotifyLine(*words);
        line.pop_back();
        lines.push_back(line);
        return lines;
    };
    return {
        {"claude", base + "/.claude", "settings.json", withClaudeHooks, withoutClaudeHooks, claudeHookState,
         claudeHookPreview},
        {"codex", base + "/.codex", "config.toml", withCodexNotify, withoutCodexNotify, codexHookState, codexPreview},
    };
}

std::optional<Agent> agentNamed(const std::string& name) {
    for (auto& agent : agents()) {
        if (agent.name == name) return agent;
    }
    return std::nullopt;
}

// The new text in place, the old one kept beside it.
void replaceFile(const Agent& agent, const std::optional<std::string>& before, const std::string& after) {
    if (before && *before == after) return;
    makeDirectory(agent.folder);
    if (before) writeFileWhole(agent.path() + ".corvex-backup", *before);
    writeFileWhole(agent.path(), after);
}

int change(const Agent& agent, bool installing) {
    std::string corvexd = thisExecutable();
    auto before = readFile(agent.path());
    if (!installing && !before) return 0;
    std::string after = installing ? agent.install(before, corvexd) : agent.uninstall(*before);
    replaceFile(agent, before, after);
    std::cout << agent.name << " " << wireName(agent.state(readFile(agent.path()), corvexd)) << "\n";
    return 0;
}

} // namespace

int hooksCommand(const std::vector<std::string>& arguments) {
    if (arguments.size() == 1 && arguments[0] == "status") {
        std::string corvexd = thisExecutable();
        for (const auto& agent : agents()) {
            std::cout << agent.name << " " << wireName(agent.state(readFile(agent.path()), corvexd)) << "\n";
        }
        return 0;
    }
    if (arguments.size() != 2) {
        std::cerr << hooksUsage;
        return 2;
    }
    auto agent = agentNamed(arguments[1]);
    if (!agent) return fail("unknown agent " + arguments[1] + " (claude or codex)");
    try {
        if (arguments[0] == "print") {
            for (const auto& line : agent->preview(readFile(agent->path()), thisExecutable())) std::cout << line << "\n";
            return 0;
        }
        if (arguments[0] == "install") return change(*agent, true);
        if (arguments[0] == "uninstall") return change(*agent, false);
    } catch (const HookError& error) {
        return fail(error.what());
    }
    std::cerr << hooksUsage;
    return 2;
}

} // namespace corvexd
