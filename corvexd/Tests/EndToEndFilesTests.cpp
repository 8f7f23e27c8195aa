// Files over a real corvexd: the daemon's file layer must behave as this computer's, streams
// must resume, stay bounded and end with their client, and `corvex` copies as the app does.

#include <gtest/gtest.h>

#include <condition_variable>
#include <map>
#include <filesystem>
#include <sys/stat.h>
#include <thread>

#include "CorvexKit/CorvexdBackendFiles.h"
#include "CorvexKit/FileCodec.h"
#include "CorvexKit/FileService.h"
#include "CorvexKit/FileTransfer.h"
#include "CorvexKit/LocalFileBackend.h"
#include "CorvexKit/Tests/Support/FileTestSupport.h"
#include "CorvexKit/Tests/Support/ForwardingFileBackend.h"
#include "Platform/Tests/Support/Eventually.h"
#include "Support/DaemonHarness.h"
#include "Support/RawClient.h"
#include "corvexd/FileStreams.h"

using namespace corvex;
using namespace std::chrono_literals;
using namespace corvexd::testing;
using corvex::testing::MemorySource;
using corvex::testing::names;
using corvex::testing::patternBytes;
using corvex::testing::failureOf;
using corvex::testing::drain;
using corvex::testing::readBytes;
using corvex::testing::stagingFiles;
using corvex::testing::writeBytes;
using platform::testing::eventually;
using nlohmann::json;
namespace fsys = std::filesystem;

namespace {

class DaemonFiles : public ::testing::Test {
protected:
    void SetUp() override { daemon.serve(); }

    std::shared_ptr<CorvexdFileBackend> connect() { return CorvexdFileBackend::attach(daemon.connect("files")); }
    std::string at(const std::string& name) const { return scratch.file(name); }

    json hello(corvexd::testing::RawClient& client) {
        return client.request("hello", json{{"protocol", 1}, {"client", "raw"}}).value()["result"];
    }

    DaemonHarness daemon;
    corvex::testing::ScratchDirectory scratch;
};

// The daemon's file layer, checked against the file itself.
class DaemonFileLayer : public DaemonFiles {
protected:
    void SetUp() override {
        DaemonFiles::SetUp();
        files = connect();
    }
    std::shared_ptr<FileBackend> files;
};

} // namespace

TEST_F(DaemonFileLayer, EntriesListingsAndPagesAreTheSame) {
    writeBytes(at("text"), "hello\n");
    writeBytes(at("binary"), std::string("a\0b", 3));
    ::symlink("text", at("link").c_str());
    ::symlink("nowhere", at("dangling").c_str());
    writeBytes(at(".hidden"), "x");

    FileEntry text = files->stat(at("text"));
    EXPECT_EQ(text.type, FileType::file);
    EXPECT_EQ(text.size, 6u);
    EXPECT_EQ(text.text, true);
    EXPECT_EQ(files->stat(at("binary")).text, false);
    FileEntry link = files->stat(at("link"));
    EXPECT_TRUE(link.link);
    EXPECT_EQ(link.target, "text");
    EXPECT_EQ(link.size, 6u);
    EXPECT_EQ(files->stat(at("dangling")).type, FileType::other);
    EXPECT_EQ(files->stat("/").name, "/");
    EXPECT_EQ(files->stat(at("text")), LocalFileBackend().stat(at("text"))) << "the same entry, exactly";

    EXPECT_EQ(names(files->list(scratch.path(), false, {}, {})),
              (std::vector<std::string>{"binary", "dangling", "link", "text"}));
    FileListing first = files->list(scratch.path(), true, 2, {});
    EXPECT_EQ(names(first), (std::vector<std::string>{".hidden", "binary"}));
    EXPECT_EQ(first.next, "binary");
    auto [dir, all] = listAll(*files, scratch.path(), true);
    EXPECT_EQ(all.size(), 5u);
    EXPECT_EQ(dir.path, scratch.path());

    EXPECT_EQ(failureOf([&] { files->stat(at("missing")); }).code(), "not_found");
    EXPECT_EQ(failureOf([&] { files->list(at("text"), false, {}, {}); }).code(), "not_a_directory");
    EXPECT_EQ(failureOf([&] { files->stat("relative"); }).code(), "bad_request");
}

TEST_F(DaemonFileLayer, DirectoriesAttributesRenamesRemovalAndSpace) {
    EXPECT_TRUE(files->mkdir(at("a/b/c"), true).isDirectory());
    EXPECT_EQ(failureOf([&] { files->mkdir(at("a"), false); }).code(), "exists");
    EXPECT_EQ(failureOf([&] { files->mkdir(at("x/y"), false); }).code(), "not_found");

    writeBytes(at("f"), "data");
    FileEntry changed = files->setattr(at("f"), std::string("1000000000123456789"), 0640);
    EXPECT_EQ(changed.mtimeNs, "1000000000123456789");
    EXPECT_EQ(changed.mode, 0640);
    BackendError bad = failureOf([&] { files->setattr(at("f"), std::string("abc"), {}); });
    EXPECT_EQ(bad.code(), "bad_request");
    EXPECT_EQ(bad.message(), "bad mtime_ns abc");

    writeBytes(at("g"), "other");
    EXPECT_EQ(failureOf([&] { files->rename(at("f"), at("g"), false); }).code(), "exists");
    EXPECT_EQ(files->rename(at("f"), at("g"), true).size, 4u);
    EXPECT_EQ(failureOf([&] { files->remove(at("a"), false); }).code(), "not_empty");
    files->remove(at("a"), true);
    EXPECT_FALSE(fsys::exists(at("a")));
    EXPECT_GT(files->statfs(scratch.path()).total, 0u);
}

