#include "Platform/MainQueue.h"
#include "Platform/Tests/Support/Eventually.h"
#include "Vellum/SynchronizedOutputWatchdog.h"
#include "Vellum/TerminalEventQueue.h"
#include "Vellum/TerminalInputSender.h"
#include "Vellum/TerminalLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

using namespace vellum;
using namespace std::chrono_literals;
using platform::testing::eventually;

namespace {

TEST(TerminalLockTest, ExcludesAndKnowsItsHolder) {
    TerminalLock lock;
    int inside = 0, overlaps = 0;
    long total = 0;
    std::vector<std::thread> workers;
    for (int i = 0; i < 4; ++i) {
        workers.emplace_back([&] {
            for (int n = 0; n < 2000; ++n) {
                lock.withLock([&] {
                    if (++inside != 1) ++overlaps;
                    lock.preconditionLocked();
                    ++total;
                    --inside;
                });
            }
        });
    }
    for (auto& worker : workers) worker.join();
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(total, 8000);

    EXPECT_FALSE(lock.isLockedByCurrentThread());
    TerminalLock::setCurrentThreadRole(TerminalLockRole::main);
    int value = lock.withLock([&] {
        EXPECT_EQ(lock.owner(), TerminalLockRole::main);
        // Held by this thread, not by another.
        EXPECT_FALSE(std::async(std::launch::async, [&] { return lock.isLockedByCurrentThread(); }).get());
        return 7;
    });
    EXPECT_EQ(value, 7);
    EXPECT_EQ(lock.owner(), std::nullopt);
    EXPECT_DEATH(lock.preconditionLocked(), "terminal lock is not held");
    TerminalLock::setCurrentThreadRole(TerminalLockRole::other);
}

TEST(TerminalLockTest, WaitersAreServedInTheOrderTheyCame) {
    TerminalLock lock;
    std::mutex orderMutex;
    std::vector<int> order;
    lock.lock();
    std::vector<std::thread> waiters;
    for (int i = 0; i < 5; ++i) {
        waiters.emplace_back([&, i] {
            lock.withLock([&] {
                std::lock_guard guard(orderMutex);
                order.push_back(i);
            });
        });
        // The next one comes only once this one has its ticket.
        ASSERT_TRUE(eventually([&] { return lock.waiters() == static_cast<size_t>(i + 1); }));
    }
    // The holder coming back for more queues behind them all: a busy thread can't starve the rest.
    lock.unlock();
    lock.withLock([&] {
        std::lock_guard guard(orderMutex);
        order.push_back(99);
    });
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 99}));
}

TEST(TerminalEventQueueTest, EventsMergeIntoOneHopAndArriveInTheirOrder) {
    platform::ManualMainQueue main;
    TerminalEventQueue queue(main);
    std::vector<TerminalEvent> delivered;
    queue.configure([&](TerminalEvent event) { delivered.push_back(event); });

    std::thread parser([&] {
        for (int i = 0; i < 1000; ++i) queue.post(TerminalEvent::bell);
        queue.post(TerminalEvent::programStatusChanged);
        queue.post(TerminalEvent::bufferActivated);
    });
    parser.join();
    EXPECT_EQ(main.runPending(), 1u) << "one hop for all of them";
    EXPECT_EQ(delivered, (std::vector<TerminalEvent>{TerminalEvent::bufferActivated, TerminalEvent::bell,
                                                     TerminalEvent::programStatusChanged}));
    EXPECT_EQ(queue.counters().posts, 1002u);
    EXPECT_EQ(queue.counters().drains, 1u);

    // On the main thread: inline when allowed, else one hop.
    delivered.clear();
    bool inlineAllowed = true;
    queue.configure([&](TerminalEvent event) { delivered.push_back(event); }, [&] { return inlineAllowed; });
    queue.post(TerminalEvent::mouseModeChanged);
    EXPECT_EQ(delivered, std::vector<TerminalEvent>{TerminalEvent::mouseModeChanged});
    inlineAllowed = false;
    queue.post(TerminalEvent::bell);
    queue.post(TerminalEvent::bell);
    EXPECT_EQ(delivered.size(), 1u);
    EXPECT_EQ(main.runPending(), 1u);
    EXPECT_EQ(delivered.back(), TerminalEvent::bell);

    // After a reset, or once the queue is gone, a pending hop delivers nothing.
    queue.post(TerminalEvent::bell);
    queue.reset();
    main.runPending();
    EXPECT_EQ(delivered.size(), 2u);
    {
        TerminalEventQueue gone(main);
        gone.configure([&](TerminalEvent event) { delivered.push_back(event); });
        std::thread([&] { gone.post(TerminalEvent::bell); }).join();
    }
    main.runPending();
    EXPECT_EQ(delivered.size(), 2u);
}

