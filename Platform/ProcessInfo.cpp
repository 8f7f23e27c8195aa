#include "Platform/ProcessInfo.h"

#include <climits>
#include <csignal>
#include <fstream>
#include <unistd.h>

namespace platform {

namespace {

std::optional<std::string> linkTarget(const std::string& link) {
    char path[PATH_MAX];
    ssize_t length = ::readlink(link.c_str(), path, sizeof(path) - 1);
    if (length <= 0) return std::nullopt;
    return std::string(path, static_cast<size_t>(length));
}

} // namespace

std::string executablePath() { return linkTarget("/proc/self/exe").value_or(""); }

bool processLives(pid_t pid) {
    if (::kill(pid, 0) != 0) return false;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    // The state follows the command name, which is in parentheses and may hold anything.
    auto close = line.rfind(')');
    return close == std::string::npos || close + 2 >= line.size() || line[close + 2] != 'Z';
}

std::optional<std::string> processWorkingDirectory(pid_t pid) {
    return linkTarget("/proc/" + std::to_string(pid) + "/cwd");
}

} // namespace platform
