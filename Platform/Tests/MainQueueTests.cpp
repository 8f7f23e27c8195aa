#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "Platform/MainQueue.h"

using namespace std::chrono_literals;
using namespace platform;

TEST(ManualMainQueue, DelayedWorkWaitsForTheClockAndRunsInDeadlineOrder) {
    ManualMainQueue queue;
    std::vector<std::string> ran;
    queue.postAfter(3s, [&] { ran.push_back("3s"); });
    queue.postAfter(500ms, [&] {
        ran.push_back("0.5s");
        // Scheduled from due work: measured from the time it ran, not from the advance's start.
        queue.postAfter(1s, [&] { ran.push_back("1.5s"); });
    });
    queue.post([&] { ran.push_back("now"); });
    EXPECT_EQ(queue.runPending(), 1u);
    EXPECT_EQ(ran, std::vector<std::string>{"now"});

    queue.advance(499ms);
    EXPECT_EQ(ran.size(), 1u);
    queue.advance(1ms);
    EXPECT_EQ(ran.back(), "0.5s");
    queue.advance(2500ms);
    EXPECT_EQ(ran, (std::vector<std::string>{"now", "0.5s", "1.5s", "3s"}));
}

TEST(ManualMainQueue, RunUntilPumpsWorkPostedFromOtherThreads) {
    ManualMainQueue queue;
    int value = 0;
    std::thread poster([&] {
        for (int i = 0; i < 10; ++i) queue.post([&] { ++value; });
    });
    EXPECT_TRUE(queue.runUntil([&] { return value == 10; }));
    poster.join();
    EXPECT_TRUE(queue.isMainThread());
    EXPECT_FALSE(queue.runUntil([] { return false; }, 10ms));
}

TEST(RunLoopMainQueue, RunsOnTheCallingThreadUntilStopped) {
    RunLoopMainQueue queue;
    std::vector<int> order;
    bool onMain = false;
    queue.postAfter(20ms, [&] {
        order.push_back(2);
        queue.stop();
    });
    queue.post([&] {
        order.push_back(1);
        onMain = queue.isMainThread();
    });
    queue.run();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_TRUE(onMain);
}
