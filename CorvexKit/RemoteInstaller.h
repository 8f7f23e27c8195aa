#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CorvexKit/CorvexdTransport.h"
#include "CorvexKit/RemoteSetup.h"
#include "CorvexKit/SSHCommandRunner.h"
#include "CorvexKit/SSHTarget.h"

namespace corvex {

// How the daemon on a machine compares with the build this application ships.
struct VersionStatus {
    enum class Kind { current, updateAvailable, appOutdated };
    Kind kind = Kind::current;
    std::string running; // the build id there, for the two offers

    static VersionStatus current() { return {}; }
    static VersionStatus updateAvailable(std::string running) { return {Kind::updateAvailable, std::move(running)}; }
    static VersionStatus appOutdated(std::string running) { return {Kind::appOutdated, std::move(running)}; }
    bool operator==(const VersionStatus&) const = default;
};

// Brings one machine from "reachable over ssh" to "a suitable corvexd is installed and its
// path is known": it probes, uploads the bundled build to a fresh machine, and picks the
// executable to bridge to. Everything here blocks on ssh: run it off the main thread. The
// stored path and status are read under a lock, so any thread may ask for them.
class RemoteInstaller {
public:
    using Log = std::function<void(const std::string& line)>;

    RemoteInstaller(std::shared_ptr<RemoteCommandRunner> runner, std::string dist,
                    const std::optional<std::string>& installDir = {}, const std::optional<std::string>& runtimeDir = {},
                    const std::optional<std::string>& ephemeral = {}, Log log = {});

    // Runs on every connection attempt, so a transient failure leaves nothing behind.
    // Throws RemoteFailure.
    void prepare(const ProgressHandler& progress = {});

    // "<env>'<path>' bridge"; throws RemoteFailure before prepare has succeeded.
    std::string bridgeCommand() const;
    RemoteCommandResult runCorvexd(const std::vector<std::string>& arguments);
    // Installs the bundled build when needed and swaps the running server for it.
    void switchToInstalledBuild();
    // Ends every shell on the machine.
    void shutdownSessions();

    std::optional<std::string> outdatedDaemonExe() const;
    VersionStatus versionStatus() const;
    std::optional<std::string> bridgePath() const;
    std::optional<RemoteSetup::Probe> lastProbe() const;

    // "Can't reach <target> over SSH", and ". <what ssh said>" when it said something.
    static std::string sshMessage(const std::string& target, const std::string& stderrText);

private:
    std::string install(const RemoteSetup::Build& build, const RemoteSetup::Probe& probe);
    std::string requireBridgePath() const;
    std::string target() const { return runner_->target(); }
    void log(const std::string& line) const;
    [[noreturn]] void failOverSSH(const RemoteCommandResult& result) const;

    const std::string dist_;
    const std::shared_ptr<RemoteCommandRunner> runner_;
    const std::string env_;
    const Log log_;

    mutable std::mutex lock_;
    std::optional<std::string> bridgePath_;
    std::optional<std::string> outdatedDaemon_;
    std::optional<std::string> installedBuild_;
    std::optional<RemoteSetup::Probe> lastProbe_;
    std::optional<RemoteSetup::Build> bundled_;
    VersionStatus status_;
};

} // namespace corvex
