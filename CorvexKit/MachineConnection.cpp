#include "CorvexKit/MachineConnection.h"

#include <filesystem>
#include <unistd.h>

namespace corvex {

SidebarStatus sidebarStatus(const Machine& machine, const std::optional<ConnectionSnapshot>& connection,
                            const MachineStatus& status, bool hasStoredState) {
    using Dot = SidebarStatus::Dot;
    if (connection) {
        const auto& state = connection->connection;
        if (connection->retryPaused) {
            return {Dot::danger, "Can't connect: " + state.text, "Reconnect", "Try " + machine.label + " again."};
        }
        switch (state.kind) {
        case ConnectionState::Kind::connected: return {Dot::success, {}, {}, {}};
        case ConnectionState::Kind::connecting:
            if (machine.isLocal()) return {Dot::dim, "Starting", {}, {}};
            return {Dot::warning, state.text.empty() ? "Connecting" : "Connecting: " + state.text, {}, {}};
        case ConnectionState::Kind::reconnecting: return {Dot::warning, "Reconnecting: " + state.text, {}, {}};
        case ConnectionState::Kind::idle: break;
        }
    }
    SidebarStatus shown{Dot::dim, "Not connected", {}, {}};
    if (status.kind == MachineStatus::Kind::unreachable) shown = {Dot::danger, "Can't reach " + machine.label, {}, {}};
    if (!connection && !machine.isLocal()) {
        shown.button = "Connect";
        shown.toolTip = "Connect " + machine.label +
                        (hasStoredState ? " and show its workspaces" : " and make a workspace there");
    }
    return shown;
}

MachineStatus checkMachine(RemoteCommandRunner& runner) {
    try {
        auto result = runner.run("true");
        if (result.status != 255) return MachineStatus::reachable();
        return MachineStatus::unreachable(RemoteInstaller::sshMessage(runner.target(), result.stderrText));
    } catch (const std::exception& error) {
        return MachineStatus::unreachable("Can't reach " + runner.target() + " over SSH. " + error.what());
    }
}

bool needsCheck(const std::optional<ConnectionSnapshot>& connection, const MachineStatus& status) {
    if (status.kind == MachineStatus::Kind::checking) return false;
    return !connection || !connection->connection.isConnected();
}

bool shouldReconnectAfterNetworkChange(const ConnectionSnapshot& connection) {
    return connection.retryPaused || connection.connection.kind == ConnectionState::Kind::reconnecting;
}

bool NetworkChangeFilter::update(Clock::time_point now, bool satisfied, const std::set<std::string>& interfaces) {
    bool first = !seenFirst_;
    bool changed = interfaces != lastInterfaces_ || (satisfied && !lastSatisfied_);
    seenFirst_ = true;
    lastSatisfied_ = satisfied;
    lastInterfaces_ = interfaces;
    if (first || !satisfied || now - start_ < settleTime) return false;
    return changed;
}

bool ReconnectThrottle::allow(Clock::time_point now) {
    if (last_ && now - *last_ <= interval) return false;
    last_ = now;
    return true;
}

bool CheckSchedule::due(Clock::time_point now) {
    if (last_ && now - *last_ < interval) return false;
    last_ = now;
    return true;
}

RemoteLinkSettings RemoteLinkSettings::from(const Preferences& preferences, std::string dist, SSHOptions ssh) {
    RemoteLinkSettings settings;
    settings.dist = std::move(dist);
    bool development = ssh.developmentBuild;
    settings.installDir = preferences.string("RemoteInstallDir");
    if (!settings.installDir && development) settings.installDir = std::string(RemoteSetup::devInstallDir);
    settings.runtimeDir = preferences.string("RemoteRuntimeDir");
    if (!settings.runtimeDir && development) settings.runtimeDir = std::string(RemoteSetup::devRuntimeDir);
    if (development) settings.ephemeral = "exit";
    settings.ssh = std::move(ssh);
    return settings;
}

RemoteLink makeRemoteLink(const std::string& target, const std::string& label, const RemoteLinkSettings& settings) {
    RemoteLink link;
    link.transport = std::make_shared<SSHProcessTransport>();
    link.transport->target = target;
    link.transport->sshPath = settings.sshPath;
    link.transport->extraOptions = settings.ssh.bridge();
    if (::access((settings.dist + "/manifest.json").c_str(), R_OK) != 0) {
        if (settings.log) {
            settings.log(label + ": no bundled corvexd builds; remote connections need the app built with build-app.sh");
        }
        link.transport->prepare = [](const ProgressHandler&) {
            throw RemoteFailure("This build of Corvex doesn't include corvexd for remote machines.");
        };
        link.transport->remoteCommand = [] { return std::string(); };
        return link;
    }
    auto runner = std::make_shared<SSHCommandRunner>(target, settings.ssh.oneOff(), settings.sshPath);
    link.installer = std::make_shared<RemoteInstaller>(runner, settings.dist, settings.installDir, settings.runtimeDir,
                                                       settings.ephemeral, settings.log);
    settings.ssh.ensureControlDirectory();
    auto installer = link.installer;
    link.transport->prepare = [installer](const ProgressHandler& progress) { installer->prepare(progress); };
    link.transport->remoteCommand = [installer] { return installer->bridgeCommand(); };
    return link;
}

std::string bundledDistFolder(const std::string& executable) {
    namespace fs = std::filesystem;
    return (fs::path(executable).parent_path().parent_path() / "share" / "corvex" / "corvexd-dist").string();
}

} // namespace corvex
