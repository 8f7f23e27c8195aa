#include "CorvexKit/Machine.h"
#include "CorvexKit/MachineConnection.h"

#include <gtest/gtest.h>

using namespace corvex;
using namespace std::chrono_literals;
using Dot = SidebarStatus::Dot;

namespace {

struct Registry {
    MemoryPreferences preferences;
    int changes = 0;
    MachineRegistry machines{preferences, [] { return std::string("studio"); }, [this] { ++changes; }};
};

TEST(MachineRegistry, KeepsTheUsersMachinesInTheirOrderAfterThisComputer) {
    Registry registry;
    auto a = registry.machines.add("Build box", "me@build");
    auto b = registry.machines.add("Pi", "pi@raspberry");
    auto all = registry.machines.all();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0], Machine::local("studio"));
    EXPECT_EQ(all[2], b);
    EXPECT_NE(a.id, b.id);
    EXPECT_EQ(registry.preferences.dictionaryList("Machines")[0],
              (Preferences::Dictionary{{"id", *a.id}, {"label", "Build box"}, {"target", "me@build"}}));

    registry.machines.move(*b.id, 0);
    EXPECT_EQ(registry.machines.remoteMachines(), (std::vector<Machine>{b, a}));

    EXPECT_FALSE(registry.machines.update(*a.id, "Builder", "me@build"));
    EXPECT_TRUE(registry.machines.update(*a.id, "Builder", "me@build2")) << "a new target calls for a reconnect";
    EXPECT_EQ(registry.machines.find(*a.id)->label, "Builder");

    registry.preferences.setString("BrowserPath." + *a.id, "/srv");
    registry.machines.remove(*a.id);
    EXPECT_FALSE(registry.machines.find(*a.id));
    EXPECT_FALSE(registry.preferences.string("BrowserPath." + *a.id));
}

TEST(MachineRegistry, OnlyOffOfOneSwitchesAMachineOffAndBrokenEntriesAreSkipped) {
    Registry registry;
    registry.preferences.setDictionaryList("Machines", {
        {{"id", "1"}, {"label", "a"}, {"target", "a@h"}, {"off", "0"}},
        {{"id", "2"}, {"label", "b"}, {"target", "b@h"}},
        {{"id", "3"}, {"label", "c"}, {"target", "c@h"}, {"off", "1"}},
        {{"label", "no id"}, {"target", "x@h"}},
        {{"id", "5"}, {"label", "no target"}},
    });
    auto all = registry.machines.all();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_TRUE(all[1].isEnabled);
    EXPECT_FALSE(all[3].isEnabled);
    EXPECT_EQ(registry.machines.enabled().size(), 3u);

    registry.machines.setEnabled("3", true);
    EXPECT_EQ(registry.preferences.dictionaryList("Machines")[2].count("off"), 0u);
    registry.machines.setEnabled("2", false);
    EXPECT_EQ(registry.preferences.dictionaryList("Machines")[1].at("off"), "1");
}

TEST(MachineRegistry, ConnectedMachinesAndOfferListsHoldEachKeyOnce) {
    Registry registry;
    registry.machines.markConnected("a");
    registry.machines.markConnected("b");
    registry.machines.markConnected("a");
    EXPECT_EQ(registry.machines.connected(), (std::vector<std::string>{"a", "b"}));
    registry.machines.markDisconnected("a");
    EXPECT_EQ(registry.machines.connected(), std::vector<std::string>{"b"});

    EXPECT_TRUE(rememberOffer(registry.preferences, "HolderRestartOffered", "m0"));
    EXPECT_FALSE(rememberOffer(registry.preferences, "HolderRestartOffered", "m0"));
    for (int index = 1; index <= 60; ++index) rememberOffer(registry.preferences, "HolderRestartOffered", "m" + std::to_string(index));
    auto offered = registry.preferences.stringList("HolderRestartOffered");
    ASSERT_EQ(offered.size(), 50u);
    EXPECT_EQ(offered.front(), "m11");
}