TEST(TerminalSendersTest, InputCallsReachTheInstalledFunctionsUntilTheyAreCleared) {
    const unsigned char raw[] = {'a', 'b'};
    TerminalInputSender input;
    int registered = 0, notified = 0;
    std::string delivered;
    input.configure({[&] { ++registered; }, [&] { ++notified; },
                     [&](std::span<const unsigned char> bytes) { delivered.append(bytes.begin(), bytes.end()); },
                     [&](std::vector<unsigned char> bytes) { delivered.append(bytes.begin(), bytes.end()); }});
    input.registerInput();
    input.notifyUI();
    EXPECT_TRUE(input.deliver(raw));
    EXPECT_TRUE(input.deliverOnMain({'!'}));
    // A function may clear the sender from inside: it is called outside the sender's lock.
    input.configure({[&] { input.clear(); }, nullptr, nullptr, nullptr});
    input.registerInput();
    input.registerInput();
    EXPECT_FALSE(input.deliver(raw));
    EXPECT_EQ(registered, 1);
    EXPECT_EQ(notified, 1);
    EXPECT_EQ(delivered, "ab!");
}

// A terminal whose batch end can be watched and held.
class BatchTerminal : public SynchronizedOutputTarget {
public:
    uint64_t synchronizedOutputGeneration() override { return generation.load(); }
    void endSynchronizedOutput() override {
        entered = true;
        while (hold.load()) std::this_thread::sleep_for(1ms);
        std::this_thread::sleep_for(20ms);
        ++ends;
    }
    std::atomic<uint64_t> generation{1};
    std::atomic<int> ends{0};
    std::atomic<bool> entered{false};
    std::atomic<bool> hold{false};
};

TEST(SynchronizedOutputWatchdogTest, EndsOnlyTheBatchItWasArmedFor) {
    platform::TimerThread timers("vellum-io-timers");
    auto terminal = std::make_shared<BatchTerminal>();
    SynchronizedOutputWatchdog watchdog(timers);
    watchdog.attach(terminal);

    watchdog.update(true, 1, 5ms);
    ASSERT_TRUE(eventually([&] { return terminal->ends == 1; }));

    // Disarmed before the deadline: nothing.
    watchdog.update(true, 1, 50ms);
    watchdog.update(false, 1, 0ms);
    // A newer batch by the time the timer fires: left alone.
    terminal->generation = 2;
    watchdog.update(true, 1, 5ms);
    ASSERT_TRUE(eventually([&] { return watchdog.counters().fired == 2; }));
    std::this_thread::sleep_for(80ms);
    EXPECT_EQ(terminal->ends, 1);
    EXPECT_EQ(watchdog.counters().ended, 1u);
    EXPECT_EQ(watchdog.counters().armed, 3u);
}

TEST(SynchronizedOutputWatchdogTest, InvalidateWaitsForTheCallInFlight) {
    platform::TimerThread timers("vellum-io-timers");
    auto terminal = std::make_shared<BatchTerminal>();
    SynchronizedOutputWatchdog watchdog(timers);
    watchdog.attach(terminal);
    terminal->hold = true;
    watchdog.update(true, 1, 1ms);
    ASSERT_TRUE(eventually([&] { return terminal->entered.load(); }));
    std::thread releaser([&] {
        std::this_thread::sleep_for(20ms);
        terminal->hold = false;
    });
    watchdog.invalidate();
    EXPECT_EQ(terminal->ends, 1) << "the call in flight finished before invalidate returned";
    releaser.join();

    // Nothing arms an invalidated watchdog.
    watchdog.update(true, 1, 1ms);
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(terminal->ends, 1);
}

} // namespace
