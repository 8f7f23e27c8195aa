// corvexd under load, through a real daemon: its whole memory while 50 panes flood and one
// client reads them all; how long another client's ping waits while a search or a snapshot
// is made; and what an idle pane costs in descriptors, threads and memory, over 500 of them.
#include <benchmark/benchmark.h>

#include "Benchmarks/BenchmarkMain.h"
#include "Benchmarks/ServedDaemon.h"

#include <algorithm>
#include <climits>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "CorvexKit/Frame.h"
#include "CorvexKit/FrameParser.h"
#include "corvexd/Tests/Support/DaemonHarness.h"

using namespace corvex;
using namespace corvexd::testing;
using Clock = std::chrono::steady_clock;

namespace {

using bench::servedDaemon;

// A field of /proc/PID/status in kB ("VmRSS", "VmHWM").
double statusKiB(pid_t pid, const std::string& field) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(field + ":", 0) == 0) return std::stod(line.substr(field.size() + 1));
    }
    return 0;
}

// A field of /proc/PID/io ("syscr", "rchar"): what the daemon read, over all its threads.
double ioField(pid_t pid, const std::string& field) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/io");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(field + ":", 0) == 0) return std::stod(line.substr(field.size() + 1));
    }
    return 0;
}

size_t entries(const std::string& folder) {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        (void)entry;
        ++count;
    }
    return count;
}

// A plain client on the socket that reads as fast as it can and counts.
class CountingClient {
public:
    explicit CountingClient(const std::string& path) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) throw std::runtime_error("connect");
    }
    ~CountingClient() { ::close(fd_); }

    void request(uint64_t id, const std::string& method, const nlohmann::json& params) {
        send(makeJSONFrame(nlohmann::json{{"id", id}, {"method", method}, {"params", params}}.dump()));
    }
    void send(const std::string& frame) {
        [[maybe_unused]] auto sent = ::send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL);
    }
    // Reads for up to `timeout`; true when the reply to `id` came.
    bool pump(std::chrono::milliseconds timeout, std::optional<uint64_t> awaited = std::nullopt) {
        auto deadline = Clock::now() + timeout;
        bool answered = false;
        while (Clock::now() < deadline && !answered) {
            pollfd ready{fd_, POLLIN, 0};
            if (::poll(&ready, 1, 20) <= 0) continue;
            char buffer[1 << 16];
            ssize_t count = ::recv(fd_, buffer, sizeof buffer, 0);
            if (count <= 0) return false;
            parser_.append(std::string_view(buffer, size_t(count)), [&](uint8_t type, std::string_view payload) {
                if (type == uint8_t(FrameType::output)) {
                    outputBytes += payload.size() - 16;
                    ++outputFrames;
                } else if (type == uint8_t(FrameType::json)) {
                    auto message = nlohmann::json::parse(payload, nullptr, false);
                    if (message.value("event", "") == "pane.resync") ++resyncs;
                    if (awaited && message.contains("id") && message["id"] == *awaited) {
                        answered = true;
                        lastReply = message;
                    }
                }
            });
        }
        return answered;
    }

    uint64_t outputBytes = 0;
    uint64_t outputFrames = 0;
    int resyncs = 0;
    nlohmann::json lastReply;

private:
    int fd_ = -1;
    FrameParser parser_;
};

