// The app's own figures, in the app's own process against a real corvexd on this machine:
// keystroke to pixels, memory with ten full scrollbacks, and what an idle window costs.
// Without a display the widgets draw offscreen, which paints the same way.
#include <benchmark/benchmark.h>

#include <QApplication>
#include <QMainWindow>
#include <QTest>
#include <QTimer>

#include "Benchmarks/AppBenchmarkLoop.h"
#include <cstdio>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/resource.h>
#include <unistd.h>

#include "Corvex/AppDelegate.h"
#include "Corvex/PaneHostView.h"
#include "Corvex/TerminalView.h"
#include "Vellum/Buffer.h"
#include "Vellum/Terminal.h"

using namespace corvex;
using Clock = std::chrono::steady_clock;

namespace {

using bench::eventually;
using bench::executableDirectory;
using bench::idle;

// Counts the frames a widget paints, and when the last one was.
class PaintCounter final : public QObject {
public:
    int paints = 0;
    Clock::time_point last;
    std::function<void()> onPaint;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::Paint) {
            ++paints;
            last = Clock::now();
            if (onPaint) onPaint();
        }
        return QObject::eventFilter(watched, event);
    }
};

// One app with its own daemon, settings and home, for the whole run.
class BenchApp {
public:
    BenchApp() {
        char pattern[] = "/tmp/corvex-bench-XXXXXX";
        base_ = ::mkdtemp(pattern);
        std::filesystem::create_directories(base_ + "/rt");
        std::filesystem::permissions(base_ + "/rt", std::filesystem::perms::owner_all);
        ::setenv("CORVEXD_RUNTIME_DIR", (base_ + "/rt").c_str(), 1);
        app = std::make_unique<AppDelegate>(AppDelegate::Options{false, base_ + "/Corvex.log"});
        app->launch();
        app->window()->resize(1280, 800);
    }
    ~BenchApp() {
        app.reset();
        std::string command = "CORVEXD_RUNTIME_DIR='" + base_ + "/rt' '" + executableDirectory() +
                              "/corvexd' shutdown >/dev/null 2>&1";
        [[maybe_unused]] int status = std::system(command.c_str());
        std::filesystem::remove_all(base_);
    }

    // A shown pane with its shell's first output, at the size the window gives it.
    bool waitForShell() {
        return eventually([this] {
            PaneHostView* view = app->focusedHost();
            if (!view || !view->isVisible() || !view->host().haveSeq()) return false;
            auto asked = view->host().sentViewport();
            const Pane* model = app->store()->state().pane(view->paneID());
            return asked && model && model->cols == asked->cols && model->rows == asked->rows &&
                   view->terminal()->cols() == asked->cols && view->terminal()->rows() == asked->rows;
        });
    }

    void run(const std::string& command) {
        PaneHostView* view = app->focusedHost();
        QTest::keyClicks(view->terminal(), QString::fromStdString(command));
        QTest::keyClick(view->terminal(), Qt::Key_Return);
    }

    std::unique_ptr<AppDelegate> app;

private:
    std::string base_;
};

// Made by the first benchmark, ended before the QApplication goes.
std::unique_ptr<BenchApp> sharedApp;

BenchApp& benchApp() {
    if (!sharedApp) sharedApp = std::make_unique<BenchApp>();
    return *sharedApp;
}

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    size_t index = std::min(values.size() - 1, static_cast<size_t>(p * static_cast<double>(values.size() - 1) + 0.5));
    return values[index];
}

long residentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    }
    return 0;
}

double cpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// A key event given to the focused view, to the first painted frame whose text holds its echo.
void BM_KeystrokeToPixels(benchmark::State& state) {
    BenchApp& bench = benchApp();
    if (!bench.waitForShell()) {
        state.SkipWithError("no shell");
        return;
    }
    bench.run("clear; cat >/dev/null");
    PaneHostView* view = bench.app->focusedHost();
    TerminalView* terminal = view->terminal();
    // The command's echo, then the clear that wipes it, then quiet.
    eventually([&] { return terminal->screenText().find("null") != std::string::npos; });
    eventually([&] { return terminal->screenText().find("null") == std::string::npos; });
    idle(std::chrono::milliseconds(500));
    PaintCounter counter;
    terminal->installEventFilter(&counter);
    const char keys[] = "abcdefghijklmnopqrstuvwxyz";
    std::vector<double> micros;
    int typed = 0;
    for (auto _ : state) {
        for (int key = 0; key < 500; ++key) {
            // A fresh line now and then keeps the echo on one row.
            if (typed == 60) {
                QTest::keyClick(terminal, Qt::Key_Return);
                eventually([&] { return terminal->screenText().find(std::string(60, 'z')) == std::string::npos; },
                           std::chrono::milliseconds(200));
                typed = 0;
            }
            // Keys come at typing pace, not back to back: each finds the view between frames.
            idle(std::chrono::milliseconds(20));
            char c = keys[key % 26];
            std::string before = terminal->screenText();
            size_t count = std::count(before.begin(), before.end(), c);
            bool shown = false;
            Clock::time_point start;
            counter.onPaint = [&] {
                std::string now = terminal->screenText();
                if (static_cast<size_t>(std::count(now.begin(), now.end(), c)) > count) shown = true;
            };
            start = Clock::now();
            QTest::keyClick(terminal, c);
            if (!eventually([&] { return shown; }, std::chrono::seconds(5))) {
                fprintf(stderr, "no echo of %c after %d keys; ydisp %d ybase %d rows %d; screen:\n%s\nfocused:\n%s\n", c, key,
                        terminal->terminal().buffer().yDisp, terminal->terminal().buffer().yBase, terminal->rows(),
                        terminal->screenText().c_str(),
                        bench.app->focusedHost() ? bench.app->focusedHost()->terminal()->screenText().c_str() : "none");
                std::system(("cat " + bench.app->logPath() + " >&2").c_str());
                state.SkipWithError("an echo never showed");
                return;
            }
            micros.push_back(std::chrono::duration<double, std::micro>(counter.last - start).count());
            ++typed;
        }
    }
    counter.onPaint = {};
    terminal->removeEventFilter(&counter);
    // Ends the cat, and lets the shell's prompt come back before the next benchmark types.
    view->host().sendInput(corvex::asBytes("\x03"));
    idle(std::chrono::milliseconds(500));
    state.counters["median_us"] = percentile(micros, 0.5);
    state.counters["p99_us"] = percentile(micros, 0.99);
    state.counters["keys"] = static_cast<double>(micros.size());
}
BENCHMARK(BM_KeystrokeToPixels)->Iterations(1)->Unit(benchmark::kMillisecond);

