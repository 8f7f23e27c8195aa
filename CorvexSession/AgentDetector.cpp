#include "CorvexSession/AgentDetector.h"

#include "Platform/ProcessInfo.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

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

std::optional<ForegroundAgent> foregroundAgent(pid_t pid) {
    auto job = foregroundJob(pid);
    if (!job) return std::nullopt;
    auto kind = agentKindOfCommandLine(commandLine(*job));
    if (!kind) return std::nullopt;
    return ForegroundAgent{*job, *kind};
}

namespace {

// The kernel's answer to PIDFD_GET_INFO (Linux 6.15 and later), as far as the exit status; the
// C library's headers here predate it.
struct PidfdInfo {
    uint64_t mask;
    uint64_t cgroupid;
    uint32_t pid, tgid, ppid, ruid, rgid, euid, egid, suid, sgid, fsuid, fsgid;
    int32_t exitCode;
};
static_assert(sizeof(PidfdInfo) == 64);
constexpr uint64_t pidfdInfoExit = 1u << 3;
constexpr unsigned long pidfdGetInfo = _IOWR(0xFF, 11, PidfdInfo);

} // namespace

AgentProcessWatch::AgentProcessWatch(pid_t pid) : pid_(pid) {
#ifdef SYS_pidfd_open
    fd_ = int(::syscall(SYS_pidfd_open, pid, 0));
#endif
}

AgentProcessWatch::~AgentProcessWatch() {
    if (fd_ >= 0) ::close(fd_);
}

bool AgentProcessWatch::ended() const {
    if (fd_ < 0) return !platform::processLives(pid_);
    pollfd entry{fd_, POLLIN, 0};
    return ::poll(&entry, 1, 0) > 0 && (entry.revents & (POLLIN | POLLHUP)) != 0;
}

std::optional<int> AgentProcessWatch::exitStatus() const {
    if (fd_ < 0 || !ended()) return std::nullopt;
    PidfdInfo info{};
    info.mask = pidfdInfoExit;
    if (::ioctl(fd_, pidfdGetInfo, &info) != 0 || !(info.mask & pidfdInfoExit)) return std::nullopt;
    return int(info.exitCode);
}

} // namespace corvex
