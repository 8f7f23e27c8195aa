// `corvex --ssh` end to end: the real corvex and corvexd, a real OpenSSH server on loopback
// and a throwaway account whose home starts empty.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "CorvexKit/ProcessRun.h"
#include "CorvexKit/RemoteSetup.h"
#include "Platform/System.h"
#include "Support/LoopbackSSH.h"

using namespace corvex;
using corvex::testing::LoopbackSSH;
namespace fs = std::filesystem;

namespace {

std::string buildBin() { return platform::environmentValue("CORVEX_BUILD_BIN"); }

class RemoteCliTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto reason = LoopbackSSH::unavailableReason()) GTEST_SKIP() << *reason;
        server = std::make_unique<LoopbackSSH>();
    }

    ProcessResult corvex(const std::vector<std::string>& arguments) const {
        ProcessRequest request;
        request.program = buildBin() + "/corvex";
        request.arguments = arguments;
        auto env = environmentWithout({"HOME=", "CORVEX_SSH_CONFIG="});
        env.push_back("HOME=" + server->clientHome());
        env.push_back("CORVEX_SSH_CONFIG=" + server->clientConfig());
        request.environment = env;
        request.input = "";
        return runProcess(request);
    }

    std::unique_ptr<LoopbackSSH> server;
};

TEST_F(RemoteCliTest, FirstContactInstallsTheDaemonAndLaterOnesReuseIt) {
    auto version = RemoteSetup::Manifest::load(buildBin() + "/../share/corvex/corvexd-dist").version;
    auto first = corvex({"--ssh", server->target(), "new-workspace", "--name", "far"});
    ASSERT_EQ(first.status, 0) << first.err;
    EXPECT_NE(first.err.find("Installing corvexd " + version + " on " + server->target()), std::string::npos) << first.err;
    EXPECT_TRUE(fs::is_symlink(server->defaultBase() + "/current"));

    auto second = corvex({"--ssh", server->target(), "state"});
    ASSERT_EQ(second.status, 0) << second.err;
    EXPECT_EQ(second.err.find("Installing"), std::string::npos) << second.err;
    EXPECT_NE(second.out.find("\"far\""), std::string::npos) << "the workspace lives on in the daemon there: " << second.out;
}

TEST_F(RemoteCliTest, OlderDaemonThereIsKeptAndReported) {
    std::string folder = server->defaultBase() + "/0.0.1-old";
    fs::create_directories(folder);
    fs::copy_file(buildBin() + "/corvexd", folder + "/corvexd");
    for (auto path = fs::path(folder); path != fs::path(server->home()).parent_path(); path = path.parent_path()) {
        ::chown(path.c_str(), server->uid(), server->uid());
    }
    // The old build answers for itself; the version status only reads the id of its folder.
    auto result = corvex({"--ssh", server->target(), "hello"});
    EXPECT_NE(result.err.find("runs corvexd 0.0.1-old; update available"), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("Installing"), std::string::npos) << result.err;
}

// A target ssh would misread never gets this far: SSHTarget.RefusesWhatSSHWouldMisread and
// SSHCommandRunner.TargetThatLooksLikeAnOptionNeverReachesSSH.
TEST_F(RemoteCliTest, ARefusedLoginIsExplainedWithWhatToDo) {
    std::string stranger = "nobody-" + server->user() + "@127.0.0.1";
    auto refused = corvex({"--ssh", stranger, "state"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("corvex: Can't reach " + stranger + " over SSH. "), std::string::npos) << refused.err;
    EXPECT_TRUE(refused.err.find("The machine didn't accept your SSH key") != std::string::npos ||
                refused.err.find("There's no SSH key on") != std::string::npos)
        << refused.err;
    EXPECT_NE(refused.err.find("ssh-copy-id " + stranger), std::string::npos) << refused.err;
}

} // namespace
