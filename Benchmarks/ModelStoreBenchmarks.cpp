// The session spine's hot paths: pane output from a backend's stream through the store to a
// sink, decoding a whole state event, and the overlay transforms the store runs per state.

#include <benchmark/benchmark.h>

#include "CorvexKit/ModelStore.h"
#include "CorvexKit/SessionCodec.h"
#include "Platform/MainQueue.h"

using namespace corvex;

namespace {

class NullBackend final : public SessionBackend {
public:
    std::shared_ptr<SessionEventStream> stream = std::make_shared<SessionEventStream>();

    std::shared_ptr<SessionEventStream> events() override { return stream; }
    void start() override {}
    void stop() override {}
    ModelState getState() override { return {}; }
    CreatedWorkspace createWorkspace(const std::optional<std::string>&, const SpawnOptions&) override { return {}; }
    void renameWorkspace(uint64_t, const std::string&) override {}
    void closeWorkspace(uint64_t) override {}
    CreatedTab createTab(uint64_t, const SpawnOptions&) override { return {}; }
    void renameTab(uint64_t, const std::optional<std::string>&) override {}
    void closeTab(uint64_t) override {}
    CreatedSplit split(uint64_t, Direction, std::optional<double>, const SpawnOptions&) override { return {}; }
    void closePane(uint64_t) override {}
    void setRatio(uint64_t, double) override {}
    void focus(const FocusTarget&) override {}
    Subscription subscribe(uint64_t, std::optional<uint64_t>, std::optional<int>, std::optional<Size>) override {
        return {};
    }
    void unsubscribe(uint64_t) override {}
    void setViewport(uint64_t, Size) override {}
    void resize(uint64_t, Size) override {}
    void sendInput(uint64_t, ByteView) override {}
};

class CountingSink final : public PaneDataSink {
public:
    size_t bytes = 0;
    void paneSubscribed(const Subscription&) override {}
    void paneOutput(uint64_t, ByteView data) override { bytes += data.size(); }
    void paneSnapshot(uint64_t, int, int, ByteView) override {}
    void paneResized(int, int, uint64_t) override {}
    void paneResync() override {}
    void paneReset() override {}
};

// Ten workspaces of five tabs, each tab two panes side by side, agents on some of them.
ModelState largeState() {
    ModelState state;
    state.rev = 1000;
    uint64_t next = 1;
    for (int w = 0; w < 10; ++w) {
        Workspace ws{next++, "Workspace " + std::to_string(w), {}, std::nullopt};
        for (int t = 0; t < 5; ++t) {
            uint64_t tab = next++;
            uint64_t left = next++;
            uint64_t right = next++;
            uint64_t split = next++;
            ws.tabs.push_back(Tab{tab, std::nullopt, left,
                                  Layout::split(split, Axis::horizontal, 0.5, Layout::leaf(left), Layout::leaf(right))});
            for (uint64_t id : {left, right}) {
                Pane pane{id, 120, 40};
                pane.pid = static_cast<int32_t>(1000 + id);
                pane.title = "✳ Claude Code";
                pane.cwd = "/home/ann/src/project-" + std::to_string(id);
                pane.command = std::vector<std::string>{"/bin/zsh", "-l"};
                pane.seq = id * 100000;
                if (id % 3 == 0) pane.agent = AgentInfo{"claude", AgentInfo::State::running, "hook", "Working"};
                state.panes.push_back(std::move(pane));
            }
        }
        ws.activeTab = ws.tabs.front().id;
        state.workspaces.push_back(std::move(ws));
    }
    state.focus = Focus{state.workspaces[0].id, state.workspaces[0].tabs[0].id, state.workspaces[0].tabs[0].activePane};
    return state;
}

void OutputThroughStore(benchmark::State& bench) {
    platform::ManualMainQueue queue;
    auto backend = std::make_shared<NullBackend>();
    ModelStore store(backend, queue, [](std::function<void()> work) { work(); });
    store.start();
    queue.runPending();
    auto sink = std::make_shared<CountingSink>();
    store.registerSink(7, sink);
    const size_t chunk = static_cast<size_t>(bench.range(0));
    Bytes bytes(chunk, 'x');
    uint64_t seq = 0;
    for (auto _ : bench) {
        for (int i = 0; i < 64; ++i) {
            backend->stream->push(SessionEvent::Output{7, seq, bytes});
            seq += chunk;
        }
        queue.runPending();
    }
    bench.SetBytesProcessed(static_cast<int64_t>(sink->bytes));
    bench.SetItemsProcessed(bench.iterations() * 64);
}
BENCHMARK(OutputThroughStore)->Arg(64)->Arg(4096)->Arg(65536);

void DecodeStateEvent(benchmark::State& bench) {
    auto text = encodeText(largeState());
    for (auto _ : bench) {
        auto state = decodeText<ModelState>(text);
        benchmark::DoNotOptimize(state);
    }
    bench.SetBytesProcessed(static_cast<int64_t>(bench.iterations() * text.size()));
}
BENCHMARK(DecodeStateEvent);

void ReplayOverlayOnState(benchmark::State& bench) {
    auto state = largeState();
    auto target = FocusTarget::pane(state.panes.back().id);
    auto move = MoveRequest::moveTab(state.workspaces[3].tabs[2].id, state.workspaces[0].id, 0);
    for (auto _ : bench) {
        auto moved = state.moving(move);
        auto focused = moved->focusing(target);
        benchmark::DoNotOptimize(focused);
        benchmark::DoNotOptimize(*focused == state);
    }
}
BENCHMARK(ReplayOverlayOnState);

} // namespace

BENCHMARK_MAIN();
