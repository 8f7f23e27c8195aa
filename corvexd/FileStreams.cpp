#include "corvexd/FileStreams.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <thread>

#include "CorvexKit/FileService.h"
#include "CorvexKit/Frame.h"
#include "Platform/SerialQueue.h"
#include "corvexd/ServeMethod.h"

namespace corvexd {

using corvex::BackendError;
using corvex::FileErrorCode;
using corvex::FileService;
using nlohmann::json;
namespace protocol = corvex::protocol;

namespace {

constexpr int largestChunk = 4 << 20;
// What the smallest stream is charged against its client's windows, and granted as credit.
constexpr uint64_t smallestCharge = 64u << 10;
// How much of a file here is copied between two looks for a cancel, and acknowledged at once.
constexpr uint64_t copyStep = 8u << 20;
// Staged puts wait for their sync in groups of at most this many, each holding a descriptor.
constexpr size_t largestPlacingGroup = 64;
// What a group waits to grow to while more files are coming.
constexpr size_t syncGroupGoal = 32;

std::string jsonFrame(const json& value) {
    // Names that aren't valid UTF-8 go out with replacement characters, never as a failure.
    return corvex::makeJSONFrame(value.dump(-1, ' ', false, json::error_handler_t::replace));
}

std::string errorReply(uint64_t id, const std::string& code, const std::string& message) {
    return jsonFrame(protocol::errorEnvelope(id, code, message));
}

template <typename Message>
std::string eventFrame(const Message& message) {
    return jsonFrame(protocol::eventEnvelope(Message::name, protocol::encodeFileMessage(message)));
}

// What any failure of file work says on the wire.
BackendError asFileError(const std::exception_ptr& error, const std::string& path) {
    return FileService::translate(error, path);
}

} // namespace

struct FileStreams::Stream {
    uint64_t id = 0;
    ClientID client = 0;
    bool write = false;
    bool copying = false; // write: from a file on this machine, not from frames
    std::string path;
    uint64_t window = 0;
    uint64_t charged = 0; // against the client's windows
    Stop stop = Stop::none;
    std::optional<BackendError> failure;
    std::condition_variable wake;

    // write: blocks as received, not yet on disk
    std::unique_ptr<corvex::StagedWrite> staged;
    std::deque<std::string> blocks;
    std::vector<std::string> spare; // written blocks, kept for their capacity
    uint64_t received = 0; // offset the next frame must carry
    uint64_t taken = 0;    // on disk, and acknowledged
    bool fin = false;
    std::string uploadKey; // target and upload id: one stream at a time stages under it
    // put: the request it answers, its data as it came, and a failure of its sync
    std::optional<protocol::FsWrite> put;
    uint64_t requestID = 0;
    std::string putData;
    std::exception_ptr syncFailure;
    std::shared_ptr<PutBatch> batch; // the batch it is a file of, if any
    size_t batchIndex = 0;

    // read
    std::shared_ptr<corvex::ChunkReader> reader;
    uint64_t sent = 0;
    uint64_t consumed = 0; // acknowledged by the client
    uint64_t end = 0;
    uint64_t chunk = 1;

