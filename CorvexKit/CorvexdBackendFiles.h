#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "CorvexKit/CorvexdBackend.h"
#include "CorvexKit/FileModel.h"
#include "CorvexKit/Protocol.h"

namespace corvex {

// The files of a daemon's machine over its session connection: metadata as requests, reads
// and writes as streams of file-data frames paced by credit windows, and a watchdog that turns
// a stream on which nothing moves into "stalled" and a reconnect. No stream outlives the
// connection it was opened on; a broken copy is resumed above, with a new stream.
class CorvexdFileBackend final : public FileBackend,
                                 public CorvexdFileChannel,
                                 public std::enable_shared_from_this<CorvexdFileBackend> {
public:
    using TextSink = std::function<void(const std::string&)>;

    // Plugs the file layer into the backend, which it holds weakly: the backend owns the
    // connection, and the file layer's calls fail with "disconnected" once it has gone.
    static std::shared_ptr<CorvexdFileBackend> attach(const std::shared_ptr<CorvexdBackend>& backend, TextSink log = {});

    // Seconds without progress before a stream counts as stalled; 0 or less: never.
    double fileStallTimeout() const;
    void setFileStallTimeout(double seconds);
    // Streams open now, for tests and diagnostics.
    size_t openStreams() const;
    // How many small files from here this daemon takes unanswered at once apart from its
    // streams; 0 when it counts them among its streams or copies files from here itself.
    int putsAtOnce() const;

    bool supportsFiles() const override;
    std::optional<std::string> homeDirectory() const override;
    FileEntry stat(const std::string& path) override;
    FileListing list(const std::string& path, bool hidden, std::optional<int> limit,
                     std::optional<std::string> cursor) override;
    FileEntry mkdir(const std::string& path, bool parents) override;
    FileEntry setattr(const std::string& path, std::optional<std::string> mtimeNs, std::optional<int> mode) override;
    FileEntry rename(const std::string& from, const std::string& to, bool overwrite) override;
    void remove(const std::string& path, bool recursive) override;
    FileSpace statfs(const std::string& path) override;
    FileReadStream read(const std::string& path, const FileReadOptions& options) override;
    FileEntry write(const std::string& path, const FileWriteOptions& options, FileDataSource& source,
                    FileProgress progress,
                    const platform::CancellationToken& cancel = platform::CancellationToken()) override;

    // Small files in batches, to a daemon that takes them, unless it copies them from the
    // source's disk itself.
    std::optional<WriteBatchLimits> writeBatchLimits(const FileBackend& source) const override;
    std::vector<SmallFileOutcome> writeBatch(const std::vector<SmallFileWrite>& files,
                                             const platform::CancellationToken& cancel) override;

    // CorvexdFileChannel: the reader thread's side.
    void fileData(const FileDataFrame& frame) override;
    void fileEvent(const std::string& name, const nlohmann::json& data) override;
    void failAll(const BackendError& error) override;

private:
    struct Stream;
    class ReadPump;

    CorvexdFileBackend(std::weak_ptr<CorvexdBackend> backend, TextSink log);
    std::shared_ptr<CorvexdBackend> backend() const;
    template <typename M>
    typename M::Result call(const M& method);
    void endStream(uint64_t id, std::optional<FileEntry> entry, std::optional<BackendError> error);
    void cancelStream(uint64_t id);
    void startWatchdog(uint64_t id);
    static void watch(const std::weak_ptr<CorvexdFileBackend>& weak);
    void noteReadAck(uint64_t id, uint64_t offset);
    // Blocks until a piece ending at `upTo` may go out; false when the daemon already ended
    // the stream well and wants nothing more.
    // The source as the daemon may open it itself: over a Unix socket, to a daemon that says
    // it can, from a file here.
    std::optional<protocol::LocalSource> localSourceFor(const FileDataSource& source) const;
    FileEntry write(const std::string& path, const FileWriteOptions& options, FileDataSource& source,
                    FileProgress progress, const platform::CancellationToken& cancel,
                    std::optional<protocol::LocalSource> local);
    bool waitForCredit(const std::shared_ptr<Stream>& stream, uint64_t upTo);
    bool announces(std::string_view feature) const;
    // A small file in one request with its data behind it, to a daemon that takes puts.
    bool takesPut(const FileWriteOptions& options) const;
    uint64_t nextPutStream();
    FileEntry put(const std::string& path, const FileWriteOptions& options, FileDataSource& source,
                  const FileProgress& progress, const platform::CancellationToken& cancel);
    // `last` sends the end frame after the piece.
    void sendPiece(const std::shared_ptr<Stream>& stream, uint64_t id, std::string_view bytes, bool last = false);

    std::weak_ptr<CorvexdBackend> backend_;
    TextSink log_;
    mutable std::mutex lock_;
    std::map<uint64_t, std::shared_ptr<Stream>> streams_;
    double stallTimeout_ = 60.0;
    bool watchdogRunning_ = false;
    bool localSourceRefused_ = false; // once refused, never asked of this daemon again
    uint64_t nextPut_ = 1;
};

} // namespace corvex
