#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace corvex {

struct RemoteCommandResult {
    int32_t status = 0;
    // Not "stdout" and "stderr": those are macros in some C libraries.
    std::string stdoutText;
    std::string stderrText;

    bool operator==(const RemoteCommandResult&) const = default;
};

// Runs one shell command on a machine to its end.
class RemoteCommandRunner {
public:
    virtual ~RemoteCommandRunner() = default;
    virtual std::string target() const = 0;
    // Throws RemoteFailure when the command can't be run at all.
    virtual RemoteCommandResult run(const std::string& command, const std::optional<std::string>& input = {}) = 0;
};

// `ssh [options] -- TARGET COMMAND`. Blocks: run it off the main thread.
class SSHCommandRunner final : public RemoteCommandRunner {
public:
    SSHCommandRunner(std::string target, std::vector<std::string> options, std::string sshPath = "/usr/bin/ssh");

    std::string target() const override { return target_; }
    const std::vector<std::string>& options() const { return options_; }
    // The target is checked first, so a text such as "-oProxyCommand=..." never reaches ssh.
    RemoteCommandResult run(const std::string& command, const std::optional<std::string>& input = {}) override;

private:
    std::string target_;
    std::vector<std::string> options_;
    std::string sshPath_;
};

} // namespace corvex