TEST_F(DaemonFileLayer, ReadsWholeRangedAndRefusesWhatChanged) {
    std::string bytes = patternBytes((1 << 20) + 123);
    writeBytes(at("big"), bytes);
    FileEntry entry = files->stat(at("big"));

    FileReadOptions small;
    small.chunk = 65536;
    small.window = 262144; // many acknowledgements on the way
    FileReadStream whole = files->read(at("big"), small);
    EXPECT_EQ(whole.size, bytes.size());
    EXPECT_EQ(whole.mtimeNs, entry.mtimeNs);
    EXPECT_EQ(drain(whole.data), bytes);

    FileReadOptions range;
    range.offset = 1000;
    range.length = 5000;
    FileReadStream part = files->read(at("big"), range);
    EXPECT_EQ(part.offset, 1000u);
    EXPECT_EQ(drain(part.data), bytes.substr(1000, 5000));

    writeBytes(at("empty"), "");
    FileReadStream empty = files->read(at("empty"), {});
    EXPECT_EQ(drain(empty.data), "");

    FileReadOptions expecting;
    expecting.expectSize = bytes.size() + 1;
    EXPECT_EQ(failureOf([&] { files->read(at("big"), expecting); }).code(), "changed");
    expecting = {};
    expecting.expectMtimeNs = "1";
    EXPECT_EQ(failureOf([&] { files->read(at("big"), expecting); }).code(), "changed");
    EXPECT_EQ(failureOf([&] { files->read(scratch.path(), {}); }).code(), "is_a_directory");
    ::mkfifo(at("fifo").c_str(), 0600);
    EXPECT_EQ(failureOf([&] { files->read(at("fifo"), {}); }).code(), "bad_request");
}

TEST_F(DaemonFileLayer, ACancelledReadEndsWithACancellation) {
    writeBytes(at("big"), patternBytes(8 << 20));
    FileReadOptions options;
    options.chunk = 65536;
    options.window = 262144;
    FileReadStream stream = files->read(at("big"), options);
    ASSERT_TRUE(stream.data());
    stream.cancel();
    stream.cancel();
    try {
        while (stream.data()) {
        }
        ADD_FAILURE() << "a cancelled read must not end as if it were whole";
    } catch (const BackendError& error) {
        EXPECT_TRUE(isCancellation(error)) << error.code();
    }
}

TEST_F(DaemonFileLayer, WritesPlaceWholeFilesAndRefuseToReplace) {
    std::string bytes = patternBytes(700000, 3);
    MemorySource source(bytes, "v1", 100000); // blocks that don't match the chunk
    FileWriteOptions options;
    options.size = bytes.size();
    options.mode = 0600;
    options.mtimeNs = "1500000000000000000";
    options.chunk = 65536;
    options.window = 262144;
    std::vector<uint64_t> progress;
    std::mutex progressLock;
    FileEntry placed = files->write(at("out"), options, source, [&](uint64_t done) {
        std::lock_guard guard(progressLock);
        progress.push_back(done);
    });
    EXPECT_EQ(readBytes(at("out")), bytes);
    EXPECT_EQ(placed.mode, 0600);
    EXPECT_EQ(placed.mtimeNs, "1500000000000000000");
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    ASSERT_FALSE(progress.empty());
    EXPECT_EQ(progress.back(), bytes.size());
    EXPECT_TRUE(stagingFiles(scratch.path()).empty());

    MemorySource again("new");
    EXPECT_EQ(failureOf([&] { files->write(at("out"), {}, again, {}); }).code(), "exists");
    EXPECT_EQ(readBytes(at("out")), bytes);
    FileWriteOptions replace;
    replace.overwrite = true;
    files->write(at("out"), replace, again, {});
    EXPECT_EQ(readBytes(at("out")), "new");

    MemorySource nothing("");
    EXPECT_EQ(files->write(at("empty"), {}, nothing, {}).size, 0u);
    EXPECT_EQ(failureOf([&] { files->write(scratch.path(), replace, nothing, {}); }).code(), "is_a_directory");
}

TEST_F(DaemonFileLayer, ATreeCopiesWithItsHiddenFilesAndWithoutLinksToFoldersOrFifos) {
    std::string from = at("from");
    fsys::create_directories(from + "/sub/deeper");
    writeBytes(from + "/top", patternBytes(300000, 7));
    writeBytes(from + "/.hidden", "secret");
    writeBytes(from + "/sub/deeper/leaf", "leaf");
    ::symlink("top", (from + "/link-to-file").c_str());
    ::symlink("sub", (from + "/link-to-dir").c_str());
    ::mkfifo((from + "/fifo").c_str(), 0600);
    fsys::create_directories(at("to"));

    FileTransfer copy(std::make_shared<LocalFileBackend>(), files);
    copy.copy({from}, at("to"), FileTransfer::Conflict::fail);
    std::string into = at("to/from");
    EXPECT_EQ(readBytes(into + "/top"), readBytes(from + "/top"));
    EXPECT_EQ(readBytes(into + "/.hidden"), "secret");
    EXPECT_EQ(readBytes(into + "/sub/deeper/leaf"), "leaf");
    EXPECT_EQ(readBytes(into + "/link-to-file"), readBytes(from + "/top")) << "a link to a file copies the file";
    EXPECT_FALSE(fsys::exists(fsys::symlink_status(into + "/link-to-dir")));
    EXPECT_FALSE(fsys::exists(fsys::symlink_status(into + "/fifo")));
    EXPECT_EQ(copy.progress().totalFiles, 4);
    EXPECT_TRUE(stagingFiles(at("to")).empty());

    // Back again, from the daemon's side to this computer's.
    fsys::create_directories(at("back"));
    FileTransfer back(files, std::make_shared<LocalFileBackend>());
    back.copy({into}, at("back"), FileTransfer::Conflict::fail);
    EXPECT_EQ(readBytes(at("back/from/top")), readBytes(from + "/top"));
    EXPECT_EQ(readBytes(at("back/from/sub/deeper/leaf")), "leaf");
}

// ---------------------------------------------------------------- the daemon's own duties

