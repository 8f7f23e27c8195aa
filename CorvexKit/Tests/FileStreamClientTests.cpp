// The client's side of file streams against a stand-in daemon that answers as a test says,
// including the ways a real one never would: silence, early ends, defaults left out.

#include <gtest/gtest.h>

#include <future>

#include "CorvexKit/CorvexdBackendFiles.h"
#include "CorvexKit/FileCodec.h"
#include "Platform/Tests/Support/Eventually.h"
#include "Support/FakeDaemon.h"
#include "Support/FileTestSupport.h"
#include "Support/ForwardingFileBackend.h"
#include "Support/ScratchDirectory.h"

using namespace corvex;
using namespace corvex::testing;
using nlohmann::json;
using platform::testing::eventually;
using namespace std::chrono_literals;

namespace {

json entryJSON(const std::string& path, uint64_t size) {
    FileEntry entry;
    entry.name = path.substr(path.rfind('/') + 1);
    entry.path = path;
    entry.type = FileType::file;
    entry.size = size;
    entry.mtimeNs = "0";
    return json::parse(encodeText(entry));
}

class FileStreamClient : public ::testing::Test {
protected:
    void SetUp() override {
        json hello = FakeDaemon::defaultHello();
        hello["features"] = json::array({"ping", "fs"});
        daemon.setHello(hello);
        daemon.listen();
        auto configuration = CorvexdBackend::Configuration::socket(daemon.socketPath(), "tests");
        configuration.retry = RetryPolicy{std::nullopt, 0.02, 0.1};
        backend = CorvexdBackend::make(configuration);
        backend->start();
        files = CorvexdFileBackend::attach(backend);
    }
    void TearDown() override { backend->stop(); }

    // Answers the opening request of a stream with `result`, recording the peer.
    FakeDaemon::HandlerScope answer(const std::string& method, json result) {
        {
            std::lock_guard guard(peerLock);
            streamPeer = nullptr; // until this answer has gone out
        }
        return daemon.setHandler([this, method, result](FakePeer& peer, const ReceivedRequest& request) {
            if (request.method != method) return false;
            // Known once the reply is out, and never before it: a test acts on the stream as
            // soon as the client has its reply, and an event must not overtake the reply.
            std::lock_guard guard(peerLock);
            peer.reply(request.id, result);
            streamPeer = &peer;
            return true;
        });
    }
    void event(const std::string& name, const json& data) {
        ASSERT_TRUE(eventually([&] {
            std::lock_guard guard(peerLock);
            return streamPeer != nullptr;
        }));
        std::lock_guard guard(peerLock);
        streamPeer->event(name, data);
    }
    bool finSeen() {
        return eventually([&] {
            auto frames = daemon.fileData();
            return !frames.empty() && frames.back().fin;
        });
    }

    ScratchDirectory dir;
    FakeDaemon daemon{dir.file("corvexd.sock")};
    std::shared_ptr<CorvexdBackend> backend;
    std::shared_ptr<CorvexdFileBackend> files;
    std::mutex peerLock;
    FakePeer* streamPeer = nullptr;
};

} // namespace

TEST_F(FileStreamClient, AnEmptyWriteIsOneEndFrameAndAResumedOneStartsAtTheReplysOffset) {
    auto scope = answer("fs.write", {{"stream", 7}, {"offset", 0}, {"window", 4096}});
    MemorySource empty("");
    auto writing = std::async(std::launch::async, [&] { return files->write("/x/empty", {}, empty, {}); });
    ASSERT_TRUE(finSeen());
    event("fs.done", {{"stream", 7}, {"entry", entryJSON("/x/empty", 0)}});
    EXPECT_EQ(writing.get().path, "/x/empty");
    auto frames = daemon.fileData();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].offset, 0u);
    EXPECT_TRUE(frames[0].bytes.empty());

    auto resumed = answer("fs.write", {{"stream", 8}, {"offset", 1000}, {"window", 1 << 20}});
    MemorySource source(patternBytes(3000), "v", 700);
    std::vector<uint64_t> progress;
    auto again = std::async(std::launch::async, [&] {
        return files->write("/x/f", {}, source, [&](uint64_t done) { progress.push_back(done); });
    });
    ASSERT_TRUE(eventually([&] { return daemon.fileData().size() >= 3 && daemon.fileData().back().fin; }));
    event("fs.ack", {{"stream", 8}, {"offset", 3000}});
    event("fs.done", {{"stream", 8}, {"entry", entryJSON("/x/f", 3000)}});
    again.get();
    EXPECT_EQ(source.openedAt, std::vector<uint64_t>{1000});
    frames = daemon.fileData();
    EXPECT_EQ(frames[1].offset, 1000u);
    EXPECT_EQ(frames[1].bytes, patternBytes(3000).substr(1000, frames[1].bytes.size()));
    EXPECT_EQ(frames.back().offset, 3000u) << "the end is its own empty frame at the last offset";
    EXPECT_EQ(progress, std::vector<uint64_t>{3000}) << "progress is what the daemon took, not what was sent";

    // A daemon that ends the stream as soon as the last piece is in sends no ack for it.
    auto small = answer("fs.write", {{"stream", 9}, {"offset", 0}, {"window", 1 << 20}});
    MemorySource tiny(patternBytes(500), "t");
    progress.clear();
    auto third = std::async(std::launch::async, [&] {
        return files->write("/x/g", {}, tiny, [&](uint64_t done) { progress.push_back(done); });
    });
    ASSERT_TRUE(eventually([&] { return daemon.fileData().back().stream == 9 && daemon.fileData().back().fin; }));
    event("fs.done", {{"stream", 9}, {"entry", entryJSON("/x/g", 500)}});
    third.get();
    EXPECT_EQ(progress, std::vector<uint64_t>{500}) << "the end stands for all of it";
}

