#include "Platform/Poller.h"
#include "Platform/Tests/Support/Eventually.h"
#include "Vellum/PseudoTerminalHelpers.h"
#include "Vellum/TerminalIOPipeline.h"
#include "Vellum/TerminalIOPipelineFeed.h"
#include "Vellum/TerminalLock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace vellum;
using namespace std::chrono_literals;
using platform::testing::eventually;
namespace fs = std::filesystem;

namespace {

// Collects what the pipeline parses, in order, and the ends of file it is told of.
class Collector : public TerminalFeedTarget {
public:
    struct Seen {
        std::string text;
        size_t deliveries = 0;
        int eofs = 0;
        bool bytesAfterEOF = false;
    };

    void feed(std::span<const unsigned char> bytes) override {
        lock->preconditionLocked();
        update([&](Seen& seen) {
            seen.text.append(bytes.begin(), bytes.end());
            ++seen.deliveries;
            seen.bytesAfterEOF |= seen.eofs > 0;
        });
    }
    void reachedEOF() { update([](Seen& seen) { ++seen.eofs; }); }
    bool waitFor(const std::function<bool(const Seen&)>& done, std::chrono::milliseconds timeout = 10s) {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, timeout, [&] { return done(seen_); });
    }
    bool waitForText(const std::string& text) {
        return waitFor([&](const Seen& seen) { return seen.text.find(text) != std::string::npos; });
    }
    bool waitForEOF() { return waitFor([](const Seen& seen) { return seen.eofs > 0; }); }
    Seen seen() {
        std::lock_guard guard(mutex_);
        return seen_;
    }
    std::string text() { return seen().text; }

    std::shared_ptr<TerminalLock> lock = std::make_shared<TerminalLock>();

private:
    void update(const std::function<void(Seen&)>& change) {
        std::lock_guard guard(mutex_);
        change(seen_);
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    Seen seen_;
};

size_t entriesIn(const char* folder) {
    size_t count = 0;
    for ([[maybe_unused]] auto& entry : fs::directory_iterator(folder)) ++count;
    return count;
}

// The bytes a child has written so far.
long long bytesWrittenBy(pid_t pid) {
    std::ifstream io("/proc/" + std::to_string(pid) + "/io");
    std::string key;
    long long value = 0;
    while (io >> key >> value) {
        if (key == "wchar:") return value;
    }
    return -1;
}

class TerminalIOPipelineTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::Poller::shared(); // its own descriptors live as long as the process
        descriptors = entriesIn("/proc/self/fd");
    }
    void TearDown() override {
        for (pid_t pid : children) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        EXPECT_TRUE(eventually([&] { return entriesIn("/proc/self/fd") == descriptors; })) << "descriptors left open";
    }

    // Starts a program on a new terminal and a pipeline feeding the collector.
    std::shared_ptr<TerminalIOPipeline> launch(const std::vector<std::string>& argv, pid_t* pidOut = nullptr) {
        winsize size{24, 80, 0, 0};
        auto spawned = PseudoTerminalHelpers::spawn(argv[0], argv, {"PATH=/usr/bin:/bin", "TERM=dumb"}, std::nullopt,
                                                   size);
        EXPECT_TRUE(spawned.child.has_value()) << "spawn failed: " << spawned.error;
        if (!spawned.child) return nullptr;
        children.push_back(spawned.child->pid);
        if (pidOut) *pidOut = spawned.child->pid;
        master = spawned.child->master;
        feed = std::make_shared<TerminalIOPipelineFeed>(collector->lock, collector,
                                                        [collector = collector] { collector->reachedEOF(); });
        auto pipeline = TerminalIOPipeline::create(master, feed);
        pipeline->start();
        return pipeline;
    }

    size_t descriptors = 0;
    std::vector<pid_t> children;
    int master = -1;
    std::shared_ptr<Collector> collector = std::make_shared<Collector>();
    std::shared_ptr<TerminalIOPipelineFeed> feed;
};

TEST_F(TerminalIOPipelineTest, EchoIsHandedOnAtOnceWithoutWaitingForMore) {
    auto pipeline = launch({"/bin/cat"});
    ASSERT_TRUE(pipeline);
    for (const char* keystroke : {"a", "b", "c"}) {
        ASSERT_EQ(write(master, keystroke, 1), 1);
        ASSERT_TRUE(collector->waitForText(keystroke));
    }
    EXPECT_EQ(pipeline->counters().deliveries, 3u) << "each echo on its own, nothing waited for more";

    ASSERT_TRUE(pipeline->requestShutdown());
    EXPECT_TRUE(pipeline->waitUntilFinished());
    EXPECT_EQ(collector->seen().eofs, 0) << "a shutdown is not an end of file";
}