namespace {

// This computer's files, with reads (of every file, or of one) that can be held at a byte
// count until let go, and the offsets every read began at.
class HeldFiles final : public corvex::testing::ForwardingFileBackend {
public:
    FileReadStream read(const std::string& path, const FileReadOptions& options) override {
        FileReadStream stream = disk.read(path, options);
        {
            std::lock_guard guard(lock);
            offsets.push_back(options.offset);
        }
        if (!onlyPath.empty() && path != onlyPath) return stream;
        auto position = std::make_shared<uint64_t>(options.offset);
        stream.data = [this, position, inner = stream.data]() -> std::optional<Bytes> {
            {
                std::unique_lock guard(lock);
                released.wait(guard, [&] { return !holdAt || *position < *holdAt; });
            }
            auto block = inner();
            if (block) *position += block->size();
            return block;
        };
        return stream;
    }

    void release() {
        std::lock_guard guard(lock);
        holdAt.reset();
        released.notify_all();
    }
    std::vector<uint64_t> readOffsets() {
        std::lock_guard guard(lock);
        return offsets;
    }

    std::mutex lock;
    std::condition_variable released;
    std::optional<uint64_t> holdAt;
    std::string onlyPath; // the one file held, when set
    std::vector<uint64_t> offsets;
};

// The side file and its temporary (".source.new") are skipped, and a file renamed away between
// the listing and the look counts as nothing: the poll must not throw past a running copy.
uint64_t stagedBytes(const std::string& directory) {
    for (const auto& path : stagingFiles(directory)) {
        if (path.find(".source") != std::string::npos) continue;
        std::error_code gone;
        uint64_t size = fsys::file_size(path, gone);
        if (!gone) return size;
    }
    return 0;
}


json writeParams(const std::string& path, std::optional<std::string> upload = std::nullopt) {
    json params{{"path", path}, {"overwrite", false}, {"chunk", 65536}, {"window", 1 << 20}};
    if (upload) {
        params["upload_id"] = *upload;
        params["source"] = "s";
    }
    return params;
}

} // namespace

TEST_F(DaemonFiles, AClientHasAFewStreamsAndLosesThemWhenItGoes) {
    const int streams = corvexd::FileStreams::Limits{}.streamsPerClient;
    {
        corvexd::testing::RawClient client(daemon.socketPath());
        hello(client);
        for (int index = 0; index < streams; ++index) {
            auto reply = client.request("fs.write", writeParams(at("f" + std::to_string(index))));
            ASSERT_TRUE(reply && reply->contains("result")) << reply->dump();
        }
        auto refused = client.request("fs.write", writeParams(at("one-too-many")));
        EXPECT_EQ((*refused)["error"]["code"], "too_many_streams");
        // Another client is not counted against this one.
        corvexd::testing::RawClient other(daemon.socketPath());
        hello(other);
        EXPECT_TRUE(other.request("fs.write", writeParams(at("other")))->contains("result"));

        auto resumable = client.request("fs.cancel", json{{"stream", 1}});
        EXPECT_TRUE(resumable->contains("result"));
        ASSERT_TRUE(client.nextEvent());
        EXPECT_TRUE(client.request("fs.write", writeParams(at("upload"), "u"))->contains("result"));
    }
    // Gone: the streams without an upload id leave nothing behind; the resumable one keeps
    // what it had for the next attempt.
    ASSERT_TRUE(eventually([&] { return stagingFiles(scratch.path()).size() == 2; })) << stagingFiles(scratch.path()).size();
    corvexd::testing::RawClient next(daemon.socketPath());
    hello(next);
    for (int index = 0; index < streams; ++index)
        EXPECT_TRUE(next.request("fs.write", writeParams(at("g" + std::to_string(index))))->contains("result"));
}

TEST_F(DaemonFiles, AReaderThatStopsReadingIsSentItsWindowAndNoMore) {
    std::string bytes = patternBytes(8 << 20, 4);
    writeBytes(at("big"), bytes);
    corvexd::testing::RawClient slow(daemon.socketPath());
    hello(slow);
    auto opened = slow.request("fs.read", json{{"path", at("big")}, {"offset", 0}, {"chunk", 65536}, {"window", 262144}});
    ASSERT_TRUE(opened && opened->contains("result")) << opened->dump();
    uint64_t stream = (*opened)["result"]["stream"];

    // Meanwhile another client is served at once, the whole file included.
    auto files = connect();
    EXPECT_EQ(files->stat(at("big")).size, bytes.size());
    FileReadStream read = files->read(at("big"), {});
    EXPECT_EQ(drain(read.data), bytes);

    auto received = [&](std::chrono::milliseconds quiet) {
        uint64_t total = 0;
        FrameParser parser;
        char buffer[65536];
        auto deadline = std::chrono::steady_clock::now() + quiet;
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd wait{slow.fd(), POLLIN, 0};
            if (::poll(&wait, 1, 50) <= 0) continue;
            ssize_t count = ::recv(slow.fd(), buffer, sizeof buffer, 0);
            if (count <= 0) break;
            parser.append(std::string_view(buffer, static_cast<size_t>(count)), [&](uint8_t type, std::string_view body) {
                if (type == static_cast<uint8_t>(FrameType::fileData)) total += parseFileDataPayload(body)->bytes.size();
            });
        }
        return total;
    };
    uint64_t first = received(500ms);
    EXPECT_LE(first, 262144u) << "a reader that acknowledges nothing holds one window at most";
    slow.sendJSON(json{{"method", "fs.ack"}, {"params", {{"stream", stream}, {"offset", 262144}}}});
    EXPECT_GT(received(500ms), 0u) << "an acknowledgement gives credit for more";
}

