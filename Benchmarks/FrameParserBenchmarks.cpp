// Throughput of the frame parser on the client's read path: the stream is cut into the
// 64 KiB reads the reader makes, and each output payload is decoded and its bytes copied
// out once, as the backend does for its output event.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "CorvexKit/Frame.h"
#include "CorvexKit/FrameParser.h"

using namespace corvex;

namespace {

std::string outputStream(size_t frameBytes, size_t totalBytes) {
    std::string stream;
    std::string body(frameBytes, 'x');
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>('a' + i % 26);
    uint64_t seq = 0;
    while (stream.size() < totalBytes) {
        stream += makeOutputFrame(7, seq, body);
        seq += body.size();
    }
    return stream;
}

void parseStream(benchmark::State& state, size_t frameBytes) {
    const std::string stream = outputStream(frameBytes, 32u << 20);
    const size_t chunk = 65536;
    int64_t frames = 0;
    for (auto _ : state) {
        FrameParser parser;
        uint64_t checksum = 0;
        for (size_t at = 0; at < stream.size(); at += chunk) {
            std::string_view piece = std::string_view(stream).substr(at, chunk);
            parser.append(piece, [&](uint8_t type, std::string_view payload) {
                if (type != static_cast<uint8_t>(FrameType::output)) return;
                if (auto output = parseOutputPayload(payload)) {
                    std::vector<uint8_t> bytes(output->bytes.begin(), output->bytes.end());
                    checksum += output->seq + bytes.size() + bytes.back();
                    ++frames;
                }
            });
        }
        benchmark::DoNotOptimize(checksum);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(stream.size()));
    state.counters["frames/s"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
}

void BM_SmallOutputFrames(benchmark::State& state) { parseStream(state, static_cast<size_t>(state.range(0))); }
void BM_LargeOutputFrames(benchmark::State& state) { parseStream(state, 256 * 1024); }

} // namespace

BENCHMARK(BM_SmallOutputFrames)->Arg(16)->Arg(64)->Arg(512)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LargeOutputFrames)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