    bool hasCredit() const {
        uint64_t piece = std::min({chunk, end - sent, std::max<uint64_t>(window, 1)});
        return window > 0 && sent + piece <= consumed + window;
    }
};

struct FileStreams::PutBatch {
    ClientID client = 0;
    uint64_t requestID = 0;
    std::mutex lock;
    protocol::FilePutOutcomes outcomes;
    size_t unanswered = 0;
};

FileStreams::FileStreams(Server& server, Limits limits)
    : server_(server), limits_(limits) {
    serveOffThread<protocol::FsStat>([](const auto& p) { return FileService::stat(p.path); });
    serveOffThread<protocol::FsList>([](const auto& p) { return FileService::list(p.path, p.hidden, p.limit, p.cursor); });
    serveOffThread<protocol::FsMkdir>([](const auto& p) { return FileService::mkdir(p.path, p.parents); });
    serveOffThread<protocol::FsSetattr>([](const auto& p) { return FileService::setattr(p.path, p.mtimeNs, p.mode); });
    serveOffThread<protocol::FsRename>([](const auto& p) { return FileService::rename(p.from, p.to, p.overwrite); });
    serveOffThread<protocol::FsRemove>([](const auto& p) {
        FileService::remove(p.path, p.recursive);
        return protocol::NoResult{};
    });
    serveOffThread<protocol::FsStatfs>([](const auto& p) { return FileService::statfs(p.path); });
    serveRead();
    serveWrite();
    serveBatch();
    serveCancel();
    server_.setFrameHandler(static_cast<uint8_t>(corvex::FrameType::fileData),
                            [this](ClientID client, std::string_view payload) { fileData(client, payload); });
    server_.addNotification(std::string(protocol::FsAck::name),
                            [this](ClientID client, const json& params) { readAck(client, params); });
    server_.addClientGoneHandler([this](ClientID client) { clientGone(client); });
    server_.addFeatures({std::string(corvex::Hello::wireName(corvex::Hello::Feature::fs)),
                         std::string(protocol::fsLocalSourceFeature), std::string(protocol::fsPutFeature),
                         std::string(protocol::fsPutsFeature), std::string(protocol::fsPutBatchFeature)});
}

FileStreams::~FileStreams() {
    std::unique_lock guard(lock_);
    shuttingDown_ = true;
    uploadsChanged_.notify_all();
    stagedMore_.notify_all();
    for (auto& [id, stream] : streams_) stopLocked(*stream, Stop::quiet);
    workersDone_.wait(guard, [&] { return workers_ == 0; });
}

template <typename M, typename Work>
void FileStreams::serveOffThread(Work work) {
    server_.addMethod(std::string(M::name), [this, work](MethodCall& call) -> json {
        auto params = protocol::decodeParams<M>(call.params);
        call.deferred = true;
        pool_.detach([this, work, params, client = call.client, id = call.requestID] {
            std::string reply;
            try {
                reply = jsonFrame(protocol::resultEnvelope(id, protocol::encodeResult<M>(work(params))));
            } catch (...) {
                BackendError error = asFileError(std::current_exception(), "");
                reply = errorReply(id, error.code(), error.message());
            }
            server_.sendFrames(client, {std::move(reply)});
        });
        return json();
    });
}

void FileStreams::reserve(ClientID client) {
    std::lock_guard guard(lock_);
    if (openStreams_[client] >= limits_.streamsPerClient) {
        throw corvex::fileError(FileErrorCode::tooManyStreams,
                                "too many file streams open at once (" + std::to_string(openStreams_[client]) + ")");
    }
    ++openStreams_[client];
}

// A stream is charged the memory it may hold: its window, or the bytes left to move when they
// are fewer, so many small files cost little and a few big ones use up the client's share.
void FileStreams::charge(Stream& stream, uint64_t bytes) {
    std::lock_guard guard(lock_);
    Windows& used = windows_[stream.client];
    uint64_t& total = stream.write ? used.write : used.read;
    uint64_t limit = stream.write ? limits_.writeWindowsPerClient : limits_.readWindowsPerClient;
    if (total + bytes > limit) {
        throw corvex::fileError(FileErrorCode::tooManyStreams, "too many file streams open at once (" +
                                                                   std::to_string(openStreams_[stream.client]) + ")");
    }
    total += bytes;
    stream.charged = bytes;
}

void FileStreams::release(Stream& stream) {
    std::map<ClientID, int>& open = stream.put ? openPuts_ : openStreams_;
    if (--open[stream.client] <= 0) open.erase(stream.client);
    Windows& used = windows_[stream.client];
    (stream.write ? used.write : used.read) -= stream.charged;
    stream.charged = 0;
    if (used.read == 0 && used.write == 0) windows_.erase(stream.client);
}

// On the serving thread: the stream is known before its reply goes out, so nothing the client
// sends after reading the reply can miss it.
void FileStreams::open(const std::shared_ptr<Stream>& stream, std::string reply) {
    {
        std::lock_guard guard(lock_);
        if (gone_.count(stream->client) || shuttingDown_) {
            release(*stream);
            releaseUpload(*stream);
            return; // the staged write, if any, is dropped with the stream
        }
        streams_[stream->id] = stream;
        ++workers_;
    }
    server_.sendFrames(stream->client, {std::move(reply)});
    streamThreads_.detach([this, stream] {
        platform::setCurrentThreadName(stream->write ? "corvexd.fs.write" : "corvexd.fs.read");
        if (stream->copying) runCopy(stream);
        else if (stream->write) runWrite(stream);
        else runRead(stream);
        std::lock_guard guard(lock_);
        if (--workers_ == 0) workersDone_.notify_all();
    });
}

void FileStreams::serveRead() {
    server_.addMethod(std::string(protocol::FsRead::name), [this](MethodCall& call) -> json {
        auto params = protocol::decodeParams<protocol::FsRead>(call.params);
        uint64_t window = static_cast<uint64_t>(std::max(params.options.window, 0));
        reserve(call.client);
        call.deferred = true;
        pool_.detach([this, params, window, client = call.client, id = call.requestID] {
            auto stream = std::make_shared<Stream>();
            stream->client = client;
            stream->path = params.path;
            stream->window = window;
            try {
                // A block must fit one frame, whatever the client asks.
                corvex::FileReadOptions o = params.options;
                o.chunk = std::clamp(o.chunk, 4096, largestChunk);
                corvex::OpenedRead opened = FileService::openRead(params.path, o);
                stream->reader = opened.reader;
                stream->sent = stream->consumed = opened.offset;
                stream->end = o.length ? std::min(o.offset + *o.length, opened.entry.size) : opened.entry.size;
                stream->end = std::max(stream->end, stream->sent);
                stream->chunk = static_cast<uint64_t>(o.chunk);
                charge(*stream, std::min(window, std::max(stream->end - stream->sent, smallestCharge)));
                server_.post([this, stream, id, opened = std::move(opened)]() mutable {
                    {
                        std::lock_guard guard(lock_);
                        stream->id = nextStream_++;
                    }
                    protocol::FileReadOpened result{stream->id, opened.offset, opened.entry.size, opened.entry.mtimeNs};
                    open(stream, jsonFrame(protocol::resultEnvelope(id, protocol::encodeResultValue(result))));
                });
            } catch (...) {
                BackendError error = asFileError(std::current_exception(), params.path);
                {
                    std::lock_guard guard(lock_);
                    release(*stream);
                }
                server_.sendFrames(client, {errorReply(id, error.code(), error.message())});
            }
        });
        return json();
    });
}

void FileStreams::serveWrite() {
    server_.addMethod(std::string(protocol::FsWrite::name), [this](MethodCall& call) -> json {
        auto params = protocol::decodeParams<protocol::FsWrite>(call.params);
        if (params.put) {
            beginPut(call, params);
            return json();
        }
        reserve(call.client);
        call.deferred = true;
        pool_.detach([this, params, client = call.client, id = call.requestID] {
            auto stream = std::make_shared<Stream>();
            stream->client = client;
            stream->write = true;
            stream->path = params.path;
            // No more credit than the promised bytes need, as the window is what the stream may
            // hold; but room for a whole piece, or a source longer than promised would wait
            // for credit forever instead of failing its size check.
            uint64_t piece = static_cast<uint64_t>(std::clamp(params.options.chunk, 1, largestChunk));
            uint64_t needed = std::max({params.options.size.value_or(UINT64_MAX), piece, smallestCharge});
            stream->window = std::min({static_cast<uint64_t>(std::max(params.options.window, 0)),
                                       limits_.largestWriteWindow, needed});
            // A copy from a file here holds no data of its own: the kernel moves it.
            stream->copying = params.localSource.has_value();
            try {
                // The source is settled before the target is touched: a refused one leaves
                // the target as the client's streamed retry expects to find it.
                if (stream->copying) stream->reader = openLocalSource(*params.localSource);
                charge(*stream, stream->copying ? smallestCharge : stream->window);
                claimUpload(stream, params);
                stream->staged = FileService::beginWrite(params.path, params.options);
                stream->received = stream->taken = stream->staged->offset();
                if (stream->copying) stream->reader->seek(stream->staged->offset());
                server_.post([this, stream, id] {
                    {
                        std::lock_guard guard(lock_);
                        stream->id = nextStream_++;
                    }
                    protocol::FileWriteOpened result{stream->id, stream->received, stream->window};
                    open(stream, jsonFrame(protocol::resultEnvelope(id, protocol::encodeResultValue(result))));
                });
            } catch (...) {
                BackendError error = asFileError(std::current_exception(), params.path);
                {
                    std::lock_guard guard(lock_);
                    release(*stream);
                    releaseUpload(*stream);
                }
                server_.sendFrames(client, {errorReply(id, error.code(), error.message())});
            }
        });
        return json();
    });
}

// A retry may come before the daemon has noticed that the client of the earlier attempt is
// gone: the earlier stream is ended (keeping what it received) before the new one stages.
void FileStreams::claimUpload(const std::shared_ptr<Stream>& stream, const corvex::protocol::FsWrite& params) {
    if (!params.options.uploadID) return;
    std::string key = params.path + '\0' + *params.options.uploadID;
    std::unique_lock guard(lock_);
    if (auto held = uploads_.find(key); held != uploads_.end()) stopLocked(*held->second, Stop::quiet);
    uploadsChanged_.wait(guard, [&] { return !uploads_.count(key) || shuttingDown_; });
    if (shuttingDown_) throw corvex::fileError(FileErrorCode::ioError, "corvexd is stopping");
    uploads_[key] = stream;
    stream->uploadKey = key;
}

void FileStreams::releaseUpload(Stream& stream) {
    if (stream.uploadKey.empty()) return;
    if (auto held = uploads_.find(stream.uploadKey); held != uploads_.end() && held->second.get() == &stream)
        uploads_.erase(held);
    stream.uploadKey.clear();
    uploadsChanged_.notify_all();
}

// On the serving thread, before any frame that follows the request: its data must find it.
void FileStreams::beginPut(MethodCall& call, const protocol::FsWrite& params) {
    std::lock_guard guard(lock_);
    if (openPuts_[call.client] >= limits_.putsPerClient)
        throw corvex::fileError(FileErrorCode::tooManyStreams,
                                "too many puts at once (" + std::to_string(openPuts_[call.client]) + ")");
    addPut(call, params);
    call.deferred = true;
}

std::shared_ptr<FileStreams::Stream> FileStreams::addPut(MethodCall& call, const protocol::FsWrite& params) {
    const uint64_t size = params.options.size.value_or(UINT64_MAX);
    if (!params.put || !(*params.put & protocol::fsPutStreamBit) || params.localSource || size > protocol::fsPutLargest)
        throw corvex::fileError(FileErrorCode::badRequest, "a put takes a stream of its own and at most " +
                                                                std::to_string(protocol::fsPutLargest) + " bytes");
    auto stream = std::make_shared<Stream>();
    stream->client = call.client;
    stream->write = true;
    stream->id = *params.put;
    stream->path = params.path;
    stream->window = size;
    stream->requestID = call.requestID;
    stream->put = params;
    // Charged what it may hold, as a streamed write is: the client's share bounds its puts.
    const uint64_t charge = std::max(size, smallestCharge);
    Windows& used = windows_[call.client];
    if (used.write + charge > limits_.writeWindowsPerClient)
        throw corvex::fileError(FileErrorCode::tooManyStreams, "too many puts at once (" +
                                                                   std::to_string(openPuts_[call.client]) + ")");
    if (puts_.count(std::pair(call.client, stream->id)))
        throw corvex::fileError(FileErrorCode::badRequest, "put stream " + std::to_string(stream->id) + " is in use");
    stream->putData.reserve(size);
    used.write += charge;
    stream->charged = charge;
    ++openPuts_[call.client];
    puts_.emplace(std::pair(call.client, stream->id), stream);
    return stream;
}

void FileStreams::serveBatch() {
    server_.addMethod(std::string(protocol::FsPutBatch::name), [this](MethodCall& call) -> json {
        beginBatch(call, protocol::decodeParams<protocol::FsPutBatch>(call.params));
        return json();
    });
}

// A file refused here is answered in the batch's reply; the others go on. The batch as a
// whole is refused only when it couldn't be taken at all.
void FileStreams::beginBatch(MethodCall& call, const protocol::FsPutBatch& params) {
    const size_t count = params.files.size();
    if (count == 0 || count > static_cast<size_t>(protocol::fsPutBatchLargest))
        throw corvex::fileError(FileErrorCode::badRequest, "a batch holds 1 to " +
                                                                std::to_string(protocol::fsPutBatchLargest) + " files");
    auto batch = std::make_shared<PutBatch>();
    batch->client = call.client;
    batch->requestID = call.requestID;
    batch->outcomes.files.resize(count);
    batch->unanswered = count;
    std::vector<std::pair<size_t, BackendError>> refused;
    {
        std::lock_guard guard(lock_);
        if (openPuts_[call.client] + static_cast<int>(count) > limits_.putsPerClient)
            throw corvex::fileError(FileErrorCode::tooManyStreams,
                                    "too many puts at once (" + std::to_string(openPuts_[call.client]) + ")");
        for (size_t index = 0; index < count; ++index) {
            try {
                std::shared_ptr<Stream> stream = addPut(call, params.files[index]);
                stream->batch = batch;
                stream->batchIndex = index;
            } catch (const BackendError& error) {
                refused.emplace_back(index, error);
            }
        }
    }
    call.deferred = true;
    for (auto& [index, error] : refused) {
        Stream unplaced;
        unplaced.batch = batch;
        unplaced.batchIndex = index;
        if (std::optional<std::string> reply = answerPut(unplaced, error)) server_.sendFrames(call.client, {std::move(*reply)});
    }
}

std::optional<std::string> FileStreams::answerPut(Stream& stream, protocol::FilePutOutcome outcome) {
    if (!stream.batch) {
        if (!outcome.code.empty()) return errorReply(stream.requestID, outcome.code, outcome.message);
        protocol::FileWriteOpened placed{std::nullopt, outcome.offset, std::nullopt, std::move(outcome.entry)};
        return jsonFrame(protocol::resultEnvelope(stream.requestID, protocol::encodeResultValue(placed)));
    }
    PutBatch& batch = *stream.batch;
    std::lock_guard guard(batch.lock);
    batch.outcomes.files[stream.batchIndex] = std::move(outcome);
    if (--batch.unanswered > 0) return std::nullopt;
    return jsonFrame(protocol::resultEnvelope(batch.requestID, protocol::encodeResultValue(batch.outcomes)));
}

std::optional<std::string> FileStreams::answerPut(Stream& stream, const BackendError& error) {
    return answerPut(stream, protocol::FilePutOutcome{std::nullopt, 0, error.code(), error.message()});
}

// A put's data: kept until its end, then the put is queued to be staged. Data that
// breaks the put's promises ends it with an error reply; data for no put is dropped.
void FileStreams::putData(ClientID client, const corvex::FileDataFrame& frame) {
    std::shared_ptr<Stream> stream;
    std::string refusal;
    {
        std::lock_guard guard(lock_);
        auto found = puts_.find(std::pair(client, frame.stream));
        if (found == puts_.end()) return;
        stream = found->second;
        if (frame.offset != stream->received) refusal = "data at " + std::to_string(frame.offset) + ", expected " +
                                                        std::to_string(stream->received);
        else if (stream->received + frame.bytes.size() > stream->window) refusal = "more data than the size promised";
        if (refusal.empty()) {
            stream->putData.append(frame.bytes);
            stream->received += frame.bytes.size();
            if (!frame.fin) return;
        }
        puts_.erase(found);
        if (refusal.empty() && !shuttingDown_) return queuePut(std::move(stream));
        release(*stream);
        if (refusal.empty()) refusal = "corvexd is stopping";
    }
    if (auto reply = answerPut(*stream, corvex::fileError(FileErrorCode::badRequest, stream->path + ": " + refusal)))
        server_.sendFrames(client, {std::move(*reply)});
}

// A put whose data has all come is staged by one thread, in the order they came: its file is
// created and written. Meanwhile another thread syncs every file staged so far with one sync
// for the group: the disk then writes the group's data and inode blocks in one pass with one
// flush rather than once for each file. The staging thread then moves the synced files into
// place between the files it stages: creating and renaming both lock the folder, and one
// thread doing both never spins waiting for the other. A crash leaves staging files, never a
// name over data that isn't there.
void FileStreams::queuePut(std::shared_ptr<Stream> stream) {
    toStage_.push_back(std::move(stream));
    startStaging();
}

void FileStreams::startStaging() {
    if (staging_) return;
    staging_ = true;
    ++workers_;
    streamThreads_.detach([this] { stagePuts(); });
}

void FileStreams::stagePuts() {
    platform::setCurrentThreadName("corvexd.fs.stage");
    std::unique_lock guard(lock_);
    for (;;) {
        if (!toFinish_.empty()) {
            placeSynced(guard);
            continue;
        }
        if (toStage_.empty()) break;
        if (toSync_.size() >= largestPlacingGroup) {
            syncedOrRoom_.wait(guard, [&] { return toSync_.size() < largestPlacingGroup || !toFinish_.empty(); });
            continue;
        }
        std::shared_ptr<Stream> stream = std::move(toStage_.front());
        toStage_.pop_front();
        guard.unlock();
        bool staged = stagePut(stream);
        guard.lock();
        if (staged) {
            toSync_.push_back(std::move(stream));
            if (!syncing_) {
                syncing_ = true;
                ++workers_;
                streamThreads_.detach([this] { syncPuts(); });
            }
        }
        // The sync thread waits for a whole group or for the files to stop coming: woken for
        // each file, it would only take the lock and sleep again.
        if (toSync_.size() >= syncGroupGoal || toStage_.empty()) stagedMore_.notify_all();
    }
    stagedMore_.notify_all();
    staging_ = false;
    if (--workers_ == 0) workersDone_.notify_all();
}

// The same staging and resume as a streamed write, in one go. A failure answers the put here.
bool FileStreams::stagePut(const std::shared_ptr<Stream>& stream) {
    try {
        claimUpload(stream, *stream->put);
        stream->staged = FileService::beginWrite(stream->path, stream->put->options);
        // What an earlier attempt left is this same source's beginning.
        std::string_view rest(stream->putData);
        rest.remove_prefix(std::min<uint64_t>(stream->staged->offset(), rest.size()));
        stream->staged->append(corvex::asBytes(rest));
        std::string().swap(stream->putData);
        return true;
    } catch (...) {
        BackendError error = asFileError(std::current_exception(), stream->path);
        stream->staged.reset();
        {
            std::lock_guard guard(lock_);
            release(*stream);
            releaseUpload(*stream);
        }
        if (auto reply = answerPut(*stream, error)) server_.sendFrames(stream->client, {std::move(*reply)});
        return false;
    }
}

// A sync costs about the same for a few files as for many: while more files wait to be
// staged, the group waits for them, up to a goal; with none waiting it goes as it is.
void FileStreams::syncPuts() {
    platform::setCurrentThreadName("corvexd.fs.sync");
    std::unique_lock guard(lock_);
    while (!toSync_.empty()) {
        stagedMore_.wait(guard, [&] { return toSync_.size() >= syncGroupGoal || toStage_.empty() || shuttingDown_; });
        std::vector<std::shared_ptr<Stream>> group;
        group.swap(toSync_);
        syncedOrRoom_.notify_all();
        guard.unlock();
        syncTogether(group);
        guard.lock();
        toFinish_.push_back(std::move(group));
        syncedOrRoom_.notify_all();
        startStaging();
    }
    syncing_ = false;
    if (--workers_ == 0) workersDone_.notify_all();
}

// Staging thread: places the oldest synced group and answers its puts, one write per client.
void FileStreams::placeSynced(std::unique_lock<std::mutex>& guard) {
    std::vector<std::shared_ptr<Stream>> group = std::move(toFinish_.front());
    toFinish_.pop_front();
    guard.unlock();
    std::map<ClientID, std::vector<std::string>> replies;
    for (const auto& stream : group) {
        if (std::optional<std::string> reply = placePut(*stream)) replies[stream->client].push_back(std::move(*reply));
    }
    guard.lock();
    for (const auto& stream : group) {
        release(*stream);
        releaseUpload(*stream);
    }
    guard.unlock();
    for (auto& [client, frames] : replies) server_.sendFrames(client, std::move(frames));
    guard.lock();
}

void FileStreams::syncTogether(const std::vector<std::shared_ptr<Stream>>& group) {
    std::vector<corvex::StagedWrite*> writes;
    writes.reserve(group.size());
    for (const auto& stream : group) writes.push_back(stream->staged.get());
    std::vector<std::exception_ptr> failures = corvex::StagedWrite::syncTogether(writes);
    for (size_t index = 0; index < group.size(); ++index) group[index]->syncFailure = failures[index];
}

// Moves a synced file into place; the put's answer either way.
std::optional<std::string> FileStreams::placePut(Stream& stream) {
    protocol::FilePutOutcome outcome;
    try {
        if (stream.syncFailure) std::rethrow_exception(stream.syncFailure);
        // A batch's reply says only how each file ended: its entry would be looked up, encoded
        // and decoded for each file, for a client that copies a tree and needs none of them.
        if (stream.batch) stream.staged->place();
        else outcome.entry = stream.staged->finish();
        outcome.offset = stream.staged->offset();
    } catch (...) {
        BackendError error = asFileError(std::current_exception(), stream.path);
        outcome = {std::nullopt, 0, error.code(), error.message()};
    }
    stream.staged.reset();
    return answerPut(stream, std::move(outcome));
}

void FileStreams::serveCancel() {
    serve<protocol::FsCancel>(server_, [this](const protocol::FsCancel& p, MethodCall& call) {
        std::lock_guard guard(lock_);
        auto found = streams_.find(p.stream);
        // A stream already ended has sent its end; there is nothing more to say.
        if (found != streams_.end() && found->second->client == call.client) stopLocked(*found->second, Stop::cancelled);
    });
}

void FileStreams::stopLocked(Stream& stream, Stop how) {
    if (stream.stop != Stop::none && how != Stop::quiet) return;
    stream.stop = how;
    stream.wake.notify_all();
}

// The stream's last frames, and its place freed. Worker thread.
void FileStreams::finish(const std::shared_ptr<Stream>& stream, std::vector<std::string> frames) {
    {
        std::lock_guard guard(lock_);
        streams_.erase(stream->id);
        release(*stream);
        releaseUpload(*stream);
        if (stream->stop == Stop::quiet) frames.clear();
    }
    if (!frames.empty()) server_.sendFrames(stream->client, std::move(frames));
}

void FileStreams::runWrite(std::shared_ptr<Stream> stream) {
    const std::string target = stream->staged->target();
    try {
        for (;;) {
            std::string block;
            bool last = false;
            {
                std::unique_lock guard(lock_);
                stream->wake.wait(guard, [&] { return stream->stop != Stop::none || !stream->blocks.empty() || stream->fin; });
                // What has arrived is kept even when the stream is ending, so that a resumed
                // write needs less; only a broken stream's data is untrusted.
                if (stream->stop == Stop::failed || (stream->stop != Stop::none && stream->blocks.empty())) break;
                if (stream->blocks.empty()) {
                    last = true; // the end frame came, and no stop: place the file
                } else {
                    block = std::move(stream->blocks.front());
                    stream->blocks.pop_front();
                }
            }
            if (last) {
                corvex::FileEntry entry = stream->staged->finish();
                finish(stream, {eventFrame(protocol::FsDone{stream->id, std::move(entry), false})});
                return;
            }
            stream->staged->append(corvex::asBytes(block));
            uint64_t total = stream->staged->total();
            bool endsNow = false;
            {
                std::lock_guard guard(lock_);
                stream->taken = total;
                if (stream->spare.size() < 4) stream->spare.push_back(std::move(block));
                endsNow = stream->fin && stream->blocks.empty() && stream->stop == Stop::none;
            }
            // With the end already here, "fs.done" follows at once and acknowledges it all:
            // a small file costs one frame less.
            if (!endsNow) server_.sendFrames(stream->client, {eventFrame(protocol::FsAck{stream->id, total})});
        }
    } catch (...) {
        BackendError error = asFileError(std::current_exception(), target);
        stream->staged->abandon();
        finish(stream, {eventFrame(protocol::FsError{stream->id, error.code(), error.message()})});
        return;
    }
    endStoppedWrite(stream);
}

// Stopped: a staging file named by an upload id stays for the next attempt.
void FileStreams::endStoppedWrite(const std::shared_ptr<Stream>& stream) {
    stream->staged->abandon();
    std::vector<std::string> frames;
    if (stream->stop == Stop::cancelled) frames.push_back(eventFrame(protocol::FsDone{stream->id, std::nullopt, true}));
    if (stream->stop == Stop::failed && stream->failure)
        frames.push_back(eventFrame(protocol::FsError{stream->id, stream->failure->code(), stream->failure->message()}));
    finish(stream, std::move(frames));
}

// The client's file, opened here: refused unless this is the client's machine and the path
// opens the very file the client looked at (another mount namespace may show another file, or
// none), so that the client sends the bytes instead; "changed" when it is the file but no
// longer the version the client found, as a read would say.
std::shared_ptr<corvex::ChunkReader> FileStreams::openLocalSource(const protocol::LocalSource& source) {
    auto refuse = [&](const std::string& why) {
        return BackendError(std::string(protocol::fsLocalSourceRefused), source.path + ": " + why);
    };
    if (source.bootID.empty() || source.bootID != FileService::bootID()) throw refuse("the source is on another machine");
    corvex::OpenedRead opened;
    try {
        opened = FileService::openRead(source.path, corvex::FileReadOptions{});
    } catch (const BackendError& error) {
        throw refuse(error.message());
    }
    std::optional<corvex::ChunkReader::Identity> identity = opened.reader->identity();
    if (!identity || identity->device != source.device || identity->inode != source.inode)
        throw refuse("not the client's file here");
    corvex::FileReadOptions expected;
    expected.expectSize = source.size;
    expected.expectMtimeNs = source.mtimeNs;
    FileService::expectVersion(opened.entry, expected);
    return opened.reader;
}

// Same work as a streamed write, with the data taken from the file here in window-sized
// steps: each step is acknowledged as the client's bytes would be, and a stop between steps
// leaves the staging file as a broken stream would.
void FileStreams::runCopy(std::shared_ptr<Stream> stream) {
    const std::string target = stream->staged->target();
    try {
        for (;;) {
            {
                std::lock_guard guard(lock_);
                if (stream->stop != Stop::none) break;
            }
            uint64_t copied = stream->staged->appendFrom(*stream->reader, copyStep);
            if (copied == 0) {
                stream->reader->close();
                corvex::FileEntry entry = stream->staged->finish();
                finish(stream, {eventFrame(protocol::FsDone{stream->id, std::move(entry), false})});
                return;
            }
            // A short step met the end of the source: "fs.done" follows at once and says it all.
            if (copied == copyStep)
                server_.sendFrames(stream->client, {eventFrame(protocol::FsAck{stream->id, stream->staged->total()})});
        }
    } catch (...) {
        BackendError error = asFileError(std::current_exception(), target);
        stream->reader->close();
        stream->staged->abandon();
        finish(stream, {eventFrame(protocol::FsError{stream->id, error.code(), error.message()})});
        return;
    }
    stream->reader->close();
    endStoppedWrite(stream);
}

void FileStreams::runRead(std::shared_ptr<Stream> stream) {
    try {
        for (;;) {
            uint64_t from = 0;
            {
                std::unique_lock guard(lock_);
                stream->wake.wait(guard, [&] {
                    return stream->stop != Stop::none || stream->sent >= stream->end || stream->hasCredit();
                });
                if (stream->stop != Stop::none) break;
                from = stream->sent;
            }
            std::optional<corvex::Bytes> block = from < stream->end ? stream->reader->next() : std::nullopt;
            if (!block) {
                // The end, or a file that shrank under us: either way the reader has all there is.
                finish(stream, {corvex::makeFileDataFrame(stream->id, from, true, {})});
                return;
            }
            std::string_view bytes(reinterpret_cast<const char*>(block->data()), block->size());
            server_.sendFrames(stream->client, {corvex::makeFileDataFrame(stream->id, from, false, bytes)});
            std::lock_guard guard(lock_);
            stream->sent += block->size();
        }
    } catch (...) {
        BackendError error = asFileError(std::current_exception(), stream->path);
        stream->reader->close();
        finish(stream, {eventFrame(protocol::FsError{stream->id, error.code(), error.message()})});
        return;
    }
    stream->reader->close();
    std::vector<std::string> frames;
    if (stream->stop == Stop::cancelled) frames.push_back(eventFrame(protocol::FsDone{stream->id, std::nullopt, true}));
    finish(stream, std::move(frames));
}

void FileStreams::fileData(ClientID client, std::string_view payload) {
    auto frame = corvex::parseFileDataPayload(payload);
    if (!frame) return;
    if (frame->stream & protocol::fsPutStreamBit) return putData(client, *frame);
    std::lock_guard guard(lock_);
    auto found = streams_.find(frame->stream);
    if (found == streams_.end()) return;
    Stream& stream = *found->second;
    if (stream.client != client || !stream.write || stream.fin || stream.stop != Stop::none) return;
    auto fail = [&](std::string message) {
        stream.failure = corvex::fileError(FileErrorCode::badRequest, stream.path + ": " + message);
        stopLocked(stream, Stop::failed);
    };
    if (stream.copying) return fail("data for a write that copies a file here");
    if (frame->offset != stream.received)
        return fail("data at " + std::to_string(frame->offset) + ", expected " + std::to_string(stream.received));
    // Past the window is a client that ignores credit; holding it would be unbounded.
    if (stream.received + frame->bytes.size() > stream.taken + stream.window) return fail("data beyond the window");
    if (!frame->bytes.empty()) {
        std::string block;
        if (!stream.spare.empty()) {
            block = std::move(stream.spare.back());
            stream.spare.pop_back();
        }
        block.assign(frame->bytes);
        stream.blocks.push_back(std::move(block));
        stream.received += frame->bytes.size();
    }
    stream.fin = frame->fin;
    stream.wake.notify_all();
}

void FileStreams::readAck(ClientID client, const json& params) {
    auto ack = protocol::decodeFsAck(params);
    if (!ack) return;
    std::lock_guard guard(lock_);
    auto found = streams_.find(ack->stream);
    if (found == streams_.end() || found->second->client != client || found->second->write) return;
    Stream& stream = *found->second;
    stream.consumed = std::max(stream.consumed, std::min(ack->offset, stream.sent));
    stream.wake.notify_all();
}

void FileStreams::clientGone(ClientID client) {
    std::lock_guard guard(lock_);
    gone_.insert(client);
    for (auto put = puts_.lower_bound(std::pair(client, uint64_t(0))); put != puts_.end() && put->first.first == client;) {
        release(*put->second);
        put = puts_.erase(put);
    }
    for (auto& [id, stream] : streams_) {
        if (stream->client == client) stopLocked(*stream, Stop::quiet);
    }
}

} // namespace corvexd
