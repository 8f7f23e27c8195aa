// End to end through a real corvexd: a pane `cat`s a 32 MiB file while a subscribed client
// counts every byte it is sent, and tmux does the same in the same run; then the round trip
// of one keystroke through the daemon to a program that echoes it and back.
//
// tmux's side is counted by a control-mode client (`tmux -C attach`): like ours it is a
// client of the server, sent the pane's output as the server reads it, so both numbers
// include parsing the bytes into a terminal and delivering them to a client. Its `%output`
// lines escape control bytes as octal, which the counter decodes back to one byte each.
// Both panes run `stty -echo -onlcr` first, so exactly the file's bytes come out. tmux is
// also measured through pipe-pane, with no client in its path; the faster of its two
// figures is the one to beat.
#include <benchmark/benchmark.h>

#include "Benchmarks/BenchmarkMain.h"
#include "Benchmarks/ServedDaemon.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <pty.h>
#include <sys/stat.h>
#include <vector>

#include "corvexd/Tests/Support/DaemonHarness.h"

using namespace corvex;
using namespace corvexd::testing;
using Clock = std::chrono::steady_clock;

namespace {

constexpr size_t fileSize = 32u << 20;

enum class Stream { text = 0, sgr = 1, utf8 = 2 };

class Random {
public:
    uint32_t next() {
        state_ = state_ * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<uint32_t>(state_ >> 33);
    }
    uint32_t below(uint32_t n) { return next() % n; }

private:
    uint64_t state_ = 0x2545f4914f6cdd1dull;
};

std::string word(Random& random) {
    static const char* const words[] = {"alpha", "build", "cargo", "delta", "error:", "false", "gamma", "header",
                                        "index", "jump", "kernel", "lambda", "module", "null", "offset", "panic",
                                        "queue", "return", "struct", "thread", "union", "value", "warning:", "yield"};
    return words[random.below(sizeof words / sizeof *words)];
}

std::string utf8Word(Random& random) {
    static const char* const words[] = {"héllo", "naïve", "日本語", "中文字", "한국어", "Ελληνικά", "русский",
                                        "e\xcc\x81t\xc3\xa9", "😀", "👍🏽", "→", "∑x²", "café", "ñandú", "ﬁle", "…"};
    return words[random.below(sizeof words / sizeof *words)];
}

std::string sgrWord(Random& random) {
    std::string out;
    switch (random.below(4)) {
    case 0: out = "\x1b[1;3" + std::to_string(random.below(8)) + "m"; break;
    case 1: out = "\x1b[38;5;" + std::to_string(random.below(256)) + "m"; break;
    case 2:
        out = "\x1b[38;2;" + std::to_string(random.below(256)) + ";" + std::to_string(random.below(256)) + ";" +
              std::to_string(random.below(256)) + "m";
        break;
    default: out = "\x1b[4;48;5;" + std::to_string(random.below(256)) + "m"; break;
    }
    return out + word(random) + "\x1b[0m";
}

// Lines of up to 100 columns, the same bytes on every run.
std::string generate(Stream kind) {
    Random random;
    std::string out;
    out.reserve(fileSize + 256);
    while (out.size() < fileSize) {
        int columns = 0;
        int width = 40 + static_cast<int>(random.below(60));
        while (columns < width) {
            std::string next = kind == Stream::text ? word(random) : kind == Stream::sgr ? sgrWord(random) : utf8Word(random);
            out += next;
            out += ' ';
            columns += 8;
        }
        out += '\n';
    }
    out.resize(fileSize - 1);
    out += '\n';
    return out;
}

const char* streamName(Stream kind) { return kind == Stream::text ? "text" : kind == Stream::sgr ? "sgr" : "utf8"; }

// The three files, written once per run into a folder of their own.
const std::string& streamFile(Stream kind) {
    static testing::ScratchDirectory folder;
    static std::string paths[3];
    std::string& path = paths[static_cast<int>(kind)];
    if (path.empty()) {
        path = folder.file(std::string(streamName(kind)) + ".txt");
        std::ofstream(path, std::ios::binary) << generate(kind);
    }
    return path;
}

std::string catCommand(const std::string& file) { return "stty -echo -onlcr; read go; cat " + file + "; sleep 600"; }

using bench::servedDaemon;

void reportThroughput(benchmark::State& state, double seconds) {
    state.SetIterationTime(seconds);
    state.counters["MB/s"] = benchmark::Counter(fileSize / 1e6 / seconds);
}

void BM_CorvexdCat(benchmark::State& state) {
    Stream kind = static_cast<Stream>(state.range(0));
    const std::string& file = streamFile(kind);
    for (auto _ : state) {
        auto daemon = servedDaemon(state);
        if (!daemon) return;
        auto client = daemon->connect("bench");
        SpawnOptions spawn;
        spawn.command = std::vector<std::string>{"/bin/sh", "-c", catCommand(file)};
        spawn.cols = 200;
        spawn.rows = 50;
        CreatedWorkspace created;
        try {
            created = client->createWorkspace("bench", spawn);
            client->subscribe(created.pane);
        } catch (const BackendError& error) {
            state.SkipWithError(("the daemon can't run this yet: " + error.message()).c_str());
            return;
        }
        auto events = client->events();
        std::this_thread::sleep_for(200ms); // the shell sets its terminal up
        while (events->tryNext()) {
        }
        auto began = Clock::now();
        client->sendInput(created.pane, asBytes("\r"));
        size_t counted = 0;
        auto deadline = began + 120s;
        while (counted < fileSize && Clock::now() < deadline) {
            auto event = events->next(100ms);
            if (!event) continue;
            if (auto output = event->as<SessionEvent::Output>(); output && output->pane == created.pane) {
                counted += output->bytes.size();
            } else if (event->as<SessionEvent::Resync>()) {
                state.SkipWithError("the daemon dropped the client's bytes (resync)");
                return;
            }
        }
        double seconds = std::chrono::duration<double>(Clock::now() - began).count();
        if (counted != fileSize) {
            state.SkipWithError(("counted " + std::to_string(counted) + " bytes").c_str());
            return;
        }
        reportThroughput(state, seconds);
    }
}

// A tmux server on a private socket, for as long as this lives.
class Tmux {
public:
    Tmux() : socket_(folder_.file("tmux.sock")) {}
    ~Tmux() {
        if (control_ > 0) {
            ::close(controlIn_);
            ::kill(control_, SIGKILL);
            waitForExit(control_, 5s);
        }
        tmux({"kill-server"});
    }
    Ran tmux(const std::vector<std::string>& arguments) {
        std::vector<std::string> argv{"/usr/bin/tmux", "-S", socket_, "-f", "/dev/null"};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return runProgram(argv, {{"TMUX", ""}});
    }
    // A control-mode client; its output is read from `controlOut`.
    void attachControl() {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) || ::pipe2(out, O_CLOEXEC)) throw std::runtime_error("pipe");
        int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        control_ = spawnProgram({"/usr/bin/tmux", "-S", socket_, "-f", "/dev/null", "-C", "attach"}, {{"TMUX", ""}}, in[0],
                                out[1], null);
        ::close(null);
        ::close(in[0]);
        ::close(out[1]);
        controlIn_ = in[1];
        controlOut = out[0];
    }
    int controlOut = -1;
    const testing::ScratchDirectory& folder() const { return folder_; }