TEST_F(TerminalIOPipelineTest, AFloodFillsTheFourSlotsThenBlocksTheChildUntilTheParserCatchesUp) {
    // No newlines, so that the terminal passes the bytes through unchanged.
    std::string content;
    for (size_t i = 0; content.size() < 4 * 1024 * 1024; ++i) content += "line " + std::to_string(i) + " of a flood; ";
    auto path = fs::temp_directory_path() / ("vellum-flood-" + std::to_string(getpid()));
    std::ofstream(path, std::ios::binary) << content;

    pid_t pid = 0;
    std::shared_ptr<TerminalIOPipeline> pipeline;
    {
        // The main thread holds the terminal: the parser can't go on.
        std::lock_guard held(*collector->lock);
        pipeline = launch({"/bin/cat", path.string()}, &pid);
        ASSERT_TRUE(pipeline);
        ASSERT_TRUE(eventually([&] { return pipeline->filledSlots() == TerminalIOPipeline::slotCount; }));
        // The pipeline has stopped reading, so the child stops writing once the
        // kernel's buffer is full, long before the end of its file.
        long long written = 0;
        ASSERT_TRUE(eventually([&] {
            long long before = bytesWrittenBy(pid);
            std::this_thread::sleep_for(50ms);
            written = bytesWrittenBy(pid);
            return written == before;
        }));
        EXPECT_LT(written, static_cast<long long>(content.size()));
        EXPECT_LE(pipeline->counters().bytesRead, TerminalIOPipeline::slotCount * TerminalIOPipeline::slotSize);
        EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "the child should still be blocked";
    }
    ASSERT_TRUE(collector->waitForEOF());
    EXPECT_EQ(collector->text(), content);
    EXPECT_EQ(collector->seen().eofs, 1);
    // Gathered into large batches, not handed on read by read.
    EXPECT_LT(collector->seen().deliveries, content.size() / 4096);
    EXPECT_GE(pipeline->counters().pauses, 1u);
    EXPECT_TRUE(pipeline->waitUntilFinished());
    fs::remove(path);
}

TEST_F(TerminalIOPipelineTest, AHeldPipelineHandsOnNothingUntilLetGoAndLosesNoByte) {
    std::string content;
    for (size_t i = 0; content.size() < 1024 * 1024; ++i) content += "held " + std::to_string(i) + "; ";
    auto path = fs::temp_directory_path() / ("vellum-held-" + std::to_string(getpid()));
    std::ofstream(path, std::ios::binary) << content;
    auto pipeline = launch({"/bin/sh", "-c", "read go; exec cat " + path.string()});
    ASSERT_TRUE(pipeline);
    pipeline->hold(true);
    ASSERT_EQ(write(master, "\n", 1), 1);
    ASSERT_TRUE(eventually([&] { return pipeline->filledSlots() == TerminalIOPipeline::slotCount; }));
    EXPECT_EQ(collector->text(), "") << "nothing, not even the echo, while held";
    pipeline->hold(false);
    ASSERT_TRUE(collector->waitForEOF());
    EXPECT_EQ(collector->text(), "\r\n" + content);
    EXPECT_TRUE(pipeline->waitUntilFinished());
    fs::remove(path);
}

TEST_F(TerminalIOPipelineTest, TheLastOutputIsParsedBeforeTheEndIsReportedOnce) {
    auto pipeline = launch({"/bin/sh", "-c", "printf 'first\\n'; printf 'last words'"});
    ASSERT_TRUE(pipeline);
    ASSERT_TRUE(collector->waitForEOF());
    EXPECT_EQ(collector->text(), "first\r\nlast words");
    EXPECT_TRUE(pipeline->waitUntilFinished());
    EXPECT_EQ(collector->seen().eofs, 1);
    EXPECT_FALSE(collector->seen().bytesAfterEOF);
}