TEST(SidebarStatus, TellsEachConnectionStateInWords) {
    Machine local = Machine::local("studio");
    Machine box{"id1", "Box", "me@box", true};
    auto with = [](ConnectionState state, bool paused = false) { return std::optional(ConnectionSnapshot{state, paused}); };
    auto none = MachineStatus::unknown();

    EXPECT_EQ(sidebarStatus(box, with(ConnectionState::connected()), none, true), (SidebarStatus{Dot::success, "", "", ""}));
    EXPECT_EQ(sidebarStatus(local, with(ConnectionState::connecting("Starting corvexd")), none, true),
              (SidebarStatus{Dot::dim, "Starting", "", ""}));
    EXPECT_EQ(sidebarStatus(box, with(ConnectionState::connecting("")), none, true).text, "Connecting");
    EXPECT_EQ(sidebarStatus(box, with(ConnectionState::connecting("Installing corvexd 0.1.0 on me@box")), none, true),
              (SidebarStatus{Dot::warning, "Connecting: Installing corvexd 0.1.0 on me@box", "", ""}));
    EXPECT_EQ(sidebarStatus(box, with(ConnectionState::reconnecting("the connection closed")), none, true),
              (SidebarStatus{Dot::warning, "Reconnecting: the connection closed", "", ""}));
    EXPECT_EQ(sidebarStatus(box, with(ConnectionState::reconnecting("Can't reach me@box over SSH"), true), none, true),
              (SidebarStatus{Dot::danger, "Can't connect: Can't reach me@box over SSH", "Reconnect", "Try Box again."}));
    EXPECT_EQ(sidebarStatus(box, std::nullopt, MachineStatus::unreachable("Can't reach me@box over SSH. x"), true),
              (SidebarStatus{Dot::danger, "Can't reach Box", "Connect", "Connect Box and show its workspaces"}));
    EXPECT_EQ(sidebarStatus(box, std::nullopt, MachineStatus::reachable(), false),
              (SidebarStatus{Dot::dim, "Not connected", "Connect", "Connect Box and make a workspace there"}));
}

TEST(MachineChecks, SkipMachinesKnownReachableWithALiveLink) {
    ConnectionSnapshot live{ConnectionState::connected(), false};
    ConnectionSnapshot down{ConnectionState::reconnecting("x"), false};
    EXPECT_FALSE(needsCheck(live, MachineStatus::reachable()));
    EXPECT_TRUE(needsCheck(std::nullopt, MachineStatus::reachable()));
    EXPECT_TRUE(needsCheck(down, MachineStatus::unknown()));
    EXPECT_FALSE(needsCheck(std::nullopt, MachineStatus::checking()));

    EXPECT_FALSE(shouldReconnectAfterNetworkChange(live));
    EXPECT_TRUE(shouldReconnectAfterNetworkChange(down));
    EXPECT_TRUE(shouldReconnectAfterNetworkChange({ConnectionState::idle(), true}));

    CheckSchedule schedule;
    auto now = CheckSchedule::Clock::now();
    EXPECT_TRUE(schedule.due(now));
    EXPECT_FALSE(schedule.due(now + 59s));
    EXPECT_TRUE(schedule.due(now + 61s));
}

TEST(NetworkWatch, ReconnectsOnceForARealSettledChange) {
    auto start = NetworkChangeFilter::Clock::now();
    NetworkChangeFilter filter(start);
    std::set<std::string> wifi{"wlan0"}, both{"wlan0", "tun0"};
    EXPECT_FALSE(filter.update(start + 6s, true, wifi)) << "the monitor's first report is its starting point";
    EXPECT_FALSE(filter.update(start + 7s, true, wifi)) << "nothing changed";
    EXPECT_TRUE(filter.update(start + 8s, true, both));
    EXPECT_FALSE(filter.update(start + 9s, false, {})) << "no working path: nothing to reconnect over";
    EXPECT_TRUE(filter.update(start + 10s, true, {})) << "the path came back";

    NetworkChangeFilter early(start);
    early.update(start, true, wifi);
    EXPECT_FALSE(early.update(start + 4s, true, both)) << "changes settle for five seconds after the start";

    // Five callbacks in one second make one reconnect pass.
    ReconnectThrottle throttle;
    auto now = ReconnectThrottle::Clock::now();
    int passes = 0;
    for (int index = 0; index < 5; ++index) passes += throttle.allow(now + index * 200ms);
    EXPECT_EQ(passes, 1);
    EXPECT_FALSE(throttle.allow(now + 2s));
    EXPECT_TRUE(throttle.allow(now + 2001ms));
}

