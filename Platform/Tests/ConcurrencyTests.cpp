#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <thread>
#include <vector>

#include "Platform/CancellationToken.h"
#include "Platform/Channel.h"
#include "Platform/Locked.h"
#include "Platform/SerialQueue.h"
#include "Platform/TimerThread.h"
#include "Platform/WorkerPool.h"

using namespace std::chrono_literals;
using namespace platform;

TEST(SerialQueue, RunsWorkInOrderOnOneThreadAndDrainsOnDestruction) {
    std::vector<int> order;
    std::thread::id worker;
    bool sameThread = true;
    {
        SerialQueue queue("test.serial");
        for (int i = 0; i < 100; ++i) {
            queue.async([&, i] {
                if (i == 0) worker = std::this_thread::get_id();
                sameThread = sameThread && worker == std::this_thread::get_id();
                order.push_back(i);
            });
        }
    }
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
    EXPECT_TRUE(sameThread);
    EXPECT_NE(worker, std::this_thread::get_id());
}

TEST(SerialQueue, SyncWaitsForEarlierWorkAndKnowsItsThread) {
    SerialQueue queue("test.sync");
    std::atomic<int> value{0};
    queue.async([&] {
        std::this_thread::sleep_for(20ms);
        value = 1;
    });
    bool inside = false;
    queue.sync([&] { inside = queue.isCurrent(); });
    EXPECT_EQ(value.load(), 1);
    EXPECT_TRUE(inside);
    EXPECT_FALSE(queue.isCurrent());
}

TEST(WorkerPool, BlockingWorkDoesNotStarveOtherWork) {
    WorkerPool pool(4);
    std::latch both(2);
    std::promise<void> done;
    // Each task waits for the other: this only finishes when they run at the same time.
    pool.detach([&] { both.arrive_and_wait(); });
    pool.detach([&] {
        both.arrive_and_wait();
        done.set_value();
    });
    EXPECT_EQ(done.get_future().wait_for(5s), std::future_status::ready);
    pool.waitIdle();
}

TEST(WorkerPool, WaitIdleSeesEveryTaskFinished) {
    WorkerPool pool(2);
    std::atomic<int> count{0};
    for (int i = 0; i < 50; ++i) pool.detach([&] { ++count; });
    pool.waitIdle();
    EXPECT_EQ(count.load(), 50);
}

TEST(TimerThread, FiresInDeadlineOrderAndHonoursCancel) {
    TimerThread timers("test.timers");
    Locked<std::vector<int>> fired;
    std::promise<void> last;
    timers.schedule(60ms, [&] {
        fired.withLock([](auto& v) { v.push_back(3); });
        last.set_value();
    });
    timers.schedule(20ms, [&] { fired.withLock([](auto& v) { v.push_back(1); }); });
    auto cancelled = timers.schedule(30ms, [&] { fired.withLock([](auto& v) { v.push_back(2); }); });
    EXPECT_TRUE(timers.cancel(cancelled));
    EXPECT_FALSE(timers.cancel(cancelled));
    ASSERT_EQ(last.get_future().wait_for(5s), std::future_status::ready);
    EXPECT_EQ(fired.copy(), (std::vector<int>{1, 3}));
}

TEST(TimerThread, RepeatsUntilCancelledFromItsOwnCallback) {
    TimerThread timers("test.repeat");
    std::atomic<int> ticks{0};
    std::promise<void> done;
    std::atomic<TimerThread::TimerID> id{0};
    id = timers.scheduleRepeating(5ms, [&] {
        if (++ticks == 3) {
            timers.cancel(id);
            done.set_value();
        }
    });
    ASSERT_EQ(done.get_future().wait_for(5s), std::future_status::ready);
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(ticks.load(), 3);
}

TEST(Channel, ManyProducersOneReaderLosesNothing) {
    Channel<int> channel;
    std::vector<std::thread> producers;
    for (int p = 0; p < 4; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < 1000; ++i) channel.send(p * 1000 + i);
        });
    }
    std::vector<int> lastSeen(4, -1);
    int received = 0;
    while (received < 4000) {
        auto value = channel.receive();
        ASSERT_TRUE(value);
        int producer = *value / 1000;
        EXPECT_GT(*value % 1000, lastSeen[producer]); // each producer's order is kept
        lastSeen[producer] = *value % 1000;
        ++received;
    }
    for (auto& t : producers) t.join();
}

TEST(Channel, CloseWakesTheReaderAfterDraining) {
    Channel<std::string> channel;
    channel.send("a");
    std::thread closer([&] {
        std::this_thread::sleep_for(10ms);
        channel.close();
    });
    EXPECT_EQ(channel.receive(), "a");
    EXPECT_EQ(channel.receive(), std::nullopt); // blocks until the close
    EXPECT_FALSE(channel.send("late"));
    closer.join();
    EXPECT_EQ(channel.receive(5ms), std::nullopt);
}

TEST(CancellationToken, HandlersRunOnceAndSleepsEndEarly) {
    CancellationToken token;
    int calls = 0;
    token.onCancel([&] { ++calls; });
    std::thread canceller([token] {
        std::this_thread::sleep_for(10ms);
        token.cancel();
    });
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(token.sleepFor(10s));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    canceller.join();
    token.cancel();
    EXPECT_EQ(calls, 1);
    token.onCancel([&] { ++calls; }); // late handler runs at once
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(CancellationToken().sleepFor(1ms));
}
