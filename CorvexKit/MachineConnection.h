#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "CorvexKit/Machine.h"
#include "CorvexKit/ModelStore.h"
#include "CorvexKit/RemoteInstaller.h"
#include "CorvexKit/SSHOptions.h"
#include "CorvexKit/SSHProcessTransport.h"

namespace corvex {

// What a check of a machine without a live connection found.
struct MachineStatus {
    enum class Kind { unknown, checking, reachable, unreachable };
    Kind kind = Kind::unknown;
    std::string detail; // for unreachable

    static MachineStatus unknown() { return {}; }
    static MachineStatus checking() { return {Kind::checking, {}}; }
    static MachineStatus reachable() { return {Kind::reachable, {}}; }
    static MachineStatus unreachable(std::string detail) { return {Kind::unreachable, std::move(detail)}; }
    bool operator==(const MachineStatus&) const = default;
};

// The state of a machine's connection, as its store publishes it.
struct ConnectionSnapshot {
    ConnectionState connection;
    bool retryPaused = false;
};

// One machine's live link: its backend's store and, for a remote machine, its installer.
// The app keeps one per connected machine, on the main thread.
class MachineConnection {
public:
    MachineConnection(Machine machine, std::unique_ptr<ModelStore> store, std::shared_ptr<RemoteInstaller> installer = {})
        : machine_(std::move(machine)), store_(std::move(store)), installer_(std::move(installer)) {}

    const Machine& machine() const { return machine_; }
    ModelStore& store() const { return *store_; }
    const std::shared_ptr<RemoteInstaller>& installer() const { return installer_; }
    // The machine's label; this computer goes by its current name.
    std::string title(const std::string& computerName) const {
        return machine_.isLocal() ? Machine::local(computerName).label : machine_.label;
    }
    ConnectionSnapshot snapshot() const { return {store_->connection(), store_->retryPaused()}; }

private:
    Machine machine_;
    std::unique_ptr<ModelStore> store_;
    std::shared_ptr<RemoteInstaller> installer_;
};

// One machine's line in the sidebar: the dot's colour, the text beside it, and the button
// of its group.
struct SidebarStatus {
    enum class Dot { success, dim, warning, danger };
    Dot dot = Dot::dim;
    std::string text;   // empty when there is nothing to say
    std::string button; // "Reconnect", "Connect" or empty
    std::string toolTip;
    bool operator==(const SidebarStatus&) const = default;
};

// `connection` is absent for a machine that has none; `hasStoredState` tells whether a
// saved state would be shown for it.
SidebarStatus sidebarStatus(const Machine& machine, const std::optional<ConnectionSnapshot>& connection,
                            const MachineStatus& status, bool hasStoredState);

// Runs "true" over ssh: reachable when the connection was made, whatever the command did.
MachineStatus checkMachine(RemoteCommandRunner& runner);
// A machine known to be reachable with a live connection needs no check.
bool needsCheck(const std::optional<ConnectionSnapshot>& connection, const MachineStatus& status);
// After a wake or a network change, only links that are down are pushed to try again.
bool shouldReconnectAfterNetworkChange(const ConnectionSnapshot& connection);

// The guards of the network watch. A path monitor reports at start, and often several times
// for one change; only a real change of a working path, once settled, reconnects.
class NetworkChangeFilter {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr auto settleTime = std::chrono::seconds(5);

    explicit NetworkChangeFilter(Clock::time_point monitorStart) : start_(monitorStart) {}

    // True when this update calls for a reconnect pass.
    bool update(Clock::time_point now, bool satisfied, const std::set<std::string>& interfaces);

private:
    Clock::time_point start_;
    bool seenFirst_ = false;
    bool lastSatisfied_ = false;
    std::set<std::string> lastInterfaces_;
};

// At most one reconnect pass in 2 seconds, whatever asked for it.
class ReconnectThrottle {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr auto interval = std::chrono::seconds(2);

    bool allow(Clock::time_point now);

private:
    std::optional<Clock::time_point> last_;
};

// Machine checks run at launch and on activation, at most once a minute.
class CheckSchedule {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr auto interval = std::chrono::seconds(60);

    bool due(Clock::time_point now);

private:
    std::optional<Clock::time_point> last_;
};

// What a remote connection is built from.
struct RemoteLinkSettings {
    std::string dist; // the folder of bundled daemon builds with manifest.json
    std::optional<std::string> installDir;
    std::optional<std::string> runtimeDir;
    std::optional<std::string> ephemeral;
    SSHOptions ssh;
    std::string sshPath = "/usr/bin/ssh";
    RemoteInstaller::Log log;

    // RemoteInstallDir and RemoteRuntimeDir, else the development folders in a development
    // build, which also runs its remote daemons ephemeral.
    static RemoteLinkSettings from(const Preferences& preferences, std::string dist, SSHOptions ssh);
};

// The installer and the bridge transport of one remote machine: every open of the
// transport runs the installer's prepare first, then ssh starts the bridge it chose.
struct RemoteLink {
    std::shared_ptr<RemoteInstaller> installer; // absent when this build ships no daemons
    std::shared_ptr<SSHProcessTransport> transport;
};
RemoteLink makeRemoteLink(const std::string& target, const std::string& label, const RemoteLinkSettings& settings);

// The daemon builds shipped with the program at `executable`: share/corvex/corvexd-dist
// one level above its folder (the build tree and an install prefix alike).
std::string bundledDistFolder(const std::string& executable);

} // namespace corvex
