#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#include "CorvexKit/FileTransfer.h"
#include "CorvexKit/LocalFileBackend.h"
#include "Support/FileTestSupport.h"
#include "Support/ForwardingFileBackend.h"
#include "Support/ScratchDirectory.h"

using namespace corvex;
using corvex::testing::patternBytes;
using corvex::testing::failureOf;
using corvex::testing::readBytes;
using corvex::testing::ScratchDirectory;
using corvex::testing::stagingFiles;
using corvex::testing::writeBytes;

namespace {

// The local disk with a connection that breaks on purpose: the first `breaks` reads end with
// "disconnected" after `breakAfter` bytes of their stream.
class BreakingBackend final : public corvex::testing::ForwardingFileBackend {
public:
    FileReadStream read(const std::string& path, const FileReadOptions& options) override {
        readOffsets.push_back(options.offset);
        FileReadStream stream = disk.read(path, options);
        if (breaks.fetch_sub(1) <= 0) return stream;
        auto given = std::make_shared<uint64_t>(0);
        stream.data = [inner = stream.data, given, limit = breakAfter]() -> std::optional<Bytes> {
            if (*given >= limit) throw BackendError("disconnected", "the connection dropped");
            std::optional<Bytes> block = inner();
            if (block) *given += block->size();
            return block;
        };
        return stream;
    }

    std::atomic<int> breaks{0};
    uint64_t breakAfter = 0;
    std::vector<uint64_t> readOffsets; // only for single-file copies
};

// Counts the reads open at once, apart for big and small files. The first small reads wait,
// for a while, until `smallTogether` of them are open, which only a copy keeping that many in
// flight achieves.
class CountingBackend final : public corvex::testing::ForwardingFileBackend {
public:
    FileReadStream read(const std::string& path, const FileReadOptions& options) override {
        const bool big = disk.stat(path).size > bigSize;
        {
            std::unique_lock guard(lock);
            if (bigOpen + smallOpen >= refuseAbove) throw fileError(FileErrorCode::tooManyStreams, "too many");
            int& open = big ? bigOpen : smallOpen;
            ++open;
            (big ? mostBig : mostSmall) = std::max(big ? mostBig : mostSmall, open);
            changed.notify_all();
            if (smallOpen >= smallTogether) together = true;
            if (!big) changed.wait_for(guard, std::chrono::seconds(5), [&] { return together; });
        }
        FileReadStream stream = disk.read(path, options);
        stream.data = [this, big, inner = stream.data]() -> std::optional<Bytes> {
            std::optional<Bytes> block = inner();
            if (!block) {
                std::lock_guard guard(lock);
                --(big ? bigOpen : smallOpen);
            }
            return block;
        };
        return stream;
    }

    static constexpr uint64_t bigSize = 100000;
    int smallTogether = 1;
    int refuseAbove = 1000; // reads open at once, as a daemon's stream limit
    std::mutex lock;
    std::condition_variable changed;
    int bigOpen = 0, smallOpen = 0, mostBig = 0, mostSmall = 0;
    bool together = false; // once, and the small reads no longer wait
};

// Takes batches and writes every file of each, but the reply is lost with the connection.
class LosesBatchReplies final : public corvex::testing::ForwardingFileBackend {
public:
    std::optional<WriteBatchLimits> writeBatchLimits(const FileBackend&) const override {
        return WriteBatchLimits{16, 1u << 20};
    }
    std::vector<SmallFileOutcome> writeBatch(const std::vector<SmallFileWrite>& files,
                                             const platform::CancellationToken& cancel) override {
        FileBackend::writeBatch(files, cancel);
        throw BackendError("disconnected", "the connection dropped before the reply");
    }
};

class Transfers : public ::testing::Test {
protected:
    ScratchDirectory scratch;
    std::shared_ptr<LocalFileBackend> local = std::make_shared<LocalFileBackend>();
    std::shared_ptr<BreakingBackend> breaking = std::make_shared<BreakingBackend>();
    std::string from(const std::string& name = "") const { return scratch.file("from") + (name.empty() ? "" : "/" + name); }
    std::string to(const std::string& name = "") const { return scratch.file("to") + (name.empty() ? "" : "/" + name); }

    void SetUp() override {
        ::mkdir(from().c_str(), 0755);
        ::mkdir(to().c_str(), 0755);
    }

    std::unique_ptr<FileTransfer> quickTransfer(std::shared_ptr<FileBackend> source) {
        auto transfer = std::make_unique<FileTransfer>(std::move(source), local);
        transfer->retryDelays = {0.01, 0.01, 0.01, 0.01, 0.01};
        transfer->chunk = 4096;
        return transfer;
    }
};

} // namespace

