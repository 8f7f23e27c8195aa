#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CorvexKit/FileModel.h"

namespace corvex {

// Copies files and trees from one machine's files to another's, knowing neither: the same
// code moves bytes from here to a daemon, back, or between two daemons. A broken file is
// retried from what its target already holds, found again by an upload id that names the
// target and the source's version.
class FileTransfer {
public:
    // What to do with a target that is already there. `fail` stops the copy with "exists".
    enum class Conflict { replace, skip, fail };

    struct Progress {
        uint64_t totalBytes = 0;
        uint64_t doneBytes = 0; // never goes back, even when a retry starts a file again
        int totalFiles = 0;
        int doneFiles = 0;
        int skippedFiles = 0;
        std::optional<std::string> current; // the target named last

        bool operator==(const Progress&) const = default;
    };

    using ProgressHandler = std::function<void(const Progress&)>;
    using RetryHandler = std::function<void(const std::string& path, const BackendError& error, int attempt)>;

    FileTransfer(std::shared_ptr<FileBackend> source, std::shared_ptr<FileBackend> destination);

    int maxStreams = 4; // files in flight at once
    // Files of at most smallFileSize bytes in flight at once, when more than maxStreams: a
    // tree of small files is bound by round trips, not by bytes or memory.
    int smallFileStreams = 0;
    uint64_t smallFileSize = 1u << 20;
    std::optional<int> chunk;
    std::optional<int> window;
    std::vector<double> retryDelays{2, 5, 10, 20, 30}; // seconds before each further attempt
    RetryHandler onRetry;                                // told before each wait
    // The name a single source takes in the destination, in place of its own: "cp a b".
    std::optional<std::string> targetName;

    // Copies each source path into the destination directory. Blocks until every file has
    // ended; raises the first failure, or cancellationError() when cancelled. What was
    // completed stays; staging files of broken files stay for the next attempt.
    void copy(const std::vector<std::string>& paths, const std::string& into, Conflict conflict,
              ProgressHandler progress = {}, const platform::CancellationToken& cancel = platform::CancellationToken());

    Progress progress() const;

    // Those of `names` that already stand in `directory`; an error counts as not there.
    static std::vector<std::string> existing(const std::vector<std::string>& names, const std::string& directory,
                                             FileBackend& backend);
    // A dropped or stuck connection: worth another attempt.
    static bool isRetryable(const std::exception& error);
    // FNV-1a 64 of the target path, a zero byte and the fingerprint, in lower-case hex.
    static std::string uploadID(const std::string& path, const std::string& fingerprint);

private:
    struct Item {
        FileEntry entry;
        std::string target;
    };
    struct Plan {
        std::vector<Item> directories;
        std::vector<Item> files;
    };

    void walk(const FileEntry& entry, const std::string& target, bool top, Plan& plan,
              const platform::CancellationToken& cancel);
    void makeDirectories(const std::vector<Item>& directories);
    // Files copied together: one, or several small ones in one batch.
    struct Unit {
        std::vector<size_t> files; // indices into the plan's files
        bool batched = false;
    };
    std::vector<Unit> plan(const std::vector<Item>& files) const;
    void copyFiles(const std::vector<Item>& files, Conflict conflict, const platform::CancellationToken& cancel);
    // Sends the files of `pending` as one batch; each that ends is taken out of it.
    void copyBatch(const std::vector<Item>& files, std::vector<size_t>& pending, Conflict conflict,
                   const platform::CancellationToken& cancel, bool mayBePlaced);
    FileWriteOptions writeOptions(const Item& item, const FileDataSource& source, Conflict conflict) const;
    // `mayBePlaced`: an earlier attempt broke after the far end may have placed the file.
    void copyFile(const Item& item, Conflict conflict, const platform::CancellationToken& cancel,
                  bool mayBePlaced = false);
    void copyFileOnce(const Item& item, Conflict conflict, const platform::CancellationToken& cancel,
                      bool mayBePlaced);
    bool endsAsThere(const Item& item, Conflict conflict, bool mayBePlaced);
    bool holdsThisCopy(const Item& item);
    void setWritten(const std::string& path, uint64_t bytes);
    void countDone(const std::string& path, uint64_t size, bool skipped);
    void setCurrent(const std::string& path);
    void publish();

    std::shared_ptr<FileBackend> source_;
    std::shared_ptr<FileBackend> destination_;
    std::mutex publishLock_;
    mutable std::mutex lock_;
    Progress progress_;
    std::map<std::string, uint64_t> written_;
    ProgressHandler onProgress_;
};

} // namespace corvex
