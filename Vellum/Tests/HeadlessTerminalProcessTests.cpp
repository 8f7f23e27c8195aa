#include "Vellum/HeadlessTerminal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "Platform/SerialQueue.h"
#include "Platform/Tests/Support/Eventually.h"
#include "Support/ProcessLeakCheck.h"

using namespace vellum;
using namespace std::chrono_literals;
using platform::testing::eventually;

namespace {

// Records the ends a headless terminal reports.
struct Ends {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::optional<int32_t>> codes;

    std::function<void(std::optional<int32_t>)> callback() {
        return [this](std::optional<int32_t> code) {
            std::lock_guard guard(mutex);
            codes.push_back(code);
            changed.notify_all();
        };
    }
    bool waitFor(size_t count) {
        std::unique_lock guard(mutex);
        return changed.wait_for(guard, 10s, [&] { return codes.size() >= count; });
    }
};

std::string screen(HeadlessTerminal& headless) {
    std::string text;
    headless.withTerminal([&](Terminal& terminal) {
        for (int row = 0; row < terminal.rows(); ++row) text += terminal.lineText(row) + "\n";
    });
    return text;
}

bool screenShows(HeadlessTerminal& headless, const std::string& text) {
    return eventually([&] { return screen(headless).find(text) != std::string::npos; });
}

TerminalOptions size(int cols, int rows) {
    TerminalOptions options;
    options.cols = cols;
    options.rows = rows;
    return options;
}

class HeadlessTerminalProcessTest : public vellum::testing::ProcessLeakCheck,
                                    public ::testing::WithParamInterface<bool> {
protected:
    std::shared_ptr<HeadlessTerminal> make(TerminalOptions options = size(80, 24)) {
        return HeadlessTerminal::create(std::move(options), {.queue = nullptr,
                                                             .directDelivery = GetParam(),
                                                             .onLaunchFailure = nullptr,
                                                             .onEnd = ends.callback()});
    }
    Ends ends;
};

} // namespace

TEST_P(HeadlessTerminalProcessTest, AChildsOutputReachesTheScreenAndItsQueriesAreAnswered) {
    auto headless = make(size(60, 10));
    // The child asks for the terminal's attributes and shows what came back.
    ASSERT_EQ(headless->startProcessChecked(
                  "/bin/sh", {"-c", "stty raw -echo; printf 'size=%s\\r\\n' \"$(stty size)\"; printf '\\033[c'; "
                                    "head -c 3 | od -An -c | tr -s ' '; printf 'done\\r\\n'; exec cat"}),
              std::nullopt);
    EXPECT_TRUE(screenShows(*headless, "size=10 60"));
    EXPECT_TRUE(screenShows(*headless, "033 [ ?")) << screen(*headless);
    EXPECT_TRUE(screenShows(*headless, "done"));

    // Input goes to the child; resizing reaches both the terminal and the child.
    headless->resize(70, 12);
    headless->send("typed");
    EXPECT_TRUE(screenShows(*headless, "typed"));
    headless->withTerminal([](Terminal& terminal) {
        EXPECT_EQ(terminal.cols(), 70);
        EXPECT_EQ(terminal.rows(), 12);
    });
    EXPECT_EQ(headless->getWindowSize().ws_col, 70);
    headless->process()->terminate();
    ASSERT_TRUE(ends.waitFor(1));
    EXPECT_EQ(ends.codes, (std::vector<std::optional<int32_t>>{std::nullopt}));
}

TEST_P(HeadlessTerminalProcessTest, AVisitorHoldsTheParserOffAndTheEndFollowsTheLastOutput) {
    auto headless = make();
    ASSERT_EQ(headless->startProcessChecked("/bin/sh", {"-c", "read x; echo marker; exit 4"}), std::nullopt);
    headless->withTerminal([&](Terminal& terminal) {
        headless->send("\n");
        std::this_thread::sleep_for(200ms);
        for (int row = 0; row < terminal.rows(); ++row) {
            EXPECT_EQ(terminal.lineText(row).find("marker"), std::string::npos) << "parsed while a visitor held it";
        }
        EXPECT_TRUE(headless->terminalLock().isLockedByCurrentThread());
    });
    ASSERT_TRUE(ends.waitFor(1));
    // By the time the end is told, the last words are on the screen.
    EXPECT_NE(screen(*headless).find("marker"), std::string::npos);
    EXPECT_EQ(ends.codes, (std::vector<std::optional<int32_t>>{4}));
}