TEST_F(TerminalIOPipelineTest, ShutdownFromThePipelinesOwnThreadDoesNotWaitForItself) {
    // A delegate that shuts the pipeline down from inside its first delivery.
    struct Stopper : TerminalIOPipelineDelegate {
        std::mutex mutex;
        std::condition_variable changed;
        std::optional<bool> answer;
        void pipelineReceived(TerminalIOPipeline& pipeline, std::span<const unsigned char>) override {
            bool result = pipeline.requestShutdown();
            std::lock_guard guard(mutex);
            if (!answer) answer = result;
            changed.notify_all();
        }
        void pipelineReachedEOF(TerminalIOPipeline&) override {}
    };
    winsize size{24, 80, 0, 0};
    auto spawned = PseudoTerminalHelpers::spawn("/bin/sh", {"/bin/sh", "-c", "echo hi; exec sleep 30"},
                                                {"PATH=/usr/bin:/bin"}, std::nullopt, size);
    ASSERT_TRUE(spawned.child);
    children.push_back(spawned.child->pid);
    auto stopper = std::make_shared<Stopper>();
    auto pipeline = TerminalIOPipeline::create(spawned.child->master, stopper);
    pipeline->start();
    {
        std::unique_lock guard(stopper->mutex);
        ASSERT_TRUE(stopper->changed.wait_for(guard, 10s, [&] { return stopper->answer.has_value(); }));
        EXPECT_FALSE(*stopper->answer);
    }
    EXPECT_TRUE(pipeline->waitUntilFinished());
}

TEST_F(TerminalIOPipelineTest, AnUnusableDescriptorEndsAtOnceAndALateSinkHearsNothing) {
    auto feed = std::make_shared<TerminalIOPipelineFeed>(collector->lock, collector,
                                                         [collector = collector] { collector->reachedEOF(); });
    auto broken = TerminalIOPipeline::create(-1, feed);
    broken->start();
    EXPECT_EQ(collector->seen().eofs, 1);
    EXPECT_TRUE(broken->waitUntilFinished(std::chrono::steady_clock::now()));

    // Never started: a drain closes the descriptor and the owner may go at once.
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    auto idle = TerminalIOPipeline::create(ends[0], feed);
    EXPECT_TRUE(idle->requestDrain(std::chrono::steady_clock::now()));
    idle.reset();
    close(ends[1]);

    // Detached: output after that falls on nothing, and the owner's end stops the reading.
    auto pipeline = launch({"/bin/sh", "-c", "sleep 0.1; echo unseen; exec sleep 30"});
    pipeline->detachSink();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(collector->text().find("unseen"), std::string::npos);
    pipeline.reset();
}

TEST_F(TerminalIOPipelineTest, ManyPipelinesShareAFewThreadsAndEachKeepsItsBytesInOrder) {
    size_t threadsBefore = entriesIn("/proc/self/task");
    constexpr int count = 24;
    struct Reader {
        std::shared_ptr<Collector> collector = std::make_shared<Collector>();
        std::shared_ptr<TerminalIOPipelineFeed> feed;
        std::shared_ptr<TerminalIOPipeline> pipeline;
    };
    std::vector<Reader> readers(count);
    std::string expected;
    for (int line = 0; line < 2000; ++line) expected += std::to_string(line) + ",";
    for (auto& reader : readers) {
        winsize size{24, 80, 0, 0};
        // No newlines, so that the terminal passes the bytes through unchanged.
        auto spawned = PseudoTerminalHelpers::spawn(
            "/bin/sh", {"/bin/sh", "-c", "i=0; while [ $i -lt 2000 ]; do printf '%d,' $i; i=$((i+1)); done"},
            {"PATH=/usr/bin:/bin"}, std::nullopt, size);
        ASSERT_TRUE(spawned.child);
        children.push_back(spawned.child->pid);
        auto collected = reader.collector;
        reader.feed = std::make_shared<TerminalIOPipelineFeed>(collected->lock, collected,
                                                               [collected] { collected->reachedEOF(); });
        reader.pipeline = TerminalIOPipeline::create(spawned.child->master, reader.feed);
        reader.pipeline->start();
    }
    for (auto& reader : readers) {
        ASSERT_TRUE(reader.collector->waitForEOF());
        EXPECT_EQ(reader.collector->text(), expected);
    }
    // The poller and the parse threads, whatever the number of pipelines.
    EXPECT_LE(entriesIn("/proc/self/task"), threadsBefore + 1 + 8);
}

} // namespace