TEST_F(DaemonFiles, AStuckDaemonIsStalledAndTheCopyResumesOnceItIsBack) {
    std::string bytes = patternBytes(24 << 20, 6);
    writeBytes(at("big"), bytes);
    fsys::create_directories(at("to"));
    auto source = std::make_shared<HeldFiles>();
    source->holdAt = 8u << 20;
    auto files = connect();
    files->setFileStallTimeout(1.0);
    FileTransfer transfer(source, files);
    transfer.window = 1 << 20;
    transfer.retryDelays = {0.2, 0.5, 1, 2, 4, 8};
    std::mutex codesLock;
    std::vector<std::string> codes;
    transfer.onRetry = [&](const std::string&, const BackendError& error, int) {
        std::lock_guard guard(codesLock);
        codes.push_back(error.code());
    };
    std::optional<BackendError> failure;
    std::thread copying([&] {
        try {
            transfer.copy({at("big")}, at("to"), FileTransfer::Conflict::fail);
        } catch (const BackendError& error) {
            failure = error;
        }
    });
    if (!eventually([&] { return stagedBytes(at("to")) >= (7u << 20); })) {
        source->release(); // a failure reported, not a thread left running
        copying.join();
        FAIL() << "the copy never reached 7 MiB";
    }
    ::kill(daemon.pid(), SIGSTOP);
    source->release();
    bool stalled = eventually([&] {
        std::lock_guard guard(codesLock);
        return !codes.empty();
    });
    daemon.kill(SIGKILL);
    daemon.serve();
    copying.join();
    ASSERT_TRUE(stalled);
    EXPECT_EQ(codes.front(), "stalled");
    ASSERT_FALSE(failure) << failure->code() << ": " << failure->message();
    EXPECT_EQ(readBytes(at("to/big")), bytes);
    EXPECT_TRUE(stagingFiles(at("to")).empty());
    EXPECT_GT(source->readOffsets().back(), 0u) << "the retry continued from the staging file";
}

TEST_F(DaemonFiles, ACopyWhoseClientWentIsFinishedByTheNextOneFromWhereItStopped) {
    std::string bytes = patternBytes(16 << 20, 8);
    writeBytes(at("big"), bytes);
    fsys::create_directories(at("to"));
    auto source = std::make_shared<HeldFiles>();
    source->holdAt = 4u << 20;
    auto first = daemon.connect("first");
    FileTransfer broken(source, CorvexdFileBackend::attach(first));
    broken.retryDelays = {};
    std::thread copying([&] {
        EXPECT_THROW(broken.copy({at("big")}, at("to"), FileTransfer::Conflict::fail), BackendError);
    });
    bool staged = eventually([&] { return stagedBytes(at("to")) >= (3u << 20); });
    first->stop(); // the client goes away mid-file
    source->release();
    copying.join();
    ASSERT_TRUE(staged);

    auto retry = std::make_shared<HeldFiles>();
    FileTransfer again(retry, connect());
    ASSERT_TRUE(eventually([&] {
        try {
            again.copy({at("big")}, at("to"), FileTransfer::Conflict::fail);
            return true;
        } catch (const BackendError&) {
            return false; // until the daemon has seen the first client go
        }
    }));
    EXPECT_GE(retry->readOffsets().back(), 3u << 20);
    EXPECT_EQ(readBytes(at("to/big")), bytes);
    EXPECT_TRUE(stagingFiles(at("to")).empty());
}

// ---------------------------------------------------------------- the corvex program

TEST_F(DaemonFiles, CorvexListsStatsAndCopiesBothWays) {
    fsys::create_directories(at("tree/sub"));
    writeBytes(at("tree/a"), patternBytes(100000));
    writeBytes(at("tree/.dot"), "d");
    writeBytes(at("tree/sub/b"), "b");

    Ran listed = daemon.corvex({"ls", ":" + at("tree")});
    ASSERT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(listed.out, "a\nsub/\n");
    Ran all = daemon.corvex({"ls", "-a", "-l", ":" + at("tree")});
    EXPECT_NE(all.out.find(".dot"), std::string::npos);
    EXPECT_NE(all.out.find("      100000 "), std::string::npos) << all.out;
    Ran stat = daemon.corvex({"stat", ":" + at("tree/a")});
    EXPECT_EQ(decodeText<FileEntry>(stat.out).size, 100000u);
    Ran missing = daemon.corvex({"stat", ":" + at("nothing")});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err.rfind("corvex: not_found: ", 0), 0u) << missing.err;

    fsys::create_directories(at("remote"));
    Ran up = daemon.corvex({"cp", at("tree"), ":" + at("remote")});
    ASSERT_EQ(up.status, 0) << up.err;
    EXPECT_EQ(up.err.rfind("copied 3 files", 0), 0u) << up.err;
    EXPECT_EQ(readBytes(at("remote/tree/a")), readBytes(at("tree/a")));

    Ran again = daemon.corvex({"cp", at("tree"), ":" + at("remote")});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.err.rfind("corvex: exists: ", 0), 0u) << again.err;
    writeBytes(at("tree/sub/b"), "newer");
    Ran skipped = daemon.corvex({"cp", "--skip", at("tree"), ":" + at("remote")});
    EXPECT_NE(skipped.err.find("(3 skipped)"), std::string::npos) << skipped.err;
    EXPECT_EQ(readBytes(at("remote/tree/sub/b")), "b");
    EXPECT_EQ(daemon.corvex({"cp", "--overwrite", "--streams", "2", at("tree"), ":" + at("remote")}).status, 0);
    EXPECT_EQ(readBytes(at("remote/tree/sub/b")), "newer");

    Ran down = daemon.corvex({"cp", ":" + at("remote/tree/a"), at("copy-of-a")});
    ASSERT_EQ(down.status, 0) << down.err;
    EXPECT_EQ(readBytes(at("copy-of-a")), readBytes(at("tree/a")));
    EXPECT_EQ(daemon.corvex({"cp", "--skip", "--overwrite", "a", "b"}).status, 2);
}

