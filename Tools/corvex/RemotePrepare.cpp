#include "Tools/corvex/RemotePrepare.h"

#include <atomic>
#include <ostream>

#include "CorvexKit/MachineConnection.h"
#include "CorvexKit/SSHDiagnosis.h"
#include "Platform/ProcessInfo.h"

namespace corvex::cli {

namespace {

void reportFailure(const std::string& target, const RemoteFailure& failure, std::ostream& err) {
    err << "corvex: " << failure.what() << "\n";
    if (!failure.sshError) return;
    auto diagnosis = SSHDiagnosis::classify(*failure.sshError, SSHDiagnosis::hasKeys());
    err << diagnosis.title() << "\n" << diagnosis.advice(target) << "\n";
}

void reportVersion(const std::string& target, const VersionStatus& status, std::ostream& err) {
    switch (status.kind) {
    case VersionStatus::Kind::current: break;
    case VersionStatus::Kind::updateAvailable:
        err << "corvex: " << target << " runs corvexd " << status.running << "; update available\n";
        break;
    case VersionStatus::Kind::appOutdated:
        err << "corvex: " << target << " runs corvexd " << status.running << ", newer than this corvex; app outdated\n";
        break;
    }
}

} // namespace

std::shared_ptr<CorvexdTransport> prepareRemote(const std::string& target, std::ostream& err) {
    if (auto problem = SSHTarget::problem(target)) {
        err << "corvex: Can't use \"" << target << "\": " << *problem << "\n";
        return nullptr;
    }
    MemoryPreferences preferences;
    auto settings = RemoteLinkSettings::from(preferences, bundledDistFolder(platform::executablePath()), SSHOptions::fromEnvironment());
    settings.sshPath = "ssh"; // the user's own, found on PATH
    auto link = makeRemoteLink(target, target, settings);
    auto progress = [&err](const std::string& text) { err << text << "\n" << std::flush; };
    try {
        if (!link.installer) {
            link.transport->prepare(progress);
            return nullptr;
        }
        link.installer->prepare(progress);
    } catch (const RemoteFailure& failure) {
        reportFailure(target, failure, err);
        return nullptr;
    }
    reportVersion(target, link.installer->versionStatus(), err);
    // This first attempt is prepared already; a reconnect probes afresh, as the app's does.
    auto installer = link.installer;
    auto preparedOnce = std::make_shared<std::atomic<bool>>(true);
    link.transport->prepare = [installer, preparedOnce](const ProgressHandler& progress) {
        if (!preparedOnce->exchange(false)) installer->prepare(progress);
    };
    return link.transport;
}

} // namespace corvex::cli
