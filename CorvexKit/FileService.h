#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CorvexKit/ChunkReader.h"
#include "CorvexKit/FileModel.h"

// The one statement of what a file operation does on this machine's disk. LocalFileBackend
// calls it in-process and the daemon calls it for its clients, so both sides of a copy follow
// the same rules for staging, resuming, refusing and placing files.
namespace corvex {

// A write in progress: a hidden staging file beside the target that becomes the target only
// when all of it has arrived. Dropped unfinished, it is closed and, unless an upload id names
// it for a later attempt, removed.
class StagedWrite {
public:
    ~StagedWrite();
    StagedWrite(const StagedWrite&) = delete;
    StagedWrite& operator=(const StagedWrite&) = delete;

    // Where the data continues: what an earlier attempt left, or 0.
    uint64_t offset() const { return offset_; }
    // What the staging file holds now, the offset included.
    uint64_t total() const { return total_; }
    const std::string& target() const { return target_; }
    const std::string& stagingPath() const { return stagingPath_; }

    void append(ByteView bytes);
    // Takes up to `most` bytes straight from a reader of a file on this machine; 0 at its end.
    uint64_t appendFrom(ChunkReader& reader, uint64_t most);
    // Checks the promised size and puts the data on the disk: the slow half of finish, which
    // needs no lock on the folder.
    void sync();
    // sync() for many writes at once: each is checked on its own, then one pass of each file
    // system's writeback and one device flush cover them all, where a sync per file pays a
    // flush and a few small writes per file. Gives each write's failure, or null, in order.
    static std::vector<std::exception_ptr> syncTogether(const std::vector<StagedWrite*>& writes);
    // Checks the promised size and the target, then moves the file into place.
    FileEntry finish();
    // finish() without looking at the placed file again, for a caller that needn't know it.
    void place();
    // Gives up after a failure of the data: keeps the staging file only for an upload id.
    void abandon();

private:
    friend class FileService;
    StagedWrite(std::string target, std::string stagingPath, FileWriteOptions options,
                std::optional<FileEntry> existing, int fd, uint64_t offset);
    void closeFile();
    void wrote(uint64_t count);
    // The size check of sync(): a write short of or beyond its promise is abandoned.
    void checkComplete();

    std::string target_;
    std::string stagingPath_;
    FileWriteOptions options_;
    std::optional<FileEntry> existing_;
    int fd_ = -1;
    uint64_t offset_ = 0;
    uint64_t total_ = 0;
    uint64_t flushed_ = 0; // handed to the disk so far
    bool done_ = false;
    bool synced_ = false;
    bool sideFileDeferred_ = false; // the source's fingerprint is written only if the write breaks
    static constexpr uint64_t writeBehind = 8u << 20;
};

// A read, opened and checked: the entry as found and a reader positioned at the offset.
struct OpenedRead {
    FileEntry entry;
    uint64_t offset = 0;
    std::shared_ptr<ChunkReader> reader;
};

class FileService {
public:
    // "~" and "~/..." start at the home folder; anything else must be absolute.
    static std::string resolve(const std::string& path);
    // The entry of a path, following a link when it resolves; `text` asks looksLikeText.
    static FileEntry entry(const std::string& path, bool text = false);
    // No zero byte among the first 8192.
    static bool looksLikeText(const std::string& path);

    // Each takes the caller's path as given and resolves it.
    static FileEntry stat(const std::string& path);
    static FileListing list(const std::string& path, bool hidden, std::optional<int> limit,
                            const std::optional<std::string>& cursor);
    static FileEntry mkdir(const std::string& path, bool parents);
    static FileEntry setattr(const std::string& path, const std::optional<std::string>& mtimeNs,
                             std::optional<int> mode);
    static FileEntry rename(const std::string& from, const std::string& to, bool overwrite);
    static void remove(const std::string& path, bool recursive);
    static FileSpace statfs(const std::string& path);
    static OpenedRead openRead(const std::string& path, const FileReadOptions& options);
    // Fails with "changed" when `found` isn't the version that the options expect.
    static void expectVersion(const FileEntry& found, const FileReadOptions& options);
    static std::unique_ptr<StagedWrite> beginWrite(const std::string& path, const FileWriteOptions& options);

    // The hidden names beside a target that a write stages under.
    static std::string stagingName(const std::string& targetName, const std::string& id);
    static std::string sideFileName(const std::string& stagingName);

    // This machine's boot, as the kernel names it: equal on both ends only on one machine.
    static std::string bootID();

    // An OS failure as a file error naming the path: "PATH: strerror".
    static BackendError posixError(const std::string& path, int error);
    // A BackendError stands; an OS error goes through posixError; the rest is io_error.
    static BackendError translate(const std::exception_ptr& error, const std::string& path);
    static void setMtime(const std::string& path, const std::string& value);
};

} // namespace corvex
