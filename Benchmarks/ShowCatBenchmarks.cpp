// Showing `cat` of a 32 MiB file, end to end, under one X server at one window size: Corvex (the
// real app in this process, with its own corvexd) against xterm, kitty and alacritty from the
// system's packages, run as black boxes. For Corvex the time runs from the command to the swap
// of the first frame that shows its end marker; for a peer, from its start until
// `sh -c 'cat FILE; exit'` has ended and the peer with it. CPU time is the app's and the
// daemon's (corvexd and its holder); a peer's is its own and its children's (sh and cat).
// Started without a display it runs itself under xvfb-run with Mesa's software OpenGL.
#include <benchmark/benchmark.h>

#include <QApplication>
#include <QMainWindow>
#include <QTest>
#include <QTimer>

#include "Benchmarks/AppBenchmarkLoop.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Corvex/AppDelegate.h"
#include "Corvex/PaneHostView.h"
#include "Corvex/TerminalGLSurface.h"
#include "Corvex/TerminalView.h"
#include "CorvexKit/PaneHostSink.h"

using namespace corvex;
using Clock = std::chrono::steady_clock;

namespace {

constexpr size_t fileBytes = 32u << 20;
constexpr int windowWidth = 1280, windowHeight = 800;

std::string workDirectory;

using bench::eventually;
using bench::executableDirectory;
using bench::idle;

// Lines of words of varying length, as a build log or source listing looks.
std::string plainFile() {
    std::string path = workDirectory + "/plain.txt";
    if (std::filesystem::exists(path)) return path;
    std::mt19937 random(7);
    std::string out;
    out.reserve(fileBytes + 256);
    while (out.size() < fileBytes) {
        int words = 3 + int(random() % 14);
        for (int w = 0; w < words; ++w) {
            int length = 1 + int(random() % 9);
            for (int c = 0; c < length; ++c) out.push_back(char('a' + random() % 26));
            out.push_back(' ');
        }
        out.back() = '\n';
    }
    out.resize(fileBytes);
    std::ofstream(path, std::ios::binary) << out;
    return path;
}

// The same kind of text with a true colour or a palette colour on every word.
std::string sgrFile() {
    std::string path = workDirectory + "/sgr.txt";
    if (std::filesystem::exists(path)) return path;
    std::mt19937 random(11);
    std::string out;
    out.reserve(fileBytes + 256);
    while (out.size() < fileBytes) {
        int words = 3 + int(random() % 10);
        for (int w = 0; w < words; ++w) {
            if (random() % 2)
                out += "\x1b[38;2;" + std::to_string(random() % 256) + ";" + std::to_string(random() % 256) + ";" +
                       std::to_string(random() % 256) + "m";
            else
                out += "\x1b[" + std::to_string(30 + random() % 8) + ";" + std::to_string(40 + random() % 8) + "m";
            int length = 1 + int(random() % 9);
            for (int c = 0; c < length; ++c) out.push_back(char('a' + random() % 26));
            out += "\x1b[0m ";
        }
        out.back() = '\n';
    }
    out.resize(fileBytes);
    out += "\x1b[0m\n";
    std::ofstream(path, std::ios::binary) << out;
    return path;
}

double selfCpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) + double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// User and system time of a live process, from /proc.
double processCpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    size_t close = text.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    unsigned long long user = 0, system = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) user = std::stoull(field);
        if (i == 15) system = std::stoull(field);
    }
    return double(user + system) / double(::sysconf(_SC_CLK_TCK));
}

std::optional<pid_t> pidFromFile(const std::string& path) {
    std::ifstream in(path);
    long pid = 0;
    if (in >> pid && pid > 0) return pid_t(pid);
    return std::nullopt;
}

struct Figures {
    double wallSeconds = 0, cpuSeconds = 0;
};

void report(benchmark::State& state, const Figures& figures) {
    state.SetIterationTime(figures.wallSeconds);
    state.counters["wall_s"] = figures.wallSeconds;
    state.counters["cpu_s"] = figures.cpuSeconds;
    state.counters["MiB_per_s"] = double(fileBytes) / (1 << 20) / figures.wallSeconds;
}