TEST_F(Transfers, ATreeArrivesWholeWithoutWhatCannotBeCopied) {
    ::mkdir(from("tree").c_str(), 0750);
    ::mkdir(from("tree/sub").c_str(), 0755);
    ::mkdir(from("tree/empty").c_str(), 0700);
    writeBytes(from("tree/big"), patternBytes(300000, 1));
    writeBytes(from("tree/.hidden"), "secret");
    writeBytes(from("tree/sub/small"), patternBytes(10, 2));
    writeBytes(from("tree/name\xff"), "not text");
    ::chmod(from("tree/sub/small").c_str(), 0600);
    ::symlink("big", from("tree/link-to-file").c_str());
    ::symlink("sub", from("tree/link-to-dir").c_str());
    ::symlink("loop-b", from("tree/loop-a").c_str());
    ::symlink("loop-a", from("tree/loop-b").c_str());
    ::symlink("..", from("tree/sub/up").c_str());
    ::mkfifo(from("tree/fifo").c_str(), 0600);
    local->setattr(from("tree/sub"), "1400000000000000007", std::nullopt);

    auto transfer = quickTransfer(local);
    std::vector<FileTransfer::Progress> seen;
    std::mutex seenLock;
    transfer->copy({from("tree")}, to(), FileTransfer::Conflict::fail, [&](const FileTransfer::Progress& progress) {
        std::lock_guard guard(seenLock);
        seen.push_back(progress);
    });

    // Contents, hidden files and links to files are held over a real daemon (DaemonFileLayer);
    // here the modes, times and the entries a copy must leave out.
    EXPECT_FALSE(local->stat(to("tree/link-to-file")).link);
    EXPECT_EQ(readBytes(to("tree/name\xff")), "not text");
    EXPECT_EQ(local->stat(to("tree/sub/small")).mode, 0600);
    EXPECT_EQ(local->stat(to("tree/sub")).mtimeNs, "1400000000000000007");
    EXPECT_EQ(local->stat(to("tree/empty")).mode, 0700);
    EXPECT_EQ(local->stat(to("tree")).mode, 0750);
    for (std::string skipped : {"link-to-dir", "loop-a", "loop-b", "fifo", "sub/up"})
        EXPECT_EQ(failureOf([&] { local->stat(to("tree/" + skipped)); }).code(), "not_found") << skipped;
    EXPECT_TRUE(stagingFiles(to()).empty());

    FileTransfer::Progress last = transfer->progress();
    EXPECT_EQ(last.totalFiles, 5);
    EXPECT_EQ(last.doneFiles, 5);
    EXPECT_EQ(last.totalBytes, 300000u * 2 + 6 + 10 + 8);
    EXPECT_EQ(last.doneBytes, last.totalBytes);
    for (size_t index = 1; index < seen.size(); ++index) EXPECT_LE(seen[index - 1].doneBytes, seen[index].doneBytes);
}

TEST_F(Transfers, ALinkNamedByTheUserIsFollowed) {
    ::mkdir(from("real").c_str(), 0755);
    writeBytes(from("real/file"), "inside");
    ::symlink("real", from("link").c_str());
    quickTransfer(local)->copy({from("link")}, to(), FileTransfer::Conflict::fail);
    EXPECT_FALSE(local->stat(to("link")).link);
    EXPECT_EQ(readBytes(to("link/file")), "inside");
}

TEST_F(Transfers, ExistingNamesAreFoundAndSkippedOnesStillCountAsDone) {
    writeBytes(from("a"), "new a");
    writeBytes(from("b"), "new b");
    writeBytes(to("b"), "old b");
    EXPECT_EQ(FileTransfer::existing({"a", "b"}, to(), *local), std::vector<std::string>{"b"});

    auto transfer = quickTransfer(local);
    transfer->copy({from("a"), from("b")}, to(), FileTransfer::Conflict::skip);
    FileTransfer::Progress skipped = transfer->progress();
    EXPECT_EQ(skipped.doneFiles, 2);
    EXPECT_EQ(skipped.skippedFiles, 1);
    EXPECT_EQ(skipped.doneBytes, skipped.totalBytes);
    EXPECT_EQ(readBytes(to("a")), "new a");
    EXPECT_EQ(readBytes(to("b")), "old b");
}