TEST_F(FileStreamClient, AnEndWhileWaitingForCreditStopsTheWriteAndErrorsGetDefaults) {
    auto scope = answer("fs.write", {{"stream", 3}, {"offset", 0}, {"window", 0}});
    MemorySource source(patternBytes(10000));
    auto writing = std::async(std::launch::async, [&] { return files->write("/x/f", {}, source, {}); });
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(daemon.fileData().empty()) << "no credit, no data";
    event("fs.done", {{"stream", 3}, {"entry", entryJSON("/x/f", 10000)}});
    EXPECT_EQ(writing.get().size, 10000u);

    auto failing = answer("fs.write", {{"stream", 4}, {"offset", 0}, {"window", 0}});
    auto refused = std::async(std::launch::async, [&] { return files->write("/x/g", {}, source, {}); });
    event("fs.error", {{"stream", 4}});
    EXPECT_EQ(failureOf([&] { refused.get(); }), BackendError("io_error", "file transfer failed"));

    auto streamless = answer("fs.write", json::object());
    EXPECT_EQ(failureOf([&] { files->write("/x/h", {}, source, {}); }),
              BackendError("internal", "fs.write reply without a stream"));
}

TEST_F(FileStreamClient, ReadsAcknowledgeEveryQuarterWindowAndEndOnABareFinFrame) {
    auto scope = answer("fs.read", {{"stream", 5}, {"offset", 0}, {"size", 4096}, {"mtime_ns", "1"}});
    FileReadOptions options;
    options.chunk = 1024;
    options.window = 4096;
    FileReadStream stream = files->read("/x/f", options);
    EXPECT_EQ(stream.size, 4096u);
    {
        std::lock_guard guard(peerLock);
        for (uint64_t offset = 0; offset < 4096; offset += 1024)
            streamPeer->sendRaw(makeFileDataFrame(5, offset, false, std::string(1024, 'r')));
        streamPeer->sendRaw(makeFileDataFrame(99, 0, false, "for a stream nobody has"));
        streamPeer->sendRaw(makeFrame(FrameType::fileData, std::string(16, '\0'))); // too short: ignored
        streamPeer->sendRaw(makeFileDataFrame(5, 4096, true, {}));
    }
    EXPECT_EQ(drain(stream.data), std::string(4096, 'r'));
    ASSERT_TRUE(eventually([&] { return daemon.notifications().size() == 4; }));
    std::vector<uint64_t> acked;
    for (const json& note : daemon.notifications()) {
        EXPECT_EQ(note["method"], "fs.ack");
        acked.push_back(note["params"]["offset"]);
    }
    EXPECT_EQ(acked, (std::vector<uint64_t>{1024, 2048, 3072, 4096}));
    EXPECT_EQ(files->openStreams(), 0u);
}

