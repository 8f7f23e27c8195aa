#include "System.h"

#include <climits>
#include <cstdlib>
#include <fstream>
#include <pwd.h>
#include <unistd.h>
#if defined(__aarch64__) && defined(__linux__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif
#include <vector>

namespace platform {

namespace {

const passwd* passwordEntry(std::vector<char>& buffer, passwd& entry) {
    passwd* result = nullptr;
    buffer.resize(16384);
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &result) != 0) return nullptr;
    return result;
}

std::string unquote(std::string value) {
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
        value = value.substr(1, value.size() - 2);
    }
    return value;
}

std::string prettyHostName() {
    std::ifstream info("/etc/machine-info");
    std::string line;
    const std::string key = "PRETTY_HOSTNAME=";
    while (std::getline(info, line)) {
        if (line.rfind(key, 0) == 0) return unquote(line.substr(key.size()));
    }
    return {};
}

} // namespace

std::string environmentValue(const char* name) {
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}

std::string homeDirectory() {
    if (auto home = environmentValue("HOME"); !home.empty()) return home;
    std::vector<char> buffer;
    passwd entry{};
    if (auto* found = passwordEntry(buffer, entry); found && found->pw_dir) return found->pw_dir;
    return "/";
}

std::string temporaryDirectory() {
    std::string dir = environmentValue("TMPDIR");
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    return dir.empty() ? std::string("/tmp") : dir;
}

uid_t userId() { return getuid(); }

bool hasAESInstructions() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_cpu_init();
    return __builtin_cpu_supports("aes") && __builtin_cpu_supports("pclmul");
#elif defined(__aarch64__) && defined(__linux__)
    const unsigned long capabilities = getauxval(AT_HWCAP);
    return (capabilities & HWCAP_AES) && (capabilities & HWCAP_PMULL);
#else
    return false;
#endif
}

std::string hostName() {
    if (auto pretty = prettyHostName(); !pretty.empty()) return pretty;
    char name[HOST_NAME_MAX + 1] = {};
    if (gethostname(name, sizeof name - 1) != 0) return "localhost";
    return name;
}

std::string userShell() {
    std::vector<char> buffer;
    passwd entry{};
    if (auto* found = passwordEntry(buffer, entry); found && found->pw_shell && *found->pw_shell) return found->pw_shell;
    return "/bin/sh";
}

} // namespace platform
