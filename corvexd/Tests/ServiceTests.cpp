// Starting corvexd at login through a systemd user unit. systemd itself doesn't run here: the
// manager's answers come from a recording stand-in, the unit file is checked by
// systemd-analyze where it is installed, and the command line is the real one.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "CorvexKit/Tests/Support/ScratchDirectory.h"
#include "corvexd/Service.h"
#include "corvexd/Tests/Support/DaemonHarness.h"

namespace corvexd {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class Service : public ::testing::Test {
protected:
    ServicePlace place(bool managerRuns) {
        ServicePlace place;
        place.unitDirectory = scratch.file("config with space/systemd/user");
        place.command = {testing::builtProgram("corvexd"), "serve"};
        place.environment = {{"CORVEXD_RUNTIME_DIR", scratch.file("run")}};
        place.user = "someone";
        place.managerRuns = managerRuns;
        place.linger = false;
        place.systemctl = [this](const std::vector<std::string>& arguments) -> std::optional<std::string> {
            calls.push_back(arguments);
            if (arguments[0] == "show") return loadState;
            return "";
        };
        return place;
    }

    corvex::testing::ScratchDirectory scratch;
    std::vector<std::vector<std::string>> calls;
    std::string loadState = "loaded";
};

TEST_F(Service, WithoutAUserManagerNothingIsWrittenAndTheReasonIsGiven) {
    auto here = place(false);
    auto status = installService(here);
    EXPECT_FALSE(status.supported);
    EXPECT_THAT(status.message.value_or(""), HasSubstr("systemd user manager"));
    EXPECT_FALSE(status.installed);
    EXPECT_EQ(::access(here.unitPath().c_str(), F_OK), -1);
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(Service, InstallWritesTheUnitEnablesItAndAsksForLingerInsteadOfTurningItOn) {
    auto here = place(true);
    auto status = installService(here);
    EXPECT_TRUE(status.supported);
    EXPECT_TRUE(status.installed);
    EXPECT_TRUE(status.loaded);
    EXPECT_TRUE(status.upToDate);
    EXPECT_EQ(status.file, here.unitPath());
    EXPECT_EQ(status.command, here.command);
    EXPECT_EQ(status.linger, false);
    EXPECT_THAT(status.needs, ElementsAre("loginctl enable-linger someone"));
    EXPECT_THAT(calls, ::testing::Contains(std::vector<std::string>{"enable", "corvexd.service"}));
    for (const auto& call : calls) EXPECT_NE(call[0], "start") << "installing doesn't start a second daemon";

    here.linger = true;
    EXPECT_THAT(serviceStatus(here).needs, IsEmpty());
    loadState = "not-found";
    EXPECT_FALSE(serviceStatus(here).loaded);
}

TEST_F(Service, AUnitFromAnotherBuildIsNotUpToDateUntilRewritten) {
    auto here = place(true);
    installService(here);
    auto upgraded = here;
    upgraded.command = {"/elsewhere/9.9.9/corvexd", "serve"};
    auto status = serviceStatus(upgraded);
    EXPECT_TRUE(status.installed);
    EXPECT_FALSE(status.upToDate);
    EXPECT_TRUE(installService(upgraded).upToDate);

    auto removed = uninstallService(upgraded);
    EXPECT_FALSE(removed.installed);
    EXPECT_EQ(::access(here.unitPath().c_str(), F_OK), -1);
    EXPECT_THAT(calls, ::testing::Contains(std::vector<std::string>{"disable", "corvexd.service"}));
}

TEST_F(Service, TheUnitPassesSystemdsOwnCheck) {
    if (::system("command -v systemd-analyze >/dev/null 2>&1") != 0) GTEST_SKIP() << "systemd-analyze isn't installed";
    if (!testing::isBuilt("corvexd")) GTEST_SKIP() << "corvexd is not built";
    auto here = place(true);
    // A folder with a space and a dollar, which the unit must quote.
    std::string odd = scratch.file("odd $place");
    ::mkdir(odd.c_str(), 0755);
    ::symlink(testing::builtProgram("corvexd").c_str(), (odd + "/corvexd").c_str());
    here.command = {odd + "/corvexd", "serve"};
    installService(here);
    auto checked = testing::runProgram({"/bin/sh", "-c", "systemd-analyze verify \"$0\" 2>&1", here.unitPath()});
    EXPECT_EQ(checked.status, 0) << checked.out << "\n" << serviceUnitText(here);
    EXPECT_THAT(checked.out, ::testing::Not(HasSubstr("corvexd.service:"))) << "no complaint about the unit";
}

TEST_F(Service, TheCommandLinePrintsTheRecord) {
    if (!testing::isBuilt("corvexd")) GTEST_SKIP() << "corvexd is not built";
    auto ran = testing::runProgram({testing::builtProgram("corvexd"), "service", "status"},
                                           {{"XDG_RUNTIME_DIR", scratch.file("no-manager")},
                                            {"XDG_CONFIG_HOME", scratch.file("config")}});
    ASSERT_EQ(ran.status, 0) << ran.err;
    auto record = nlohmann::json::parse(ran.out);
    EXPECT_EQ(record["supported"], false);
    EXPECT_EQ(record["installed"], false);
    EXPECT_EQ(record["file"], scratch.file("config") + "/systemd/user/corvexd.service");
    EXPECT_EQ(testing::runProgram({testing::builtProgram("corvexd"), "service", "restart"}).status, 2);
}

} // namespace
} // namespace corvexd
