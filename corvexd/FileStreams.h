#pragma once

#include <condition_variable>
#include <deque>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "CorvexKit/ChunkReader.h"
#include "CorvexKit/Frame.h"
#include "CorvexKit/Protocol.h"
#include "Platform/WorkerPool.h"
#include "corvexd/Server.h"

namespace corvexd {

// Serves the file methods to the daemon's clients through FileService, the one statement of
// the file rules. Metadata calls and both stream directions run off the serving thread, so a
// large copy never holds up another client's pane output or replies. Each stream is paced by
// its credit window, which bounds what it holds in memory; a client's streams end with it.
class FileStreams {
public:
    struct Limits {
        int streamsPerClient = 32;
        // Puts count apart: each is one small file, answered once it is placed.
        int putsPerClient = corvex::protocol::fsPutsAtOnce;
        // What all of one client's read windows may add up to: their frames wait in that
        // client's send queue, which has a bound of its own.
        uint64_t readWindowsPerClient = 24u << 20;
        // What all of one client's write windows may add up to: data waiting for the disk.
        uint64_t writeWindowsPerClient = 64u << 20;
        // The largest write window granted; a client asking more gets this.
        uint64_t largestWriteWindow = 16u << 20;
    };

    // Registers the methods and announces "fs". Destroy before the server: it ends every
    // stream and waits for their threads.
    explicit FileStreams(Server& server, Limits limits);
    explicit FileStreams(Server& server) : FileStreams(server, Limits()) {}
    ~FileStreams();
    FileStreams(const FileStreams&) = delete;
    FileStreams& operator=(const FileStreams&) = delete;

private:
    struct Stream;
    enum class Stop { none, cancelled, failed, quiet };

    template <typename M, typename Work>
    void serveOffThread(Work work);
    void serveRead();
    void serveWrite();
    void serveCancel();
    // A put: a small file's request with its data right behind it, and one reply at the end.
    void beginPut(MethodCall& call, const corvex::protocol::FsWrite& params);
    // Many puts in one request, answered together once each has its outcome.
    struct PutBatch;
    void serveBatch();
    void beginBatch(MethodCall& call, const corvex::protocol::FsPutBatch& params);
    // Registers one put (serving thread, lock_ held); raises what refuses it.
    std::shared_ptr<Stream> addPut(MethodCall& call, const corvex::protocol::FsWrite& params); // lock_ held
    // The put's answer: its reply frame, or for a file of a batch the batch's reply once it is
    // the last to have its outcome, else nothing.
    std::optional<std::string> answerPut(Stream& stream, corvex::protocol::FilePutOutcome outcome);
    std::optional<std::string> answerPut(Stream& stream, const corvex::BackendError& error);
    void putData(ClientID client, const corvex::FileDataFrame& frame);
    void queuePut(std::shared_ptr<Stream> stream); // lock_ held
    void startStaging(); // lock_ held
    void stagePuts();
    bool stagePut(const std::shared_ptr<Stream>& stream);
    void syncPuts();
    void placeSynced(std::unique_lock<std::mutex>& guard);
    void syncTogether(const std::vector<std::shared_ptr<Stream>>& group);
    std::optional<std::string> placePut(Stream& stream);
    struct Windows {
        uint64_t read = 0;
        uint64_t write = 0;
    };
    void reserve(ClientID client);
    void charge(Stream& stream, uint64_t bytes);
    void release(Stream& stream); // lock_ held
    void claimUpload(const std::shared_ptr<Stream>& stream, const corvex::protocol::FsWrite& params);
    void releaseUpload(Stream& stream); // lock_ held
    void open(const std::shared_ptr<Stream>& stream, std::string reply);
    void runRead(std::shared_ptr<Stream> stream);
    void runWrite(std::shared_ptr<Stream> stream);
    void runCopy(std::shared_ptr<Stream> stream);
    void endStoppedWrite(const std::shared_ptr<Stream>& stream);
    static std::shared_ptr<corvex::ChunkReader> openLocalSource(const corvex::protocol::LocalSource& source);
    void finish(const std::shared_ptr<Stream>& stream, std::vector<std::string> frames);
    void stopLocked(Stream& stream, Stop how);
    void fileData(ClientID client, std::string_view payload);
    void readAck(ClientID client, const nlohmann::json& params);
    void clientGone(ClientID client);

    Server& server_;
    Limits limits_;
    std::mutex lock_;
    std::condition_variable workersDone_;
    int workers_ = 0;
    bool shuttingDown_ = false;
    uint64_t nextStream_ = 1;
    std::map<uint64_t, std::shared_ptr<Stream>> streams_;
    std::map<ClientID, int> openStreams_;
    std::map<ClientID, int> openPuts_;
    std::map<ClientID, Windows> windows_;
    std::set<ClientID> gone_;
    std::map<std::string, std::shared_ptr<Stream>> uploads_; // by target and upload id
    // Puts whose data is still arriving, by client and the stream the client named.
    std::map<std::pair<ClientID, uint64_t>, std::shared_ptr<Stream>> puts_;
    // Puts whose data has all come, waiting to be staged in the order they came; then staged,
    // their data on its way to the disk, waiting to be synced; then synced, in groups, waiting
    // to be placed. One thread stages and places, another syncs, each while it has work.
    std::deque<std::shared_ptr<Stream>> toStage_;
    std::vector<std::shared_ptr<Stream>> toSync_;
    std::deque<std::vector<std::shared_ptr<Stream>>> toFinish_;
    bool staging_ = false;
    bool syncing_ = false;
    std::condition_variable syncedOrRoom_;
    std::condition_variable stagedMore_;
    std::condition_variable uploadsChanged_;
    // A stream holds its thread while it waits for its peer, so this has room for far more
    // streams than clients open; its threads are kept for the next streams, since a tree of
    // small files opens thousands.
    platform::WorkerPool streamThreads_{256};
    // Last, so it ends first: its work refers to everything above.
    platform::WorkerPool pool_{8};
};

} // namespace corvexd
