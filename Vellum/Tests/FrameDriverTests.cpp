#include <gtest/gtest.h>

#include <deque>
#include <functional>

#include "Vellum/FrameDriver.h"

using namespace vellum;

namespace {

// The main queue is pumped by hand; the tick source is the manual kind a test drives itself.
struct Clock : FrameTickSource {
    int starts = 0, stops = 0;
    bool running = false;
    std::function<void()> whileStopping;
    void start() override { ++starts, running = true; }
    void stop() override {
        ++stops, running = false;
        if (whileStopping) whileStopping();
    }
};

struct Harness {
    std::deque<std::function<void()>> mainQueue;
    std::shared_ptr<FrameDriverSignal> signal =
        FrameDriverSignal::make([this](std::function<void()> work) { mainQueue.push_back(std::move(work)); });
    Clock clock;
    FrameDriver driver{signal, clock};
    uint64_t now = 1'000'000'000;
    int frames = 0;

    Harness() {
        driver.nowUptimeNs = [this] { return now; };
        driver.onTick = [this] { ++frames; };
    }
    void pump() {
        while (!mainQueue.empty()) {
            auto work = std::move(mainQueue.front());
            mainQueue.pop_front();
            work();
        }
    }
    void mark() {
        signal->publish(FrameDriverSignal::dirty);
        pump();
    }
    void tick(int count = 1) {
        for (int i = 0; i < count; ++i) {
            now += 8'333'333;
            signal->publish(FrameDriverSignal::linkTick);
            pump();
        }
    }
};

} // namespace

TEST(FrameDriver, AMarkResumesTheClockWithAFrameAtOnceAndEightQuietTicksStopIt) {
    Harness h;
    EXPECT_FALSE(h.clock.running);
    h.mark();
    EXPECT_TRUE(h.clock.running);
    EXPECT_EQ(h.frames, 1); // no wait for the next vertical blank
    EXPECT_EQ(h.driver.counters().immediateTicks, 1u);
    h.tick(7);
    EXPECT_TRUE(h.clock.running);
    h.tick();
    EXPECT_FALSE(h.clock.running);
    EXPECT_EQ(h.driver.counters().pauses, 1u);
    EXPECT_EQ(h.driver.counters().idleTicks, 8u);
    EXPECT_EQ(h.frames, 1);
}

TEST(FrameDriver, MarksDuringOutputAreFramesOnTicksAndCostNoHop) {
    Harness h;
    h.mark();
    for (int i = 0; i < 5; ++i) {
        auto hops = h.signal->hopsScheduled();
        h.signal->publish(FrameDriverSignal::dirty);
        h.signal->publish(FrameDriverSignal::dirty);
        EXPECT_EQ(h.signal->hopsScheduled(), hops); // the running clock will look by itself
        h.tick();
    }
    EXPECT_EQ(h.frames, 6);
    // Quiet ticks between marks restart the count towards a pause.
    h.tick(7);
    h.mark();
    h.tick(7);
    EXPECT_TRUE(h.clock.running);
}

TEST(FrameDriver, AMarkThatRacesWithThePauseIsDeliveredAndResumes) {
    Harness h;
    h.mark();
    h.tick(7);
    // Another thread marks the view just as the eighth quiet tick stops the clock: the link still
    // counts as running, so the mark makes no hop of its own.
    h.clock.whileStopping = [&] {
        h.clock.whileStopping = nullptr;
        h.signal->publish(FrameDriverSignal::dirty);
    };
    h.now += 100'000'000;
    h.tick();
    EXPECT_EQ(h.driver.counters().pauses, 1u);
    EXPECT_TRUE(h.clock.running); // resumed by the delivery that the pause scheduled
    EXPECT_EQ(h.clock.starts, 2);
    EXPECT_EQ(h.frames, 2);
}

TEST(FrameDriver, ResumesWithin16MillisecondsGiveNoSecondImmediateFrame) {
    Harness h;
    h.mark();
    for (int i = 0; i < 8; ++i) { // eight ticks in quick succession, without time passing
        h.signal->publish(FrameDriverSignal::linkTick);
        h.pump();
    }
    ASSERT_FALSE(h.clock.running);
    h.now += 10'000'000; // 10 ms after the first immediate frame
    h.mark();
    EXPECT_TRUE(h.clock.running);
    EXPECT_EQ(h.frames, 1); // waits for the link instead
    EXPECT_EQ(h.driver.counters().immediateTicks, 1u);
    h.tick();
    EXPECT_EQ(h.frames, 2);
}

TEST(FrameDriver, AfterInvalidationNothingTicks) {
    Harness h;
    h.mark();
    h.driver.invalidate();
    EXPECT_FALSE(h.clock.running);
    h.mark();
    h.tick(3);
    EXPECT_EQ(h.frames, 1);
    EXPECT_EQ(h.driver.counters().ticks, 1u);
    EXPECT_FALSE(h.clock.running);
}

TEST(FrameDriver, AHiddenViewCollectsMarksAndDrawsOnceWhenShown) {
    Harness h;
    std::vector<bool> reported;
    h.driver.onVisibilityChanged = [&](bool visible) { reported.push_back(visible); };
    h.mark();
    h.driver.setEffectivelyVisible(false);
    EXPECT_FALSE(h.clock.running);
    EXPECT_TRUE(h.driver.visibilitySuspended());
    for (int i = 0; i < 10; ++i) h.mark();
    EXPECT_FALSE(h.clock.running);
    EXPECT_EQ(h.frames, 1);
    EXPECT_TRUE(h.driver.isDirty());
    h.now += 1'000'000'000;
    h.driver.setEffectivelyVisible(true);
    EXPECT_EQ(h.frames, 2);
    EXPECT_TRUE(h.clock.running);
    EXPECT_EQ(reported, (std::vector<bool>{false, true}));
    // Shown with nothing to draw: no frame and no clock.
    Harness quiet;
    quiet.driver.setEffectivelyVisible(false);
    quiet.driver.setEffectivelyVisible(true);
    EXPECT_EQ(quiet.frames, 0);
    EXPECT_FALSE(quiet.clock.running);
}

TEST(FrameDriver, MarksPublishedBeforeTheSinkArriveWhenItIsConfigured) {
    std::deque<std::function<void()>> queue;
    auto signal = FrameDriverSignal::make([&](std::function<void()> work) { queue.push_back(std::move(work)); });
    signal->publish(FrameDriverSignal::dirty);
    EXPECT_TRUE(queue.empty());
    uint32_t delivered = 0;
    signal->configure([&](uint32_t events) { delivered |= events; });
    ASSERT_EQ(queue.size(), 1u);
    queue.front()();
    EXPECT_EQ(delivered, uint32_t(FrameDriverSignal::dirty));
}
