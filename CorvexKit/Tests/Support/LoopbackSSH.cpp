#include "Support/LoopbackSSH.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <pwd.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "CorvexKit/ProcessRun.h"

namespace corvex::testing {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr const char* sshdPath = "/usr/sbin/sshd";

void mustRun(const std::string& program, const std::vector<std::string>& arguments) {
    ProcessRequest request{program, arguments, std::nullopt, std::nullopt, false};
    auto result = runProcess(request);
    if (result.status != 0) {
        throw std::runtime_error(program + " failed (" + std::to_string(result.status) + "): " + result.err);
    }
}

int freeLoopbackPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

bool accepts(int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

void writeText(const std::string& path, const std::string& text, mode_t mode) {
    std::ofstream(path) << text;
    ::chmod(path.c_str(), mode);
}

uid_t ownerOf(const std::string& path) {
    struct stat info{};
    return ::stat(path.c_str(), &info) == 0 ? info.st_uid : static_cast<uid_t>(-1);
}

} // namespace

std::optional<std::string> LoopbackSSH::unavailableReason() {
    if (::geteuid() != 0) return "needs root to make a throwaway user for the loopback sshd";
    if (::access(sshdPath, X_OK) != 0) return "needs OpenSSH's server at /usr/sbin/sshd";
    return std::nullopt;
}

LoopbackSSH::LoopbackSSH() {
    char pattern[] = "/tmp/corvex-ssh-XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    folder_ = pattern;
    // sshd reads the authorized keys as the user, who must be able to reach them.
    ::chmod(folder_.c_str(), 0755);
    fs::create_directories(clientHome());

    static std::atomic<int> counter{0};
    user_ = "cvx" + std::to_string(::getpid()) + "x" + std::to_string(counter++);
    home_ = "/home/" + user_;
    // "*" rather than no password: sshd without PAM turns a locked account away.
    mustRun("/usr/sbin/useradd", {"-M", "-d", home_, "-s", "/bin/sh", "-p", "*", user_});
    passwd* entry = ::getpwnam(user_.c_str());
    if (!entry) throw std::runtime_error("no user " + user_ + " after useradd");
    uid_ = entry->pw_uid;
    resetAccount();

    mustRun("/usr/bin/ssh-keygen", {"-q", "-t", "ed25519", "-N", "", "-f", folder_ + "/host_key"});
    mustRun("/usr/bin/ssh-keygen", {"-q", "-t", "ed25519", "-N", "", "-f", folder_ + "/client_key"});
    fs::copy_file(folder_ + "/client_key.pub", folder_ + "/authorized_keys");
    ::chmod((folder_ + "/authorized_keys").c_str(), 0644);
    ::mkdir("/run/sshd", 0755); // sshd's privilege separation folder

    int port = freeLoopbackPort();
    writeText(folder_ + "/sshd_config",
              "ListenAddress 127.0.0.1\n"
              "Port " + std::to_string(port) + "\n"
              "HostKey " + folder_ + "/host_key\n"
              "PidFile " + folder_ + "/sshd.pid\n"
              "AuthorizedKeysFile " + folder_ + "/authorized_keys\n"
              "UsePAM no\nPubkeyAuthentication yes\nPasswordAuthentication no\n"
              "KbdInteractiveAuthentication no\nStrictModes no\nPermitRootLogin no\n"
              "AllowUsers " + user_ + "\nMaxSessions 50\nMaxStartups 50\nLogLevel ERROR\n",
              0644);
    writeText(clientConfig(),
              "Host 127.0.0.1\n"
              "  Port " + std::to_string(port) + "\n"
              "  IdentityFile " + folder_ + "/client_key\n"
              "  IdentitiesOnly yes\n"
              "  UserKnownHostsFile " + folder_ + "/known_hosts\n"
              "  StrictHostKeyChecking no\n"
              "  LogLevel ERROR\n",
              0644);

    std::string log = folder_ + "/sshd.log";
    std::string config = folder_ + "/sshd_config";
    sshd_ = ::fork();
    if (sshd_ == 0) {
        int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        ::dup2(out, 1);
        ::dup2(out, 2);
        ::execl(sshdPath, sshdPath, "-D", "-e", "-f", config.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!accepts(port)) {
        if (std::chrono::steady_clock::now() > deadline) {
            std::ifstream said(log);
            throw std::runtime_error("sshd didn't listen: " + std::string(std::istreambuf_iterator<char>(said), {}));
        }
        std::this_thread::sleep_for(20ms);
    }
}

LoopbackSSH::~LoopbackSSH() {
    closeControlMasters();
    endUserProcesses();
    if (sshd_ > 0) {
        ::kill(sshd_, SIGTERM);
        int status = 0;
        ::waitpid(sshd_, &status, 0);
    }
    std::error_code ignored;
    fs::remove_all(fallbackBase(), ignored);
    fs::remove_all("/tmp/corvexd-" + std::to_string(uid_), ignored);
    try {
        mustRun("/usr/sbin/userdel", {"-f", user_});
    } catch (const std::exception&) {
        // Left for the machine's owner; nothing else depends on it.
    }
    fs::remove_all(home_, ignored);
    fs::remove_all(folder_, ignored);
}

void LoopbackSSH::resetAccount() {
    endUserProcesses();
    std::error_code ignored;
    fs::remove_all(home_, ignored);
    fs::remove_all(fallbackBase(), ignored);
    fs::remove_all("/tmp/corvexd-" + std::to_string(uid_), ignored);
    fs::create_directories(home_);
    ::chown(home_.c_str(), uid_, uid_);
    ::chmod(home_.c_str(), 0755);
}

void LoopbackSSH::setShell(const std::string& shell) { mustRun("/usr/sbin/usermod", {"-s", shell, user_}); }

// Control masters of the client side live on after a command; they hold sessions open.
void LoopbackSSH::closeControlMasters() {
    std::error_code ignored;
    for (const auto& entry : fs::recursive_directory_iterator(clientHome(), ignored)) {
        if (!entry.is_socket(ignored)) continue;
        ProcessRequest request{"/usr/bin/ssh", {"-F", clientConfig(), "-o", "ControlPath=" + entry.path().string(), "-O", "exit", target()},
                               std::nullopt, std::nullopt, false};
        try {
            runProcess(request);
        } catch (const std::exception&) {
        }
    }
}

// Only processes of the throwaway user, each by its own id: the daemon and shells the
// tests started there, and the sessions sshd keeps for them.
void LoopbackSSH::endUserProcesses() {
    for (int round = 0; round < 50; ++round) {
        bool found = false;
        std::error_code error;
        for (const auto& entry : fs::directory_iterator("/proc", error)) {
            std::string name = entry.path().filename().string();
            if (name.find_first_not_of("0123456789") != std::string::npos) continue;
            if (ownerOf(entry.path().string()) != uid_) continue;
            found = true;
            ::kill(static_cast<pid_t>(std::stol(name)), SIGKILL);
        }
        if (!found) return;
        std::this_thread::sleep_for(20ms);
    }
}

} // namespace corvex::testing
