#include "CorvexKit/LocalDaemon.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <signal.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/System.h"

extern char** environ;

namespace corvex {

namespace {

std::string trimmed(std::string text) {
    const char* blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return {};
    size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

std::string readAll(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string uniqueName() {
    std::random_device random;
    std::ostringstream name;
    name << std::hex << random() << random();
    return name.str();
}

bool startsWith(const std::string& text, std::string_view prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

} // namespace

std::vector<std::string> LocalDaemon::environment(const std::vector<std::string>& inherited,
                                                  const std::optional<std::string>& runtimeDir,
                                                  const std::optional<std::string>& installDir) {
    std::vector<std::string> result;
    for (const auto& entry : inherited) {
        if (startsWith(entry, "DROVER_") || startsWith(entry, "CORVEX_") || startsWith(entry, "CORVEXD_")) continue;
        result.push_back(entry);
    }
    if (runtimeDir) {
        result.push_back("CORVEXD_RUNTIME_DIR=" + *runtimeDir);
        std::string folder = *runtimeDir;
        while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
        result.push_back("CORVEXD_EPHEMERAL=exit");
        result.push_back("CORVEXD_CONFIG=" + folder + "/config.toml");
    }
    if (installDir) result.push_back("CORVEXD_INSTALL_DIR=" + *installDir);
    return result;
}

LocalDaemon::Result LocalDaemon::run(const std::string& executable, const std::vector<std::string>& arguments) const {
    std::vector<std::string> inherited;
    for (char** entry = environ; entry && *entry; ++entry) inherited.emplace_back(*entry);
    std::vector<std::string> env = environment(inherited, runtimeDir, installDir);

    // Files, not pipes: a daemonising child may keep an inherited pipe open for ever.
    std::string base = platform::temporaryDirectory() + "/corvexd-" + uniqueName();
    std::string outPath = base + ".out", errPath = base + ".err";

    std::vector<char*> argv{const_cast<char*>(executable.c_str())};
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& entry : env) envp.push_back(entry.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGTERM);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    Result result;
    pid_t pid = -1;
    int error = posix_spawn(&pid, executable.c_str(), &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        result.err = "can't run " + executable + ": " + std::strerror(error);
        return result;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = trimmed(readAll(outPath));
    result.err = trimmed(readAll(errPath));
    std::error_code ignored;
    std::filesystem::remove(outPath, ignored);
    std::filesystem::remove(errPath, ignored);
    return result;
}

std::string LocalDaemon::installedPath() const {
    // The daemon installs itself only where it offers to; until then the bundled one serves.
    return source;
}

std::string LocalDaemon::socketPath() const {
    Result result = run(installedPath(), {"status", "--print-socket"});
    if (result.status != 0) return {};
    return result.out;
}

void LocalDaemon::start() const {
    std::string path = installedPath();
    Result result = run(path, {"start"});
    if (result.status == 0) return;
    if (log) log("start (" + path + ") exited with " + std::to_string(result.status));
    if (result.status == 3)
        throw Failure(Failure::Kind::holderTooOld,
                      result.err.empty() ? "The running shells use an older corvexd." : result.err);
    throw Failure(Failure::Kind::failed,
                  result.err.empty() ? "corvexd start exited with " + std::to_string(result.status) : result.err);
}

void LocalDaemon::shutdownAndRemove() const {
    run(installedPath(), {"shutdown"});
    std::error_code ignored;
    if (installDir) std::filesystem::remove_all(*installDir, ignored);
    if (runtimeDir) std::filesystem::remove_all(*runtimeDir, ignored);
}

} // namespace corvex
