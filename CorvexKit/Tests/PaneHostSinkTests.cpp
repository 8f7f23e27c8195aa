#include <gtest/gtest.h>

#include <mutex>

#include "CorvexKit/PaneHostSink.h"
#include "Platform/MainQueue.h"
#include "Support/ManualExecutor.h"
#include "Support/ScriptedBackend.h"

using namespace corvex;

namespace {

std::string text(ByteView bytes) {
    return std::string(bytes.begin(), bytes.end());
}

class RecordingTerminal final : public PaneTerminal {
public:
    std::vector<std::string> feeds;
    std::vector<std::string> clipboard;
    Size size{80, 24};
    int resizes = 0;
    int layoutRequests = 0;
    bool shown = true;

    void feedFromBackend(ByteView bytes) override { feeds.push_back(text(bytes)); }
    void resizeTerminal(int cols, int rows) override {
        size = {cols, rows};
        ++resizes;
    }
    Size terminalSize() const override { return size; }
    Size cellSize() const override { return {10, 20}; }
    bool isShown() const override { return shown; }
    void writeClipboard(const std::string& value, bool selection) override {
        clipboard.push_back((selection ? "selection " : "clipboard ") + value);
    }
    void requestLayout() override { ++layoutRequests; }
};

class PaneHostSinkTest : public ::testing::Test {
protected:
    void SetUp() override {
        PaneHostContext context;
        context.backend = backend;
        context.mainQueue = &queue;
        context.offMain = executor.executor();
        context.log = [this](const std::string& line) {
            std::lock_guard guard(logLock);
            logLines.push_back(line);
        };
        host = PaneHostSink::make(7, terminal, context);
    }

    // Lays the host out at a real size and lets its subscribe reach the backend.
    void subscribeAt(double width, double height) {
        host->layoutChanged(width, height);
        host->subscribe();
        executor.runAll();
    }

    void output(uint64_t seq, std::string_view bytes) { host->paneOutput(seq, asBytes(bytes)); }

