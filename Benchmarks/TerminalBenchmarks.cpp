// Headless feed throughput at 120x40 on generated streams, beside libvterm when available:
// in-process on 4 MiB streams, and whole-process (vellum-replay against a small libvterm
// program, each reading a 32 MiB file) on the same kinds of stream. Also the memory of a
// full 10,000-row scrollback at 200 columns, and of an idle terminal.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <filesystem>
#include <fstream>

#include <functional>
#include <random>
#include <string>

#include "Vellum/HeadlessTerminal.h"

#if CORVEX_HAVE_LIBVTERM
#include <vterm.h>
#endif

namespace {

constexpr int benchCols = 120, benchRows = 40;
constexpr size_t streamBytes = 4 << 20, wholeProcessBytes = 32 << 20;

std::string plainText(size_t size) {
    std::mt19937 random(1);
    std::string out;
    while (out.size() < size) {
        int words = 3 + static_cast<int>(random() % 12);
        for (int w = 0; w < words; ++w) {
            for (int n = 2 + static_cast<int>(random() % 8); n > 0; --n) out.push_back(static_cast<char>('a' + random() % 26));
            out.push_back(' ');
        }
        out += "\r\n";
    }
    return out;
}

// Short words, each after a random rendition; the third kind is what sets the two SGR streams
// apart.
std::string sgrStream(size_t size, unsigned seed, const std::function<std::string(std::mt19937&)>& thirdKind) {
    std::mt19937 random(seed);
    std::string out;
    while (out.size() < size) {
        for (int w = 0; w < 10; ++w) {
            switch (random() % 4) {
            case 0: out += "\x1b[38;5;" + std::to_string(random() % 256) + "m"; break;
            case 1: out += "\x1b[1;3" + std::to_string(random() % 8) + "m"; break;
            case 2: out += thirdKind(random); break;
            default: out += "\x1b[0m"; break;
            }
            for (int n = 3 + static_cast<int>(random() % 6); n > 0; --n) out.push_back(static_cast<char>('a' + random() % 26));
            out.push_back(' ');
        }
        out += "\x1b[m\r\n";
    }
    return out;
}

std::string sgrHeavy(size_t size) {
    return sgrStream(size, 2, [](std::mt19937& random) {
        std::string red = std::to_string(random() % 256);
        return "\x1b[48;2;" + red + ";" + std::to_string(random() % 256) + ";7m";
    });
}

// The SGR stream's shape with a few thousand renditions instead of tens of thousands: this one
// measures parsing and walking the parameters without the cost of interning ever new styles.
std::string sgrPalette(size_t size) {
    return sgrStream(size, 5, [](std::mt19937& random) { return "\x1b[4" + std::to_string(random() % 8) + "m"; });
}

std::string cjkAndEmoji(size_t size) {
    std::mt19937 random(3);
    std::string out;
    const char* emoji[] = {"\xf0\x9f\x98\x80", "\xf0\x9f\x9a\x80", "\xe2\x9d\xa4\xef\xb8\x8f", "\xf0\x9f\x91\x8d\xf0\x9f\x8f\xbd"};
    while (out.size() < size) {
        for (int i = 0; i < 40; ++i) {
            if (random() % 5 == 0) {
                out += emoji[random() % 4];
            } else {
                char32_t c = 0x4E00 + random() % 0x5000;
                out.push_back(static_cast<char>(0xE0 | (c >> 12)));
                out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
                out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
            }
        }
        out += "\r\n";
    }
    return out;
}

// A full-screen program redrawing: each row addressed, coloured, written to a varying length
// and erased to its end.
std::string cursorAddressed(size_t size) {
    std::mt19937 random(4);
    std::string out;
    while (out.size() < size) {
        for (int row = 1; row <= benchRows; ++row) {
            out += "\x1b[" + std::to_string(row) + ";1H\x1b[3" + std::to_string(random() % 8) + "m";
            for (int col = static_cast<int>(random() % benchCols); col < benchCols - 1; ++col)
                out.push_back(static_cast<char>('!' + random() % 90));
            out += "\x1b[K";
        }
        out += "\x1b[H\x1b[m";
    }
    return out;
}

std::string makeStream(int kind, size_t size) {
    switch (kind) {
    case 0: return plainText(size);
    case 1: return sgrHeavy(size);
    case 2: return cjkAndEmoji(size);
    case 3: return cursorAddressed(size);
    default: return sgrPalette(size);
    }
}

const std::string& stream(int kind) {
    static const std::string streams[] = {makeStream(0, streamBytes), makeStream(1, streamBytes), makeStream(2, streamBytes),
                                          makeStream(3, streamBytes), makeStream(4, streamBytes)};
    return streams[kind];
}

// The 32 MiB stream of a kind, written once to a file that the child processes read.
const std::string& streamFile(int kind) {
    static std::string paths[5];
    std::string& path = paths[kind];
    if (path.empty()) {
        path = (std::filesystem::temp_directory_path() / ("vellum-bench-" + std::to_string(getpid()) + "-" + std::to_string(kind))).string();
        std::ofstream(path, std::ios::binary) << makeStream(kind, wholeProcessBytes);
        std::atexit([] {
            for (auto& each : paths)
                if (!each.empty()) std::filesystem::remove(each);
        });
    }
    return path;
}

std::filesystem::path besideThisProgram(const char* name) {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

// Runs a program to its end with its output thrown away and gives the processor time it took,
// user and system, start to exit; nothing when it could not run. Processor time rather than
// wall time, so that other work on a shared machine does not count against either side.
std::optional<double> runQuietly(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const auto& each : arguments) argv.push_back(const_cast<char*>(each.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    int failed = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    struct rusage usage {};
    if (failed != 0 || wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
    auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Whole-process processor time of one program on one kind of stream, start to exit.
void wholeProcess(benchmark::State& state, const char* program, std::vector<std::string> options) {
    const std::string& path = streamFile(static_cast<int>(state.range(0)));
    std::vector<std::string> arguments{besideThisProgram(program).string()};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.push_back(path);
    for (auto _ : state) {
        auto seconds = runQuietly(arguments);
        if (!seconds) {
            state.SkipWithError("the program did not run");
            return;
        }
        state.SetIterationTime(*seconds);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * wholeProcessBytes));
}

void processVellum(benchmark::State& state) { wholeProcess(state, "vellum-replay", {"--cols", "120", "--rows", "40"}); }

void feedVellum(benchmark::State& state) {
    const std::string& bytes = stream(static_cast<int>(state.range(0)));
    vellum::TerminalOptions options;
    options.cols = benchCols;
    options.rows = benchRows;
    options.scrollback = 1000;
    vellum::HeadlessTerminal headless(options);
    for (auto _ : state) {
        for (size_t at = 0; at < bytes.size(); at += 65536) headless.feed(std::string_view(bytes).substr(at, 65536));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

#if CORVEX_HAVE_LIBVTERM
void feedLibvterm(benchmark::State& state) {
    const std::string& bytes = stream(static_cast<int>(state.range(0)));
    VTerm* vt = vterm_new(benchRows, benchCols);
    vterm_set_utf8(vt, 1);
    VTermScreen* screen = vterm_obtain_screen(vt);
    vterm_screen_reset(screen, 1);
    for (auto _ : state) {
        for (size_t at = 0; at < bytes.size(); at += 65536)
            vterm_input_write(vt, bytes.data() + at, std::min<size_t>(65536, bytes.size() - at));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
    vterm_free(vt);
}
#endif

#if CORVEX_HAVE_LIBVTERM
void processLibvterm(benchmark::State& state) { wholeProcess(state, "terminal-peer-replay", {}); }
#endif

void scrollbackMemory(benchmark::State& state) {
    for (auto _ : state) {
        size_t before = mallinfo2().uordblks;
        vellum::TerminalOptions options;
        options.cols = 200;
        options.rows = 50;
        options.scrollback = 10000;
        auto headless = std::make_unique<vellum::HeadlessTerminal>(options);
        std::string row(199, 'x');
        row += "\r\n";
        for (int i = 0; i < 10100; ++i) headless->feed(row);
        size_t used = mallinfo2().uordblks - before;
        int rows = headless->terminal->buffer().lines.count();
        state.counters["bytesPerRow"] = static_cast<double>(used) / rows;
        state.counters["bytesPerCell"] = static_cast<double>(used) / (rows * 200.0);
        state.counters["rows"] = rows;
    }
}

// Heap and separately mapped blocks: big tables are mapped on their own and not in uordblks.
size_t allocatedBytes() {
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// What a pane costs before anything is written to it: terminals with the default size and
// scrollback, as every new pane starts. Bytes asked of the allocator; what is resident depends
// on which pages the allocator reuses, so it is measured on a fresh process instead (the
// maximum resident size of vellum-replay on a two-byte file).
void idleTerminalMemory(benchmark::State& state) {
    constexpr int count = 32;
    for (auto _ : state) {
        size_t before = allocatedBytes();
        std::vector<std::unique_ptr<vellum::HeadlessTerminal>> terminals;
        for (int i = 0; i < count; ++i) {
            terminals.push_back(std::make_unique<vellum::HeadlessTerminal>());
            terminals.back()->feed("$ ");
        }
        state.counters["allocatedPerTerminal"] = static_cast<double>(allocatedBytes() - before) / count;
    }
}

} // namespace

BENCHMARK(feedVellum)->DenseRange(0, 4)->ArgNames({"plain_sgr_cjk_cursor_sgrpalette"})->Unit(benchmark::kMillisecond);
#if CORVEX_HAVE_LIBVTERM
BENCHMARK(feedLibvterm)->DenseRange(0, 4)->ArgNames({"plain_sgr_cjk_cursor_sgrpalette"})->Unit(benchmark::kMillisecond);
#endif
BENCHMARK(processVellum)->DenseRange(0, 4)->ArgNames({"plain_sgr_cjk_cursor_sgrpalette"})->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
#if CORVEX_HAVE_LIBVTERM
BENCHMARK(processLibvterm)->DenseRange(0, 4)->ArgNames({"plain_sgr_cjk_cursor_sgrpalette"})->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
#endif
BENCHMARK(scrollbackMemory)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(idleTerminalMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