TEST_F(Transfers, ADroppedConnectionIsRetriedFromTheStagingOffset) {
    std::string bytes = patternBytes(100000, 3);
    writeBytes(from("file"), bytes);
    breaking->breaks = 2;
    breaking->breakAfter = 40000;
    auto transfer = quickTransfer(breaking);
    std::vector<int> attempts;
    transfer->onRetry = [&](const std::string& path, const BackendError& error, int attempt) {
        EXPECT_EQ(path, to("file"));
        EXPECT_EQ(error.code(), "disconnected");
        attempts.push_back(attempt);
    };
    std::vector<uint64_t> done;
    transfer->copy({from("file")}, to(), FileTransfer::Conflict::fail,
                  [&](const FileTransfer::Progress& progress) { done.push_back(progress.doneBytes); });

    EXPECT_EQ(attempts, (std::vector<int>{2, 3}));
    EXPECT_EQ(breaking->readOffsets, (std::vector<uint64_t>{0, 40960, 81920}));
    EXPECT_EQ(readBytes(to("file")), bytes);
    EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
    EXPECT_EQ(done.back(), 100000u);
    EXPECT_TRUE(stagingFiles(to()).empty());
}

TEST_F(Transfers, ABatchWhoseReplyIsLostEndsWithWhatItPlacedAndStillRefusesAnotherFileInTheWay) {
    ::mkdir(from("tree").c_str(), 0755);
    for (const char* name : {"a", "b", "c"}) writeBytes(from(std::string("tree/") + name), patternBytes(3000, name[0]));
    FileTransfer transfer(local, std::make_shared<LosesBatchReplies>());
    transfer.retryDelays = {};
    transfer.copy({from("tree")}, to(), FileTransfer::Conflict::fail);
    EXPECT_EQ(readBytes(to("tree/c")), patternBytes(3000, 'c'));
    EXPECT_EQ(transfer.progress().doneFiles, 3);
    EXPECT_EQ(transfer.progress().skippedFiles, 0);
    EXPECT_EQ(transfer.progress().doneBytes, 9000u);

    // The same name from another source: not this copy's file.
    ::mkdir(from("other").c_str(), 0755);
    writeBytes(from("other/b"), patternBytes(3000, 'x'));
    local->setattr(from("other/b"), "1000000000000000000", std::nullopt);
    EXPECT_EQ(failureOf([&] { transfer.copy({from("other/b")}, to("tree"), FileTransfer::Conflict::fail); }).code(),
              "exists");
    EXPECT_EQ(readBytes(to("tree/b")), patternBytes(3000, 'b'));
}

TEST_F(Transfers, RetriesEndAfterTheLastDelay) {
    writeBytes(from("file"), patternBytes(50000));
    breaking->breaks = 100;
    breaking->breakAfter = 4096;
    auto transfer = quickTransfer(breaking);
    transfer->retryDelays = {0, 0};
    int retries = 0;
    transfer->onRetry = [&](const std::string&, const BackendError&, int) { ++retries; };
    EXPECT_EQ(failureOf([&] { transfer->copy({from("file")}, to(), FileTransfer::Conflict::fail); }).code(),
              "disconnected");
    EXPECT_EQ(retries, 2);
    EXPECT_FALSE(FileTransfer::isRetryable(BackendError("changed", "c")));
    EXPECT_TRUE(FileTransfer::isRetryable(BackendError("stalled", "s")));
}

TEST_F(Transfers, AnInterruptedCopyIsFinishedByTheSameCopyAgain) {
    ::mkdir(from("tree").c_str(), 0755);
    for (int index = 0; index < 6; ++index)
        writeBytes(from("tree/f" + std::to_string(index)), patternBytes(60000 + index, index));
    breaking->breaks = 1000;
    breaking->breakAfter = 20000;
    auto first = quickTransfer(breaking);
    first->retryDelays = {};
    first->maxStreams = 2;
    EXPECT_EQ(failureOf([&] { first->copy({from("tree")}, to(), FileTransfer::Conflict::fail); }).code(),
              "disconnected");
    EXPECT_FALSE(stagingFiles(to()).empty());

    breaking->breaks = 0;
    breaking->readOffsets.clear();
    auto second = quickTransfer(breaking);
    second->maxStreams = 1;
    second->copy({from("tree")}, to(), FileTransfer::Conflict::fail);
    EXPECT_TRUE(std::any_of(breaking->readOffsets.begin(), breaking->readOffsets.end(),
                            [](uint64_t offset) { return offset > 0; }));
    for (int index = 0; index < 6; ++index)
        EXPECT_EQ(readBytes(to("tree/f" + std::to_string(index))), patternBytes(60000 + index, index));
    EXPECT_TRUE(stagingFiles(to()).empty());
    EXPECT_EQ(second->progress().doneBytes, second->progress().totalBytes);
}

