#include "CorvexKit/RemoteInstaller.h"

#include <algorithm>
#include <fstream>
#include <iterator>

namespace corvex {

namespace rs = RemoteSetup;

namespace {

std::string trimmed(std::string_view text) {
    const char* space = " \t\r\n\f\v";
    size_t first = text.find_first_not_of(space);
    if (first == std::string_view::npos) return {};
    size_t last = text.find_last_not_of(space);
    return std::string(text.substr(first, last - first + 1));
}

std::string readBinary(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw RemoteFailure("Can't read the bundled corvexd at " + path + ".");
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// The value of the first line that starts with "<key>=".
std::optional<std::string> lineValue(std::string_view output, std::string_view key) {
    size_t at = 0;
    while (at < output.size()) {
        size_t end = output.find('\n', at);
        if (end == std::string_view::npos) end = output.size();
        std::string_view line = output.substr(at, end - at);
        if (line.size() > key.size() && line.starts_with(key) && line[key.size()] == '=') {
            return trimmed(line.substr(key.size() + 1));
        }
        at = end + 1;
    }
    return std::nullopt;
}

// "<base>/<id>/corvexd" without its last two components.
std::string baseOfInstalled(const std::string& path) {
    auto cut = path.rfind('/');
    if (cut == std::string::npos || cut == 0) return {};
    cut = path.rfind('/', cut - 1);
    if (cut == std::string::npos) return {};
    return path.substr(0, cut);
}

std::optional<std::string> newest(std::vector<std::string> ids) {
    if (ids.empty()) return std::nullopt;
    std::sort(ids.begin(), ids.end());
    return ids.back();
}

} // namespace

RemoteInstaller::RemoteInstaller(std::shared_ptr<RemoteCommandRunner> runner, std::string dist,
                                 const std::optional<std::string>& installDir,
                                 const std::optional<std::string>& runtimeDir,
                                 const std::optional<std::string>& ephemeral, Log log)
    : dist_(std::move(dist)), runner_(std::move(runner)), env_(rs::envPrefix(installDir, runtimeDir, ephemeral)),
      log_(std::move(log)) {}

std::string RemoteInstaller::sshMessage(const std::string& target, const std::string& stderrText) {
    std::string detail = trimmed(stderrText);
    return "Can't reach " + target + " over SSH" + (detail.empty() ? "" : ". " + detail);
}

void RemoteInstaller::failOverSSH(const RemoteCommandResult& result) const {
    throw RemoteFailure(sshMessage(target(), result.stderrText), trimmed(result.stderrText));
}

void RemoteInstaller::log(const std::string& line) const {
    if (log_) log_(line);
}

void RemoteInstaller::prepare(const ProgressHandler& progress) {
    auto probed = runner_->run(rs::probeCommand(env_), std::string(rs::probeScript));
    auto probe = rs::Probe::parse(probed.stdoutText);
    if (probed.status == 255) failOverSSH(probed);
    if (!probe) {
        std::string said = trimmed(trimmed(probed.stdoutText) + "\n" + trimmed(probed.stderrText));
        throw RemoteFailure(target() + " didn't answer the corvexd probe; it needs a POSIX shell." +
                            (said.empty() ? "" : " " + said));
    }

    rs::Manifest manifest;
    try {
        manifest = rs::Manifest::load(dist_);
    } catch (const std::exception& error) {
        throw RemoteFailure(std::string("This build of Corvex doesn't include corvexd for remote machines. ") + error.what());
    }
    auto found = manifest.builds.find(probe->platform());
    if (found == manifest.builds.end()) {
        throw RemoteFailure(target() + " runs " + probe->platform() + ", which Corvex has no corvexd build for.");
    }
    const rs::Build& build = found->second;

    bool fresh = probe->isFresh();
    std::string base = probe->base;
    if (!fresh && probe->installed.empty() && probe->fallbackBase) base = *probe->fallbackBase;
    if (fresh) {
        if (progress) progress("Installing corvexd " + manifest.version + " on " + target());
        base = install(build, *probe);
        auto linked = runner_->run(env_ + rs::quote(rs::installedPath(base, build.id)) + " install");
        if (linked.status != 0) {
            log(target() + ": corvexd install exited with " + std::to_string(linked.status) + ": " + trimmed(linked.stderrText));
        }
    }

    const auto& present = probe->installed.empty() ? probe->fallbackInstalled : probe->installed;
    std::string path = base + "/current/corvexd";
    auto usable = runner_->run("[ -x " + rs::quote(path) + " ]");
    if (usable.status == 255) failOverSSH(usable);
    if (usable.status != 0) {
        auto last = newest(present);
        path = rs::installedPath(base, last.value_or(build.id));
    }

    std::optional<std::string> running = probe->daemonBuild;
    if (!running) running = probe->current;
    if (!running) running = newest(present);

    VersionStatus status;
    if (running && !fresh && rs::isOlder(*running, build.id)) {
        log(target() + ": runs " + *running + "; bundled corvexd " + build.id + " is a newer version, offering it");
        status = VersionStatus::updateAvailable(*running);
    } else if (running && rs::isOlder(build.id, *running)) {
        status = VersionStatus::appOutdated(*running);
    }

    std::lock_guard guard(lock_);
    status_ = status;
    bridgePath_ = path;
    installedBuild_ = rs::installedPath(base, build.id);
    outdatedDaemon_ = status.kind == VersionStatus::Kind::updateAvailable ? std::optional(status.running) : std::nullopt;
    lastProbe_ = probe;
    bundled_ = build;
}

std::string RemoteInstaller::install(const rs::Build& build, const rs::Probe& probe) {
    std::string bytes = readBinary(dist_ + "/" + build.file);
    std::string quotedBase = rs::quote(probe.base);
    bool retriedDamaged = false;
    bool triedFallback = false;
    for (;;) {
        auto result = runner_->run(rs::installCommand(build.id, quotedBase, env_), bytes);
        if (result.status == 0) {
            auto installed = lineValue(result.stdoutText, "installed");
            if (!installed) throw RemoteFailure("The install on " + target() + " didn't report a path.");
            return baseOfInstalled(*installed);
        }
        log("Installing corvexd on " + target() + " failed (" + std::to_string(result.status) + "): " +
            trimmed(result.stderrText + result.stdoutText));
        if (result.status == 255) failOverSSH(result);
        if (result.status == 4 && !retriedDamaged) {
            retriedDamaged = true;
            continue;
        }
        if (result.status == 5 && !triedFallback) {
            triedFallback = true;
            quotedBase = std::string(rs::fallbackBase);
            continue;
        }
        std::string detail = trimmed(result.stderrText);
        throw RemoteFailure(detail.empty()
                                ? "Installing corvexd on " + target() + " failed (" + std::to_string(result.status) + ")."
                                : detail);
    }
}

std::string RemoteInstaller::requireBridgePath() const {
    std::lock_guard guard(lock_);
    if (!bridgePath_) throw RemoteFailure("corvexd isn't set up on " + target() + " yet");
    return *bridgePath_;
}

std::string RemoteInstaller::bridgeCommand() const { return rs::bridgeCommand(requireBridgePath(), env_); }

RemoteCommandResult RemoteInstaller::runCorvexd(const std::vector<std::string>& arguments) {
    std::string command = env_ + rs::quote(requireBridgePath());
    for (const auto& argument : arguments) command += " " + rs::quote(argument);
    return runner_->run(command);
}

void RemoteInstaller::switchToInstalledBuild() {
    std::optional<rs::Probe> probe;
    std::optional<rs::Build> build;
    std::optional<std::string> newPath;
    {
        std::lock_guard guard(lock_);
        probe = lastProbe_;
        build = bundled_;
        newPath = installedBuild_;
    }
    if (!probe || !build || !newPath) throw RemoteFailure("corvexd isn't set up on " + target() + " yet");
    const auto& present = probe->installed.empty() ? probe->fallbackInstalled : probe->installed;
    if (std::find(present.begin(), present.end(), build->id) == present.end()) {
        newPath = rs::installedPath(install(*build, *probe), build->id);
    }
    auto result = runner_->run(env_ + rs::quote(*newPath) + " upgrade");
    if (result.status == 0) {
        std::lock_guard guard(lock_);
        bridgePath_ = newPath;
        installedBuild_ = newPath;
        outdatedDaemon_.reset();
        status_ = VersionStatus::current();
        return;
    }
    if (result.status == rs::holderTooOldExit) {
        throw RemoteFailure("The sessions on " + target() + " use an older corvexd; restart them to finish upgrading. " +
                            trimmed(result.stderrText));
    }
    log(target() + ": upgrade exited with " + std::to_string(result.status));
    std::string detail = trimmed(result.stderrText);
    throw RemoteFailure(detail.empty() ? "corvexd upgrade on " + target() + " exited with " + std::to_string(result.status)
                                       : detail);
}

void RemoteInstaller::shutdownSessions() {
    auto result = runner_->run(rs::shutdownCommand(requireBridgePath(), env_));
    if (result.status == 0) return;
    log(target() + ": shutdown exited with " + std::to_string(result.status));
    throw RemoteFailure(trimmed(result.stderrText));
}

std::optional<std::string> RemoteInstaller::outdatedDaemonExe() const {
    std::lock_guard guard(lock_);
    return outdatedDaemon_;
}

VersionStatus RemoteInstaller::versionStatus() const {
    std::lock_guard guard(lock_);
    return status_;
}

std::optional<std::string> RemoteInstaller::bridgePath() const {
    std::lock_guard guard(lock_);
    return bridgePath_;
}

std::optional<rs::Probe> RemoteInstaller::lastProbe() const {
    std::lock_guard guard(lock_);
    return lastProbe_;
}

} // namespace corvex