private:
    testing::ScratchDirectory folder_;
    std::string socket_;
    pid_t control_ = -1;
    int controlIn_ = -1;
};

// Bytes of pane output in one control-mode line: "%output %ID DATA", with `\ooo` escapes.
size_t decodedOutputBytes(std::string_view line) {
    if (line.substr(0, 8) != "%output ") return 0;
    auto space = line.find(' ', 8);
    if (space == std::string_view::npos) return 0;
    size_t count = 0;
    for (size_t i = space + 1; i < line.size(); ++i) {
        if (line[i] == '\\') i += 3; // always three octal digits
        ++count;
    }
    return count;
}

bool haveTmux(benchmark::State& state) {
    if (::access("/usr/bin/tmux", X_OK) == 0) return true;
    state.SkipWithError("tmux is not installed");
    return false;
}

// A fresh tmux pane whose shell waits for Enter, then cats the stream's file.
bool startTmuxCat(benchmark::State& state, Tmux& tmux, const std::string& file) {
    Ran made = tmux.tmux({"new-session", "-d", "-x", "200", "-y", "50", "/bin/sh", "-c", catCommand(file)});
    if (made.status == 0) return true;
    state.SkipWithError(("tmux new-session failed: " + made.err).c_str());
    return false;
}

// Presses Enter and reads `fd` until `count` has seen the whole file or two minutes have
// passed; reports the throughput of what arrived.
void timeTmuxDelivery(benchmark::State& state, Tmux& tmux, int fd,
                      const std::function<size_t(std::string_view chunk)>& count) {
    char buffer[1 << 16];
    auto began = Clock::now();
    tmux.tmux({"send-keys", "Enter"});
    size_t counted = 0;
    auto deadline = began + 120s;
    while (counted < fileSize && Clock::now() < deadline) {
        pollfd ready{fd, POLLIN, 0};
        if (::poll(&ready, 1, 100) <= 0) continue;
        ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0) break;
        if (got == 0) { // no writer yet, or one that has gone: the deadline decides
            std::this_thread::sleep_for(10ms);
            continue;
        }
        counted += count(std::string_view(buffer, static_cast<size_t>(got)));
    }
    double seconds = std::chrono::duration<double>(Clock::now() - began).count();
    if (counted != fileSize) {
        state.SkipWithError(("counted " + std::to_string(counted) + " bytes").c_str());
        return;
    }
    reportThroughput(state, seconds);
}