TEST_F(DaemonFiles, NamesThatAreNotUTF8AreListedAndCopiedBothWays) {
    const std::string odd = "caf\xE9 100%";
    fsys::create_directories(at("here"));
    writeBytes(at("here/" + odd), "bytes of an odd name");

    Ran listed = daemon.corvex({"ls", ":" + at("here")});
    ASSERT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(listed.out, odd + "\n");
    Ran down = daemon.corvex({"cp", ":" + at("here/" + odd), at("down")});
    ASSERT_EQ(down.status, 0) << down.err;
    EXPECT_EQ(readBytes(at("down")), "bytes of an odd name");
    fsys::create_directories(at("there"));
    Ran up = daemon.corvex({"cp", at("here"), ":" + at("there")});
    ASSERT_EQ(up.status, 0) << up.err;
    EXPECT_EQ(readBytes(at("there/here/" + odd)), "bytes of an odd name");
}

TEST_F(DaemonFiles, LocalPathsNeedNoDaemon) {
    writeBytes(at("a"), "local");
    auto alone = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {builtProgram("corvex"), "--socket", at("nobody.sock")});
        return runProgram(arguments);
    };
    Ran listed = alone({"ls", scratch.path()});
    ASSERT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(listed.out, "a\n");
    EXPECT_EQ(alone({"stat", at("a")}).status, 0);
    Ran copied = alone({"cp", at("a"), at("b")});
    ASSERT_EQ(copied.status, 0) << copied.err;
    EXPECT_EQ(readBytes(at("b")), "local");
    // A path on the daemon's machine still needs one.
    EXPECT_EQ(alone({"ls", ":" + scratch.path()}).status, 1);
}

// ---------------------------------------------------------------- copies the daemon makes itself

namespace {

// A file here as a copy's source, which a daemon on this machine copies without being sent
// its bytes; `opens` counts the times the bytes were read here after all.
class HereSource final : public FileDataSource {
public:
    HereSource(std::string path, std::string mtimeNs) : path_(std::move(path)), entry_(LocalFileBackend().stat(path_)) {
        entry_.mtimeNs = std::move(mtimeNs);
    }
    uint64_t size() const override { return entry_.size; }
    std::string fingerprint() const override { return std::to_string(entry_.size) + ":" + entry_.mtimeNs; }
    ByteBlocks open(uint64_t offset) override {
        ++opens;
        LocalFileSource disk(path_);
        return disk.open(offset);
    }
    std::optional<LocalFile> localFile() const override { return LocalFile{path_, entry_.size, entry_.mtimeNs}; }

    int opens = 0;

private:
    std::string path_;
    FileEntry entry_;
};

struct HereCase {
    const char* name;
    bool staleTime = false;  // the source changed since it was looked at
    bool preStaged = false;  // an earlier attempt left the first MiB, with bytes the source lacks
    bool cancelAtOnce = false;
    std::optional<std::string> code; // the failure; none: the copy succeeds
};

} // namespace

TEST_F(DaemonFiles, ACopyFromThisMachineIsMadeByTheDaemonWithTheStreamsRules) {
    const std::string bytes = patternBytes((96u << 20) + 12345, 3);
    writeBytes(at("source"), bytes);
    const std::string mtimeNs = LocalFileBackend().stat(at("source")).mtimeNs;
    const std::string staged(1u << 20, 'X');
    const HereCase cases[] = {
        {"copies", false, false, false, std::nullopt},
        {"resumes from the staged bytes", false, true, false, std::nullopt},
        {"refuses a changed source", true, false, false, "changed"},
        {"cancelled", false, false, true, "cancelled"},
    };
    auto files = connect();
    for (const HereCase& row : cases) {
        SCOPED_TRACE(row.name);
        const std::string target = at(std::string("to-") + row.name);
        HereSource source(at("source"), row.staleTime ? "1" : mtimeNs);
        FileWriteOptions options;
        options.size = bytes.size();
        options.source = source.fingerprint();
        options.uploadID = FileTransfer::uploadID(target, *options.source);
        const std::string staging = scratch.file(FileService::stagingName(fsys::path(target).filename(), *options.uploadID));
        if (row.preStaged) {
            writeBytes(staging, staged);
            writeBytes(FileService::sideFileName(staging), *options.source);
        }
        platform::CancellationToken cancel;
        std::vector<uint64_t> progress;
        auto write = [&] {
            return files->write(target, options, source, [&](uint64_t offset) {
                progress.push_back(offset);
                if (row.cancelAtOnce) cancel.cancel();
            }, cancel);
        };
        if (!row.code) {
            EXPECT_EQ(write().size, bytes.size());
            EXPECT_EQ(readBytes(target), row.preStaged ? staged + bytes.substr(staged.size()) : bytes);
            EXPECT_FALSE(fsys::exists(staging));
            ASSERT_FALSE(progress.empty());
            EXPECT_EQ(progress.back(), bytes.size());
        } else {
            std::optional<BackendError> failure;
            try {
                write();
            } catch (const BackendError& error) {
                failure = error;
            }
            if (row.cancelAtOnce && !failure) {
                // So quick that it ended before the cancel reached the daemon: then it is whole.
                EXPECT_EQ(readBytes(target), bytes);
            } else {
                ASSERT_TRUE(failure);
                EXPECT_EQ(failure->code(), *row.code) << failure->message();
                EXPECT_FALSE(fsys::exists(target)) << "nothing half-written in place";
            }
        }
        EXPECT_EQ(source.opens, 0) << "the bytes were never read here";
        EXPECT_EQ(files->openStreams(), 0u);
    }
}