    platform::ManualMainQueue queue;
    testkit::ManualExecutor executor;
    std::shared_ptr<testkit::ScriptedBackend> backend = std::make_shared<testkit::ScriptedBackend>();
    RecordingTerminal terminal;
    std::shared_ptr<PaneHostSink> host;
    std::mutex logLock;
    std::vector<std::string> logLines;
};

TEST_F(PaneHostSinkTest, SubscribesOnlyOnceItHasARealSizeAndThenSendsViewportChanges) {
    host->subscribe();
    executor.runAll();
    EXPECT_TRUE(backend->calls().empty());
    EXPECT_EQ(terminal.layoutRequests, 1);

    // 812 x 492 less the margin is 80 x 24 cells of 10 x 20: the first real layout subscribes.
    host->layoutChanged(812, 492);
    executor.runAll();
    subscribeAt(812, 492);
    EXPECT_EQ(backend->calls(), (std::vector<std::string>{"subscribe 7 have none viewport 80x24"}));

    subscribeAt(1012, 492);
    subscribeAt(1015, 499); // the same number of cells: nothing to say
    EXPECT_EQ(backend->calls().back(), "viewport 7 100x24");
    EXPECT_EQ(backend->calls().size(), 2u);
    // The terminal waits for the daemon's word before it changes size.
    EXPECT_EQ(terminal.resizes, 0);
}

TEST_F(PaneHostSinkTest, FittedSizeKeepsAtLeastTwoColumnsAndOneRow) {
    EXPECT_EQ(host->fittedSize(5, 5), (Size{2, 1}));
    EXPECT_EQ(host->fittedSize(12 + 10 * 33 + 9, 12 + 20 * 7 + 19), (Size{33, 7}));
}

TEST_F(PaneHostSinkTest, OutputOfOneTurnIsFedOnceInOrder) {
    subscribeAt(812, 492);
    output(100, "ab");
    output(102, "cd");
    EXPECT_TRUE(terminal.feeds.empty());
    queue.runPending();
    EXPECT_EQ(terminal.feeds, (std::vector<std::string>{"abcd"}));
    EXPECT_EQ(host->haveSeq(), 104u);
}

TEST_F(PaneHostSinkTest, AGapIsLoggedAndTheBytesAreStillShown) {
    output(10, "x");
    output(20, "y");
    queue.runPending();
    EXPECT_EQ(terminal.feeds, (std::vector<std::string>{"xy"}));
    EXPECT_EQ(logLines, std::vector<std::string>{"pane 7: output at 20, expected 11"});
}

TEST_F(PaneHostSinkTest, SnapshotReplacesWhatWasPendingAndSetsThePosition) {
    output(0, "stale");
    host->paneSnapshot(500, 90, 30, asBytes("screen"));
    queue.runPending();
    EXPECT_EQ(terminal.feeds, (std::vector<std::string>{"screen"}));
    EXPECT_EQ(terminal.size, (Size{90, 30}));
    EXPECT_EQ(host->haveSeq(), 500u);
}

TEST_F(PaneHostSinkTest, ResizesFollowTheDaemonAfterWhatCameBefore) {
    output(0, "before");
    host->paneResized(100, 40, 6);
    EXPECT_EQ(terminal.feeds, (std::vector<std::string>{"before"}));
    EXPECT_EQ(terminal.size, (Size{100, 40}));
    host->paneSubscribed(Subscription{Subscription::Mode::live, 6, 100, 40});
    EXPECT_EQ(terminal.resizes, 1);
}

TEST_F(PaneHostSinkTest, ResyncDropsQueuedBytesButKeepsThePosition) {
    output(0, "abc");
    queue.runPending();
    output(3, "lost");
    host->paneResync();
    queue.runPending();
    EXPECT_EQ(terminal.feeds, (std::vector<std::string>{"abc"}));
    EXPECT_EQ(host->haveSeq(), 3u);
}

TEST_F(PaneHostSinkTest, ResetBlanksTheTerminalAndTheNextSubscribeAsksFromTheStart) {
    subscribeAt(812, 492);
    output(0, "abc");
    queue.runPending();
    host->unsubscribe();
    executor.runAll();
    host->paneReset();
    queue.runPending();
    EXPECT_EQ(terminal.feeds.back(), "\x1b" "c");
    EXPECT_FALSE(host->haveSeq());

    host->subscribe();
    executor.runAll();
    EXPECT_EQ(backend->calls().back(), "subscribe 7 have none viewport 80x24");
}

TEST_F(PaneHostSinkTest, ResubscribingAsksForWhatIsMissing) {
    subscribeAt(812, 492);
    output(40, "abcd");
    queue.runPending();
    host->unsubscribe();
    host->subscribe();
    executor.runAll();
    EXPECT_EQ(backend->calls().back(), "subscribe 7 have 44 viewport 80x24");
}

TEST_F(PaneHostSinkTest, OnlyAShownPaneWritesTheClipboard) {
    terminal.shown = false;
    host->paneClipboard("secret", false);
    EXPECT_TRUE(terminal.clipboard.empty());
    terminal.shown = true;
    host->paneClipboard("h\xc3\xa9llo", true);
    EXPECT_EQ(terminal.clipboard, (std::vector<std::string>{"selection h\xc3\xa9llo"}));
    EXPECT_EQ(logLines.back(), "pane 7: copied 5 characters to the clipboard (OSC 52)");
}

TEST_F(PaneHostSinkTest, AFailedSubscribeIsLogged) {
    backend->fail("subscribe", BackendError("disconnected", "link down"));
    subscribeAt(812, 492);
    ASSERT_FALSE(logLines.empty());
    EXPECT_EQ(logLines.back(), "subscribe pane 7 failed: link down");
}

TEST_F(PaneHostSinkTest, ADetachedHostTouchesNoTerminal) {
    output(0, "abc");
    host->detach();
    queue.runPending();
    host->paneReset();
    host->paneSnapshot(3, 10, 10, asBytes("x"));
    EXPECT_TRUE(terminal.feeds.empty());
}

} // namespace
