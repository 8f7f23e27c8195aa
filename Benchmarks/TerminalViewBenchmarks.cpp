// What a frame of the QPainter terminal view costs: the snapshot taken under the terminal's
// lock, painting a whole 120x40 screen of coloured text, and a keystroke's echo from the
// backend's bytes to the pixels of its row (the app's target: under 8 ms at the 99th
// percentile). Runs on Qt's offscreen platform, so no display is needed.
#include <benchmark/benchmark.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QPainter>
#include <algorithm>
#include <string>
#include <vector>

#include "Corvex/TerminalView.h"
#include "Vellum/Terminal.h"
#include "Vellum/TerminalRenderSnapshot.h"

namespace {

constexpr int cols = 120, rows = 40;

// A screen of words, each in a true colour of its own.
std::string colouredScreen() {
    std::string out = "\x1b[H";
    for (int row = 0; row < rows; ++row) {
        for (int word = 0; word < 12; ++word)
            out += "\x1b[38;2;" + std::to_string((row * 7 + word * 13) % 256) + ";" + std::to_string(word * 20) +
                   ";200mword" + std::to_string(word) + "xyz\x1b[0m ";
        if (row < rows - 1) out += "\r\n";
    }
    return out;
}

void feed(corvex::TerminalView& view, std::string_view bytes) {
    view.feedFromBackend({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
}

struct ViewFixture {
    corvex::TerminalView view;
    QImage target;
    ViewFixture() {
        view.resizeTerminal(cols, rows);
        view.resize(view.sizeHint());
        feed(view, colouredScreen());
        view.renderNow();
        target = QImage(view.size(), QImage::Format_RGB32);
    }
    void paint(const QRegion& region) { view.render(&target, region.boundingRect().topLeft(), region); }
};

} // namespace

// Every row converted again: the cost after a full redraw by the program.
static void BM_RenderSnapshotAllRowsChanged(benchmark::State& state) {
    vellum::Terminal terminal(nullptr, vellum::TerminalOptions{.cols = cols, .rows = rows});
    std::string screen = colouredScreen();
    for (auto _ : state) {
        terminal.feed(screen);
        benchmark::DoNotOptimize(terminal.makeRenderSnapshot(vellum::RenderSnapshotScope::dirty));
    }
    state.SetItemsProcessed(state.iterations() * cols * rows);
}
BENCHMARK(BM_RenderSnapshotAllRowsChanged);

// A full snapshot of an unchanged screen: every row comes from the per-row cache.
static void BM_RenderSnapshotFullFromCache(benchmark::State& state) {
    vellum::Terminal terminal(nullptr, vellum::TerminalOptions{.cols = cols, .rows = rows});
    terminal.feed(colouredScreen());
    for (auto _ : state) benchmark::DoNotOptimize(terminal.makeRenderSnapshot(vellum::RenderSnapshotScope::full));
}
BENCHMARK(BM_RenderSnapshotFullFromCache);

static void BM_PaintWholeScreen(benchmark::State& state) {
    ViewFixture fixture;
    QRegion all(fixture.view.rect());
    for (auto _ : state) fixture.paint(all);
    state.SetItemsProcessed(state.iterations() * cols * rows);
}
BENCHMARK(BM_PaintWholeScreen)->Unit(benchmark::kMillisecond);

// A character echoed and then erased, each drawn: feed, snapshot, paint of the changed rows.
// Reports the 99th percentile beside the mean.
static void BM_KeystrokeEchoToPixels(benchmark::State& state) {
    ViewFixture fixture;
    feed(fixture.view, "\x1b[40;1H\x1b[K");
    fixture.view.renderNow();
    std::vector<double> micros;
    int i = 0;
    QElapsedTimer timer;
    for (auto _ : state) {
        timer.start();
        feed(fixture.view, i++ % 2 ? "\b \b" : "x");
        fixture.view.renderNow();
        fixture.paint(QRegion(0, (rows - 1) * fixture.view.cellSize().height(), fixture.view.width(),
                              fixture.view.cellSize().height()));
        micros.push_back(timer.nsecsElapsed() / 1e3);
    }
    std::sort(micros.begin(), micros.end());
    if (!micros.empty()) state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
}
BENCHMARK(BM_KeystrokeEchoToPixels)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
