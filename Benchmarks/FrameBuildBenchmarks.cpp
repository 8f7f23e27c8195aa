// The CPU side of a GPU frame for a 300 × 100 pane: the snapshot refresh under the terminal's
// lock, the rows built into cell records and the glyphs looked up in the atlas. Each case also
// reports the heap allocations of one steady frame, which should be none.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "Vellum/Terminal.h"
#include "Vellum/TerminalFrameBuilder.h"

namespace {
std::atomic<uint64_t> allocations{0};
}

// free() on what this operator new returned from malloc is correct; the compiler can't tell.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace {

using namespace vellum;

constexpr int cols = 300, rows = 100;

// A full screen of coloured text, so that every row has glyphs, backgrounds and runs.
std::string screenful(int seed) {
    std::string out = "\x1b[H";
    for (int r = 0; r < rows; ++r) {
        out += "\x1b[" + std::to_string(31 + (r + seed) % 7) + "m";
        for (int c = 0; c < cols; ++c) {
            if (c % 40 == 0) out += (c / 40) % 2 ? "\x1b[44m" : "\x1b[49m";
            out.push_back(char('!' + (r * 7 + c + seed) % 90));
        }
        if (r + 1 < rows) out += "\r\n";
    }
    return out;
}

uint64_t builderAllocations = 0;

// The builder's own share, apart from the snapshot refresh.
const DrawData& build(TerminalFrameBuilder& builder, const TerminalSnapshot& snapshot, const FrameOverlay& overlay) {
    uint64_t before = allocations.load();
    const DrawData& draw = builder.build(snapshot, overlay);
    builderAllocations += allocations.load() - before;
    return draw;
}

struct Pane {
    TerminalOptions options;
    std::unique_ptr<Terminal> terminal;
    TerminalSnapshot snapshot;
    TerminalFrameBuilder builder{"DejaVu Sans Mono", 16};
    FrameOverlay overlay;

    Pane() {
        options.cols = cols;
        options.rows = rows;
        options.scrollback = 1000;
        terminal = std::make_unique<Terminal>(nullptr, options);
        feed(screenful(0));
        frame();
        feed(screenful(1)); // every glyph both screens use is in the atlas
        frame();
    }
    void feed(std::string_view bytes) { terminal->feed(bytes); }
    const DrawData& frame() {
        snapshot.refresh(*terminal);
        return build(builder, snapshot, overlay);
    }
};

void report(benchmark::State& state, uint64_t allocationsBefore, const DrawData& draw) {
    state.counters["allocs_per_frame"] =
        benchmark::Counter(double(allocations.load() - allocationsBefore), benchmark::Counter::kAvgIterations);
    state.counters["builder_allocs_per_frame"] = benchmark::Counter(double(builderAllocations), benchmark::Counter::kAvgIterations);
    builderAllocations = 0;
    state.counters["glyph_records"] = double(draw.frame.glyphCellsGray.size());
}

void FullRedrawWarmGlyphs(benchmark::State& state) {
    Pane pane;
    builderAllocations = 0;
    uint64_t before = allocations.load();
    const DrawData* draw = nullptr;
    for (auto _ : state) {
        pane.snapshot.refresh(*pane.terminal, RenderSnapshotScope::full);
        pane.builder.invalidateRows();
        draw = &build(pane.builder, pane.snapshot, pane.overlay);
        benchmark::DoNotOptimize(draw);
    }
    report(state, before, *draw);
}

void OneChangedRow(benchmark::State& state) {
    Pane pane;
    const std::string edits[2] = {"\x1b[50;1Habcdefghij", "\x1b[50;1Hklmnopqrst"};
    pane.feed(edits[0]);
    pane.frame();
    builderAllocations = 0;
    uint64_t before = allocations.load();
    const DrawData* draw = nullptr;
    int i = 0;
    for (auto _ : state) {
        pane.feed(edits[++i & 1]);
        draw = &pane.frame();
        benchmark::DoNotOptimize(draw);
    }
    report(state, before, *draw);
}

void ScrollByOneLine(benchmark::State& state) {
    Pane pane;
    std::string line = "\x1b[100;1H\r\n";
    for (int c = 0; c < cols; ++c) line.push_back(char('a' + c % 26));
    for (int i = 0; i < 200; ++i) pane.feed(line); // the history is full and recycles lines
    pane.frame();
    builderAllocations = 0;
    uint64_t before = allocations.load();
    const DrawData* draw = nullptr;
    for (auto _ : state) {
        pane.feed(line);
        draw = &pane.frame();
        benchmark::DoNotOptimize(draw);
    }
    report(state, before, *draw);
}

} // namespace

BENCHMARK(FullRedrawWarmGlyphs)->Unit(benchmark::kMicrosecond);
BENCHMARK(OneChangedRow)->Unit(benchmark::kMicrosecond);
BENCHMARK(ScrollByOneLine)->Unit(benchmark::kMicrosecond);
BENCHMARK_MAIN();
