#include "CorvexKit/SSHDiagnosis.h"

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <fcntl.h>
#include <filesystem>
#include <initializer_list>
#include <spawn.h>
#include <sys/wait.h>
#include <cstring>
#include <unistd.h>
#include <vector>

#include "Platform/System.h"

extern char** environ;

namespace corvex {

namespace {

bool containsAny(std::string_view text, std::initializer_list<std::string_view> needles) {
    return std::any_of(needles.begin(), needles.end(),
                       [&](std::string_view needle) { return text.find(needle) != std::string_view::npos; });
}

std::string lowered(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string trimmedBlanks(std::string_view line) {
    const char* blanks = " \t\r\f\v";
    size_t first = line.find_first_not_of(blanks);
    if (first == std::string_view::npos) return "";
    size_t last = line.find_last_not_of(blanks);
    return std::string(line.substr(first, last - first + 1));
}

std::string lastNonEmptyLine(std::string_view text) {
    std::string_view last;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        if (end > start) last = text.substr(start, end - start);
        start = end + 1;
    }
    return trimmedBlanks(last);
}

bool folderHoldsPrivateKey(const std::string& sshFolder) {
    std::error_code error;
    std::filesystem::directory_iterator entries(sshFolder, error);
    if (error) return false;
    for (const auto& entry : entries) {
        std::string name = entry.path().filename().string();
        if (!name.starts_with("id_") || name.ends_with(".pub")) continue;
        if (entry.is_regular_file(error)) return true;
    }
    return false;
}

bool agentHoldsKey(const std::string& sshAddPath) {
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return false;
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char*> argv{const_cast<char*>(sshAddPath.c_str()), const_cast<char*>("-l"), nullptr};
    pid_t pid = 0;
    int spawned = posix_spawn(&pid, sshAddPath.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return false;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return false;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// What `ssh-keygen -R` wants: the host without a login in front.
std::string_view hostOf(std::string_view target) {
    size_t at = target.rfind('@');
    return at == std::string_view::npos ? target : target.substr(at + 1);
}

#ifdef __APPLE__
constexpr std::string_view thisComputer = "this Mac";
constexpr std::string_view ThisComputer = "This Mac";
#else
constexpr std::string_view thisComputer = "this computer";
constexpr std::string_view ThisComputer = "This computer";
#endif

} // namespace

SSHDiagnosis SSHDiagnosis::classify(std::string_view stderrText, bool hasKeys) {
    std::string text = lowered(stderrText);
    auto has = [&](std::string_view needle) { return text.find(needle) != std::string::npos; };

    if (has("remote host identification has changed") || (has("host key") && has("has chan"))) {
        return of(Kind::hostKeyChanged);
    }
    // "no matching host key type" is a key-type mismatch, not an unknown key: ssh's own
    // line says more about it than we could.
    if (has("host key verification failed") || (has("no matching host key") && !has("type"))) {
        return of(Kind::hostKeyUnknown);
    }
    if (containsAny(text, {"could not resolve hostname", "name or service not known", "nodename nor servname"})) {
        return of(Kind::unknownHost);
    }
    if (containsAny(text, {"permission denied", "too many authentication failures", "no more authentication methods"})) {
        return of(hasKeys ? Kind::authRejected : Kind::noKey);
    }
    if (has("connection refused")) return of(Kind::refused);
    if (containsAny(text, {"timed ou", "no route to host", "network is unreachable", "host is down"})) {
        return of(Kind::timedOut);
    }
    std::string line = lastNonEmptyLine(stderrText);
    if (line.empty()) return other("ssh failed without saying why.");
    return other(std::move(line));
}

bool SSHDiagnosis::hasKeys() { return hasKeys(platform::homeDirectory()); }

bool SSHDiagnosis::hasKeys(const std::string& home, const std::string& sshAddPath) {
    return folderHoldsPrivateKey(home + "/.ssh") || agentHoldsKey(sshAddPath);
}

std::string SSHDiagnosis::title() const {
    switch (kind) {
    case Kind::noKey: return "There's no SSH key on " + std::string(thisComputer);
    case Kind::authRejected: return "The machine didn't accept your SSH key";
    case Kind::hostKeyUnknown: return std::string(ThisComputer) + " hasn't seen the machine's host key yet";
    case Kind::hostKeyChanged: return "The machine's host key has changed";
    case Kind::unknownHost: return "That machine name wasn't found";
    case Kind::refused: return "The machine refused the connection";
    case Kind::timedOut: return "The machine didn't answer";
    case Kind::other: break;
    }
    return "SSH couldn't connect";
}

std::string SSHDiagnosis::advice(std::string_view target) const {
    const std::string t(target);
    switch (kind) {
    case Kind::noKey:
        return "Corvex signs in with an SSH key and never asks for a password. Make a key in Terminal, then copy it "
               "to the machine (this one asks for its password once):\n\n"
               "    ssh-keygen -t ed25519\n"
               "    ssh-copy-id " + t;
    case Kind::authRejected:
        return "Copy your key to the machine (it asks for the password once), or add the right IdentityFile for it "
               "to ~/.ssh/config:\n\n"
               "    ssh-copy-id " + t;
    case Kind::hostKeyUnknown:
        return "Connect once in Terminal and answer \"yes\" if the fingerprint is the one you expect. Corvex never "
               "accepts a host key for you.\n\n"
               "    ssh " + t + " true";
    case Kind::hostKeyChanged:
        return "Either the machine was reinstalled or something is in the way. If you know why it changed, forget the "
               "old key and connect once in Terminal to accept the new one:\n\n"
               "    ssh-keygen -R " + std::string(hostOf(target)) + "\n"
               "    ssh " + t + " true";
    case Kind::unknownHost:
        return "Check the spelling. You can use user@host, an alias from ~/.ssh/config, an IP address or a Tailscale "
               "name.";
    case Kind::refused:
        return "SSH isn't running there, or listens on another port. On a Mac, turn on System Settings \u203a General "
               "\u203a Sharing \u203a Remote Login. For another port, add a Host entry with Port to ~/.ssh/config.";
    case Kind::timedOut:
        return "Check that the machine is on and on the same network or tailnet, and that a firewall isn't blocking "
               "port 22.";
    case Kind::other: break;
    }
    return text;
}

std::vector<std::string> SSHCheck::arguments(std::string_view target) {
    return {"-o", "BatchMode=yes", "-o", "ConnectTimeout=8", "-o", "ControlMaster=no",
            "-o", "ControlPath=none", "--", std::string(target), "true"};
}

SSHCheck::Result SSHCheck::run(const std::string& target, const std::string& sshPath,
                               const std::function<bool()>& hasKeys) {
    auto cannotStart = [&](int error) {
        return Result{SSHDiagnosis::other("Couldn't run " + sshPath + ": " + std::strerror(error))};
    };
    int errorPipe[2];
    if (pipe2(errorPipe, O_CLOEXEC) != 0) return cannotStart(errno);

    std::vector<std::string> args = arguments(target);
    std::vector<char*> argv{const_cast<char*>(sshPath.c_str())};
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, errorPipe[1], 2);
    pid_t pid = 0;
    int spawned = posix_spawn(&pid, sshPath.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(errorPipe[1]);
    if (spawned != 0) {
        close(errorPipe[0]);
        return cannotStart(spawned);
    }

    std::string stderrText;
    char buffer[4096];
    for (;;) {
        ssize_t n = read(errorPipe[0], buffer, sizeof(buffer));
        if (n > 0) {
            stderrText.append(buffer, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    close(errorPipe[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return cannotStart(errno);
    }
    // Only 255 is ssh's own failure; any other status means the connection was made.
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 255) return {};
    return {SSHDiagnosis::classify(stderrText, hasKeys())};
}

} // namespace corvex