TEST_F(FileStreamClient, ASilentDaemonIsStalledAndTheConnectionIsDropped) {
    files->setFileStallTimeout(0.5);
    auto scope = answer("fs.write", {{"stream", 9}, {"offset", 0}, {"window", 65536}});
    MemorySource source(patternBytes(200000), "v", 65536);
    FileWriteOptions options;
    options.chunk = 16384; // pieces go out until the window is full, then nothing comes back
    BackendError stalled = failureOf([&] { files->write("/x/f", options, source, {}); });
    EXPECT_EQ(stalled.code(), "stalled");
    EXPECT_NE(stalled.message().find("Nothing moved for "), std::string::npos) << stalled.message();
    EXPECT_TRUE(eventually([&] { return daemon.connectionCount() >= 2; })) << "a stuck stream drops its connection";

    auto reading = answer("fs.read", {{"stream", 10}, {"offset", 0}, {"size", 10}, {"mtime_ns", "1"}});
    ASSERT_TRUE(eventually([&] { return backend->isConnected(); }));
    FileReadStream stream = files->read("/x/f", {});
    EXPECT_EQ(failureOf([&] { stream.data(); }).code(), "stalled") << "a read that gets nothing ends";
}

TEST_F(FileStreamClient, SmallFilesGoInOneBatchToADaemonThatTakesThemAndOneByOneToAnOlderOne) {
    struct Row {
        const char* name;
        json features;
        std::string method; // what carries the files
        size_t requests;
    };
    const Row rows[] = {
        {"an older daemon", {"fs", "fs.put", "fs.puts"}, "fs.write", 2},
        {"a daemon that takes batches", {"fs", "fs.put", "fs.puts", "fs.put_batch"}, "fs.put_batch", 1},
    };
    // Each file as the daemon answers it: "/x/a" placed, "/x/b" already there.
    auto scope = daemon.setHandler([](FakePeer& peer, const ReceivedRequest& request) {
        auto answerFile = [](const json& params) {
            if (params["path"] == "/x/b") return json{{"code", "exists"}, {"message", "/x/b already exists"}};
            return json{{"offset", 0}, {"entry", entryJSON(params["path"], params["size"])}};
        };
        if (request.method == "fs.put_batch") {
            json outcomes = json::array();
            for (const json& file : request.params["files"]) outcomes.push_back(answerFile(file));
            peer.reply(request.id, {{"files", outcomes}});
            return true;
        }
        if (request.method != "fs.write") return false;
        json outcome = answerFile(request.params);
        if (outcome.contains("code")) peer.replyError(request.id, outcome["code"], outcome["message"]);
        else peer.reply(request.id, outcome);
        return true;
    });
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        json hello = FakeDaemon::defaultHello();
        hello["features"] = row.features;
        daemon.setHello(hello);
        auto configuration = CorvexdBackend::Configuration::socket(daemon.socketPath(), "tests");
        auto connection = CorvexdBackend::make(configuration);
        connection->start();
        ASSERT_TRUE(eventually([&] { return connection->isConnected() && connection->lastHello(); }));
        auto batchFiles = CorvexdFileBackend::attach(connection);
        EXPECT_EQ(batchFiles->writeBatchLimits(ForwardingFileBackend()).has_value(), row.method == "fs.put_batch");

        const size_t requestsBefore = daemon.requests().size();
        const size_t framesBefore = daemon.fileData().size();
        MemorySource a("hello", "a"), b("abc", "b");
        FileWriteOptions five, three;
        five.size = 5;
        three.size = 3;
        auto outcomes = batchFiles->writeBatch({{"/x/a", five, &a}, {"/x/b", three, &b}}, {});
        ASSERT_EQ(outcomes.size(), 2u);
        EXPECT_FALSE(outcomes[0].failure);
        ASSERT_TRUE(outcomes[1].failure);
        try {
            std::rethrow_exception(outcomes[1].failure);
        } catch (const BackendError& error) {
            EXPECT_EQ(fileErrorCode(error), FileErrorCode::exists) << error.message();
        }
        std::vector<ReceivedRequest> sent = daemon.requests();
        EXPECT_EQ(std::count_if(sent.begin() + static_cast<long>(requestsBefore), sent.end(),
                                [&](const auto& request) { return request.method == row.method; }),
                  static_cast<long>(row.requests));
        ASSERT_TRUE(eventually([&] { return daemon.fileData().size() == framesBefore + 2; }));
        const std::vector<FakeDaemon::FileData> frames = daemon.fileData();
        std::vector<std::string> data;
        for (size_t index = framesBefore; index < framesBefore + 2; ++index) {
            const auto& frame = frames[index];
            EXPECT_TRUE(frame.fin && frame.offset == 0 && (frame.stream & protocol::fsPutStreamBit));
            data.push_back(frame.bytes);
        }
        EXPECT_EQ(data, (std::vector<std::string>{"hello", "abc"})) << "each file whole, in its own put stream";
        connection->stop();
    }
}