// The app with its own daemon, settings and home, for the whole run.
class ShowCatApp {
public:
    ShowCatApp() {
        runtime_ = workDirectory + "/rt";
        std::filesystem::create_directories(runtime_);
        std::filesystem::permissions(runtime_, std::filesystem::perms::owner_all);
        ::setenv("CORVEXD_RUNTIME_DIR", runtime_.c_str(), 1);
        app = std::make_unique<AppDelegate>(AppDelegate::Options{false, workDirectory + "/Corvex.log"});
        app->launch();
        app->window()->resize(windowWidth, windowHeight);
    }
    ~ShowCatApp() {
        app.reset();
        std::string command = "CORVEXD_RUNTIME_DIR='" + runtime_ + "' '" + executableDirectory() + "/corvexd' shutdown >/dev/null 2>&1";
        [[maybe_unused]] int status = std::system(command.c_str());
    }

    bool waitForShell() {
        return eventually(
            [this] {
                PaneHostView* view = app->focusedHost();
                if (!view || !view->isVisible() || !view->host().haveSeq()) return false;
                auto asked = view->host().sentViewport();
                const Pane* model = app->store()->state().pane(view->paneID());
                return asked && model && model->cols == asked->cols && model->rows == asked->rows &&
                       view->terminal()->cols() == asked->cols && view->terminal()->rows() == asked->rows;
            },
            std::chrono::seconds(30));
    }

    double daemonCpuSeconds() const {
        double sum = 0;
        for (const char* name : {"/corvexd.pid", "/holder.pid"})
            if (auto pid = pidFromFile(runtime_ + name)) sum += processCpuSeconds(*pid);
        return sum;
    }

    // Types the command, and waits until a frame has shown its end marker.
    std::optional<Figures> show(const std::string& file, int round) {
        PaneHostView* host = app->focusedHost();
        TerminalView* view = host->terminal();
        TerminalGLSurface* surface = view->findChild<TerminalGLSurface*>();
        // The marker is computed by the shell, so the command's own echo never matches it.
        std::string marker = "CAT-ENDED-" + std::to_string(round * 1000 + 7 * 6);
        std::string command = "clear; cat " + file + "; echo CAT-ENDED-$((" + std::to_string(round) + "*1000+7*6))";
        auto start = Clock::now();
        double cpuStart = selfCpuSeconds() + daemonCpuSeconds();
        // The end is the swap of the first frame that drew the marker. Waiting for "a frame after
        // the marker was read" instead can wait for one that never comes, as a frame may already
        // have drawn it in the same turn of the event loop.
        std::optional<Clock::time_point> shown;
        auto shows = [&] { return view->shownText().find(marker) != std::string::npos; };
        QMetaObject::Connection swaps;
        if (surface)
            swaps = QObject::connect(surface, &QOpenGLWidget::frameSwapped, [&] {
                if (!shown && shows()) shown = Clock::now();
            });
        QTest::keyClicks(view, QString::fromStdString(command));
        QTest::keyClick(view, Qt::Key_Return);
        bool ended = eventually(
            [&] {
                if (!surface && !shown && shows()) shown = Clock::now(); // the painted fallback
                return shown.has_value();
            },
            std::chrono::minutes(5));
        QObject::disconnect(swaps);
        if (!ended) return std::nullopt;
        Figures figures;
        figures.wallSeconds = std::chrono::duration<double>(*shown - start).count();
        figures.cpuSeconds = selfCpuSeconds() + daemonCpuSeconds() - cpuStart;
        // Each round on its own: the table keeps only the mean and the last round's counters.
        std::fprintf(stderr, "round %d wall %.3f cpu %.3f\n", round, figures.wallSeconds, figures.cpuSeconds);
        return figures;
    }

    std::pair<int, int> grid() const {
        TerminalView* view = app->focusedHost()->terminal();
        return {view->cols(), view->rows()};
    }

    std::unique_ptr<AppDelegate> app;

private:
    std::string runtime_;
};

std::unique_ptr<ShowCatApp> sharedApp;
std::pair<int, int> corvexGrid{120, 40};

ShowCatApp& showCatApp() {
    if (!sharedApp) {
        sharedApp = std::make_unique<ShowCatApp>();
        if (sharedApp->waitForShell()) corvexGrid = sharedApp->grid();
        idle(std::chrono::milliseconds(500));
    }
    return *sharedApp;
}

void corvexShows(benchmark::State& state, const std::string& file) {
    ShowCatApp& bench = showCatApp();
    if (!bench.waitForShell()) return state.SkipWithError("no shell");
    int round = 0;
    Figures figures;
    for (auto _ : state) {
        auto shown = bench.show(file, ++round);
        if (!shown) return state.SkipWithError("the marker never showed");
        figures = *shown;
        report(state, figures);
        idle(std::chrono::milliseconds(300));
    }
    state.counters["cols"] = corvexGrid.first;
    state.counters["rows"] = corvexGrid.second;
}

