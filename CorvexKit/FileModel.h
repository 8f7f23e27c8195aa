#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "CorvexKit/SessionBackend.h"
#include "Platform/CancellationToken.h"

// One file vocabulary for every machine: the local disk and each daemon answer in these values,
// so the transfer engine and the file browser never ask which machine they talk to.
namespace corvex {

enum class FileType { file, dir, other, unknown };

std::string_view wireName(FileType type);
// A word this client doesn't know is `unknown`: a daemon may grow new kinds.
FileType parseFileType(std::string_view text);

struct FileEntry {
    std::string name; // "/" for the root
    std::string path;
    FileType type = FileType::unknown; // behind a link, when the link resolves
    bool link = false;
    std::optional<std::string> target;
    uint64_t size = 0;
    double mtime = 0;    // seconds, for display
    std::string mtimeNs; // exact nanoseconds in decimal: the identity of a file version
    int mode = 0;        // st_mode & 07777
    bool hidden = false;
    std::optional<std::string> pathRaw;
    std::optional<bool> text;

    bool isDirectory() const { return type == FileType::dir; }
    bool operator==(const FileEntry&) const = default;
};

struct FileListing {
    FileEntry dir;
    std::vector<FileEntry> entries;
    std::optional<std::string> next; // cursor of the following page

    bool operator==(const FileListing&) const = default;
};

struct FileSpace {
    uint64_t total = 0;
    uint64_t free = 0;
    uint64_t available = 0; // what an ordinary user may use

    bool operator==(const FileSpace&) const = default;
};

enum class FileErrorCode {
    notFound,
    exists,
    permissionDenied,
    notADirectory,
    isADirectory,
    notEmpty,
    crossDevice,
    noSpace,
    readOnly,
    conflict,
    changed,
    tooManyStreams,
    badRequest,
    ioError,
};

std::string_view wireName(FileErrorCode code);
std::optional<FileErrorCode> parseFileErrorCode(std::string_view text);

// File errors travel as the shared BackendError with the wire string as its code.
BackendError fileError(FileErrorCode code, std::string message);
// The file code of an error, when it is a BackendError carrying one; callers test this.
std::optional<FileErrorCode> fileErrorCode(const std::exception& error);
std::optional<FileErrorCode> fileErrorCode(const std::exception_ptr& error);

// What a consumer or a cancel call ends a stream with; no file code, never retried.
BackendError cancellationError();
bool isCancellation(const std::exception& error);

inline constexpr int defaultFileChunk = 262144;
inline constexpr int defaultFileWindow = 4194304;

struct FileReadOptions {
    uint64_t offset = 0;
    std::optional<uint64_t> length;
    int chunk = defaultFileChunk;
    int window = defaultFileWindow;
    std::optional<uint64_t> expectSize;
    std::optional<std::string> expectMtimeNs;

    bool operator==(const FileReadOptions&) const = default;
};

struct FileWriteOptions {
    std::optional<uint64_t> size; // what the source promises
    bool overwrite = false;
    std::optional<std::string> expectMtimeNs;
    std::optional<int> mode;
    std::optional<std::string> mtimeNs;
    std::optional<std::string> uploadID;
    std::optional<std::string> source; // the source's fingerprint
    int chunk = defaultFileChunk;
    int window = defaultFileWindow;

    bool operator==(const FileWriteOptions&) const = default;
};

// A blocking sequence of byte blocks: each call gives the next block, nothing at the end, and
// raises on failure. Called from one thread at a time.
using ByteBlocks = std::function<std::optional<Bytes>()>;

struct FileReadStream {
    uint64_t size = 0; // of the whole file
    std::string mtimeNs;
    uint64_t offset = 0; // where the data really begins
    ByteBlocks data;
    std::function<void()> cancel; // any thread, any number of times
};

// What a write takes its bytes from.
class FileDataSource {
public:
    virtual ~FileDataSource() = default;
    virtual uint64_t size() const = 0;
    // Changes whenever the content may have changed.
    virtual std::string fingerprint() const = 0;
    virtual ByteBlocks open(uint64_t offset) = 0;

    // A file on this machine, as the source found it: a writer on this machine may copy it
    // without reading it through the source.
    struct LocalFile {
        std::string path;
        uint64_t size = 0;
        std::string mtimeNs;
    };
    virtual std::optional<LocalFile> localFile() const { return std::nullopt; }
};

using FileProgress = std::function<void(uint64_t bytes)>;

// A small file to be written whole, one of a batch.
struct SmallFileWrite {
    std::string path;
    FileWriteOptions options; // `size` is required
    FileDataSource* source = nullptr;
};

// A file of a batch as it ended: placed, or with what its own write would have raised.
struct SmallFileOutcome {
    std::exception_ptr failure; // null: placed
};

// What one batch may carry.
struct WriteBatchLimits {
    int files = 0;
    uint64_t largestFile = 0;
};

// The file side of a machine. Every operation but the first two blocks, and raises
// BackendError with a file code (or "disconnected", "stalled" from a daemon).
class FileBackend {
public:
    virtual ~FileBackend() = default;

    virtual bool supportsFiles() const = 0;
    virtual std::optional<std::string> homeDirectory() const = 0;
    // The files of the machine this process runs on.
    virtual bool isThisMachine() const { return false; }

    virtual FileEntry stat(const std::string& path) = 0;
    virtual FileListing list(const std::string& path, bool hidden, std::optional<int> limit,
                             std::optional<std::string> cursor) = 0;
    virtual FileEntry mkdir(const std::string& path, bool parents) = 0;
    virtual FileEntry setattr(const std::string& path, std::optional<std::string> mtimeNs,
                              std::optional<int> mode) = 0;
    virtual FileEntry rename(const std::string& from, const std::string& to, bool overwrite) = 0;
    virtual void remove(const std::string& path, bool recursive) = 0;
    virtual FileSpace statfs(const std::string& path) = 0;
    virtual FileReadStream read(const std::string& path, const FileReadOptions& options) = 0;
    // `progress` is called from the writing thread with the bytes the target holds so far.
    virtual FileEntry write(const std::string& path, const FileWriteOptions& options, FileDataSource& source,
                            FileProgress progress,
                            const platform::CancellationToken& cancel = platform::CancellationToken()) = 0;

    // Set where many small files from `source` go cheaper together than one by one.
    virtual std::optional<WriteBatchLimits> writeBatchLimits(const FileBackend& source) const {
        (void)source;
        return std::nullopt;
    }
    // Writes each file whole under the rules of write(), each failing on its own; raises only
    // when the batch as a whole didn't go (the connection, too many at once). By default one
    // write after another.
    virtual std::vector<SmallFileOutcome> writeBatch(const std::vector<SmallFileWrite>& files,
                                                     const platform::CancellationToken& cancel);
};

// Every page of a directory in order, 1000 names at a time.
std::pair<FileEntry, std::vector<FileEntry>> listAll(FileBackend& backend, const std::string& path, bool hidden);

// Joins a directory and a name with one "/"; paths of other machines never go through a
// platform path type, whose rules may not be theirs.
std::string filePath(std::string_view directory, std::string_view name);

} // namespace corvex