TEST_F(DaemonFiles, ACopyFromAFileTheDaemonCannotSeeAsTheClientDoesIsRefused) {
    writeBytes(at("source"), "some bytes");
    writeBytes(at("other"), "other bytes, more of them");
    FileEntry entry = LocalFileBackend().stat(at("source"));
    struct stat record {};
    ASSERT_EQ(::stat(at("source").c_str(), &record), 0);
    corvexd::testing::RawClient client(daemon.socketPath());
    json features = hello(client)["features"];
    EXPECT_NE(std::find(features.begin(), features.end(), protocol::fsLocalSourceFeature), features.end());
    auto local = [&](const std::string& path, const std::string& boot) {
        return json{{"path", path}, {"boot_id", boot}, {"dev", record.st_dev}, {"ino", record.st_ino},
                    {"size", entry.size}, {"mtime_ns", entry.mtimeNs}};
    };
    // What another mount namespace shows: another file at the path, one of another size, or none.
    const std::pair<const char*, json> refused[] = {
        {"another machine", local(at("source"), "another-boot")},
        {"another file at the path", local(at("other"), FileService::bootID())},
        {"no file at the path", local(at("absent"), FileService::bootID())},
    };
    for (const auto& [name, source] : refused) {
        SCOPED_TRACE(name);
        json params = writeParams(at(std::string("to-") + name));
        params["local_source"] = source;
        auto reply = client.request("fs.write", params);
        ASSERT_TRUE(reply);
        EXPECT_EQ((*reply)["error"]["code"], protocol::fsLocalSourceRefused) << reply->dump();
        EXPECT_FALSE(fsys::exists(at(std::string("to-") + name)));
    }
    json params = writeParams(at("to"));
    params["local_source"] = local(at("source"), FileService::bootID());
    auto opened = client.request("fs.write", params);
    ASSERT_TRUE(opened && opened->contains("result")) << opened->dump();
    ASSERT_TRUE(eventually([&] { return readBytes(at("to")) == "some bytes"; }));
}

namespace {

json putParams(const std::string& path, uint64_t stream, uint64_t size, bool overwrite = false) {
    json params = writeParams(path);
    params["put"] = stream;
    params["size"] = size;
    params["overwrite"] = overwrite;
    return params;
}

// One put, alone or in a batch, and how it must end.
struct PutRow {
    const char* name;
    std::optional<std::string> before; // the target's bytes, if it is there
    std::string data;
    uint64_t size;
    bool overwrite;
    uint64_t stream;
    std::optional<std::string> code; // the error, or placed
};

} // namespace