void CorvexPlain(benchmark::State& state) { corvexShows(state, plainFile()); }
void CorvexSgr(benchmark::State& state) { corvexShows(state, sgrFile()); }

// The peer's command line for `sh -c 'cat FILE; exit'` in a window of the app's grid.
std::vector<std::string> peerCommand(const std::string& peer, const std::string& file) {
    auto [cols, rows] = corvexGrid;
    std::string shell = "cat '" + file + "'; exit";
    if (peer == "xterm")
        return {"xterm", "-geometry", std::to_string(cols) + "x" + std::to_string(rows), "-e", "sh", "-c", shell};
    if (peer == "kitty")
        return {"kitty", "--config", "NONE", "-o", "remember_window_size=no", "-o",
                "initial_window_width=" + std::to_string(cols) + "c", "-o",
                "initial_window_height=" + std::to_string(rows) + "c", "-o", "close_on_child_death=yes",
                "sh", "-c", shell};
    return {"alacritty", "--config-file", "/dev/null", "-o", "window.dimensions.columns=" + std::to_string(cols), "-o",
            "window.dimensions.lines=" + std::to_string(rows), "-e", "sh", "-c", shell};
}

std::optional<Figures> runPeer(const std::vector<std::string>& command) {
    auto start = Clock::now();
    pid_t pid = ::fork();
    if (pid == 0) {
        std::vector<char*> argv;
        for (const auto& arg : command) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        ::setenv("LIBGL_ALWAYS_SOFTWARE", "1", 1);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    if (pid < 0) return std::nullopt;
    int status = 0;
    rusage usage{};
    if (::wait4(pid, &status, 0, &usage) != pid) return std::nullopt;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) return std::nullopt;
    Figures figures;
    figures.wallSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    figures.cpuSeconds = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                         double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return figures;
}

void peerShows(benchmark::State& state, const std::string& peer, const std::string& file) {
    showCatApp(); // the grid the peers copy
    for (auto _ : state) {
        auto figures = runPeer(peerCommand(peer, file));
        if (!figures) return state.SkipWithError((peer + " is not installed or failed").c_str());
        report(state, *figures);
    }
}

void XtermPlain(benchmark::State& state) { peerShows(state, "xterm", plainFile()); }
void XtermSgr(benchmark::State& state) { peerShows(state, "xterm", sgrFile()); }
void KittyPlain(benchmark::State& state) { peerShows(state, "kitty", plainFile()); }
void KittySgr(benchmark::State& state) { peerShows(state, "kitty", sgrFile()); }
void AlacrittyPlain(benchmark::State& state) { peerShows(state, "alacritty", plainFile()); }
void AlacrittySgr(benchmark::State& state) { peerShows(state, "alacritty", sgrFile()); }

} // namespace

#define SHOW_CAT(name) BENCHMARK(name)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond)
SHOW_CAT(CorvexPlain);
SHOW_CAT(XtermPlain);
SHOW_CAT(KittyPlain);
SHOW_CAT(AlacrittyPlain);
SHOW_CAT(CorvexSgr);
SHOW_CAT(XtermSgr);
SHOW_CAT(KittySgr);
SHOW_CAT(AlacrittySgr);

int main(int argc, char** argv) {
    if (!std::getenv("DISPLAY")) {
        std::vector<char*> args{const_cast<char*>("xvfb-run"), const_cast<char*>("-a"), const_cast<char*>("-s"),
                                const_cast<char*>("-screen 0 1600x1000x24")};
        for (int i = 0; i < argc; ++i) args.push_back(argv[i]);
        args.push_back(nullptr);
        ::setenv("LIBGL_ALWAYS_SOFTWARE", "1", 1);
        ::execvp("xvfb-run", args.data());
        return 1;
    }
    ::signal(SIGPIPE, SIG_IGN);
    if (!std::getenv("CORVEXD_BIN")) ::setenv("CORVEXD_BIN", (executableDirectory() + "/corvexd").c_str(), 1);
    char pattern[] = "/tmp/corvex-showcat-XXXXXX";
    workDirectory = ::mkdtemp(pattern);
    ::setenv("XDG_CONFIG_HOME", (workDirectory + "/config").c_str(), 1);
    ::setenv("HOME", (workDirectory + "/home").c_str(), 1);
    std::filesystem::create_directories(workDirectory + "/home");
    ::setenv("SHELL", "/bin/sh", 1);
    QApplication app(argc, argv);
    QApplication::setOrganizationName("Corvex");
    QApplication::setApplicationName("CorvexShowCat");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    sharedApp.reset();
    std::filesystem::remove_all(workDirectory);
    return 0;
}
