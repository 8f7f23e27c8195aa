// The installer against a real OpenSSH server on loopback and a throwaway account, with the
// daemon builds this tree ships.
#include "CorvexKit/RemoteInstaller.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

#include "CorvexKit/MachineConnection.h"
#include "CorvexKit/SSHDiagnosis.h"
#include "Platform/System.h"
#include "Support/LoopbackSSH.h"
#include "Support/ScratchDirectory.h"

using namespace corvex;
using corvex::testing::LoopbackSSH;
namespace fs = std::filesystem;
namespace rs = corvex::RemoteSetup;

namespace {

std::string distFolder() { return platform::environmentValue("CORVEX_BUILD_BIN") + "/../share/corvex/corvexd-dist"; }

// A runner that passes everything to ssh, but cuts the first `truncations` uploads in half
// on the way: an upload broken in flight.
class TruncatingRunner final : public RemoteCommandRunner {
public:
    TruncatingRunner(std::shared_ptr<RemoteCommandRunner> inner, int truncations)
        : inner_(std::move(inner)), truncations_(truncations) {}
    std::string target() const override { return inner_->target(); }
    RemoteCommandResult run(const std::string& command, const std::optional<std::string>& input) override {
        bool upload = input && command.find("corvexd-install") != std::string::npos;
        if (upload) ++uploads;
        if (upload && truncations_ > 0) {
            --truncations_;
            return inner_->run(command, input->substr(0, input->size() / 2));
        }
        return inner_->run(command, input);
    }
    int uploads = 0;

private:
    std::shared_ptr<RemoteCommandRunner> inner_;
    int truncations_;
};

class RemoteInstallerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!LoopbackSSH::unavailableReason()) server = new LoopbackSSH();
    }
    static void TearDownTestSuite() {
        delete server;
        server = nullptr;
    }
    void SetUp() override {
        if (auto reason = LoopbackSSH::unavailableReason()) GTEST_SKIP() << *reason;
        ASSERT_NE(server, nullptr) << "the loopback sshd didn't start";
        server->resetAccount();
        manifest = rs::Manifest::load(distFolder());
    }

    SSHOptions sshOptions() const {
        SSHOptions options;
        options.configFile = server->clientConfig();
        options.home = server->clientHome();
        options.ensureControlDirectory();
        return options;
    }
    std::shared_ptr<RemoteCommandRunner> runner(const std::string& target) const {
        return std::make_shared<SSHCommandRunner>(target, sshOptions().oneOff());
    }
    std::shared_ptr<RemoteInstaller> installer(std::shared_ptr<RemoteCommandRunner> through) {
        return std::make_shared<RemoteInstaller>(std::move(through), distFolder(), std::nullopt, std::nullopt, std::nullopt,
                                                 [this](const std::string& line) { logged.push_back(line); });
    }
    // Prepares once and tells what progress it reported.
    std::vector<std::string> prepare(RemoteInstaller& installer) {
        std::vector<std::string> progress;
        installer.prepare([&](const std::string& text) { progress.push_back(text); });
        return progress;
    }
    const rs::Build& bundled() const { return manifest.builds.begin()->second; }
    std::string installingLine() const { return "Installing corvexd " + manifest.version + " on " + server->target(); }

    // A build of some other version, as a shell script that answers like one.
    void placeBuild(const std::string& base, const std::string& id) {
        std::string folder = base + "/" + id;
        fs::create_directories(folder);
        std::ofstream(folder + "/corvexd") << "#!/bin/sh\n[ \"$1\" = build-id ] && echo " << id << "\n";
        ::chmod((folder + "/corvexd").c_str(), 0755);
        for (auto path = fs::path(folder); path != fs::path(server->home()).parent_path(); path = path.parent_path()) {
            ::chown(path.c_str(), server->uid(), server->uid());
        }
    }

    static inline LoopbackSSH* server = nullptr;
    rs::Manifest manifest;
    std::vector<std::string> logged;
};

