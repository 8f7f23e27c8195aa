// What the I/O pipeline costs: `cat` of a generated 32 MiB file on a real pseudo-terminal,
// gathered and handed under the terminal lock to a target that only counts (so the figure
// is the pipeline's and the kernel's, without a parser), beside a plain blocking read loop
// on the same kind of terminal as the ceiling. Then the whole road: a headless terminal
// running `cat` as its child, parsing what comes through the pipeline, beside the same
// terminal fed the same bytes from memory, and the in-process backend with a subscriber that
// takes every byte as an event.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "CorvexFake/FakeBackend.h"
#include "Vellum/HeadlessTerminal.h"
#include "Vellum/PseudoTerminalHelpers.h"
#include "Vellum/TerminalIOPipeline.h"
#include "Vellum/TerminalIOPipelineFeed.h"
#include "Vellum/TerminalLock.h"

using namespace vellum;

namespace {

constexpr size_t streamSize = 32u << 20;

// Plain text with newlines; the terminal turns each into CR LF.
const std::string& streamFile() {
    static const std::string path = [] {
        std::string file = "/tmp/vellum-pipeline-bench-" + std::to_string(getpid());
        std::string line;
        for (int i = 0; i < 119; ++i) line += static_cast<char>('a' + i % 26);
        line += '\n';
        std::ofstream out(file, std::ios::binary);
        for (size_t written = 0; written < streamSize; written += line.size()) out << line;
        return file;
    }();
    return path;
}

PseudoTerminalChild spawnCat() {
    winsize size{40, 120, 0, 0};
    auto spawned = PseudoTerminalHelpers::spawn("/bin/cat", {"/bin/cat", streamFile()}, {"PATH=/usr/bin:/bin"},
                                                std::nullopt, size);
    if (!spawned.child) std::abort();
    return *spawned.child;
}

// CPU seconds of all of this process's threads, so that a figure shows what it burned.
double processCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](timeval t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

class CountingTarget : public TerminalFeedTarget {
public:
    void feed(std::span<const unsigned char> bytes) override {
        bytes_ += bytes.size();
        ++deliveries_;
    }
    void finished() {
        std::lock_guard guard(mutex_);
        done_ = true;
        changed_.notify_all();
    }
    void waitUntilFinished() {
        std::unique_lock guard(mutex_);
        changed_.wait(guard, [&] { return done_; });
    }
    size_t bytes_ = 0;
    size_t deliveries_ = 0;

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool done_ = false;
};

void BM_PipelineCatIntoCountingTarget(benchmark::State& state) {
    size_t bytes = 0, deliveries = 0, reads = 0, pauses = 0;
    double cpuBefore = processCpuSeconds();
    for (auto _ : state) {
        auto child = spawnCat();
        auto target = std::make_shared<CountingTarget>();
        auto lock = std::make_shared<TerminalLock>();
        auto feed = std::make_shared<TerminalIOPipelineFeed>(lock, target, [target] { target->finished(); });
        auto pipeline = TerminalIOPipeline::create(child.master, feed);
        pipeline->start();
        target->waitUntilFinished();
        pipeline->waitUntilFinished();
        waitpid(child.pid, nullptr, 0);
        bytes += lock->withLock([&] { return target->bytes_; });
        deliveries += target->deliveries_;
        auto counters = pipeline->counters();
        reads += counters.reads;
        pauses += counters.pauses;
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    double runs = static_cast<double>(state.iterations());
    state.counters["deliveries"] = static_cast<double>(deliveries) / runs;
    state.counters["bytesPerDelivery"] = deliveries ? static_cast<double>(bytes) / static_cast<double>(deliveries) : 0;
    state.counters["reads"] = static_cast<double>(reads) / runs;
    state.counters["pauses"] = static_cast<double>(pauses) / runs;
    state.counters["cpuSeconds"] = (processCpuSeconds() - cpuBefore) / runs;
}
BENCHMARK(BM_PipelineCatIntoCountingTarget)->Unit(benchmark::kMillisecond)->UseRealTime();

// The ceiling: one thread reading the master with blocking 64 KiB reads, nothing else.
void BM_PlainReadLoopCat(benchmark::State& state) {
    size_t bytes = 0;
    std::vector<unsigned char> buffer(65536);
    double cpuBefore = processCpuSeconds();
    for (auto _ : state) {
        auto child = spawnCat();
        for (;;) {
            ssize_t n = read(child.master, buffer.data(), buffer.size());
            if (n > 0) {
                bytes += static_cast<size_t>(n);
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            break;
        }
        close(child.master);
        waitpid(child.pid, nullptr, 0);
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.counters["cpuSeconds"] = (processCpuSeconds() - cpuBefore) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_PlainReadLoopCat)->Unit(benchmark::kMillisecond)->UseRealTime();

constexpr int benchCols = 120, benchRows = 40;

// A headless terminal whose child is `cat`; counts what it parsed and says when the end came.
class CatTerminal : public HeadlessTerminal {
public:
    static std::shared_ptr<CatTerminal> make() {
        TerminalOptions options;
        options.cols = benchCols;
        options.rows = benchRows;
        auto terminal = std::make_shared<CatTerminal>(options);
        terminal->attachProcess({.queue = nullptr, .directDelivery = true, .onLaunchFailure = nullptr,
                                 .onEnd = [raw = terminal.get()](std::optional<int32_t>) { raw->finished(); }});
        terminal->process()->setDrainTimeout(5.0); // every byte parsed, however slow the build
        return terminal;
    }
    explicit CatTerminal(TerminalOptions options) : HeadlessTerminal(std::move(options)) {}

    void waitUntilFinished() {
        std::unique_lock guard(mutex_);
        changed_.wait(guard, [&] { return done_; });
    }
    size_t parsed() const { return parsed_; }

protected:
    void outputParsed(std::span<const uint8_t> bytes) override { parsed_ += bytes.size(); }

private:
    void finished() {
        std::lock_guard guard(mutex_);
        done_ = true;
        changed_.notify_all();
    }
    std::mutex mutex_;
    std::condition_variable changed_;
    bool done_ = false;
    size_t parsed_ = 0; // only the parse thread writes it; read after the end
};

void BM_HeadlessTerminalCatThroughPty(benchmark::State& state) {
    size_t bytes = 0;
    double cpuBefore = processCpuSeconds();
    for (auto _ : state) {
        auto terminal = CatTerminal::make();
        if (terminal->startProcessChecked("/bin/cat", {streamFile()}, std::vector<std::string>{"PATH=/usr/bin:/bin"})) {
            state.SkipWithError("cat didn't start");
            return;
        }
        terminal->waitUntilFinished();
        bytes += terminal->parsed();
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.counters["cpuSeconds"] = (processCpuSeconds() - cpuBefore) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_HeadlessTerminalCatThroughPty)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same bytes as the terminal gets them from the pseudo-terminal (LF turned to CR LF),
// fed from memory in slot-sized pieces: the parser's share of the figure above.
void BM_HeadlessTerminalFeedSameStream(benchmark::State& state) {
    std::string stream;
    {
        std::ifstream in(streamFile(), std::ios::binary);
        std::string raw((std::istreambuf_iterator<char>(in)), {});
        stream.reserve(raw.size() + raw.size() / 100);
        for (char c : raw) {
            if (c == '\n') stream += '\r';
            stream += c;
        }
    }
    TerminalOptions options;
    options.cols = benchCols;
    options.rows = benchRows;
    for (auto _ : state) {
        HeadlessTerminal terminal(options);
        auto data = reinterpret_cast<const uint8_t*>(stream.data());
        for (size_t at = 0; at < stream.size(); at += TerminalIOPipeline::slotSize) {
            terminal.feed(std::span<const uint8_t>(data + at, std::min(TerminalIOPipeline::slotSize, stream.size() - at)));
        }
        benchmark::DoNotOptimize(terminal.terminal->cols());
    }
    state.SetBytesProcessed(static_cast<int64_t>(stream.size()) * state.iterations());
}
BENCHMARK(BM_HeadlessTerminalFeedSameStream)->Unit(benchmark::kMillisecond)->UseRealTime();

// A pane of the in-process backend running `cat`, subscribed: every byte is parsed by the
// pane's terminal, retained, and read back from the event stream, until the pane's end.
void BM_FakeBackendPaneCatToSubscriber(benchmark::State& state) {
    size_t bytes = 0;
    double cpuBefore = processCpuSeconds();
    for (auto _ : state) {
        auto backend = corvex::FakeBackend::create();
        auto events = backend->events();
        backend->start();
        auto created = backend->createWorkspace(
            std::nullopt, corvex::SpawnOptions{.command = std::vector<std::string>{"/bin/cat", streamFile()},
                                               .cols = benchCols,
                                               .rows = benchRows});
        backend->subscribe(created.pane);
        for (bool ended = false; !ended;) {
            auto event = events->next(std::chrono::seconds(30));
            if (!event) break;
            if (auto output = event->as<corvex::SessionEvent::Output>()) bytes += output->bytes.size();
            if (auto snapshot = event->as<corvex::SessionEvent::Snapshot>()) bytes += snapshot->bytes.size();
            if (auto changed = event->as<corvex::SessionEvent::PaneChanged>()) ended = changed->pane.exited.has_value();
        }
        backend->stop();
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.counters["cpuSeconds"] = (processCpuSeconds() - cpuBefore) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_FakeBackendPaneCatToSubscriber)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    (void)streamFile(); // written once, before any figure is taken
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::remove(streamFile().c_str());
    return 0;
}