// 50 panes write as fast as they can; one client subscribed to all reads everything.
void BM_FloodingPanesOneReader(benchmark::State& state) {
    int panes = static_cast<int>(state.range(0));
    for (auto _ : state) {
        auto daemon = servedDaemon(state);
        if (!daemon) return;
        CountingClient client(daemon->socketPath());
        uint64_t id = 1;
        client.request(id, "hello", {{"protocol", 1}, {"client", "bench"}});
        client.pump(5s, id);
        std::vector<uint64_t> made;
        for (int i = 0; i < panes; ++i) {
            std::vector<std::string> flood{"/bin/sh", "-c", "read go; exec yes 'the quick brown fox jumps over the lazy dog'"};
            client.request(++id, "workspace.create", {{"command", flood}, {"cols", 120}, {"rows", 40}});
            client.pump(10s, id);
            made.push_back(client.lastReply["result"]["pane"].get<uint64_t>());
            client.request(++id, "pane.subscribe", {{"pane", made.back()}});
            client.pump(10s, id);
        }
        double setupMiB = statusKiB(daemon->pid(), "VmRSS") / 1024;
        auto began = Clock::now();
        for (uint64_t pane : made) client.send(makeInputFrame(pane, "\r"));
        double peakMiB = 0;
        size_t peakThreads = 0;
        uint64_t before = client.outputBytes, framesBefore = client.outputFrames;
        double readsBefore = ioField(daemon->pid(), "syscr"), readBytesBefore = ioField(daemon->pid(), "rchar");
        std::string tasks = "/proc/" + std::to_string(daemon->pid()) + "/task";
        while (Clock::now() - began < 20s) {
            client.pump(200ms);
            peakMiB = std::max(peakMiB, statusKiB(daemon->pid(), "VmRSS") / 1024);
            peakThreads = std::max(peakThreads, entries(tasks));
        }
        double seconds = std::chrono::duration<double>(Clock::now() - began).count();
        state.SetIterationTime(seconds);
        state.counters["peak_rss_MiB"] = peakMiB;
        state.counters["setup_rss_MiB"] = setupMiB; // the panes made, before any flood
        state.counters["peak_threads"] = double(peakThreads);
        state.counters["resyncs"] = client.resyncs;
        state.counters["MB/s"] = double(client.outputBytes - before) / 1e6 / seconds;
        // How finely the flood is cut up on its way: the daemon's reads (the terminals' and
        // the client's), and the output frames the client got.
        double reads = ioField(daemon->pid(), "syscr") - readsBefore;
        double frames = double(client.outputFrames - framesBefore);
        state.counters["reads/s"] = reads / seconds;
        state.counters["bytes/read"] = reads > 0 ? (ioField(daemon->pid(), "rchar") - readBytesBefore) / reads : 0;
        state.counters["frames/s"] = frames / seconds;
        state.counters["bytes/frame"] = frames > 0 ? double(client.outputBytes - before) / frames : 0;
    }
}

// Two greeted clients on one daemon, and a pane whose history holds `rows` numbered lines
// (the scrollback set to keep them all).
struct HeavyPane {
    std::unique_ptr<corvexd::testing::DaemonHarness> daemon;
    std::unique_ptr<CountingClient> heavy, pinger;
    uint64_t pane = 0;
};

std::optional<HeavyPane> heavyPane(benchmark::State& state, int rows) {
    HeavyPane made;
    made.daemon = servedDaemon(state);
    if (!made.daemon) return std::nullopt;
    made.heavy = std::make_unique<CountingClient>(made.daemon->socketPath());
    made.pinger = std::make_unique<CountingClient>(made.daemon->socketPath());
    for (auto* client : {made.heavy.get(), made.pinger.get()}) {
        client->request(1, "hello", {{"protocol", 1}, {"client", "bench"}});
        client->pump(5s, 1);
    }
    made.heavy->request(2, "settings.set", {{"scrollback_lines", 100000}});
    made.heavy->pump(5s, 2);
    std::string fill = "seq -f '%g the quick brown fox jumps over the lazy dog' 1 " + std::to_string(rows) + "; echo fil''led; sleep 600";
    made.heavy->request(3, "workspace.create", {{"command", {"/bin/sh", "-c", fill}}, {"cols", 120}, {"rows", 40}});
    made.heavy->pump(10s, 3);
    made.pane = made.heavy->lastReply["result"]["pane"].get<uint64_t>();
    auto deadline = Clock::now() + 60s;
    for (uint64_t id = 4; Clock::now() < deadline; ++id) {
        made.heavy->request(id, "pane.text", {{"pane", made.pane}});
        made.heavy->pump(10s, id);
        if (made.heavy->lastReply.dump().find("filled") != std::string::npos) return made;
        std::this_thread::sleep_for(100ms);
    }
    state.SkipWithError("the history never filled");
    return std::nullopt;
}

