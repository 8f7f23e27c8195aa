#include "CorvexSession/AgentDetector.h"

#include <cstdio>
#include <fstream>
#include <iterator>

namespace corvex {

namespace {

std::string baseName(const std::string& path) {
    auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool isInterpreter(const std::string& name) {
    return name == "node" || name == "nodejs" || name == "npx" || name == "bun" || name == "sh" || name == "bash" ||
           name == "dash" || name == "zsh" || name.starts_with("node") || name.starts_with("python");
}

std::optional<std::string> kindOfWord(const std::string& word) {
    auto name = baseName(word);
    if (name == "claude" || word.find("/claude-code/") != std::string::npos || word == "@anthropic-ai/claude-code") {
        return "claude";
    }
    if (name == "codex" || word.find("/@openai/codex/") != std::string::npos || word == "@openai/codex") {
        return "codex";
    }
    return std::nullopt;
}

// The fields after the command's name in /proc/PID/stat.
std::optional<std::string> statFields(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto close = line.rfind(')');
    if (close == std::string::npos) return std::nullopt;
    return line.substr(close + 1);
}

std::vector<std::string> commandLine(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline");
    std::string raw((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<std::string> words;
    size_t start = 0;
    for (size_t at = 0; at < raw.size(); ++at) {
        if (raw[at] != '\0') continue;
        words.push_back(raw.substr(start, at - start));
        start = at + 1;
    }
    if (start < raw.size()) words.push_back(raw.substr(start));
    return words;
}

} // namespace

std::optional<std::string> agentKindOfCommandLine(const std::vector<std::string>& words) {
    if (words.empty()) return std::nullopt;
    if (auto kind = kindOfWord(words[0])) return kind;
    if (!isInterpreter(baseName(words[0]))) return std::nullopt;
    // The first word that isn't an option is the script or package it runs.
    for (size_t i = 1; i < words.size(); ++i) {
        if (words[i].starts_with("-")) continue;
        return kindOfWord(words[i]);
    }
    return std::nullopt;
}

std::optional<pid_t> foregroundJob(pid_t pid) {
    auto fields = statFields(pid);
    if (!fields) return std::nullopt;
    char state = 0;
    int parent = 0, group = 0, session = 0, tty = 0, foreground = 0;
    if (std::sscanf(fields->c_str(), " %c %d %d %d %d %d", &state, &parent, &group, &session, &tty, &foreground) != 6) {
        return std::nullopt;
    }
    if (foreground <= 0 || foreground == group) return std::nullopt;
    return pid_t(foreground);
}

std::optional<std::string> foregroundAgent(pid_t pid) {
    auto job = foregroundJob(pid);
    if (!job) return std::nullopt;
    return agentKindOfCommandLine(commandLine(*job));
}

} // namespace corvex