TEST_F(DaemonFiles, APutIsOneRequestWithItsDataAndOneReplyUnderTheWriteRules) {
    corvexd::testing::RawClient client(daemon.socketPath());
    json features = hello(client)["features"];
    EXPECT_NE(std::find(features.begin(), features.end(), protocol::fsPutFeature), features.end());
    const uint64_t own = protocol::fsPutStreamBit;
    using Row = PutRow;
    const Row rows[] = {
        {"a new file", std::nullopt, "hello", 5, false, own | 1, std::nullopt},
        {"an empty file", std::nullopt, "", 0, false, own | 2, std::nullopt},
        {"a target that is there", "old", "hello", 5, false, own | 3, "exists"},
        {"a target that is there, replaced", "old", "hello", 5, true, own | 4, std::nullopt},
        {"more data than promised", std::nullopt, "hello!", 5, false, own | 5, "bad_request"},
        {"less data than promised", std::nullopt, "hell", 5, false, own | 6, "io_error"},
        {"a stream the daemon hands out", std::nullopt, "hello", 5, false, 7, "bad_request"},
        {"too big to put", std::nullopt, "", protocol::fsPutLargest + 1, false, own | 8, "bad_request"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::string target = at(row.name);
        if (row.before) writeBytes(target, *row.before);
        auto reply = client.request("fs.write", putParams(target, row.stream, row.size, row.overwrite), 10s,
                                    makeFileDataFrame(row.stream, 0, true, row.data));
        ASSERT_TRUE(reply);
        if (row.code) {
            EXPECT_EQ((*reply)["error"]["code"], *row.code) << reply->dump();
            EXPECT_EQ(fsys::exists(target) ? std::optional(readBytes(target)) : std::nullopt, row.before);
        } else {
            ASSERT_TRUE(reply->contains("result")) << reply->dump();
            EXPECT_FALSE((*reply)["result"].contains("stream")) << "nothing stays open";
            EXPECT_EQ((*reply)["result"]["entry"]["size"], row.data.size());
            EXPECT_EQ(readBytes(target), row.data);
        }
    }
    EXPECT_TRUE(stagingFiles(scratch.path()).empty());
    EXPECT_FALSE(client.nextEvent(100ms)) << "a put ends with its reply, no event";
}

TEST_F(DaemonFiles, ABatchAnswersEachFileAsItsOwnPutWouldAndRefusesOnlyWhatItCantTakeAtAll) {
    corvexd::testing::RawClient client(daemon.socketPath());
    json features = hello(client)["features"];
    EXPECT_NE(std::find(features.begin(), features.end(), protocol::fsPutBatchFeature), features.end());
    const uint64_t own = protocol::fsPutStreamBit;
    using Row = PutRow;
    // Enough placed files that a group of them shares one sync, with failures among them.
    const Row rows[] = {
        {"a new file", std::nullopt, "hello", 5, false, own | 1, std::nullopt},
        {"a target that is there", "old", "hello", 5, false, own | 2, "exists"},
        {"an empty file", std::nullopt, "", 0, false, own | 3, std::nullopt},
        {"less data than promised", std::nullopt, "hell", 5, false, own | 4, "io_error"},
        {"a target that is there, replaced", "old", "hello", 5, true, own | 5, std::nullopt},
        {"more data than promised", std::nullopt, "hello!", 5, false, own | 6, "bad_request"},
        {"a stream the daemon hands out", std::nullopt, "hello", 5, false, 7, "bad_request"},
        {"too big to put", std::nullopt, "", protocol::fsPutLargest + 1, false, own | 8, "bad_request"},
        {"a stream another file of the batch took", std::nullopt, "hello", 5, false, own | 1, "bad_request"},
        {"no-such-folder/a file in a folder that isn't there", std::nullopt, "hello", 5, false, own | 11, "not_found"},
        {"another new file", std::nullopt, patternBytes(70000), 70000, false, own | 9, std::nullopt},
        {"a last new file", std::nullopt, "bye", 3, false, own | 10, std::nullopt},
    };
    json files = json::array();
    std::string frames;
    for (const Row& row : rows) {
        if (row.before) writeBytes(at(row.name), *row.before);
        files.push_back(putParams(at(row.name), row.stream, row.size, row.overwrite));
        // A file of a batch whose stream is taken sends nothing of its own.
        if (row.stream != (own | 1) || std::string(row.name) == "a new file")
            frames += makeFileDataFrame(row.stream, 0, true, row.data);
    }
    auto reply = client.request("fs.put_batch", json{{"files", files}}, 10s, frames);
    ASSERT_TRUE(reply && reply->contains("result")) << (reply ? reply->dump() : "no reply");
    const json& outcomes = (*reply)["result"]["files"];
    ASSERT_EQ(outcomes.size(), std::size(rows));
    for (size_t index = 0; index < std::size(rows); ++index) {
        const Row& row = rows[index];
        SCOPED_TRACE(row.name);
        const json& outcome = outcomes[index];
        if (row.code) {
            EXPECT_EQ(outcome["code"], *row.code) << outcome.dump();
            if (std::string(row.name) != "a stream another file of the batch took") {
                EXPECT_EQ(fsys::exists(at(row.name)) ? std::optional(readBytes(at(row.name))) : std::nullopt, row.before);
            }
        } else {
            EXPECT_EQ(outcome, json({{"offset", 0}})) << "placed, and nothing more to say";
            EXPECT_EQ(readBytes(at(row.name)), row.data);
        }
    }
    EXPECT_TRUE(stagingFiles(scratch.path()).empty());

    auto batchOf = [&](size_t count, uint64_t firstStream) {
        json many = json::array();
        for (size_t index = 0; index < count; ++index)
            many.push_back(putParams(at("refused" + std::to_string(firstStream + index)), own | (firstStream + index), 1));
        return json{{"files", many}};
    };
    for (size_t count : {size_t(0), size_t(protocol::fsPutBatchLargest) + 1}) {
        auto refused = client.request("fs.put_batch", batchOf(count, 100));
        ASSERT_TRUE(refused);
        EXPECT_EQ((*refused)["error"]["code"], "bad_request") << count << " files: " << refused->dump();
    }
    // Full batches whose data hasn't come hold all of the client's puts.
    const int held = corvexd::FileStreams::Limits{}.putsPerClient / protocol::fsPutBatchLargest;
    for (int batch = 0; batch < held; ++batch) {
        ASSERT_TRUE(client.sendJSON(json{{"id", 900 + batch}, {"method", "fs.put_batch"},
                                         {"params", batchOf(protocol::fsPutBatchLargest, 200 + 100 * batch)}}));
    }
    auto refused = client.request("fs.put_batch", batchOf(1, 100));
    ASSERT_TRUE(refused);
    EXPECT_EQ((*refused)["error"]["code"], "too_many_streams") << refused->dump();
    EXPECT_FALSE(fsys::exists(at("refused0")));
    EXPECT_FALSE(client.nextEvent(100ms)) << "a batch ends with its reply, no event";
}

namespace {

// Promises a big file and sends nothing of it until `until` is cancelled: its write holds its
// whole window at the daemon meanwhile.
class SilentSource final : public FileDataSource {
public:
    explicit SilentSource(platform::CancellationToken until) : until_(std::move(until)) {}
    uint64_t size() const override { return 16u << 20; }
    std::string fingerprint() const override { return "silent"; }
    ByteBlocks open(uint64_t) override {
        return [until = until_]() -> std::optional<Bytes> {
            until.sleepFor(std::chrono::minutes(1));
            return Bytes(1, 0);
        };
    }

private:
    platform::CancellationToken until_;
};

} // namespace

TEST_F(DaemonFiles, FilesOfABatchTheDaemonHadNoRoomForAreSentAgainWithoutThoseItPlaced) {
    // Sixteen small files make one batch; a seventeenth, whose read is held, makes a second
    // that keeps the copy going while the first waits for room.
    std::map<std::string, std::string> tree;
    fsys::create_directories(at("tree"));
    fsys::create_directories(at("to"));
    for (int index = 0; index < 17; ++index) {
        std::string name = index < 16 ? "f" + std::string(index < 10 ? "0" : "") + std::to_string(index) : "z-held";
        tree[name] = patternBytes(1000, static_cast<unsigned>(index));
        writeBytes(at("tree/" + name), tree[name]);
    }
    auto files = connect();
    // Writes on the same connection that hold all of its write windows but room for two and a
    // half small files, each of which is charged 64 KiB.
    const corvexd::FileStreams::Limits limits;
    const uint64_t room = 5 * (64u << 10) / 2;
    platform::CancellationToken hogsGone;
    std::vector<std::thread> hogs;
    for (uint64_t held = 0; held < limits.writeWindowsPerClient - room;) {
        const uint64_t window = std::min(limits.largestWriteWindow, limits.writeWindowsPerClient - room - held);
        held += window;
        hogs.emplace_back([&, window, path = at("hog" + std::to_string(hogs.size()))] {
            SilentSource silent(hogsGone);
            FileWriteOptions options;
            options.size = silent.size();
            options.window = static_cast<int>(window);
            try {
                files->write(path, options, silent, {}, hogsGone);
            } catch (const std::exception&) {
            }
        });
    }
    const size_t hogCount = hogs.size();
    bool hogging = eventually([&] { return files->openStreams() == hogCount; });

    auto source = std::make_shared<HeldFiles>();
    source->holdAt = 0;
    source->onlyPath = at("tree/z-held");
    FileTransfer transfer(source, files);
    transfer.retryDelays = {};
    std::optional<BackendError> failure;
    std::thread copying([&] {
        try {
            transfer.copy({at("tree")}, at("to"), FileTransfer::Conflict::fail);
        } catch (const BackendError& error) {
            failure = error;
        }
    });
    // Two placed, the rest refused for want of room.
    bool placed = eventually([&] { return transfer.progress().doneFiles >= 2; });
    hogsGone.cancel();
    for (std::thread& hog : hogs) hog.join();
    bool roomAgain = eventually([&] { return files->openStreams() == 0; });
    source->release();
    copying.join();
    ASSERT_TRUE(hogging && placed && roomAgain) << hogging << placed << roomAgain;
    EXPECT_GT(source->readOffsets().size(), tree.size()) << "files refused for want of room were sent again";

    ASSERT_FALSE(failure) << failure->code() << ": " << failure->message();
    for (const auto& [name, bytes] : tree) EXPECT_EQ(readBytes(at("to/tree/" + name)), bytes) << name;
    FileTransfer::Progress progress = transfer.progress();
    EXPECT_EQ(progress.doneFiles, 17) << "each file counted once";
    EXPECT_EQ(progress.skippedFiles, 0);
    EXPECT_EQ(progress.doneBytes, 17000u);
    EXPECT_TRUE(stagingFiles(at("to")).empty());
}

TEST_F(DaemonFiles, APutTakesWhatABrokenWriteStagedAndAClientGoneMidPutPlacesNothing) {
    std::string bytes = patternBytes(200000, 3);
    {
        corvexd::testing::RawClient client(daemon.socketPath());
        hello(client);
        auto opened = client.request("fs.write", writeParams(at("resumed"), "u"));
        uint64_t stream = (*opened)["result"]["stream"];
        client.sendBytes(makeFileDataFrame(stream, 0, false, std::string_view(bytes).substr(0, 100000)));
        ASSERT_TRUE(eventually([&] { return stagedBytes(scratch.path()) == 100000; }));
        // Gone halfway through a put: its slot is freed and nothing of it stays.
        const uint64_t put = protocol::fsPutStreamBit | 1;
        ASSERT_TRUE(client.sendJSON(json{{"id", 99}, {"method", "fs.write"}, {"params", putParams(at("half"), put, 10)}}));
        ASSERT_TRUE(client.sendBytes(makeFileDataFrame(put, 0, false, "hello")));
    }
    corvexd::testing::RawClient next(daemon.socketPath());
    hello(next);
    json params = putParams(at("resumed"), protocol::fsPutStreamBit | 1, bytes.size());
    params["upload_id"] = "u";
    params["source"] = "s";
    std::optional<json> reply;
    // The gone client's stream may hold the staging file a moment.
    ASSERT_TRUE(eventually([&] {
        reply = next.request("fs.write", params, 10s, makeFileDataFrame(protocol::fsPutStreamBit | 1, 0, true, bytes));
        return reply && reply->contains("result");
    })) << reply->dump();
    EXPECT_EQ((*reply)["result"]["offset"], 100000);
    EXPECT_EQ(readBytes(at("resumed")), bytes);
    EXPECT_FALSE(fsys::exists(at("half")));
    EXPECT_TRUE(stagingFiles(scratch.path()).empty());
    const int streams = corvexd::FileStreams::Limits{}.streamsPerClient;
    for (int index = 0; index < streams; ++index)
        EXPECT_TRUE(next.request("fs.write", writeParams(at("g" + std::to_string(index))))->contains("result"));
}

TEST_F(DaemonFiles, ADaemonKilledWhileSmallFilesWaitForTheirSyncLeavesNoPartFileAndARerunFinishes) {
    // Many small files at once, sent as batches of puts (a source the daemon can't open
    // itself): the daemon stages them and syncs and places them in groups.
    std::map<std::string, std::string> tree; // by path under the tree
    for (int index = 0; index < 600; ++index) {
        std::string folder = "d" + std::to_string(index / 50);
        std::string name = folder + "/f" + std::to_string(index);
        tree[name] = patternBytes(static_cast<size_t>(index * 37 % 5000), static_cast<unsigned>(index));
        fsys::create_directories(at("tree/" + folder));
        writeBytes(at("tree/" + name), tree[name]);
    }
    auto placedFiles = [&](const std::string& into) {
        std::vector<std::string> found;
        for (const auto& item : fsys::recursive_directory_iterator(into, fsys::directory_options::skip_permission_denied))
            if (item.is_regular_file() && item.path().filename().string().find(".corvex-part-") == std::string::npos)
                found.push_back(fsys::relative(item.path(), into + "/tree").string());
        return found;
    };
    struct Row {
        const char* name;
        size_t placedBeforeKill;
    };
    const Row rows[] = {{"killed as the first files are staged", 0}, {"killed midway", 300}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::string into = at(std::string("to-") + std::to_string(row.placedBeforeKill));
        fsys::create_directories(into);
        auto destination = connect();
        ASSERT_TRUE(destination->writeBatchLimits(corvex::testing::ForwardingFileBackend())) << "files go in batches";
        FileTransfer first(std::make_shared<corvex::testing::ForwardingFileBackend>(), destination);
        first.smallFileStreams = protocol::fsPutsAtOnce;
        first.smallFileSize = protocol::fsPutLargest;
        first.retryDelays = {};
        std::thread copying([&] {
            try {
                first.copy({at("tree")}, into, FileTransfer::Conflict::fail);
            } catch (const BackendError&) {
            }
        });
        EXPECT_TRUE(eventually([&] {
            return !stagingFiles(into).empty() && placedFiles(into).size() >= row.placedBeforeKill;
        }));
        // Stopped first, so what is looked at below is what the kill leaves.
        ::kill(daemon.pid(), SIGSTOP);
        for (const std::string& name : placedFiles(into)) EXPECT_EQ(readBytes(into + "/tree/" + name), tree.at(name)) << name;
        daemon.kill(SIGKILL);
        copying.join();

        daemon.serve();
        FileTransfer again(std::make_shared<corvex::testing::ForwardingFileBackend>(), connect());
        again.smallFileStreams = protocol::fsPutsAtOnce;
        again.copy({at("tree")}, into, FileTransfer::Conflict::skip);
        EXPECT_EQ(placedFiles(into).size(), tree.size());
        for (const auto& [name, bytes] : tree) EXPECT_EQ(readBytes(into + "/tree/" + name), bytes) << name;
        EXPECT_TRUE(stagingFiles(into).empty());
    }
}
