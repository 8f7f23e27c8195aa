// Pane output under pressure, through a real daemon and real shells: a pane printing a line
// isn't queued behind a flood, and a reader that is slow holds a flooding program back for
// as long as it is slow, without the daemon queueing more than its bound.

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <sys/socket.h>
#include <thread>

#include "CorvexKit/Frame.h"
#include "Platform/Tests/Support/Eventually.h"
#include "Support/DaemonHarness.h"
#include "Support/RawReplies.h"

using namespace corvexd::testing;
using namespace std::chrono_literals;
using platform::testing::eventually;

namespace {

// The pane's output position as the daemon counts it: every byte its program wrote that the
// daemon has taken in.
uint64_t paneSeq(RawClient& client, uint64_t pane) {
    json state = result(client.request("state.get"));
    for (const auto& entry : state["panes"]) {
        if (entry["id"] == pane) return entry["seq"].get<uint64_t>();
    }
    ADD_FAILURE() << "no pane " << pane;
    return 0;
}

// Reads and throws away up to `limit` bytes that are already there; how many it read.
size_t readSome(int fd, size_t limit) {
    static char buffer[1 << 16];
    size_t total = 0;
    while (total < limit) {
        ssize_t count = ::recv(fd, buffer, std::min(sizeof buffer, limit - total), MSG_DONTWAIT);
        if (count <= 0) break;
        total += static_cast<size_t>(count);
    }
    return total;
}

size_t floodBytes(const RawClient& client, uint64_t pane) {
    size_t total = 0;
    for (const auto& output : client.outputs()) {
        if (output.pane == pane) total += output.bytes.size();
    }
    return total;
}

} // namespace

TEST(OutputFairness, ALinePrintedDuringAFloodOvertakesWhatTheFloodHasQueued) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient client(daemon.socketPath());
    RawClient observer(daemon.socketPath());
    uint64_t flooding = createPane(client, shell({"/bin/sh", "-c", "read go; exec yes 'flooding flooding flooding'"}));
    uint64_t quiet = createPane(client, shell());
    ASSERT_TRUE(client.request("pane.subscribe", {{"pane", flooding}}));
    ASSERT_TRUE(client.request("pane.subscribe", {{"pane", quiet}}));
    ASSERT_TRUE(client.sendBytes(corvex::makeInputFrame(flooding, "\r")));
    // The client reads in short bursts, far slower than the flood comes but never stalled,
    // so that the daemon holds all it may of the flood for it.
    auto readABit = [&] {
        client.untilOutput(quiet, "mark42", 20ms);
        std::this_thread::sleep_for(200ms);
    };
    ASSERT_TRUE(eventually([&] {
        readABit();
        return paneSeq(observer, flooding) > floodBytes(client, flooding) + (12u << 20);
    }, 60s)) << "the daemon never held much of the flood";

    ASSERT_TRUE(client.sendBytes(corvex::makeInputFrame(quiet, "echo mark$((40+2))\r")));
    // Counted from the moment the daemon holds the line, so that a shell slow to run the echo
    // on a loaded machine doesn't count as waiting.
    std::optional<size_t> floodAtLine;
    ASSERT_TRUE(eventually([&] {
        if (!floodAtLine && observer.request("pane.text", {{"pane", quiet}}).value_or(json()).dump().find("mark42") !=
                                std::string::npos) {
            floodAtLine = floodBytes(client, flooding);
        }
        readABit();
        return floodAtLine && client.outputOf(quiet).find("mark42") != std::string::npos;
    }, 60s));
    // In turn with the flood, the line waits only for what is already in the client's queue,
    // not for the many megabytes the daemon holds of the flood.
    EXPECT_LT(floodBytes(client, flooding) - *floodAtLine, 6u << 20) << "the line waited behind the flood";
    // And the flood goes on.
    uint64_t seqAtLine = paneSeq(observer, flooding);
    EXPECT_TRUE(eventually([&] {
        readABit();
        return paneSeq(observer, flooding) > seqAtLine + (1u << 20);
    }, 30s)) << "the flood stopped";
}

TEST(OutputFairness, ASlowReaderHoldsAFloodBackForAsLongAsItIsSlowAndLetsGoWhenItLeaves) {
    DaemonHarness daemon;
    ASSERT_EQ(daemon.run({"start"}).status, 0);
    RawClient observer(daemon.socketPath());
    uint64_t pane = createPane(observer, shell({"/bin/sh", "-c", "read go; exec yes 'held back held back'"}));
    auto reader = std::make_unique<RawClient>(daemon.socketPath());
    ASSERT_TRUE(reader->request("pane.subscribe", {{"pane", pane}}));
    ASSERT_TRUE(reader->sendBytes(corvex::makeInputFrame(pane, "\r")));

    // Read a little, often enough never to count as stalled, for longer than any patience a
    // reader might be given; all the while, what the daemon took from the program and hasn't
    // sent stays within its bound (16 MiB), the client's queue and the socket's buffers.
    constexpr uint64_t bound = 24u << 20;
    uint64_t received = 0, worst = 0;
    auto until = std::chrono::steady_clock::now() + 8s;
    while (std::chrono::steady_clock::now() < until) {
        received += readSome(reader->fd(), 256 << 10);
        std::this_thread::sleep_for(200ms);
        uint64_t taken = paneSeq(observer, pane);
        worst = std::max(worst, taken > received ? taken - received : 0);
    }
    EXPECT_LT(worst, bound) << "the daemon took in far more than the reader could take";
    EXPECT_GT(received, 0u);

    // The only reader leaves: the program goes on at once.
    reader.reset();
    uint64_t before = paneSeq(observer, pane);
    EXPECT_TRUE(eventually([&] { return paneSeq(observer, pane) > before + (8u << 20); }, 30s))
        << "the pane stayed held after its reader left";
}
