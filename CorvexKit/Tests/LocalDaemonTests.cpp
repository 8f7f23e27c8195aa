// LocalDaemon against the real corvexd of this build, on folders of the test's own.
#include "CorvexKit/LocalDaemon.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <unistd.h>

#include "Platform/System.h"
#include "Platform/Tests/Support/ScopedEnvironment.h"
#include "Support/ScratchDirectory.h"

using namespace corvex;
using corvex::testing::ScratchDirectory;
namespace fs = std::filesystem;

namespace {

std::string builtDaemon() { return platform::environmentValue("CORVEX_BUILD_BIN") + "/corvexd"; }

bool contains(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

LocalDaemon isolated(const ScratchDirectory& scratch) {
    LocalDaemon daemon;
    daemon.source = builtDaemon();
    daemon.runtimeDir = scratch.file("run");
    daemon.installDir = scratch.file("install");
    return daemon;
}

TEST(LocalDaemon, InstallsItselfAndStartsFromTheInstalledCopy) {
    ScratchDirectory scratch;
    LocalDaemon daemon = isolated(scratch);
    std::string id = daemon.run(daemon.source, {"build-id"}).out;
    ASSERT_FALSE(id.empty());
    EXPECT_EQ(daemon.bundledInstallPath(), scratch.file("install") + "/" + id + "/corvexd");

    std::string installed = daemon.installedPath();
    EXPECT_EQ(installed, scratch.file("install") + "/current/corvexd");
    EXPECT_EQ(fs::read_symlink(scratch.file("install/current")), id);
    EXPECT_EQ(daemon.installedPath(), installed) << "a second ask finds it without installing again";

    // Isolated runs are ephemeral: the daemon may leave again at once, with no client.
    EXPECT_NO_THROW(daemon.start());
    EXPECT_EQ(daemon.socketPath(), scratch.file("run") + "/corvexd.sock");
    daemon.shutdownAndRemove();
    EXPECT_FALSE(fs::exists(scratch.file("install")));
    EXPECT_FALSE(fs::exists(scratch.file("run")));
}

TEST(LocalDaemon, RunInPlaceNeverInstalls) {
    ScratchDirectory scratch;
    LocalDaemon daemon = isolated(scratch);
    daemon.runInPlace = true;
    EXPECT_EQ(daemon.installedPath(), daemon.source);
    daemon.upgrade();
    EXPECT_FALSE(fs::exists(scratch.file("install")));
}

TEST(LocalDaemon, ChildGetsNoCorvexOrDroverVariablesAndAnIsolatedRun) {
    ScratchDirectory scratch;
    platform::testing::ScopedEnvironment environment;
    environment.set("CORVEX_PANE", "7");
    environment.set("DROVER_TOKEN", "secret");
    environment.set("CORVEXD_CONFIG", "/elsewhere.toml");
    LocalDaemon daemon;
    daemon.source = scratch.writeExecutable("env-corvexd", "#!/bin/sh\nenv\n");
    daemon.runtimeDir = scratch.path() + "/run/";
    auto env = daemon.environment();
    auto printed = daemon.run(daemon.source, {});

    EXPECT_FALSE(contains(env, "CORVEX_PANE=7"));
    EXPECT_FALSE(contains(env, "DROVER_TOKEN=secret"));
    EXPECT_TRUE(contains(env, "CORVEXD_RUNTIME_DIR=" + scratch.path() + "/run/"));
    EXPECT_TRUE(contains(env, "CORVEXD_EPHEMERAL=exit"));
    EXPECT_TRUE(contains(env, "CORVEXD_CONFIG=" + scratch.path() + "/run/config.toml")) << "no double slash";
    EXPECT_FALSE(contains(env, "CORVEXD_CONFIG=/elsewhere.toml"));
    EXPECT_EQ(printed.status, 0);
    EXPECT_EQ(printed.out.find("CORVEX_PANE"), std::string::npos);
}

TEST(LocalDaemon, FailuresOfStartAreTold) {
    ScratchDirectory scratch;
    LocalDaemon daemon;
    daemon.runInPlace = true;
    std::vector<std::string> logged;
    daemon.log = [&](const std::string& line) { logged.push_back(line); };

    daemon.source = scratch.writeExecutable("old-holder", "#!/bin/sh\nexit 3\n");
    try {
        daemon.start();
        FAIL();
    } catch (const LocalDaemon::Failure& failure) {
        EXPECT_EQ(failure.kind, LocalDaemon::Failure::Kind::holderTooOld);
        EXPECT_STREQ(failure.what(), "The running shells use an older corvexd.");
    }
    EXPECT_EQ(logged, std::vector<std::string>{"start (" + daemon.source + ") exited with 3"});

    daemon.source = scratch.writeExecutable("broken", "#!/bin/sh\necho '  it broke  ' >&2\nexit 1\n");
    try {
        daemon.start();
        FAIL();
    } catch (const LocalDaemon::Failure& failure) {
        EXPECT_EQ(failure.kind, LocalDaemon::Failure::Kind::failed);
        EXPECT_STREQ(failure.what(), "it broke");
    }

    daemon.source = scratch.writeExecutable("silent", "#!/bin/sh\nexit 0\n");
    EXPECT_EQ(daemon.socketPath(), std::nullopt) << "an empty answer is no socket";
}

TEST(LocalDaemon, DaemonisingChildDoesNotHoldTheRunOpen) {
    ScratchDirectory scratch;
    LocalDaemon daemon;
    daemon.runInPlace = true;
    // The grandchild keeps the output open long after the child has returned.
    std::string pidFile = scratch.file("grandchild.pid");
    daemon.source = scratch.writeExecutable("forks", "#!/bin/sh\n(sleep 30 & echo $! >" + pidFile + ")\necho started\n");
    auto began = std::chrono::steady_clock::now();
    auto result = daemon.run(daemon.source, {});
    EXPECT_EQ(result.out, "started");
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(20));
    pid_t grandchild = static_cast<pid_t>(std::atol(corvex::testing::readFile(pidFile).c_str()));
    if (grandchild > 0) ::kill(grandchild, SIGKILL);
}

} // namespace