// Ten panes, each with 10,000 lines of scrollback, held by the app.
void BM_MemoryTenPanesFullScrollback(benchmark::State& state) {
    BenchApp& bench = benchApp();
    if (!bench.waitForShell()) {
        state.SkipWithError("no shell");
        return;
    }
    long before = residentKiB();
    for (auto _ : state) {
        for (int pane = 0; pane < 10; ++pane) {
            if (pane > 0) {
                size_t tabs = bench.app->store()->focusedWorkspace()->tabs.size();
                bench.app->newTab();
                eventually([&] { return bench.app->store()->focusedWorkspace()->tabs.size() == tabs + 1; });
                bench.waitForShell();
            }
            PaneHostView* view = bench.app->focusedHost();
            // The view keeps a short history by default; this asks it to hold all of it.
            view->terminal()->terminal().setScrollback(10000);
            bench.run("seq -f 'line %g of the scrollback that fills this pane to its end' 1 10000");
            if (!eventually([&] { return view->terminal()->screenText().find("line 10000 of") != std::string::npos; },
                            std::chrono::seconds(60))) {
                fprintf(stderr, "pane %d never finished:\n%s\n", pane, view->terminal()->screenText().c_str());
                state.SkipWithError("output never finished");
                return;
            }
        }
    }
    long after = residentKiB();
    long held = 0;
    for (uint64_t pane : bench.app->store()->focusedWorkspace()->tabs.front().layout.panes()) {
        if (PaneHostView* view = bench.app->host(pane)) held = view->terminal()->terminal().buffer().scrollbackRows();
    }
    state.counters["history_rows_first_pane"] = static_cast<double>(held);
    state.counters["rss_before_MiB"] = static_cast<double>(before) / 1024;
    state.counters["rss_after_MiB"] = static_cast<double>(after) / 1024;
    state.counters["per_pane_MiB"] = static_cast<double>(after - before) / 1024 / 10;
}
BENCHMARK(BM_MemoryTenPanesFullScrollback)->Iterations(1)->Unit(benchmark::kMillisecond);

// A quiet window for 30 seconds: how many frames it paints and how much CPU it takes.
void BM_IdleWindow(benchmark::State& state) {
    BenchApp& bench = benchApp();
    if (!bench.waitForShell()) {
        state.SkipWithError("no shell");
        return;
    }
    bench.run("clear");
    idle(std::chrono::seconds(2)); // let the clear settle
    PaintCounter counter;
    QList<QWidget*> widgets = bench.app->window()->findChildren<QWidget*>();
    for (QWidget* widget : widgets) widget->installEventFilter(&counter);
    double cpu = 0;
    for (auto _ : state) {
        double start = cpuSeconds();
        idle(std::chrono::seconds(30));
        cpu = cpuSeconds() - start;
    }
    for (QWidget* widget : widgets) widget->removeEventFilter(&counter);
    state.counters["frames"] = counter.paints;
    state.counters["cpu_percent_of_a_core"] = cpu / 30 * 100;
}
BENCHMARK(BM_IdleWindow)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    if (!std::getenv("CORVEXD_BIN")) ::setenv("CORVEXD_BIN", (executableDirectory() + "/corvexd").c_str(), 1);
    // Settings of its own, never the user's.
    char pattern[] = "/tmp/corvex-bench-home-XXXXXX";
    std::string home = ::mkdtemp(pattern);
    ::setenv("XDG_CONFIG_HOME", home.c_str(), 1);
    QApplication app(argc, argv);
    QApplication::setOrganizationName("Corvex");
    QApplication::setApplicationName("CorvexBenchmarks");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    sharedApp.reset();
    std::filesystem::remove_all(home);
    return 0;
}