TEST_F(Transfers, ASourceThatChangesBetweenAttemptsFailsAsChanged) {
    writeBytes(from("file"), patternBytes(80000, 5));
    breaking->breaks = 1;
    breaking->breakAfter = 30000;
    auto transfer = quickTransfer(breaking);
    transfer->onRetry = [&](const std::string&, const BackendError&, int) {
        writeBytes(from("file"), patternBytes(80000, 6));
        local->setattr(from("file"), "1000000000000000000", std::nullopt);
    };
    BackendError error = failureOf([&] { transfer->copy({from("file")}, to(), FileTransfer::Conflict::fail); });
    EXPECT_EQ(error.code(), "changed");
    EXPECT_EQ(failureOf([&] { local->stat(to("file")); }).code(), "not_found");
}

TEST_F(Transfers, NothingIsWrittenWhenASourceIsMissingOrTheTargetIsInTheWay) {
    writeBytes(from("a"), "a");
    auto transfer = quickTransfer(local);
    EXPECT_EQ(failureOf([&] { transfer->copy({from("a"), from("missing")}, to(), FileTransfer::Conflict::fail); }).code(),
              "not_found");
    EXPECT_EQ(failureOf([&] { local->stat(to("a")); }).code(), "not_found");

    ::mkdir(from("dir").c_str(), 0755);
    writeBytes(from("dir/inner"), "x");
    writeBytes(to("dir"), "a file where the directory goes");
    EXPECT_EQ(failureOf([&] { transfer->copy({from("dir")}, to(), FileTransfer::Conflict::replace); }).code(), "exists");
    EXPECT_EQ(readBytes(to("dir")), "a file where the directory goes");

    // An existing directory is merged into, not refused.
    ::mkdir(from("merge").c_str(), 0755);
    writeBytes(from("merge/new"), "n");
    ::mkdir(to("merge").c_str(), 0755);
    writeBytes(to("merge/old"), "o");
    transfer->copy({from("merge")}, to(), FileTransfer::Conflict::fail);
    EXPECT_EQ(readBytes(to("merge/new")), "n");
    EXPECT_EQ(readBytes(to("merge/old")), "o");
}

TEST_F(Transfers, ACancelledCopyStopsAndKeepsItsStagingFiles) {
    writeBytes(from("file"), patternBytes(400000));
    auto transfer = quickTransfer(local);
    platform::CancellationToken cancel;
    BackendError error = failureOf([&] {
        transfer->copy({from("file")}, to(), FileTransfer::Conflict::fail,
                      [&](const FileTransfer::Progress& progress) { if (progress.doneBytes > 50000) cancel.cancel(); },
                      cancel);
    });
    EXPECT_TRUE(isCancellation(error));
    EXPECT_EQ(failureOf([&] { local->stat(to("file")); }).code(), "not_found");
    EXPECT_EQ(stagingFiles(to()).size(), 2u);
}

TEST_F(Transfers, SmallFilesGoManyAtOnceWhileBigOnesKeepToMaxStreams) {
    ::mkdir(from("tree").c_str(), 0755);
    for (int index = 0; index < 3; ++index) writeBytes(from("tree/big" + std::to_string(index)), patternBytes(200000, 1));
    for (int index = 0; index < 12; ++index) writeBytes(from("tree/small" + std::to_string(index)), patternBytes(5000, 2));
    auto counting = std::make_shared<CountingBackend>();
    counting->smallTogether = 4;
    FileTransfer transfer(counting, local);
    transfer.maxStreams = 1;
    transfer.smallFileStreams = 6;
    transfer.smallFileSize = CountingBackend::bigSize;
    transfer.copy({from("tree")}, to(), FileTransfer::Conflict::fail);

    EXPECT_EQ(counting->mostBig, 1);
    EXPECT_GE(counting->mostSmall, 4);
    EXPECT_LE(counting->mostSmall, 6);
    EXPECT_EQ(readBytes(to("tree/big2")), patternBytes(200000, 1));
    EXPECT_EQ(readBytes(to("tree/small11")), patternBytes(5000, 2));

    // A far end with fewer streams than that: files wait for a stream instead of failing.
    auto strict = std::make_shared<CountingBackend>();
    strict->refuseAbove = 2;
    FileTransfer limited(strict, local);
    limited.smallFileStreams = 8;
    limited.copy({from("tree")}, to("again"), FileTransfer::Conflict::fail);
    EXPECT_EQ(limited.progress().doneFiles, 15);
    EXPECT_EQ(readBytes(to("again/tree/small11")), patternBytes(5000, 2));
}

TEST(FileTransferIdentity, UploadIDHashesTargetAndSourceVersion) {
    EXPECT_EQ(FileTransfer::uploadID("/dst/a.txt", "12:1700000000000000000"), "5fc664f4b45ee61c");
    EXPECT_NE(FileTransfer::uploadID("/dst/a.txt", "12:1700000000000000001"),
              FileTransfer::uploadID("/dst/a.txt", "12:1700000000000000000"));
}
