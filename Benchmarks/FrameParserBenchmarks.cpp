// Throughput of the frame parser on the client's read path: the stream is cut into the
// 64 KiB reads the reader makes, and each output payload is decoded and its bytes copied
// out once, as the backend does for its output event.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <nlohmann/json.hpp>

#include "CorvexKit/CorvexdBackend.h"
#include "CorvexKit/Frame.h"
#include "CorvexKit/FrameParser.h"
#include "Platform/Channel.h"

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

// The whole client read path: a peer on a socket pair streams output frames, the backend's
// reader parses them and pushes output events, and this thread takes them off the stream.
class SocketPairTransport final : public CorvexdTransport {
public:
    explicit SocketPairTransport(int fd) : fd_(fd) {}
    std::string name() const override { return "pair"; }
    double maxReconnectDelay() const override { return 2.0; }
    std::optional<double> heartbeatInterval() const override { return std::nullopt; }
    std::shared_ptr<ByteStream> open(const ProgressHandler&) override {
        int fd = fd_;
        return ByteStream::make(fd, fd, [fd] { ::shutdown(fd, SHUT_RDWR); });
    }

private:
    int fd_;
};

void writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t count = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) return;
        bytes.remove_prefix(static_cast<size_t>(count));
    }
}

// Answers the handshake, then sends the requested number of bytes per round as output frames.
void servePeer(int fd, size_t frameBytes, platform::Channel<size_t>& rounds) {
    FrameParser parser;
    char buffer[65536];
    int answered = 0;
    while (answered < 2) {
        ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count <= 0) return;
        parser.append(std::string_view(buffer, static_cast<size_t>(count)), [&](uint8_t, std::string_view body) {
            auto request = nlohmann::json::parse(body);
            nlohmann::json result = nlohmann::json::object();
            if (request["method"] == "hello") {
                result = {{"protocol", 1}, {"daemon", "corvexd"}, {"version", "bench"}, {"instance", "bench"}};
            }
            writeAll(fd, makeJSONFrame(nlohmann::json{{"id", request["id"]}, {"result", result}}.dump()));
            ++answered;
        });
    }
    std::string body(frameBytes, 'x');
    uint64_t seq = 0;
    while (auto total = rounds.receive()) {
        std::string batch;
        for (size_t sent = 0; sent < *total; sent += body.size()) {
            batch += makeOutputFrame(1, seq, body);
            seq += body.size();
            if (batch.size() >= (1u << 20)) {
                writeAll(fd, batch);
                batch.clear();
            }
        }
        writeAll(fd, batch);
    }
}

void BM_BackendOutputPath(benchmark::State& state) {
    const size_t frameBytes = static_cast<size_t>(state.range(0));
    const size_t roundBytes = 32u << 20;
    int fds[2];
    ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
    platform::Channel<size_t> rounds;
    std::thread peer([&] { servePeer(fds[1], frameBytes, rounds); });
    CorvexdBackend::Configuration configuration;
    configuration.transport = std::make_shared<SocketPairTransport>(fds[0]);
    configuration.clientName = "bench";
    auto backend = CorvexdBackend::make(configuration);
    auto events = backend->events();
    backend->start();
    while (events->tryNext()) {
    }
    for (auto _ : state) {
        rounds.send(roundBytes);
        size_t received = 0;
        while (received < roundBytes) {
            auto event = events->next();
            if (!event) break;
            if (auto output = event->as<SessionEvent::Output>()) received += output->bytes.size();
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(roundBytes));
    rounds.close();
    backend->stop();
    peer.join();
    ::close(fds[1]);
}

BENCHMARK(BM_SmallOutputFrames)->Arg(16)->Arg(64)->Arg(512)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LargeOutputFrames)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BackendOutputPath)->Arg(4096)->Arg(65536)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