void BM_TmuxCat(benchmark::State& state) {
    const std::string& file = streamFile(static_cast<Stream>(state.range(0)));
    if (!haveTmux(state)) return;
    for (auto _ : state) {
        Tmux tmux;
        if (!startTmuxCat(state, tmux, file)) return;
        tmux.attachControl();
        std::this_thread::sleep_for(300ms);
        // Settle: what the client prints on attach isn't the stream.
        pollfd ready{tmux.controlOut, POLLIN, 0};
        char scratch[1 << 16];
        for (int wait = 50; ::poll(&ready, 1, wait) > 0; wait = 0) {
            if (::read(tmux.controlOut, scratch, sizeof scratch) <= 0) break;
        }
        std::string pending;
        timeTmuxDelivery(state, tmux, tmux.controlOut, [&](std::string_view chunk) {
            pending.append(chunk);
            size_t counted = 0, start = 0;
            for (size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
                counted += decodedOutputBytes(std::string_view(pending).substr(start, end - start));
            }
            pending.erase(0, start);
            return counted;
        });
    }
}

// The same pane with tmux's pipe-pane copying what it reads from the pane into a FIFO that
// this process counts: no client in the path, so an upper bound on what tmux can deliver.
void BM_TmuxPipePane(benchmark::State& state) {
    const std::string& file = streamFile(static_cast<Stream>(state.range(0)));
    if (!haveTmux(state)) return;
    for (auto _ : state) {
        Tmux tmux;
        if (!startTmuxCat(state, tmux, file)) return;
        std::string fifo = tmux.folder().file("pane.fifo");
        ::mkfifo(fifo.c_str(), 0600);
        int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        tmux.tmux({"pipe-pane", "-O", "cat > " + fifo});
        std::this_thread::sleep_for(300ms);
        timeTmuxDelivery(state, tmux, reader, [](std::string_view chunk) { return chunk.size(); });
        ::close(reader);
    }
}

// The ceiling of any terminal server: the same `cat` on a bare PTY, read in a plain loop with
// nothing parsed or forwarded.
void BM_PtyReadLoop(benchmark::State& state) {
    Stream kind = static_cast<Stream>(state.range(0));
    const std::string& file = streamFile(kind);
    for (auto _ : state) {
        int master = -1;
        winsize size{50, 200, 0, 0};
        pid_t child = ::forkpty(&master, nullptr, nullptr, &size);
        if (child == 0) {
            ::execl("/bin/sh", "sh", "-c", ("stty -echo -onlcr; cat " + file).c_str(), nullptr);
            ::_exit(127);
        }
        auto began = Clock::now();
        size_t counted = 0;
        char buffer[1 << 16];
        for (ssize_t count; counted < fileSize && (count = ::read(master, buffer, sizeof buffer)) > 0;) counted += size_t(count);
        reportThroughput(state, std::chrono::duration<double>(Clock::now() - began).count());
        ::close(master);
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
}

// One byte to a program that writes it straight back, from sendInput until its output
// event arrives; median and 99th percentile over many round trips.
void BM_CorvexdKeystrokeEcho(benchmark::State& state) {
    auto daemon = servedDaemon(state);
    if (!daemon) return;
    auto client = daemon->connect("bench");
    SpawnOptions spawn;
    spawn.command = std::vector<std::string>{"/bin/sh", "-c", "stty raw -echo; exec cat"};
    CreatedWorkspace created;
    try {
        created = client->createWorkspace("echo", spawn);
        client->subscribe(created.pane);
    } catch (const BackendError& error) {
        state.SkipWithError(("the daemon can't run this yet: " + error.message()).c_str());
        return;
    }
    auto events = client->events();
    std::this_thread::sleep_for(300ms);
    while (events->tryNext()) {
    }
    std::vector<double> trips;
    for (auto _ : state) {
        char key = static_cast<char>('a' + trips.size() % 26);
        auto began = Clock::now();
        client->sendInput(created.pane, asBytes(std::string_view(&key, 1)));
        bool echoed = false;
        while (!echoed) {
            auto event = events->next(5s);
            if (!event) {
                state.SkipWithError("no echo within 5 s");
                return;
            }
            auto output = event->as<SessionEvent::Output>();
            echoed = output && output->pane == created.pane;
        }
        double seconds = std::chrono::duration<double>(Clock::now() - began).count();
        state.SetIterationTime(seconds);
        trips.push_back(seconds);
    }
    std::sort(trips.begin(), trips.end());
    state.counters["median_us"] = trips[trips.size() / 2] * 1e6;
    state.counters["p99_us"] = trips[std::min(trips.size() - 1, trips.size() * 99 / 100)] * 1e6;
}

} // namespace

// Each stream: 0 text, 1 SGR-heavy, 2 UTF-8; tmux beside corvexd for each.
BENCHMARK(BM_CorvexdCat)->DenseRange(0, 2)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PtyReadLoop)->DenseRange(0, 2)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TmuxCat)->DenseRange(0, 2)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TmuxPipePane)->DenseRange(0, 2)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CorvexdKeystrokeEcho)->Iterations(2000)->UseManualTime()->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) { return corvex::bench::runBesideBuild(argc, argv); }