// Another client's ping, sent again and again while `heavy` asks for something large (sent
// by `ask(round)`, its reply's id returned); the longest and the median wait.
template <typename Ask>
void pingWhile(benchmark::State& state, HeavyPane& setup, Ask ask) {
    std::vector<double> waits;
    for (int round = 0; round < 5; ++round) {
        uint64_t asked = ask(round);
        for (int ping = 0; ping < 20; ++ping) {
            auto sent = Clock::now();
            uint64_t pingID = 100 + round * 100 + ping;
            setup.pinger->request(pingID, "ping", nlohmann::json::object());
            setup.pinger->pump(10s, pingID);
            waits.push_back(std::chrono::duration<double, std::milli>(Clock::now() - sent).count());
        }
        setup.heavy->pump(30s, asked);
        setup.heavy->pump(200ms); // what follows the reply, such as a snapshot
    }
    std::sort(waits.begin(), waits.end());
    state.SetIterationTime(1);
    state.counters["ping_max_ms"] = waits.back();
    state.counters["ping_median_ms"] = waits[waits.size() / 2];
}

// A search of a full history: a query of 1 MB (refused, but read and decoded whole first),
// or one of a few bytes with 10,000 matches.
void BM_PingDuringSearch(benchmark::State& state) {
    size_t queryBytes = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        auto setup = heavyPane(state, 200000);
        if (!setup) return;
        pingWhile(state, *setup, [&](int round) {
            uint64_t id = 10000 + round;
            setup->heavy->request(id, "pane.search",
                                  {{"pane", setup->pane}, {"query", std::string(queryBytes, '7')}, {"limit", 10000}});
            return id;
        });
    }
}

// A subscribe whose snapshot carries a history of 100,000 rows.
void BM_PingDuringSnapshot(benchmark::State& state) {
    for (auto _ : state) {
        auto setup = heavyPane(state, 120000);
        if (!setup) return;
        pingWhile(state, *setup, [&](int round) {
            uint64_t id = 10000 + 2 * round;
            setup->heavy->request(id - 1, "pane.unsubscribe", {{"pane", setup->pane}});
            setup->heavy->request(id, "pane.subscribe", {{"pane", setup->pane}, {"scrollback", 100000}});
            return id;
        });
    }
}

// What idle panes (a shell waiting for input) cost the daemon.
void BM_IdlePanes(benchmark::State& state) {
    int panes = static_cast<int>(state.range(0));
    for (auto _ : state) {
        auto daemon = servedDaemon(state);
        if (!daemon) return;
        CountingClient client(daemon->socketPath());
        client.request(1, "hello", {{"protocol", 1}, {"client", "bench"}});
        client.pump(5s, 1);
        std::string proc = "/proc/" + std::to_string(daemon->pid());
        std::this_thread::sleep_for(500ms);
        double rss0 = statusKiB(daemon->pid(), "VmRSS");
        size_t fds0 = entries(proc + "/fd"), threads0 = entries(proc + "/task");
        auto began = Clock::now();
        for (int i = 0; i < panes; ++i) {
            client.request(2 + i, "workspace.create", {{"command", {"/bin/sh"}}, {"cols", 120}, {"rows", 40}});
            if (!client.pump(20s, 2 + i) || client.lastReply.contains("error")) {
                state.SkipWithError(("pane " + std::to_string(i) + " failed: " + client.lastReply.dump()).c_str());
                return;
            }
        }
        double seconds = std::chrono::duration<double>(Clock::now() - began).count();
        std::this_thread::sleep_for(2s);
        double rss = statusKiB(daemon->pid(), "VmRSS");
        state.SetIterationTime(seconds);
        state.counters["rss_MiB"] = rss / 1024;
        state.counters["KiB_per_pane"] = (rss - rss0) / panes;
        state.counters["fds_per_pane"] = double(entries(proc + "/fd") - fds0) / panes;
        state.counters["threads_per_pane"] = double(entries(proc + "/task") - threads0) / panes;
        state.counters["ms_per_create"] = seconds * 1000 / panes;
    }
}

} // namespace

BENCHMARK(BM_FloodingPanesOneReader)->Arg(50)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
// A query of 1 MB (refused at once) and one of a few bytes with many matches.
BENCHMARK(BM_PingDuringSearch)->Arg(1 << 20)->Arg(3)->Iterations(1)->UseManualTime();
BENCHMARK(BM_PingDuringSnapshot)->Iterations(1)->UseManualTime();
BENCHMARK(BM_IdlePanes)->Arg(500)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

int main(int argc, char** argv) { return corvex::bench::runBesideBuild(argc, argv); }
