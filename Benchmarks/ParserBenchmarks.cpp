// The parser alone, driving a target that only counts, on deterministic generated streams fed
// in 64 KiB pieces (the size of one read slot).
#include <benchmark/benchmark.h>

#include <random>
#include <string>

#include "Vellum/EscapeSequenceParser.h"

using namespace vellum;

namespace {

constexpr size_t streamBytes = 4 << 20;
constexpr size_t pieceBytes = 64 << 10;

class CountingTarget final : public ParserTarget {
public:
    size_t printed = 0, controls = 0, sequences = 0, payload = 0;

    void handlePrintBorrowed(std::span<const uint8_t> run) override { printed += run.size(); }
    void dispatchExecute(uint8_t) override { ++controls; }
    void dispatchCsi(uint8_t, CsiParameters pars, std::span<const uint8_t>) override { sequences += size_t(pars.count); }
    void dispatchEsc(std::span<const uint8_t>, uint8_t) override { ++sequences; }
    std::unique_ptr<DcsHandler> dispatchDcs(std::span<const uint8_t>, uint8_t, CsiParameters) override { return nullptr; }
    void dispatchOsc(int64_t, std::span<const uint8_t> data, uint8_t) override { payload += data.size(); }
    void dispatchApc(uint8_t, std::span<const uint8_t> content) override { payload += content.size(); }
    void clearReadingBuffer() override {}
    bool silentLog() const override { return true; }
};

std::string words(std::mt19937& random, size_t length) {
    std::string out;
    while (out.size() < length) {
        for (int k = 3 + int(random() % 7); k > 0; --k) out += char('a' + random() % 26);
        out += ' ';
    }
    out.resize(length);
    return out;
}

std::string plainText() {
    std::mt19937 random(1);
    std::string out;
    while (out.size() < streamBytes) out += words(random, 20 + random() % 100) + "\r\n";
    return out;
}

std::string sgrHeavy() {
    std::mt19937 random(2);
    std::string out;
    while (out.size() < streamBytes) {
        switch (random() % 4) {
        case 0: out += "\x1b[38;5;" + std::to_string(random() % 256) + "m"; break;
        case 1: out += "\x1b[1;" + std::to_string(30 + random() % 8) + "m"; break;
        case 2: out += "\x1b[38:2::" + std::to_string(random() % 256) + ":" + std::to_string(random() % 256) + ":7m"; break;
        default: out += "\x1b[0m"; break;
        }
        out += words(random, 2 + random() % 10);
        if (random() % 10 == 0) out += "\r\n";
    }
    return out;
}

std::string cjkAndEmoji() {
    static const char* characters[] = {"\xe4\xb8\xad", "\xe6\x96\x87", "\xe5\xad\x97", "\xe3\x81\x82", "\xed\x95\x9c",
                                       "\xf0\x9f\x98\x80", "\xf0\x9f\x91\x8d\xf0\x9f\x8f\xbd", "\xe2\x9d\xa4\xef\xb8\x8f"};
    std::mt19937 random(3);
    std::string out;
    while (out.size() < streamBytes) {
        for (int k = 10 + int(random() % 50); k > 0; --k) out += characters[random() % std::size(characters)];
        out += "\r\n";
    }
    return out;
}

std::string cursorAddressing() {
    std::mt19937 random(4);
    std::string out;
    while (out.size() < streamBytes)
        out += "\x1b[" + std::to_string(1 + random() % 40) + ";" + std::to_string(1 + random() % 120) + "H" +
               words(random, 1 + random() % 8);
    return out;
}

std::string base64Osc() {
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::mt19937 random(5);
    std::string out = "\x1b]52;c;";
    while (out.size() < streamBytes) out += alphabet[random() % 64];
    return out + "\x07";
}

void runParser(benchmark::State& state, const std::string& stream) {
    EscapeSequenceParser parser;
    parser.scanPath = state.range(0) ? ScanPath::vector : ScanPath::scalar;
    CountingTarget target;
    const auto* bytes = reinterpret_cast<const uint8_t*>(stream.data());
    for (auto _ : state) {
        for (size_t at = 0; at < stream.size(); at += pieceBytes)
            parser.parseBorrowed({bytes + at, std::min(pieceBytes, stream.size() - at)}, target);
    }
    benchmark::DoNotOptimize(target.printed + target.controls + target.sequences + target.payload);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(stream.size()));
    state.SetLabel(state.range(0) ? "vector" : "scalar");
}

} // namespace

static void BM_ParsePlainText(benchmark::State& state) {
    static const std::string stream = plainText();
    runParser(state, stream);
}
BENCHMARK(BM_ParsePlainText)->Arg(1)->Arg(0);

static void BM_ParseSgrHeavy(benchmark::State& state) {
    static const std::string stream = sgrHeavy();
    runParser(state, stream);
}
BENCHMARK(BM_ParseSgrHeavy)->Arg(1)->Arg(0);

static void BM_ParseCjkAndEmoji(benchmark::State& state) {
    static const std::string stream = cjkAndEmoji();
    runParser(state, stream);
}
BENCHMARK(BM_ParseCjkAndEmoji)->Arg(1)->Arg(0);

static void BM_ParseCursorAddressing(benchmark::State& state) {
    static const std::string stream = cursorAddressing();
    runParser(state, stream);
}
BENCHMARK(BM_ParseCursorAddressing)->Arg(1)->Arg(0);

static void BM_ParseBase64Osc(benchmark::State& state) {
    static const std::string stream = base64Osc();
    runParser(state, stream);
}
BENCHMARK(BM_ParseBase64Osc)->Arg(1)->Arg(0);
BENCHMARK_MAIN();
