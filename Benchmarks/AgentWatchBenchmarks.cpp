// What watching panes for agents and repositories costs the session engine, run as corvexd
// runs it: real shells on real pseudo-terminals, the same timers (folders every 1.5 s; agents
// and git every second). Reported as CPU time, the engine's and its git children's together,
// so that a busy machine stretches nothing but the wall clock.
//
// - IdlePanes/detector:0 and :1: 20 idle shells in one repository, without and with the agent
//   and git polls, 30 s each; `cpu_percent` is of one core.
// - IdleRepositoryPane: one idle shell in a repository for a minute; `git_per_minute` counts
//   git's starts through a wrapper on PATH.
// - PollAgents, PollGit: one poll over 20 idle panes.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <thread>

#include "CorvexKit/Tests/Support/ScratchDirectory.h"
#include "CorvexSession/LocalPaneHost.h"
#include "CorvexSession/SessionCore.h"
#include "Platform/TimerThread.h"

using namespace corvex;
using Clock = std::chrono::steady_clock;

namespace {

double cpuSeconds() {
    double total = 0;
    for (int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        ::getrusage(who, &usage);
        total += double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                 double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    }
    return total;
}

// A repository, and a `git` on PATH that counts its starts before running the real one.
struct Workbench {
    testing::ScratchDirectory scratch;
    std::string repo = scratch.file("repo");
    std::string log = scratch.file("git.log");
    std::string path = std::getenv("PATH");

    Workbench() {
        std::string made = "git init -q -b main " + repo + " && git -C " + repo +
                           " -c user.name=B -c user.email=b@example.org commit -q --allow-empty -m first";
        if (std::system(made.c_str()) != 0) std::abort();
        std::string real = "/usr/bin/git";
        std::filesystem::create_directories(scratch.file("bin"));
        scratch.writeExecutable("bin/git", "#!/bin/sh\necho >> " + log + "\nexec " + real + " \"$@\"\n");
        ::setenv("PATH", (scratch.file("bin") + ":" + path).c_str(), 1);
    }
    ~Workbench() { ::setenv("PATH", path.c_str(), 1); }

    int gitRuns() const {
        std::ifstream in(log);
        int lines = 0;
        for (std::string line; std::getline(in, line);) ++lines;
        return lines;
    }

    std::shared_ptr<SessionCore> coreWithPanes(int count) {
        auto core = SessionCore::create(std::make_shared<LocalPaneHost>(), currentSessionCoreEnvironment());
        SpawnOptions shell{.command = std::vector<std::string>{"/bin/sh"},
                           .cwd = repo,
                           .env = std::map<std::string, std::string>{{"PS1", "$ "}, {"ENV", ""}},
                           .cols = 120,
                           .rows = 40};
        auto made = core->createWorkspace("bench", shell);
        for (int i = 1; i < count; ++i) core->createTab(made.workspace, shell);
        std::this_thread::sleep_for(std::chrono::seconds(1)); // the shells start and go idle
        return core;
    }
};

// The daemon's timers on `core`; with `watch`, the agent and git polls too.
struct DaemonTimers {
    platform::TimerThread directories{"bench.cwd"};
    std::unique_ptr<platform::TimerThread> repositories, agents;

    DaemonTimers(const std::shared_ptr<SessionCore>& core, bool watch) {
        std::weak_ptr<SessionCore> weak = core;
        directories.scheduleRepeating(std::chrono::milliseconds(1500), [weak] {
            if (auto held = weak.lock()) held->pollWorkingDirectories();
        });
        if (!watch) return;
        repositories = std::make_unique<platform::TimerThread>("bench.git");
        repositories->scheduleRepeating(std::chrono::milliseconds(1000), [weak] {
            if (auto held = weak.lock()) held->pollGit();
        });
        agents = std::make_unique<platform::TimerThread>("bench.agents");
        agents->scheduleRepeating(std::chrono::milliseconds(1000), [weak] {
            if (auto held = weak.lock()) held->pollAgents();
        });
    }
};

void IdlePanes(benchmark::State& state) {
    bool watch = state.range(0) != 0;
    Workbench bench;
    auto core = bench.coreWithPanes(20);
    for (auto _ : state) {
        int gitBefore = bench.gitRuns();
        double cpuBefore = cpuSeconds();
        auto started = Clock::now();
        {
            DaemonTimers timers(core, watch);
            std::this_thread::sleep_for(std::chrono::seconds(30));
        }
        double wall = std::chrono::duration<double>(Clock::now() - started).count();
        state.counters["cpu_percent"] = (cpuSeconds() - cpuBefore) / wall * 100;
        state.counters["git_per_minute"] = (bench.gitRuns() - gitBefore) * 60 / wall;
    }
    core->stop();
}
BENCHMARK(IdlePanes)->ArgName("detector")->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kSecond);

void IdleRepositoryPane(benchmark::State& state) {
    Workbench bench;
    auto core = bench.coreWithPanes(1);
    for (auto _ : state) {
        int gitBefore = bench.gitRuns();
        auto started = Clock::now();
        {
            DaemonTimers timers(core, true);
            std::this_thread::sleep_for(std::chrono::seconds(60));
        }
        double wall = std::chrono::duration<double>(Clock::now() - started).count();
        state.counters["git_per_minute"] = (bench.gitRuns() - gitBefore) * 60 / wall;
    }
    core->stop();
}
BENCHMARK(IdleRepositoryPane)->Iterations(1)->Unit(benchmark::kSecond);

void PollAgents(benchmark::State& state) {
    Workbench bench;
    auto core = bench.coreWithPanes(20);
    for (auto _ : state) core->pollAgents();
    core->stop();
}
BENCHMARK(PollAgents)->Unit(benchmark::kMicrosecond);

void PollGit(benchmark::State& state) {
    Workbench bench;
    auto core = bench.coreWithPanes(20);
    for (auto _ : state) core->pollGit();
    core->stop();
}
BENCHMARK(PollGit)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