TEST_P(HeadlessTerminalProcessTest, RestartsFromTheEndReportAndGoesAwayCleanlyWithAChildRunning) {
    std::shared_ptr<HeadlessTerminal> headless;
    std::atomic<int> restarts{0};
    headless = HeadlessTerminal::create(size(80, 24), {.queue = nullptr,
                                                       .directDelivery = GetParam(),
                                                       .onLaunchFailure = nullptr,
                                                       .onEnd = [&](std::optional<int32_t> code) {
                                                           ends.callback()(code);
                                                           if (restarts++ == 0) {
                                                               headless->startProcess("/bin/sh", {"-c", "echo second; exec cat"});
                                                           }
                                                       }});
    headless->startProcess("/no/such/program");
    ASSERT_TRUE(ends.waitFor(1));
    EXPECT_EQ(ends.codes.front(), 127);
    EXPECT_TRUE(screenShows(*headless, "second"));
    headless.reset(); // cat is still running: the fixture checks that it is ended and reaped
    EXPECT_EQ(ends.codes.size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Delivery, HeadlessTerminalProcessTest, ::testing::Values(true, false),
                         [](const auto& info) { return info.param ? "Direct" : "Queued"; });

TEST(HeadlessTerminalWithoutProcess, RepliesAndTheDirectoryAreKeptWhenNoChildRuns) {
    HeadlessTerminal headless;
    headless.feed("\x1b]7;file://box/srv\x07\x1b[c");
    EXPECT_EQ(headless.dir, "file://box/srv");
    EXPECT_EQ(headless.replies.substr(0, 3), "\x1b[?");
    EXPECT_EQ(headless.startProcessChecked("/bin/cat"), LocalProcessError::notRunning());
    headless.send("dropped"); // nowhere to go, and no harm
}

namespace {

// The timer thread is shared by all terminals and lives on; it is started before the leak
// check takes its counts.
class HeadlessSynchronizedOutputTest : public vellum::testing::ProcessLeakCheck {
protected:
    HeadlessSynchronizedOutputTest() { (void)ioTimerQueue(); }
};

bool synchronizedOutputActive(HeadlessTerminal& headless) {
    bool active = false;
    headless.withTerminal([&](Terminal& terminal) { active = terminal.synchronizedOutputActive; });
    return active;
}

} // namespace

TEST_F(HeadlessSynchronizedOutputTest, ABatchTheChildNeverClosesEndsAfterTheTimeout) {
    Ends ends;
    auto headless = HeadlessTerminal::create(size(80, 24), {.queue = nullptr,
                                                            .directDelivery = true,
                                                            .onLaunchFailure = nullptr,
                                                            .onEnd = ends.callback(),
                                                            .synchronizedOutputTimeout = 500ms});
    // The first batch is closed at once; the second is left open.
    ASSERT_EQ(headless->startProcessChecked(
                  "/bin/sh", {"-c", "printf '\\033[?2026hone\\033[?2026l'; sleep 0.5; printf '\\033[?2026htwo'; exec cat"}),
              std::nullopt);
    ASSERT_TRUE(screenShows(*headless, "onetwo"));
    auto opened = std::chrono::steady_clock::now();
    EXPECT_TRUE(synchronizedOutputActive(*headless));
    auto deadline = opened + 5s;
    while (synchronizedOutputActive(*headless) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(5ms);
    }
    auto held = std::chrono::steady_clock::now() - opened;
    EXPECT_FALSE(synchronizedOutputActive(*headless));
    EXPECT_GE(held, 350ms) << "ended before its time";
    EXPECT_LT(held, 3s);

    // cat gives back a new batch: the terminal goes away with its timer armed, and the timer
    // must not reach it afterwards.
    headless->send("\x1b[?2026h\n");
    ASSERT_TRUE(eventually([&] { return synchronizedOutputActive(*headless); }));
    headless.reset();
    std::this_thread::sleep_for(400ms);
}
