#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

namespace corvex::testing {

// A real OpenSSH server on a free loopback port, with its own host key and configuration in
// a temporary folder, letting in one throwaway local user (empty home, key login only).
// Making the user takes root; unavailableReason() says why the tests must skip otherwise.
class LoopbackSSH {
public:
    static std::optional<std::string> unavailableReason();

    LoopbackSSH();
    ~LoopbackSSH();
    LoopbackSSH(const LoopbackSSH&) = delete;
    LoopbackSSH& operator=(const LoopbackSSH&) = delete;

    // "user@127.0.0.1"; the client configuration carries the port and the key.
    std::string target() const { return user_ + "@127.0.0.1"; }
    // An ssh client configuration file (for -F, or CORVEX_SSH_CONFIG).
    std::string clientConfig() const { return folder_ + "/ssh_config"; }
    // A home folder of the client side's own, so control sockets stay in the test.
    // Short: ssh's control socket names must fit a socket address.
    std::string clientHome() const { return folder_ + "/h"; }
    const std::string& user() const { return user_; }
    const std::string& home() const { return home_; }
    uid_t uid() const { return uid_; }
    // The per-user temporary base the installer falls back to.
    std::string fallbackBase() const { return "/tmp/corvexd-bin-" + std::to_string(uid_); }
    std::string defaultBase() const { return home_ + "/.local/share/corvexd/bin"; }

    // Empties the user's home and ends everything the user runs, as if never contacted.
    void resetAccount();
    void setShell(const std::string& shell);

private:
    void endUserProcesses();
    void closeControlMasters();

    std::string folder_;
    std::string user_;
    std::string home_;
    uid_t uid_ = 0;
    pid_t sshd_ = -1;
};

} // namespace corvex::testing