ino_t inodeOf(const std::string& path) {
    struct stat info{};
    return ::stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

TEST_F(RemoteInstallerTest, FreshAccountGetsTheBundledBuildAndTheSecondContactUploadsNothing) {
    auto first = installer(runner(server->target()));
    EXPECT_THROW(first->bridgeCommand(), RemoteFailure) << "nothing to bridge to before prepare";
    EXPECT_EQ(prepare(*first), std::vector<std::string>{installingLine()});
    std::string base = server->defaultBase();
    EXPECT_EQ(fs::read_symlink(base + "/current"), bundled().id) << "the install points current at the build";
    EXPECT_EQ(first->versionStatus(), VersionStatus::current());
    EXPECT_EQ(first->bridgeCommand(), rs::quote(base + "/current/corvexd") + " bridge");
    auto asked = first->runCorvexd({"build-id"});
    EXPECT_EQ(asked.status, 0) << asked.stderrText;
    EXPECT_EQ(asked.stdoutText, bundled().id + "\n");

    ino_t uploaded = inodeOf(rs::installedPath(base, bundled().id));
    auto counting = std::make_shared<TruncatingRunner>(runner(server->target()), 0);
    auto second = installer(counting);
    EXPECT_TRUE(prepare(*second).empty());
    EXPECT_EQ(counting->uploads, 0);
    EXPECT_EQ(inodeOf(rs::installedPath(base, bundled().id)), uploaded);
    EXPECT_EQ(second->lastProbe()->installed, std::vector<std::string>{bundled().id});
}

TEST_F(RemoteInstallerTest, OlderBuildThereIsOfferedNotReplacedAndANewerOneIsKept) {
    placeBuild(server->defaultBase(), "0.0.1-old");
    auto older = installer(runner(server->target()));
    EXPECT_TRUE(prepare(*older).empty()) << "updating stays the user's decision";
    EXPECT_EQ(older->versionStatus(), VersionStatus::updateAvailable("0.0.1-old"));
    EXPECT_EQ(older->outdatedDaemonExe(), "0.0.1-old");
    EXPECT_EQ(older->bridgePath(), server->defaultBase() + "/0.0.1-old/corvexd") << "no current link: the newest build";
    EXPECT_FALSE(fs::exists(rs::installedPath(server->defaultBase(), bundled().id)));
    ASSERT_FALSE(logged.empty());
    EXPECT_NE(logged.back().find("is a newer version, offering it"), std::string::npos) << logged.back();

    server->resetAccount();
    placeBuild(server->defaultBase(), "999.0.0-new");
    auto newer = installer(runner(server->target()));
    prepare(*newer);
    EXPECT_EQ(newer->versionStatus(), VersionStatus::appOutdated("999.0.0-new"));
    EXPECT_EQ(newer->outdatedDaemonExe(), std::nullopt);
    EXPECT_FALSE(fs::exists(rs::installedPath(server->defaultBase(), bundled().id))) << "never a downgrade";
}

TEST_F(RemoteInstallerTest, ReadOnlyBaseFallsBackToTheTemporaryBase) {
    // Made by root: the account can't write there.
    fs::create_directories(server->defaultBase());
    auto first = installer(runner(server->target()));
    EXPECT_EQ(prepare(*first), std::vector<std::string>{installingLine()});
    EXPECT_EQ(first->bridgePath(), server->fallbackBase() + "/current/corvexd");
    EXPECT_FALSE(first->lastProbe()->writable);

    auto counting = std::make_shared<TruncatingRunner>(runner(server->target()), 0);
    auto second = installer(counting);
    EXPECT_TRUE(prepare(*second).empty()) << "the fallback counts as installed";
    EXPECT_EQ(counting->uploads, 0);
    auto listed = second->lastProbe()->fallbackInstalled;
    EXPECT_NE(std::find(listed.begin(), listed.end(), bundled().id), listed.end());
}

TEST_F(RemoteInstallerTest, TruncatedUploadIsRetriedExactlyOnce) {
    auto once = std::make_shared<TruncatingRunner>(runner(server->target()), 1);
    auto recovering = installer(once);
    prepare(*recovering);
    EXPECT_EQ(once->uploads, 2);
    EXPECT_EQ(recovering->bridgePath(), server->defaultBase() + "/current/corvexd");
    ASSERT_FALSE(logged.empty());
    EXPECT_NE(logged.front().find("failed (4)"), std::string::npos) << logged.front();

    server->resetAccount();
    auto always = std::make_shared<TruncatingRunner>(runner(server->target()), 10);
    auto failing = installer(always);
    try {
        prepare(*failing);
        FAIL() << "two damaged uploads must fail";
    } catch (const RemoteFailure& failure) {
        // Half a binary either fails to run or answers with the wrong id; both are exit 4.
        EXPECT_NE(std::string(failure.what()).find("corvexd-install: "), std::string::npos) << failure.what();
    }
    EXPECT_EQ(always->uploads, 2);
    EXPECT_FALSE(fs::exists(rs::installedPath(server->defaultBase(), bundled().id))) << "no damaged build is left";
    EXPECT_THROW(failing->bridgeCommand(), RemoteFailure);
}

TEST_F(RemoteInstallerTest, HostThatRefusesTheKeyIsExplained) {
    std::string stranger = "nobody-" + server->user() + "@127.0.0.1";
    auto refused = installer(runner(stranger));
    try {
        prepare(*refused);
        FAIL() << "the server refuses this login";
    } catch (const RemoteFailure& failure) {
        std::string text = failure.what();
        EXPECT_EQ(text.rfind("Can't reach " + stranger + " over SSH. ", 0), 0u) << text;
        EXPECT_NE(text.find("Permission denied"), std::string::npos) << text;
        ASSERT_TRUE(failure.sshError);
        EXPECT_EQ(SSHDiagnosis::classify(*failure.sshError, true), SSHDiagnosis::of(SSHDiagnosis::Kind::authRejected));
    }
    auto status = checkMachine(*runner(stranger));
    EXPECT_EQ(status.kind, MachineStatus::Kind::unreachable);
    EXPECT_EQ(checkMachine(*runner(server->target())), MachineStatus::reachable());
}

TEST_F(RemoteInstallerTest, AccountWithoutAPosixShellIsExplained) {
    server->setShell("/bin/false");
    auto installing = installer(runner(server->target()));
    try {
        prepare(*installing);
        FAIL() << "nothing answers the probe";
    } catch (const RemoteFailure& failure) {
        EXPECT_EQ(std::string(failure.what()).rfind(server->target() + " didn't answer the corvexd probe; it needs a POSIX shell.", 0), 0u)
            << failure.what();
        EXPECT_FALSE(failure.sshError);
    }
    server->setShell("/bin/sh");
}

TEST(SSHCommandRunner, TargetThatLooksLikeAnOptionNeverReachesSSH) {
    corvex::testing::ScratchDirectory scratch;
    std::string marker = scratch.file("ran");
    std::string fakeSSH = scratch.writeExecutable("ssh", "#!/bin/sh\ntouch " + marker + "\n");
    for (std::string target : {"-oProxyCommand=x", "", "you@host\n", "you @host"}) {
        SSHCommandRunner runner(target, {}, fakeSSH);
        EXPECT_THROW(runner.run("true"), RemoteFailure) << target;
    }
    EXPECT_FALSE(fs::exists(marker));
    SSHCommandRunner fine("you@host", {"-o", "BatchMode=yes"}, fakeSSH);
    EXPECT_EQ(fine.run("true").status, 0);
    EXPECT_TRUE(fs::exists(marker));
}

} // namespace
