#include "corvexd/LifecycleShutdown.h"

#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace corvexd {

namespace {

struct ProcessStat {
    char state = '?';
    pid_t session = 0;
    unsigned long long started = 0;
};

std::optional<ProcessStat> readStat(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The command name may hold blanks and parentheses: the fields start after the last ')'.
    auto close = text.rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::istringstream fields(text.substr(close + 1));
    ProcessStat stat;
    pid_t parent = 0, group = 0;
    if (!(fields >> stat.state >> parent >> group >> stat.session)) return std::nullopt;
    // Start time is field 22: skip fields 7 to 21.
    std::string skipped;
    for (int field = 7; field < 22; ++field) fields >> skipped;
    if (!(fields >> stat.started)) return std::nullopt;
    return stat;
}

} // namespace

PaneSessions paneSessions(const std::vector<pid_t>& leaders) {
    PaneSessions sessions;
    for (pid_t leader : leaders) {
        auto stat = readStat(leader);
        if (leader > 0 && stat && stat->session == leader) sessions.emplace(leader, stat->started);
    }
    return sessions;
}

std::vector<pid_t> sessionMembers(const PaneSessions& sessions) {
    std::vector<pid_t> members;
    if (sessions.empty()) return members;
    DIR* proc = ::opendir("/proc");
    if (!proc) return members;
    while (auto* entry = ::readdir(proc)) {
        char* end = nullptr;
        long pid = std::strtol(entry->d_name, &end, 10);
        if (pid <= 0 || *end != '\0') continue;
        auto stat = readStat(static_cast<pid_t>(pid));
        if (!stat || stat->state == 'Z' || stat->state == 'X') continue;
        auto session = sessions.find(stat->session);
        if (session == sessions.end()) continue;
        // A process leading a session of that number but started at another time got the
        // pid of a leader whose whole session had already gone: not ours.
        if (pid == stat->session && stat->started != session->second) continue;
        members.push_back(static_cast<pid_t>(pid));
    }
    ::closedir(proc);
    return members;
}

void endPaneSessions(const PaneSessions& leaders, std::chrono::milliseconds patience) {
    if (leaders.empty()) return;
    auto settled = [&] {
        auto deadline = std::chrono::steady_clock::now() + patience;
        while (!sessionMembers(leaders).empty()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return true;
    };
    auto signalAll = [&](int signal) {
        auto members = sessionMembers(leaders);
        for (pid_t pid : members) ::kill(pid, signal);
        return !members.empty();
    };
    if (settled()) return;
    signalAll(SIGTERM);
    if (settled()) return;
    // A shell in a loop forks between our listing and our kill, and its new child, which may
    // ignore HUP and TERM too, would live on: kill again until the session is empty.
    auto deadline = std::chrono::steady_clock::now() + patience;
    while (signalAll(SIGKILL) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

} // namespace corvexd
