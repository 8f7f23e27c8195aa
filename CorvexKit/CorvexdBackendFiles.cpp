// The file layer of the daemon client: requests for metadata, and streams of file-data frames
// under credit windows for reads and writes, watched for stalls.

#include "CorvexKit/CorvexdBackendFiles.h"

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <sys/stat.h>
#include <thread>

#include "CorvexKit/FileService.h"
#include "CorvexKit/FileStreamWindow.h"
#include "CorvexKit/ProtocolJSON.h"

namespace corvex {

using json = nlohmann::json;
using Clock = std::chrono::steady_clock;

struct CorvexdFileBackend::Stream {
    FileStreamWindow window;
    FileProgress progress;        // write: told each confirmed offset
    std::condition_variable wake; // data, credit or the end; waited under the backend's lock_
    Clock::time_point lastActivity = Clock::now();
    double stallTimeout = 0; // as it was when the stream opened; 0: not watched
    // read: blocks received and not yet taken by the consumer; unbounded here, bounded by the
    // window the daemon honours
    std::deque<Bytes> blocks;
    bool finished = false; // read: fin seen
    // how the stream ended
    std::optional<FileEntry> entry;
    std::optional<BackendError> error;

    bool hasOutcome() const { return window.ended; }
};

namespace {

// The daemon would not open the source itself; the write goes again with its bytes.
struct LocalSourceRefused {};

BackendError disconnected() { return BackendError("disconnected", "not connected to corvexd"); }

std::string wholeSeconds(double seconds) { return std::to_string(static_cast<long long>(std::floor(seconds))); }

} // namespace

// Turns the blocks that arrive into the consumer's sequence, and acknowledges what the consumer
// has taken at every quarter of the window, which is what lets the daemon send more.
class CorvexdFileBackend::ReadPump {
public:
    ReadPump(std::weak_ptr<CorvexdFileBackend> files, std::shared_ptr<Stream> stream, uint64_t id, uint64_t position,
             uint64_t window)
        : files_(std::move(files)), stream_(std::move(stream)), id_(id), position_(position), acked_(position),
          window_(window) {}

    std::optional<Bytes> next() {
        auto files = files_.lock();
        if (!files) throw disconnected();
        Bytes block;
        {
            std::unique_lock guard(files->lock_);
            stream_->wake.wait(guard, [&] { return !stream_->blocks.empty() || stream_->finished || stream_->error; });
            if (stream_->blocks.empty()) {
                if (stream_->error) throw *stream_->error;
                return std::nullopt;
            }
            block = std::move(stream_->blocks.front());
            stream_->blocks.pop_front();
        }
        position_ += block.size();
        if (FileStreamWindow::readAckDue(position_, acked_, window_)) acknowledge(*files);
        return block;
    }

private:
    void acknowledge(CorvexdFileBackend& files) {
        if (auto backend = files.backend()) {
            try {
                json message{{"method", protocol::FsAck::name},
                             {"params", protocol::encodeFileMessage(protocol::FsAck{id_, position_})}};
                backend->sendFrame(makeJSONFrame(message.dump()));
            } catch (const json::exception&) {
                return; // nothing to say that can be said
            }
        }
        files.noteReadAck(id_, position_);
        acked_ = position_;
    }