TEST(SSHTarget, RefusesWhatSSHWouldMisread) {
    EXPECT_EQ(SSHTarget::problem(""), "Type an SSH target, such as you@host.");
    EXPECT_EQ(SSHTarget::problem("-oProxyCommand=x"), "An SSH target can't start with \"-\".");
    for (std::string bad : {"you @host", "you@host\n", "a\tb", "a\x7f", "you@host\xc2\xa0", "a\xe2\x80\xa8z", "\xc2\x85x"}) {
        EXPECT_EQ(SSHTarget::problem(bad), "An SSH target can't contain spaces or control characters.") << bad;
    }
    for (std::string good : {"you@host", "devbox", "me@10.0.0.2", "ünï@höst", "a-b@c-d"}) {
        EXPECT_EQ(SSHTarget::problem(good), std::nullopt) << good;
    }
    EXPECT_THROW(SSHTarget::check("-x"), RemoteFailure);
}

TEST(SSHOptions, EachKindOfCallGetsItsSet) {
    SSHOptions options;
    options.home = "/home/me";
    EXPECT_EQ(options.multiplex(), (std::vector<std::string>{"-o", "ControlMaster=auto", "-o",
                                                            "ControlPath=/home/me/.ssh/cm-corvexapp-%C", "-o",
                                                            "ControlPersist=600"}));
    EXPECT_TRUE(options.bridge().empty()) << "the bridge adds nothing to the transport's base set";
    auto oneOff = options.oneOff();
    EXPECT_EQ(std::vector<std::string>(oneOff.begin(), oneOff.begin() + 9), SSHProcessTransport::baseOptions());
    EXPECT_EQ(options.check(), (std::vector<std::string>{"-o", "BatchMode=yes", "-o", "ConnectTimeout=8", "-o",
                                                        "ControlMaster=no", "-o", "ControlPath=none"}));

    options.proxyCommand = "nc %h %p";
    EXPECT_EQ(options.bridge(), std::vector<std::string>{}) << "a proxy only in a development build";
    options.developmentBuild = true;
    EXPECT_EQ(options.controlPath(), "/home/me/.ssh/cm-corvexdev-proxied-%C");
    EXPECT_EQ(options.bridge(), (std::vector<std::string>{"-o", "ProxyCommand=nc %h %p"}));

    options.configFile = "/tmp/cfg";
    EXPECT_EQ(options.bridge().front(), "-F");
    EXPECT_EQ(options.check()[1], "/tmp/cfg");
}

TEST(RemoteLink, BuildWithoutDaemonsSaysSoOnEveryAttempt) {
    std::vector<std::string> logged;
    RemoteLinkSettings settings;
    settings.dist = "/nonexistent/corvexd-dist";
    settings.log = [&](const std::string& line) { logged.push_back(line); };
    auto link = makeRemoteLink("me@box", "Box", settings);
    EXPECT_FALSE(link.installer);
    EXPECT_EQ(logged, std::vector<std::string>{
                          "Box: no bundled corvexd builds; remote connections need the app built with build-app.sh"});
    try {
        link.transport->open({});
        FAIL();
    } catch (const RemoteFailure& failure) {
        EXPECT_STREQ(failure.what(), "This build of Corvex doesn't include corvexd for remote machines.");
    }

    MemoryPreferences preferences;
    SSHOptions development;
    development.developmentBuild = true;
    auto dev = RemoteLinkSettings::from(preferences, "/d", development);
    EXPECT_EQ(dev.installDir, std::string(RemoteSetup::devInstallDir));
    EXPECT_EQ(dev.runtimeDir, std::string(RemoteSetup::devRuntimeDir));
    EXPECT_EQ(dev.ephemeral, "exit");
    preferences.setString("RemoteInstallDir", "/opt/corvexd");
    auto release = RemoteLinkSettings::from(preferences, "/d", SSHOptions{});
    EXPECT_EQ(release.installDir, "/opt/corvexd");
    EXPECT_EQ(release.runtimeDir, std::nullopt);
    EXPECT_EQ(release.ephemeral, std::nullopt);
    EXPECT_EQ(bundledDistFolder("/usr/local/bin/corvex"), "/usr/local/share/corvex/corvexd-dist");
}

} // namespace
