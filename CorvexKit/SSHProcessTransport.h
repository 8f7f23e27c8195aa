#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "CorvexKit/CorvexdTransport.h"

namespace corvex {

// The last bytes an ssh child wrote to its standard error, where the reasons for a failure
// are; whole lines go to onLine as they end. Fed from a thread of its own, hence the lock.
class StderrTail {
public:
    using LineHandler = std::function<void(const std::string& line)>;

    explicit StderrTail(LineHandler onLine = {}, size_t limit = 4096);

    void append(std::string_view bytes);
    // The kept bytes as text, white space trimmed.
    std::string text() const;
    std::string data() const;
    std::string partial() const;

private:
    mutable std::mutex lock_;
    std::string data_;
    std::string partial_;
    size_t limit_;
    LineHandler onLine_;
};

// Reaches a daemon through `ssh TARGET COMMAND`, whose standard input and output lead to a
// bridge on the remote machine.
class SSHProcessTransport final : public CorvexdTransport {
public:
    using ExitHandler = std::function<void(int status, const std::string& stderrText)>;

    static const std::vector<std::string>& baseOptions();
    // The ciphers this machine runs fastest ahead of ssh's defaults, which stay as the
    // fallback; empty where the defaults are already the fastest. See cipherPreference().
    static const std::vector<std::string>& cipherOptions();

    std::string target;
    // Asked at each open; may raise.
    std::function<std::string()> remoteCommand;
    // Work before connecting, such as installing the daemon; may raise.
    std::function<void(const ProgressHandler& progress)> prepare;
    std::string sshPath = "/usr/bin/ssh";
    std::vector<std::string> extraOptions;
    StderrTail::LineHandler onStderrLine;
    ExitHandler onExit;

    std::string name() const override { return target; }
    double maxReconnectDelay() const override { return 30.0; }
    std::optional<double> heartbeatInterval() const override { return 15.0; }
    std::shared_ptr<ByteStream> open(const ProgressHandler& progress) override;

    // The ssh argument vector after the program name.
    std::vector<std::string> arguments(const std::string& command) const;
    // cipherOptions() where the configuration ssh reads for this target leaves the ciphers at
    // ssh's defaults; nothing where it chose its own, or where `ssh -G` can't tell.
    std::vector<std::string> cipherPreference() const;

    // The close reason for a child that exited with this status and said this on stderr.
    static std::optional<std::string> exitReason(const std::string& target, int status, const std::string& stderrText);
};

} // namespace corvex
