// Headless feed throughput at 120x40 on generated streams, beside libvterm when available,
// and the memory of a full 10,000-row scrollback at 200 columns.
#include <benchmark/benchmark.h>

#include <malloc.h>

#include <functional>
#include <random>
#include <string>

#include "Vellum/HeadlessTerminal.h"

#if CORVEX_HAVE_LIBVTERM
#include <vterm.h>
#endif

namespace {

constexpr int benchCols = 120, benchRows = 40;
constexpr size_t streamBytes = 4 << 20;

std::string plainText() {
    std::mt19937 random(1);
    std::string out;
    while (out.size() < streamBytes) {
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
std::string sgrStream(unsigned seed, const std::function<std::string(std::mt19937&)>& thirdKind) {
    std::mt19937 random(seed);
    std::string out;
    while (out.size() < streamBytes) {
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

std::string sgrHeavy() {
    return sgrStream(2, [](std::mt19937& random) {
        std::string red = std::to_string(random() % 256);
        return "\x1b[48;2;" + red + ";" + std::to_string(random() % 256) + ";7m";
    });
}

// The SGR stream's shape with a few thousand renditions instead of tens of thousands: this one
// measures parsing and walking the parameters without the cost of interning ever new styles.
std::string sgrPalette() {
    return sgrStream(5, [](std::mt19937& random) { return "\x1b[4" + std::to_string(random() % 8) + "m"; });
}

std::string cjkAndEmoji() {
    std::mt19937 random(3);
    std::string out;
    const char* emoji[] = {"\xf0\x9f\x98\x80", "\xf0\x9f\x9a\x80", "\xe2\x9d\xa4\xef\xb8\x8f", "\xf0\x9f\x91\x8d\xf0\x9f\x8f\xbd"};
    while (out.size() < streamBytes) {
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

std::string cursorAddressed() {
    std::mt19937 random(4);
    std::string out;
    while (out.size() < streamBytes) {
        for (int row = 1; row <= benchRows; ++row) {
            out += "\x1b[" + std::to_string(row) + ";1H\x1b[3" + std::to_string(random() % 8) + "m";
            for (int col = 0; col < benchCols - 1; ++col) out.push_back(static_cast<char>('!' + random() % 90));
        }
        out += "\x1b[H\x1b[m";
    }
    return out;
}

const std::string& stream(int kind) {
    static const std::string streams[] = {plainText(), sgrHeavy(), cjkAndEmoji(), cursorAddressed(), sgrPalette()};
    return streams[kind];
}

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

} // namespace

BENCHMARK(feedVellum)->DenseRange(0, 4)->ArgNames({"plain_sgr_cjk_cursor_sgrpalette"})->Unit(benchmark::kMillisecond);
#if CORVEX_HAVE_LIBVTERM
BENCHMARK(feedLibvterm)->DenseRange(0, 4)->ArgNames({"plain_sgr_cjk_cursor_sgrpalette"})->Unit(benchmark::kMillisecond);
#endif
BENCHMARK(scrollbackMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
