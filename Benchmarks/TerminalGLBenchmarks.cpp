// The GPU path of a pane on the machine's X server with Mesa's software OpenGL (the CI machine
// has no GPU): time to draw a 300 × 100 frame for a full redraw, one changed row and a scroll
// by one line, and what ten quiet panes cost. Started without a display, it runs itself under
// xvfb-run.
#include <benchmark/benchmark.h>

#include <QApplication>
#include <QGridLayout>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>
#include <QThread>
#include <QWindow>
#include <QWidget>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Corvex/TerminalGLSurface.h"
#include "Corvex/TerminalView.h"

namespace {

using corvex::TerminalGLSurface;
using corvex::TerminalView;

// Runs the event loop for a while.
void waitMs(int ms) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(1);
    }
}

// Sleeps in the event loop, waking only for what the app itself asks for, so that the figure
// of an idle window is the app's and not this loop's.
void sleepInEventLoop(int ms) {
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

void waitExposed(QWidget& window) {
    QElapsedTimer timer;
    timer.start();
    while (!window.windowHandle()->isExposed() && timer.elapsed() < 5000) waitMs(10);
    waitMs(100);
}

std::string screenful(int cols, int rows, int seed) {
    std::string out = "\x1b[H";
    for (int r = 0; r < rows; ++r) {
        out += "\x1b[" + std::to_string(31 + (r + seed) % 7) + "m";
        for (int c = 0; c < cols; ++c) out.push_back(char('!' + (r * 7 + c + seed) % 90));
        if (r + 1 < rows) out += "\r\n";
    }
    return out;
}

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// The process's CPU time per frame, Mesa's rasteriser threads included: under a loaded machine
// the wall time mostly measures waiting for a core.
struct CpuPerFrame {
    benchmark::State& state;
    double start = cpuSeconds();
    ~CpuPerFrame() {
        if (state.iterations() > 0) state.counters["cpu_ms_per_frame"] = 1000 * (cpuSeconds() - start) / double(state.iterations());
    }
};

struct BigPane {
    QWidget window;
    TerminalView* view = new TerminalView(&window);
    TerminalGLSurface* surface = nullptr;

    BigPane() {
        view->resizeTerminal(300, 100);
        view->setCursorBlinkTimeout(std::chrono::milliseconds(0));
        view->resize(view->sizeHint());
        window.resize(view->sizeHint());
        window.show();
        waitExposed(window);
        surface = view->findChild<TerminalGLSurface*>();
        feed(screenful(300, 100, 0));
        draw();
        feed(screenful(300, 100, 1));
        draw();
    }
    void feed(const std::string& bytes) { view->feedFromBackend({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}); }
    // One frame drawn to the end: the surface's paint, then the GPU's work finished.
    void draw() {
        view->renderNow();
        if (!surface) return;
        surface->repaint();
        surface->makeCurrent();
        QOpenGLContext::currentContext()->functions()->glFinish();
        surface->doneCurrent();
    }
};

void GLFullRedraw(benchmark::State& state) {
    BigPane pane;
    if (!pane.surface) return state.SkipWithError("no OpenGL surface");
    CpuPerFrame cpu{state};
    int i = 0;
    std::string screens[2] = {screenful(300, 100, 2), screenful(300, 100, 3)};
    for (auto _ : state) {
        pane.feed(screens[++i & 1]);
        pane.draw();
    }
}

void GLOneChangedRow(benchmark::State& state) {
    BigPane pane;
    if (!pane.surface) return state.SkipWithError("no OpenGL surface");
    CpuPerFrame cpu{state};
    const std::string edits[2] = {"\x1b[50;1Habcdefghij", "\x1b[50;1Hklmnopqrst"};
    int i = 0;
    for (auto _ : state) {
        pane.feed(edits[++i & 1]);
        pane.draw();
    }
}

void GLScrollByOneLine(benchmark::State& state) {
    BigPane pane;
    if (!pane.surface) return state.SkipWithError("no OpenGL surface");
    CpuPerFrame cpu{state};
    std::string line = "\x1b[100;1H\r\n";
    for (int c = 0; c < 300; ++c) line.push_back(char('a' + c % 26));
    for (auto _ : state) {
        pane.feed(line);
        pane.draw();
    }
}

// Ten 80 × 24 panes with a prompt and a blinking cursor that has gone quiet.
void IdleTenPanes(benchmark::State& state) {
    QWidget window;
    auto* grid = new QGridLayout(&window);
    std::vector<TerminalView*> views;
    for (int i = 0; i < 10; ++i) {
        auto* view = new TerminalView;
        view->resizeTerminal(80, 24);
        view->setCursorBlinkTimeout(std::chrono::milliseconds(500));
        grid->addWidget(view, i / 5, i % 5);
        views.push_back(view);
    }
    window.show();
    waitExposed(window);
    for (auto* view : views) {
        std::string prompt = "user@host:~$ ";
        view->feedFromBackend({reinterpret_cast<const uint8_t*>(prompt.data()), prompt.size()});
    }
    waitMs(1500); // output drawn, cursors stopped blinking
    sleepInEventLoop(500);
    auto frames = [&] {
        uint64_t sum = 0;
        for (auto* view : views)
            if (auto* surface = view->findChild<TerminalGLSurface*>()) sum += surface->framesDrawn();
        return sum;
    };
    for (auto _ : state) {
        uint64_t framesBefore = frames();
        double cpuBefore = cpuSeconds();
        QElapsedTimer wall;
        wall.start();
        sleepInEventLoop(5000);
        state.counters["frames"] = double(frames() - framesBefore);
        state.counters["cpu_percent_of_core"] = 100 * (cpuSeconds() - cpuBefore) / (wall.elapsed() / 1000.0);
    }
}

} // namespace

BENCHMARK(GLFullRedraw)->MinTime(3.0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(GLOneChangedRow)->MinTime(3.0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(GLScrollByOneLine)->MinTime(3.0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(IdleTenPanes)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char** argv) {
    if (!qEnvironmentVariableIsSet("DISPLAY")) {
        std::vector<char*> args{const_cast<char*>("xvfb-run"), const_cast<char*>("-a"), const_cast<char*>("-s"),
                                const_cast<char*>("-screen 0 3400x2400x24")};
        for (int i = 0; i < argc; ++i) args.push_back(argv[i]);
        args.push_back(nullptr);
        setenv("LIBGL_ALWAYS_SOFTWARE", "1", 1);
        execvp("xvfb-run", args.data());
        return 1;
    }
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
