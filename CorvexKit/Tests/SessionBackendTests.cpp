#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "CorvexKit/SessionBackend.h"
#include "Support/ScriptedBackend.h"

using namespace corvex;
using namespace std::chrono_literals;

namespace {

template <typename Call>
std::string unknownMethodText(Call&& call) {
    try {
        call();
    } catch (const BackendError& error) {
        EXPECT_EQ(error.code(), "unknown_method");
        EXPECT_STREQ(error.what(), error.message().c_str());
        return error.message();
    }
    ADD_FAILURE() << "no error raised";
    return "";
}

} // namespace

TEST(SessionBackend, OptionalOperationsDefaultToUnknownMethodWithTheirOwnText) {
    testkit::ScriptedBackend backend;
    SessionBackend& base = backend;
    // Qualified calls reach the interface's own defaults, whatever the backend overrides. The
    // texts are constants; two stand for the rest.
    auto text = [&](auto call) { return unknownMethodText(call); };
    EXPECT_EQ(text([&] { base.SessionBackend::dismissRestored(1); }), "this backend doesn't restore panes");
    EXPECT_EQ(text([&] { base.searchPane(1, "x", {}); }), "this backend can't search scrollback");

    // The quiet defaults do nothing and raise nothing.
    base.reconnectNow();
    base.SessionBackend::focusPane(1);
    base.setTerminalColors(TerminalColors{});
    base.ackAgent(1);
}

TEST(SessionEventStream, KeepsEachProducersOrderAndDrainsAfterFinish) {
    SessionEventStream stream;
    std::atomic<int> wakeups{0};
    stream.setWakeup([&] { ++wakeups; });

    constexpr int perProducer = 500;
    auto produce = [&](uint64_t pane) {
        for (int i = 0; i < perProducer; ++i) {
            stream.push(SessionEvent::Output{pane, static_cast<uint64_t>(i), {}});
        }
    };
    std::thread first(produce, 1);
    std::thread second(produce, 2);
    first.join();
    second.join();
    stream.finish();
    EXPECT_FALSE(stream.push(SessionEvent::Bell{1}));

    std::map<uint64_t, uint64_t> nextSeq;
    int received = 0;
    while (auto event = stream.next()) {
        const auto* output = event->as<SessionEvent::Output>();
        ASSERT_NE(output, nullptr);
        EXPECT_EQ(output->seq, nextSeq[output->pane]++);
        ++received;
    }
    EXPECT_EQ(received, 2 * perProducer);
    EXPECT_TRUE(stream.isFinished());
    EXPECT_EQ(wakeups.load(), 2 * perProducer + 1);
}

TEST(SessionEventStream, AWakeupSetLateFiresForWaitingEvents) {
    SessionEventStream stream;
    stream.push(SessionEvent::Progress{"dialing"});
    int wakeups = 0;
    stream.setWakeup([&] { ++wakeups; });
    EXPECT_EQ(wakeups, 1);
    EXPECT_EQ(stream.next(10ms), SessionEvent(SessionEvent::Progress{"dialing"}));
    EXPECT_EQ(stream.next(1ms), std::nullopt);
}
