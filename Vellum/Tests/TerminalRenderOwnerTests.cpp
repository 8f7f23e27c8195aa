#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "Support/TerminalHarness.h"
#include "Vellum/RenderLoop.h"
#include "Vellum/TerminalRenderOwner.h"

using namespace vellum;
using vellum::testing::TerminalHarness;

TEST(TerminalRenderOwner, AFrameRefreshesTheSnapshotAndTakesTheMailbox) {
    TerminalHarness h(10, 4);
    TerminalRenderOwner owner(h.terminal);
    owner.mailbox().post(FrameViewState{8, 16, 80, 64});
    owner.mailbox().post(FrameViewState{9, 18, 90, 72}); // the newer replaces the older
    owner.mailbox().postSize(12, 5);
    auto first = owner.prepareFrame();
    EXPECT_EQ(first.resizedTo, (std::pair{12, 5}));
    EXPECT_EQ(owner.viewState()->cellPixelWidth, 9);
    EXPECT_EQ(owner.snapshot().rows().size(), 5u);

    h.terminal.feed("\x1b[3;1Hx");
    auto second = owner.prepareFrame();
    EXPECT_FALSE(second.resizedTo);
    ASSERT_TRUE(second.rangeChanged);
    EXPECT_EQ(second.rangeChanged->startY, 0); // the cursor left row 0
    EXPECT_EQ(second.rangeChanged->endY, 2);
    EXPECT_TRUE(second.notifyAccessibility);
    EXPECT_EQ(owner.viewState()->cellPixelWidth, 9); // the view state stays until replaced

    auto quiet = owner.prepareFrame();
    EXPECT_FALSE(quiet.rangeChanged);
}

TEST(RenderLoop, SignalsDuringARenderAreFoldedIntoOne) {
    std::atomic<int> renders = 0;
    std::atomic<bool> release = false;
    RenderLoop loop([&] {
        ++renders;
        while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    loop.signal();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (renders == 0 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    for (int i = 0; i < 5; ++i) loop.signal(); // while the first render runs
    release = true;
    while (loop.counters().frames < 2 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    loop.stop();
    EXPECT_EQ(renders, 2);
    EXPECT_EQ(loop.counters().signals, 6u);
    EXPECT_EQ(loop.counters().coalesced, 4u);
}
