#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "CorvexKit/AppLog.h"
#include "CorvexKit/AppPreferences.h"
#include "CorvexKit/BackendChoice.h"
#include "CorvexKit/WindowModel.h"
#include "Platform/MainQueue.h"
#include "Support/ScratchDirectory.h"
#include "Support/ScriptedBackend.h"

using namespace corvex;

namespace {

BackendInputs inputs(std::set<std::string> executables = {"/app/corvexd"}) {
    BackendInputs in;
    in.executableDirectory = "/app";
    in.temporaryDirectory = "/tmp";
    in.isExecutable = [executables](const std::string& path) { return executables.count(path) > 0; };
    return in;
}

TEST(BackendChoiceTest, TheDaemonBesideTheAppIsTheBundledOne) {
    BackendChoice choice = BackendChoice::choose(inputs());
    EXPECT_FALSE(choice.inProcess);
    EXPECT_FALSE(choice.runInPlace);
    EXPECT_EQ(choice.daemonLogLine("/run/s.sock"), "backend: corvexd from /app/corvexd, socket /run/s.sock");
}

TEST(BackendChoiceTest, ThePreferenceBeatsTheVariableAndRunsInPlace) {
    BackendInputs in = inputs({"/pref/corvexd", "/env/corvexd", "/app/corvexd"});
    in.corvexdPath = "/pref/corvexd";
    in.corvexdBin = "/env/corvexd";
    in.runtimeDirVariable = "/rt";
    BackendChoice choice = BackendChoice::choose(in);
    EXPECT_EQ(choice.runtimeDir, "/rt");
    EXPECT_EQ(choice.daemonLogLine("/rt/corvexd.sock"), "backend: corvexd from /pref/corvexd (in place), socket /rt/corvexd.sock");
}

TEST(BackendChoiceTest, OnlyTheChosenCandidateIsTried) {
    BackendInputs in = inputs({"/app/corvexd"});
    in.corvexdBin = "/missing/corvexd";
    BackendChoice choice = BackendChoice::choose(in);
    EXPECT_TRUE(choice.inProcess);
    EXPECT_EQ(choice.logLine, "backend: no corvexd binary (tried /missing/corvexd), using the fake backend");

    BackendInputs nothing = inputs({});
    nothing.executableDirectory.clear();
    EXPECT_EQ(BackendChoice::choose(nothing).logLine,
              "backend: no corvexd binary (tried nothing), using the fake backend");
}

TEST(BackendChoiceTest, OnlyFakeSelectsTheInProcessBackend) {
    BackendInputs in = inputs();
    in.backendPreference = "fake";
    EXPECT_EQ(BackendChoice::choose(in).logLine, "backend: fake");
    in.backendPreference = "corvexd";
    EXPECT_FALSE(BackendChoice::choose(in).inProcess);
}

TEST(BackendChoiceTest, ADevelopmentBuildKeepsItsDaemonApart) {
    BackendInputs in = inputs();
    in.developmentBuild = true;
    BackendChoice choice = BackendChoice::choose(in);
    EXPECT_EQ(choice.runtimeDir, "/tmp/corvex-dev");
    EXPECT_EQ(choice.installDir, "/tmp/corvex-dev-bin");
    in.runtimeDirPreference = "/mine";
    EXPECT_EQ(BackendChoice::choose(in).runtimeDir, "/mine");
}

TEST(PreferenceRulesTest, StoredValuesAreKeptInTheirRanges) {
    EXPECT_EQ(prefs::sidebarWidth(std::nullopt), 190);
    EXPECT_EQ(prefs::sidebarWidth(900.0), 640);
    EXPECT_EQ(prefs::sidebarWidth(100.0), 150);
    EXPECT_DOUBLE_EQ(prefs::uiScale(1.26), 1.3);
    EXPECT_DOUBLE_EQ(prefs::uiScale(std::nullopt), 1.0);
    EXPECT_EQ(prefs::fontSize(0.0), 13);
    EXPECT_EQ(prefs::fontSize(50.0), 32);
    EXPECT_EQ(prefs::appearance(std::string("purple")), "system");
}

TEST(AppLogTest, LinesAreAppendedWithAUTCStampAndAnUnwritablePathIsIgnored) {
    corvex::testing::ScratchDirectory scratch;
    std::string path = scratch.path() + "/state/Corvex/Corvex.log";
    AppLog log(path);
    log.write("backend: fake");
    log.write("quitting");
    std::string text = corvex::testing::readFile(path);
    EXPECT_NE(text.find(" backend: fake\n"), std::string::npos);
    EXPECT_NE(text.find(" quitting\n"), std::string::npos);
    EXPECT_EQ(AppLog::line(std::chrono::system_clock::from_time_t(0), "x"), "1970-01-01T00:00:00Z x\n");
    EXPECT_EQ(AppLog::defaultPath("/home/u", false), "/home/u/.local/state/Corvex/Corvex.log");

    AppLog("/proc/no/such/place.log").write("dropped");
}

class WindowModelTest : public ::testing::Test {
protected:
    void show(ModelState state) {
        store.apply(SessionEvent::Connected{hello()});
        store.apply(SessionEvent::State{std::move(state)});
    }