    std::weak_ptr<CorvexdFileBackend> files_;
    std::shared_ptr<Stream> stream_;
    uint64_t id_;
    uint64_t position_;
    uint64_t acked_;
    uint64_t window_;
};

std::shared_ptr<CorvexdFileBackend> CorvexdFileBackend::attach(const std::shared_ptr<CorvexdBackend>& backend,
                                                               TextSink log) {
    std::shared_ptr<CorvexdFileBackend> files(new CorvexdFileBackend(backend, std::move(log)));
    backend->setFileChannel(files);
    return files;
}

CorvexdFileBackend::CorvexdFileBackend(std::weak_ptr<CorvexdBackend> backend, TextSink log)
    : backend_(std::move(backend)), log_(std::move(log)) {}

std::shared_ptr<CorvexdBackend> CorvexdFileBackend::backend() const { return backend_.lock(); }

double CorvexdFileBackend::fileStallTimeout() const {
    std::lock_guard guard(lock_);
    return stallTimeout_;
}

void CorvexdFileBackend::setFileStallTimeout(double seconds) {
    std::lock_guard guard(lock_);
    stallTimeout_ = seconds;
}

size_t CorvexdFileBackend::openStreams() const {
    std::lock_guard guard(lock_);
    return streams_.size();
}

bool CorvexdFileBackend::supportsFiles() const {
    auto live = backend();
    auto hello = live ? live->lastHello() : std::nullopt;
    return hello && hello->has(Hello::Feature::fs);
}

std::optional<std::string> CorvexdFileBackend::homeDirectory() const {
    auto live = backend();
    auto hello = live ? live->lastHello() : std::nullopt;
    if (!hello || !hello->machine) return std::nullopt;
    return hello->machine->home;
}

template <typename M>
typename M::Result CorvexdFileBackend::call(const M& method) {
    auto live = backend();
    if (!live) throw disconnected();
    return protocol::decodeResult<M>(live->request(std::string(M::name), protocol::encodeParams(method)));
}

FileEntry CorvexdFileBackend::stat(const std::string& path) { return call(protocol::FsStat{{}, path}); }

FileListing CorvexdFileBackend::list(const std::string& path, bool hidden, std::optional<int> limit,
                                     std::optional<std::string> cursor) {
    return call(protocol::FsList{{}, path, hidden, limit, std::move(cursor)});
}

FileEntry CorvexdFileBackend::mkdir(const std::string& path, bool parents) {
    return call(protocol::FsMkdir{{}, path, parents});
}

FileEntry CorvexdFileBackend::setattr(const std::string& path, std::optional<std::string> mtimeNs,
                                      std::optional<int> mode) {
    return call(protocol::FsSetattr{{}, path, std::move(mtimeNs), mode});
}

FileEntry CorvexdFileBackend::rename(const std::string& from, const std::string& to, bool overwrite) {
    return call(protocol::FsRename{{}, from, to, overwrite});
}

void CorvexdFileBackend::remove(const std::string& path, bool recursive) {
    call(protocol::FsRemove{{}, path, recursive});
}

FileSpace CorvexdFileBackend::statfs(const std::string& path) { return call(protocol::FsStatfs{{}, path}); }

// ---------------------------------------------------------------- reads

FileReadStream CorvexdFileBackend::read(const std::string& path, const FileReadOptions& options) {
    auto live = backend();
    if (!live) throw disconnected();
    std::weak_ptr<CorvexdFileBackend> weak = weak_from_this();
    std::shared_ptr<Stream> registered;
    // The stream must be known before its first frame, which may follow the reply at once:
    // the hook runs on the reader thread, in the connection's order.
    auto hook = [&, weak](const json& result) {
        auto self = weak.lock();
        protocol::FileReadOpened opened;
        protocol::decodeResultValue(result, opened);
        if (!self || !opened.stream) return;
        auto stream = std::make_shared<Stream>();
        stream->window.kind = FileStreamWindow::Kind::read;
        stream->window.received = stream->window.readAcked = opened.offset.value_or(options.offset);
        stream->window.window = static_cast<uint64_t>(std::max(options.window, 0));
        stream->window.chunk = static_cast<uint64_t>(std::max(options.chunk, 1));
        std::lock_guard guard(self->lock_);
        self->streams_[*opened.stream] = stream;
        registered = stream;
    };
    protocol::FsRead method{{}, path, options};
    json result = live->request(std::string(method.name), protocol::encodeParams(method), std::nullopt, hook);
    auto opened = protocol::decodeResult<protocol::FsRead>(result);
    if (!opened.stream || !registered) throw BackendError("internal", "fs.read reply without a stream");
    uint64_t id = *opened.stream;
    uint64_t offset = opened.offset.value_or(options.offset);
    auto pump = std::make_shared<ReadPump>(weak, registered, id, offset, registered->window.window);
    startWatchdog(id);
    return FileReadStream{opened.size, opened.mtimeNs, offset, [pump] { return pump->next(); },
                          [weak, id] {
                              if (auto self = weak.lock()) self->cancelStream(id);
                          }};
}

void CorvexdFileBackend::noteReadAck(uint64_t id, uint64_t offset) {
    std::lock_guard guard(lock_);
    auto found = streams_.find(id);
    if (found == streams_.end()) return;
    // A daemon held back by this side's slow reader has not stalled.
    if (found->second->window.noteReadAck(offset)) found->second->lastActivity = Clock::now();
}

// ---------------------------------------------------------------- writes

FileEntry CorvexdFileBackend::write(const std::string& path, const FileWriteOptions& options, FileDataSource& source,
                                    FileProgress progress, const platform::CancellationToken& cancel) {
    if (std::optional<protocol::LocalSource> local = localSourceFor(source)) {
        try {
            return write(path, options, source, progress, cancel, std::move(local));
        } catch (const LocalSourceRefused&) {
            // Another machine behind the socket, or another view of the disk: the bytes travel.
            std::lock_guard guard(lock_);
            localSourceRefused_ = true;
        }
    }
    if (takesPut(options)) return put(path, options, source, progress, cancel);
    return write(path, options, source, std::move(progress), cancel, std::nullopt);
}

bool CorvexdFileBackend::announces(std::string_view feature) const {
    auto live = backend();
    auto hello = live ? live->lastHello() : std::nullopt;
    if (!hello || !hello->featureNames) return false;
    const auto& names = *hello->featureNames;
    return std::find(names.begin(), names.end(), feature) != names.end();
}

int CorvexdFileBackend::putsAtOnce() const {
    if (!announces(protocol::fsPutFeature) || !announces(protocol::fsPutsFeature)) return 0;
    // A daemon that copies this machine's files itself is sent no puts: its copies are streams.
    auto live = backend();
    bool localSources = live && live->overUnixSocket() && announces(protocol::fsLocalSourceFeature);
    std::lock_guard guard(lock_);
    return localSources && !localSourceRefused_ ? 0 : protocol::fsPutsAtOnce;
}

bool CorvexdFileBackend::takesPut(const FileWriteOptions& options) const {
    return options.size && *options.size <= protocol::fsPutLargest && announces(protocol::fsPutFeature);
}

namespace {

// Many small files share one request and one reply: 8 batches in flight keep the daemon's
// puts all in use.
constexpr int filesPerBatch = protocol::fsPutsAtOnce / 8;

// A small file's whole data: at most one byte more than promised, so that a source longer
// than it said is sent too long, for the daemon to refuse.
std::string readWhole(FileDataSource& source, uint64_t promised, const platform::CancellationToken& cancel) {
    ByteBlocks blocks = source.open(0);
    std::string bytes;
    bytes.reserve(promised + 1);
    while (bytes.size() <= promised) {
        if (cancel.isCancelled()) throw cancellationError();
        std::optional<Bytes> block = blocks();
        if (!block) break;
        bytes.append(reinterpret_cast<const char*>(block->data()), block->size());
    }
    if (cancel.isCancelled()) throw cancellationError();
    if (bytes.size() > promised + 1) bytes.resize(promised + 1);
    return bytes;
}

// A small file on this machine, read into the end of `frames` where it is sent from, with no
// block of its own to copy there; refused as a read of it would be when it is no longer the
// version the walk found.
void readLocalFile(std::string& frames, const FileDataSource::LocalFile& file, uint64_t promised) {
    FileReadOptions options;
    options.expectSize = file.size;
    options.expectMtimeNs = file.mtimeNs;
    OpenedRead opened = FileService::openRead(file.path, options);
    const size_t at = frames.size();
    frames.resize(at + promised + 1);
    frames.resize(at + opened.reader->readInto(frames.data() + at, promised + 1));
}

// readWhole for one file of a batch, straight into the batch's frames: its one end frame,
// with the data read into place rather than copied there.
void appendWholeFile(std::string& frames, uint64_t stream, FileDataSource& source, uint64_t promised,
                     const platform::CancellationToken& cancel) {
    const size_t start = frames.size();
    frames += makeFileDataFrame(stream, 0, true, {});
    const size_t dataStart = frames.size();
    try {
        if (std::optional<FileDataSource::LocalFile> file = source.localFile()) {
            readLocalFile(frames, *file, promised);
        } else {
            ByteBlocks blocks = source.open(0);
            while (frames.size() - dataStart <= promised) {
                if (cancel.isCancelled()) throw cancellationError();
                std::optional<Bytes> block = blocks();
                if (!block) break;
                frames.append(reinterpret_cast<const char*>(block->data()), block->size());
            }
        }
    } catch (...) {
        frames.resize(start);
        throw;
    }
    const uint64_t count = std::min<uint64_t>(frames.size() - dataStart, promised + 1);
    frames.resize(dataStart + count);
    // The frame's length leads it: the empty frame's, grown by the data.
    std::string length;
    appendBigEndian(length, readBigEndian(frames.data() + start, 4) + count, 4);
    frames.replace(start, length.size(), length);
}

} // namespace

uint64_t CorvexdFileBackend::nextPutStream() {
    std::lock_guard guard(lock_);
    return protocol::fsPutStreamBit | nextPut_++;
}

// One message each way instead of an opening round trip, data, acks and an end: what bounds a
// tree of small files is the messages, not the bytes.
FileEntry CorvexdFileBackend::put(const std::string& path, const FileWriteOptions& options, FileDataSource& source,
                                  const FileProgress& progress, const platform::CancellationToken& cancel) {
    std::string bytes = readWhole(source, *options.size, cancel);
    auto live = backend();
    if (!live) throw disconnected();
    uint64_t id = nextPutStream();
    protocol::FsWrite method{{}, path, options, std::nullopt, id};
    json result = live->request(std::string(method.name), protocol::encodeParams(method), std::nullopt, {},
                                makeFileDataFrame(id, 0, true, bytes));
    auto placed = protocol::decodeResult<protocol::FsWrite>(result);
    if (!placed.entry) throw BackendError("internal", "fs.write put reply without an entry");
    if (progress) progress(bytes.size());
    return *placed.entry;
}

std::optional<WriteBatchLimits> CorvexdFileBackend::writeBatchLimits(const FileBackend&) const {
    if (!announces(protocol::fsPutBatchFeature)) return std::nullopt;
    return WriteBatchLimits{filesPerBatch, protocol::fsPutLargest};
}

std::vector<SmallFileOutcome> CorvexdFileBackend::writeBatch(const std::vector<SmallFileWrite>& files,
                                                             const platform::CancellationToken& cancel) {
    if (!announces(protocol::fsPutBatchFeature) || files.size() > static_cast<size_t>(protocol::fsPutBatchLargest))
        return FileBackend::writeBatch(files, cancel);
    std::vector<SmallFileOutcome> outcomes(files.size());
    protocol::FsPutBatch method;
    std::vector<size_t> sent; // the index of each file of the request
    std::string frames;
    uint64_t promised = 0;
    for (const SmallFileWrite& file : files) promised += file.options.size.value_or(0) + 1;
    frames.reserve(std::min<uint64_t>(promised, uint64_t(protocol::fsPutBatchLargest) * (protocol::fsPutLargest + 1)) +
                   files.size() * (frameHeaderSize + fileDataHeaderSize));
    for (size_t index = 0; index < files.size(); ++index) {
        const SmallFileWrite& file = files[index];
        if (cancel.isCancelled()) throw cancellationError();
        if (!file.options.size || *file.options.size > protocol::fsPutLargest) {
            // Not a small file after all: it goes as a write of its own.
            outcomes[index] = FileBackend::writeBatch({file}, cancel).front();
            continue;
        }
        try {
            uint64_t id = nextPutStream();
            appendWholeFile(frames, id, *file.source, *file.options.size, cancel);
            method.files.push_back(protocol::FsWrite{{}, file.path, file.options, std::nullopt, id});
            sent.push_back(index);
        } catch (...) {
            outcomes[index].failure = std::current_exception();
        }
    }
    if (sent.empty()) return outcomes;
    auto live = backend();
    if (!live) throw disconnected();
    json result = live->request(std::string(method.name), protocol::encodeParams(method), std::nullopt, {},
                                std::move(frames));
    protocol::FilePutOutcomes placed;
    try {
        placed = protocol::decodeResult<protocol::FsPutBatch>(result);
    } catch (const std::exception& error) {
        throw BackendError("internal", std::string("fs.put_batch reply: ") + error.what());
    }
    if (placed.files.size() != sent.size())
        throw BackendError("internal", "fs.put_batch reply for " + std::to_string(placed.files.size()) + " of " +
                                           std::to_string(sent.size()) + " files");
    for (size_t position = 0; position < sent.size(); ++position) {
        protocol::FilePutOutcome& file = placed.files[position];
        SmallFileOutcome& outcome = outcomes[sent[position]];
        if (!file.code.empty()) outcome.failure = std::make_exception_ptr(BackendError(file.code, file.message));
    }
    return outcomes;
}

std::optional<protocol::LocalSource> CorvexdFileBackend::localSourceFor(const FileDataSource& source) const {
    std::optional<FileDataSource::LocalFile> file = source.localFile();
    if (!file) return std::nullopt;
    {
        std::lock_guard guard(lock_);
        if (localSourceRefused_) return std::nullopt;
    }
    auto live = backend();
    auto hello = live ? live->lastHello() : std::nullopt;
    if (!hello || !hello->featureNames || !live->overUnixSocket()) return std::nullopt;
    const auto& names = *hello->featureNames;
    if (std::find(names.begin(), names.end(), protocol::fsLocalSourceFeature) == names.end()) return std::nullopt;
    std::string bootID = FileService::bootID();
    struct stat record {};
    std::string path;
    try {
        path = FileService::resolve(file->path);
    } catch (const BackendError&) {
        return std::nullopt;
    }
    // A source that can't be looked at here is left to the streamed read to report.
    if (bootID.empty() || ::stat(path.c_str(), &record) != 0) return std::nullopt;
    return protocol::LocalSource{path, bootID, static_cast<uint64_t>(record.st_dev), static_cast<uint64_t>(record.st_ino),
                                 file->size, file->mtimeNs};
}

FileEntry CorvexdFileBackend::write(const std::string& path, const FileWriteOptions& options, FileDataSource& source,
                                    FileProgress progress, const platform::CancellationToken& cancel,
                                    std::optional<protocol::LocalSource> local) {
    const bool copiedThere = local.has_value();
    auto live = backend();
    if (!live) throw disconnected();
    std::weak_ptr<CorvexdFileBackend> weak = weak_from_this();
    std::shared_ptr<Stream> stream;
    auto hook = [&, weak](const json& result) {
        auto self = weak.lock();
        protocol::FileWriteOpened opened;
        protocol::decodeResultValue(result, opened);
        if (!self || !opened.stream) return;
        auto made = std::make_shared<Stream>();
        made->window.kind = FileStreamWindow::Kind::write;
        made->window.acked = made->window.sent = opened.offset;
        made->window.window = opened.window.value_or(static_cast<uint64_t>(std::max(options.window, 0)));
        made->progress = progress;
        std::lock_guard guard(self->lock_);
        self->streams_[*opened.stream] = made;
        stream = made;
    };
    protocol::FsWrite method{{}, path, options, std::move(local)};
    json result;
    try {
        result = live->request(std::string(method.name), protocol::encodeParams(method), std::nullopt, hook);
    } catch (const BackendError& error) {
        if (copiedThere && error.code() == protocol::fsLocalSourceRefused) throw LocalSourceRefused{};
        throw;
    }
    live.reset();
    auto opened = protocol::decodeResult<protocol::FsWrite>(result);
    if (!opened.stream || !stream) throw BackendError("internal", "fs.write reply without a stream");
    uint64_t id = *opened.stream;
    startWatchdog(id);
    cancel.onCancel([weak, id] {
        if (auto self = weak.lock()) self->cancelStream(id);
    });

    try {
        if (copiedThere) {
            // The daemon reads the file itself; its acks are the progress, its "fs.done" the end.
            {
                std::lock_guard guard(lock_);
                stream->window.finSent = true;
            }
            std::unique_lock guard(lock_);
            stream->wake.wait(guard, [&] { return stream->hasOutcome(); });
            if (stream->error) throw *stream->error;
            FileEntry placed = *stream->entry;
            const bool unacknowledged = stream->window.acked < placed.size;
            guard.unlock();
            if (progress && unacknowledged) progress(placed.size);
            return placed;
        }
        // Each piece is one frame, which has a bound of its own.
        const size_t chunk = std::clamp<size_t>(static_cast<size_t>(std::max(options.chunk, 1)), 1, 4u << 20);
        ByteBlocks blocks = source.open(opened.offset);
        std::string pending;
        bool wanted = true; // the daemon may end the stream well before the source is through
        while (wanted) {
            if (cancel.isCancelled()) throw cancellationError();
            std::optional<Bytes> block = blocks();
            if (!block) break;
            if (cancel.isCancelled()) throw cancellationError();
            std::string_view bytes(reinterpret_cast<const char*>(block->data()), block->size());
            // Blocks of exactly one chunk go straight out, the common case.
            if (pending.empty() && bytes.size() == chunk) {
                if (!(wanted = waitForCredit(stream, stream->window.sent + chunk))) break;
                sendPiece(stream, id, bytes);
                continue;
            }
            pending.append(bytes);
            size_t at = 0;
            while (pending.size() - at >= chunk) {
                if (!(wanted = waitForCredit(stream, stream->window.sent + chunk))) break;
                sendPiece(stream, id, std::string_view(pending).substr(at, chunk));
                at += chunk;
            }
            pending.erase(0, at);
        }
        bool ended = false;
        if (wanted && !pending.empty() && (wanted = waitForCredit(stream, stream->window.sent + pending.size()))) {
            sendPiece(stream, id, pending, true);
            ended = true;
        }

        if (wanted && !ended) {
            uint64_t end;
            {
                std::lock_guard guard(lock_);
                stream->window.finSent = true;
                end = stream->window.sent;
            }
            if (auto backend = this->backend()) backend->sendFrame(makeFileDataFrame(id, end, true, {}));
        }
        std::unique_lock guard(lock_);
        stream->wake.wait(guard, [&] { return stream->hasOutcome(); });
        if (stream->error) throw *stream->error;
        FileEntry placed = *stream->entry;
        const uint64_t all = stream->window.sent;
        const bool unacknowledged = stream->window.acked < all;
        guard.unlock();
        // The daemon's end says it took everything, even where no ack for the last piece came.
        if (progress && unacknowledged) progress(all);
        return placed;
    } catch (...) {
        std::optional<BackendError> reason;
        {
            std::lock_guard guard(lock_);
            if (stream->hasOutcome() && stream->error) reason = stream->error;
        }
        // The daemon's reason beats the local symptom.
        if (reason) throw *reason;
        cancelStream(id);
        throw;
    }
}

bool CorvexdFileBackend::waitForCredit(const std::shared_ptr<Stream>& stream, uint64_t upTo) {
    std::unique_lock guard(lock_);
    stream->wake.wait(guard, [&] { return stream->hasOutcome() || stream->window.hasCreditFor(upTo); });
    if (stream->error) throw *stream->error;
    return !stream->hasOutcome();
}

void CorvexdFileBackend::sendPiece(const std::shared_ptr<Stream>& stream, uint64_t id, std::string_view bytes,
                                   bool last) {
    auto live = backend();
    if (!live) throw disconnected();
    uint64_t offset;
    {
        std::lock_guard guard(lock_);
        offset = stream->window.sent;
        stream->window.finSent = stream->window.finSent || last;
    }
    std::string frames = makeFileDataFrame(id, offset, false, bytes);
    // The end goes in the same write as the last piece: a small file then costs each process
    // on the way one wake-up less.
    if (last) frames += makeFileDataFrame(id, offset + bytes.size(), true, {});
    live->sendFrame(std::move(frames));
    std::lock_guard guard(lock_);
    stream->window.sent += bytes.size();
}

// ---------------------------------------------------------------- from the connection

void CorvexdFileBackend::fileData(const FileDataFrame& frame) {
    std::lock_guard guard(lock_);
    auto found = streams_.find(frame.stream);
    if (found == streams_.end() || found->second->window.kind != FileStreamWindow::Kind::read) return;
    Stream& stream = *found->second;
    stream.window.received = std::max(stream.window.received, frame.offset + frame.bytes.size());
    stream.lastActivity = Clock::now();
    if (!frame.bytes.empty()) stream.blocks.emplace_back(frame.bytes.begin(), frame.bytes.end());
    if (frame.fin) {
        stream.finished = true;
        stream.window.ended = true;
        streams_.erase(found);
    }
    stream.wake.notify_all();
}

void CorvexdFileBackend::fileEvent(const std::string& name, const json& data) {
    if (name == protocol::FsAck::name) {
        auto ack = protocol::decodeFsAck(data);
        if (!ack) return;
        FileProgress progress;
        {
            std::lock_guard guard(lock_);
            auto found = streams_.find(ack->stream);
            if (found == streams_.end() || found->second->window.kind != FileStreamWindow::Kind::write) return;
            Stream& stream = *found->second;
            stream.window.acked = std::max(stream.window.acked, ack->offset);
            stream.lastActivity = Clock::now();
            progress = stream.progress;
            stream.wake.notify_all();
        }
        // Progress is what the daemon has taken, never what has merely been sent.
        if (progress) progress(ack->offset);
    } else if (name == protocol::FsDone::name) {
        auto done = protocol::decodeFsDone(data);
        if (!done) return;
        if (done->cancelled) endStream(done->stream, std::nullopt, cancellationError());
        else if (done->entry) endStream(done->stream, done->entry, std::nullopt);
        else endStream(done->stream, std::nullopt, BackendError("internal", "fs.done without an entry"));
    } else if (name == protocol::FsError::name) {
        if (auto error = protocol::decodeFsError(data))
            endStream(error->stream, std::nullopt, BackendError(error->code, error->message));
    }
}

void CorvexdFileBackend::failAll(const BackendError& error) {
    std::vector<uint64_t> ids;
    {
        std::lock_guard guard(lock_);
        for (const auto& [id, stream] : streams_) ids.push_back(id);
    }
    for (uint64_t id : ids) endStream(id, std::nullopt, error);
}

void CorvexdFileBackend::endStream(uint64_t id, std::optional<FileEntry> entry, std::optional<BackendError> error) {
    std::lock_guard guard(lock_);
    auto found = streams_.find(id);
    if (found == streams_.end()) return;
    Stream& stream = *found->second;
    stream.window.ended = true;
    stream.entry = std::move(entry);
    stream.error = std::move(error);
    stream.wake.notify_all();
    streams_.erase(found);
}

void CorvexdFileBackend::cancelStream(uint64_t id) {
    {
        std::lock_guard guard(lock_);
        if (!streams_.count(id)) return;
    }
    // The stream stays until the daemon's "fs.done", an "fs.error" or the connection's end.
    std::thread([weak = weak_from_this(), id] {
        auto self = weak.lock();
        auto live = self ? self->backend() : nullptr;
        if (!live) return;
        try {
            live->request(std::string(protocol::FsCancel::name), protocol::encodeParams(protocol::FsCancel{{}, id}));
        } catch (const std::exception&) {
            // A connection that went meanwhile ended the stream itself.
        }
    }).detach();
}

// ---------------------------------------------------------------- stall watchdog

void CorvexdFileBackend::startWatchdog(uint64_t id) {
    std::lock_guard guard(lock_);
    if (stallTimeout_ <= 0) return;
    auto found = streams_.find(id);
    if (found == streams_.end()) return;
    found->second->stallTimeout = stallTimeout_;
    if (watchdogRunning_) return;
    watchdogRunning_ = true;
    // One thread watches every stream, and leaves when none is left to watch: a tree of small
    // files must not cost a sleeping thread per file.
    std::thread([weak = weak_from_this()] { watch(weak); }).detach();
}

void CorvexdFileBackend::watch(const std::weak_ptr<CorvexdFileBackend>& weak) {
    for (;;) {
        double step = 5.0;
        {
            auto self = weak.lock();
            if (!self) return;
            std::lock_guard guard(self->lock_);
            bool any = false;
            for (const auto& [id, stream] : self->streams_) {
                if (stream->stallTimeout <= 0) continue;
                any = true;
                step = std::min(step, stream->stallTimeout * 0.25);
            }
            if (!any) {
                self->watchdogRunning_ = false;
                return;
            }
        }
        std::this_thread::sleep_for(std::chrono::duration<double>(step));
        auto self = weak.lock();
        if (!self) return;
        std::vector<std::pair<uint64_t, double>> stalled;
        {
            std::lock_guard guard(self->lock_);
            auto now = Clock::now();
            for (const auto& [id, stream] : self->streams_) {
                if (stream->stallTimeout <= 0) continue;
                double idle = std::chrono::duration<double>(now - stream->lastActivity).count();
                if (stream->window.isStalled(idle, stream->stallTimeout)) stalled.emplace_back(id, idle);
            }
        }
        if (stalled.empty()) continue;
        auto live = self->backend();
        std::string label = live ? live->transportName() : "corvexd";
        for (const auto& [id, idle] : stalled) {
            if (self->log_) {
                self->log_("file stream " + std::to_string(id) + " on " + label + " made no progress for " +
                           wholeSeconds(idle) + " s; reconnecting");
            }
            self->endStream(id, std::nullopt,
                            BackendError("stalled", "Nothing moved for " + wholeSeconds(idle) +
                                                        " seconds, so Corvex dropped the stuck connection to " + label));
        }
        // A stuck stream is a sick connection: all of it goes, and its other streams with it.
        if (live) live->reconnectNow();
    }
}

} // namespace corvex