    static Hello hello() {
        Hello h;
        h.protocol = 1;
        h.instance = "one";
        return h;
    }

    static ModelState twoWorkspaces() {
        ModelState state;
        state.rev = 3;
        state.focus = Focus{1, 2, 3};
        Tab shell{2, std::nullopt, 3, Layout::leaf(3)};
        Tab named{4, std::string("logs"), 5, Layout::split(6, Axis::horizontal, 0.5, Layout::leaf(5), Layout::leaf(7))};
        state.workspaces = {Workspace{1, "Workspace 1", {shell, named}, 2}, Workspace{8, "Empty", {}, std::nullopt}};
        Pane three;
        three.id = 3;
        three.cwd = "/home/u/src";
        Pane five;
        five.id = 5;
        five.agent = AgentInfo{"claude", AgentInfo::State::running};
        Pane seven;
        seven.id = 7;
        state.panes = {three, five, seven};
        return state;
    }

    platform::ManualMainQueue queue;
    std::shared_ptr<testkit::ScriptedBackend> backend = std::make_shared<testkit::ScriptedBackend>();
    ModelStore store{backend, queue};
};

TEST_F(WindowModelTest, TheTitleNamesTheTabAndItsWorkspace) {
    EXPECT_EQ(windowTitle(store, std::nullopt), "Corvex");
    show(twoWorkspaces());
    EXPECT_EQ(windowTitle(store, std::nullopt), "src — Workspace 1");
    EXPECT_EQ(windowTitle(store, std::string("box")), "src — Workspace 1 on box");
}

TEST_F(WindowModelTest, SidebarAndTabBarMarkTheFocusAndTheAgentsThatNeedTheUser) {
    show(twoWorkspaces());
    auto rows = sidebarWorkspaces(store, true);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_TRUE(rows[0].focused);
    EXPECT_FALSE(rows[1].focused);
    ASSERT_EQ(rows[0].tabs.size(), 2u);
    EXPECT_EQ(rows[0].tabs[0].title, "src");
    EXPECT_TRUE(rows[0].tabs[0].focused);
    EXPECT_FALSE(rows[0].tabs[0].badge);
    EXPECT_EQ(rows[0].tabs[1].title, "logs");
    EXPECT_TRUE(rows[0].tabs[1].badge);
    EXPECT_EQ(rows[0].badge, rows[0].tabs[1].badge);
    EXPECT_FALSE(sidebarWorkspaces(store, false)[0].focused);

    auto tabs = tabBarItems(store, uint64_t{4});
    ASSERT_EQ(tabs.size(), 2u);
    EXPECT_FALSE(tabs[0].custom);
    EXPECT_TRUE(tabs[1].custom);
    EXPECT_TRUE(tabs[1].maximized);
    EXPECT_TRUE(tabs[0].focused);
}

TEST_F(WindowModelTest, EmptyStatesTellWhatIsMissing) {
    EXPECT_EQ(emptyState(store, "host", "Starting"), (EmptyState{EmptyState::Kind::message, "Starting", "", ""}));
    ModelState none;
    none.rev = 1;
    show(none);
    EXPECT_EQ(emptyState(store, "host", "").kind, EmptyState::Kind::noWorkspaces);
    EXPECT_EQ(emptyState(store, "host", "").detail, "No workspaces on this machine yet.");
    ModelState state = twoWorkspaces();
    state.focus = Focus{8, std::nullopt, std::nullopt};
    show(state);
    EmptyState empty = emptyState(store, "host", "");
    EXPECT_EQ(empty.kind, EmptyState::Kind::noTabs);
    EXPECT_EQ(empty.title, "Empty");
    EXPECT_EQ(empty.button, "New Tab (Ctrl+Shift+T)");
}

} // namespace
