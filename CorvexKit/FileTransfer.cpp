#include "CorvexKit/FileTransfer.h"

#include <atomic>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <thread>

namespace corvex {

namespace {

// Reads one file through a backend, refusing a source that is no longer the version the walk
// found: its size and exact time travel with every read, at any offset.
class StreamedSource final : public FileDataSource {
public:
    StreamedSource(FileBackend& backend, FileEntry entry, std::optional<int> chunk, std::optional<int> window)
        : backend_(backend), entry_(std::move(entry)), chunk_(chunk), window_(window) {}
    ~StreamedSource() override { cancelOpenStream(); }

    uint64_t size() const override { return entry_.size; }
    std::string fingerprint() const override { return std::to_string(entry_.size) + ":" + entry_.mtimeNs; }
    std::optional<LocalFile> localFile() const override {
        if (!backend_.isThisMachine()) return std::nullopt;
        return LocalFile{entry_.path, entry_.size, entry_.mtimeNs};
    }

    ByteBlocks open(uint64_t offset) override {
        FileReadOptions options;
        options.offset = offset;
        options.expectSize = entry_.size;
        options.expectMtimeNs = entry_.mtimeNs;
        if (chunk_) options.chunk = *chunk_;
        if (window_) options.window = *window_;
        FileReadStream stream = backend_.read(entry_.path, options);
        ByteBlocks data = std::move(stream.data);
        cancelOpenStream();
        std::lock_guard guard(lock_);
        cancel_ = std::move(stream.cancel);
        return data;
    }

    void cancelOpenStream() {
        std::function<void()> cancel;
        {
            std::lock_guard guard(lock_);
            cancel = std::move(cancel_);
            cancel_ = nullptr;
        }
        if (cancel) cancel();
    }

private:
    FileBackend& backend_;
    const FileEntry entry_;
    const std::optional<int> chunk_;
    const std::optional<int> window_;
    std::mutex lock_;
    std::function<void()> cancel_;
};

} // namespace

FileTransfer::FileTransfer(std::shared_ptr<FileBackend> source, std::shared_ptr<FileBackend> destination)
    : source_(std::move(source)), destination_(std::move(destination)) {}

FileTransfer::Progress FileTransfer::progress() const {
    std::lock_guard guard(lock_);
    return progress_;
}

void FileTransfer::copy(const std::vector<std::string>& paths, const std::string& into, Conflict conflict,
                        ProgressHandler progress, const platform::CancellationToken& cancel) {
    {
        std::lock_guard guard(lock_);
        onProgress_ = std::move(progress);
        progress_ = Progress{};
        written_.clear();
    }
    // Everything is looked at before anything is written: a missing source stops the copy clean.
    Plan plan;
    for (const std::string& path : paths) {
        FileEntry entry = source_->stat(path);
        const std::string& name = targetName && paths.size() == 1 ? *targetName : entry.name;
        walk(entry, filePath(into, name), true, plan, cancel);
    }
    {
        std::lock_guard guard(lock_);
        for (const Item& file : plan.files) progress_.totalBytes += file.entry.size;
        progress_.totalFiles = static_cast<int>(plan.files.size());
    }
    publish();

    makeDirectories(plan.directories);
    copyFiles(plan.files, conflict, cancel);
    if (cancel.isCancelled()) throw cancellationError();
    // Last, children before parents: writing into a directory changes its time.
    for (auto item = plan.directories.rbegin(); item != plan.directories.rend(); ++item)
        destination_->setattr(item->target, item->entry.mtimeNs, item->entry.mode);
}

void FileTransfer::walk(const FileEntry& entry, const std::string& target, bool top, Plan& plan,
                        const platform::CancellationToken& cancel) {
    if (cancel.isCancelled()) throw cancellationError();
    switch (entry.type) {
    case FileType::other:
    case FileType::unknown:
        // Sockets, devices, FIFOs and dangling links have no content to copy.
        return;
    case FileType::dir: {
        // A link to a directory inside a tree is skipped, which keeps a loop from running away;
        // one the user named is followed.
        if (entry.link && !top) return;
        plan.directories.push_back({entry, target});
        auto [dir, children] = listAll(*source_, entry.path, true);
        for (const FileEntry& child : children) walk(child, filePath(target, child.name), false, plan, cancel);
        return;
    }
    case FileType::file: plan.files.push_back({entry, target}); return;
    }
}

void FileTransfer::makeDirectories(const std::vector<Item>& directories) {
    for (const Item& item : directories) {
        try {
            destination_->mkdir(item.target, true);
        } catch (const BackendError& error) {
            if (fileErrorCode(error) != FileErrorCode::exists) throw;
            std::optional<FileEntry> found;
            try {
                found = destination_->stat(item.target);
            } catch (const BackendError&) {
            }
            if (!found || !found->isDirectory()) throw;
        }
    }
}

namespace {

bool isTooManyStreams(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& failure) {
        return fileErrorCode(failure) == FileErrorCode::tooManyStreams;
    } catch (...) {
        return false;
    }
}

} // namespace

// Consecutive files small enough for the destination's batches go together; the rest, and
// all of them where the destination takes no batches, go one by one.
std::vector<FileTransfer::Unit> FileTransfer::plan(const std::vector<Item>& files) const {
    std::vector<Unit> units;
    std::optional<WriteBatchLimits> limits = destination_->writeBatchLimits(*source_);
    for (size_t index = 0; index < files.size(); ++index) {
        const bool batched = limits && limits->files > 1 && files[index].entry.size <= limits->largestFile;
        if (!batched || units.empty() || !units.back().batched ||
            units.back().files.size() >= static_cast<size_t>(limits->files))
            units.push_back(Unit{{}, batched});
        units.back().files.push_back(index);
    }
    return units;
}

void FileTransfer::copyFiles(const std::vector<Item>& files, Conflict conflict,
                             const platform::CancellationToken& cancel) {
    if (maxStreams < 1 || files.empty()) return;
    const std::vector<Unit> units = plan(files);
    // One token for the group: the caller's cancel and the first failure both stop every file.
    platform::CancellationToken group;
    cancel.onCancel([group] { group.cancel(); });
    std::atomic<size_t> next{0};
    // Shared with the cancel handler, which may run after this call has returned.
    struct Slots {
        std::mutex lock;
        std::condition_variable freed;
        int bigInFlight = 0;
        int inFlight = 0;
        uint64_t ended = 0; // units that have ended, counted to wake those waiting for a stream
        std::exception_ptr failure;
    };
    auto slots = std::make_shared<Slots>();
    group.onCancel([slots] {
        std::lock_guard guard(slots->lock);
        slots->freed.notify_all();
    });

    auto work = [&] {
        for (size_t index = next++; index < units.size() && !group.isCancelled(); index = next++) {
            const Unit& unit = units[index];
            const bool big = !unit.batched && files[unit.files.front()].entry.size > smallFileSize;
            if (big) {
                std::unique_lock guard(slots->lock);
                slots->freed.wait(guard, [&] { return slots->bigInFlight < maxStreams || group.isCancelled(); });
                if (group.isCancelled()) return;
                ++slots->bigInFlight;
            }
            // A batch's files that have not ended yet: a retry sends only these.
            std::vector<size_t> pending = unit.files;
            for (bool again = true, first = true; again; first = false) {
                again = false;
                {
                    std::lock_guard guard(slots->lock);
                    ++slots->inFlight;
                }
                const size_t pendingBefore = pending.size();
                std::exception_ptr failed;
                try {
                    // A later round may follow a batch whose reply was lost with files placed.
                    if (unit.batched) copyBatch(files, pending, conflict, group, !first);
                    else copyFile(files[unit.files.front()], conflict, group);
                } catch (...) {
                    failed = std::current_exception();
                }
                std::unique_lock guard(slots->lock);
                --slots->inFlight;
                // Some files of the batch have ended, and what they held at the far end is free
                // again: the rest go at once. Each such round ends at least one file.
                if (failed && pending.size() < pendingBefore && isTooManyStreams(failed)) {
                    again = !group.isCancelled();
                    continue;
                }
                // The far end has fewer streams than this copy keeps going: the file waits for
                // another one to end and tries again, as long as another one is still going.
                if (failed && slots->inFlight > 0 && isTooManyStreams(failed)) {
                    uint64_t endedBefore = slots->ended;
                    slots->freed.wait(guard, [&] { return slots->ended != endedBefore || group.isCancelled(); });
                    again = !group.isCancelled();
                    failed = nullptr;
                    continue;
                }
                ++slots->ended;
                if (failed && !slots->failure) slots->failure = failed;
                slots->freed.notify_all();
                guard.unlock();
                if (failed) group.cancel();
            }
            if (big) {
                std::lock_guard guard(slots->lock);
                --slots->bigInFlight;
                slots->freed.notify_all();
            }
        }
    };
    // Small files wait on round trips more than on bytes, so more of them go at once; big
    // ones keep to maxStreams, which is what bounds the memory of a copy. A batch carries
    // many small files, so fewer threads keep as many in flight.
    size_t smallAtOnce = static_cast<size_t>(std::max(smallFileStreams, 0));
    if (std::optional<WriteBatchLimits> limits = destination_->writeBatchLimits(*source_); limits && limits->files > 1)
        smallAtOnce = (smallAtOnce + static_cast<size_t>(limits->files) - 1) / static_cast<size_t>(limits->files);
    size_t workers = std::min(units.size(), std::max(static_cast<size_t>(maxStreams), smallAtOnce));
    std::vector<std::thread> threads;
    threads.reserve(workers - 1);
    for (size_t count = 1; count < workers; ++count) threads.emplace_back(work);
    work();
    for (std::thread& thread : threads) thread.join();
    if (slots->failure) std::rethrow_exception(slots->failure);
}

// Each file of the batch ends as its own write would: done, skipped, or failed. One that met
// a broken connection is tried again on its own, with the retries of a single file. One the
// far end had no room for stays in `pending` for the caller to send again, and the batch
// raises "too_many_streams" once the others have ended: a file already placed is never sent
// again, where it would now be in its own way, nor counted twice.
void FileTransfer::copyBatch(const std::vector<Item>& files, std::vector<size_t>& pending, Conflict conflict,
                             const platform::CancellationToken& cancel, bool mayBePlaced) {
    std::vector<std::unique_ptr<StreamedSource>> sources;
    std::vector<SmallFileWrite> writes;
    sources.reserve(pending.size());
    writes.reserve(pending.size());
    for (size_t index : pending) {
        const Item& item = files[index];
        sources.push_back(std::make_unique<StreamedSource>(*source_, item.entry, chunk, window));
        writes.push_back(SmallFileWrite{item.target, writeOptions(item, *sources.back(), conflict), sources.back().get()});
    }
    setCurrent(files[pending.back()].target);
    std::vector<SmallFileOutcome> outcomes;
    try {
        outcomes = destination_->writeBatch(writes, cancel);
    } catch (const BackendError& error) {
        if (!isRetryable(error)) throw;
        // The reply went with the connection, not necessarily the files: the far end may
        // have placed any of them before it noticed.
        while (!pending.empty()) {
            copyFile(files[pending.front()], conflict, cancel, true);
            pending.erase(pending.begin());
        }
        return;
    }
    std::vector<size_t> left; // refused for want of room
    std::exception_ptr noRoom;
    size_t position = 0;
    try {
        for (; position < pending.size(); ++position) {
            const Item& item = files[pending[position]];
            if (!outcomes[position].failure) {
                countDone(item.target, item.entry.size, false);
                continue;
            }
            try {
                std::rethrow_exception(outcomes[position].failure);
            } catch (const BackendError& error) {
                if (fileErrorCode(error) == FileErrorCode::exists && endsAsThere(item, conflict, mayBePlaced)) continue;
                if (fileErrorCode(error) == FileErrorCode::tooManyStreams) {
                    left.push_back(pending[position]);
                    if (!noRoom) noRoom = outcomes[position].failure;
                    continue;
                }
                if (!isRetryable(error)) throw;
                copyFile(item, conflict, cancel, true);
            }
        }
    } catch (...) {
        left.insert(left.end(), pending.begin() + static_cast<std::ptrdiff_t>(position), pending.end());
        pending = std::move(left);
        throw;
    }
    pending = std::move(left);
    if (noRoom) std::rethrow_exception(noRoom);
}

void FileTransfer::copyFile(const Item& item, Conflict conflict, const platform::CancellationToken& cancel,
                            bool mayBePlaced) {
    setCurrent(item.target);
    for (int attempt = 1;; ++attempt) {
        try {
            copyFileOnce(item, conflict, cancel, mayBePlaced);
            return;
        } catch (const BackendError& error) {
            if (!isRetryable(error) || attempt > static_cast<int>(retryDelays.size())) throw;
            // The far end may have placed the file and lost only its answer.
            mayBePlaced = true;
            if (onRetry) onRetry(item.target, error, attempt + 1);
            auto delay = std::chrono::duration<double>(retryDelays[static_cast<size_t>(attempt - 1)]);
            if (!cancel.sleepFor(std::chrono::duration_cast<std::chrono::steady_clock::duration>(delay)))
                throw cancellationError();
        }
    }
}

FileWriteOptions FileTransfer::writeOptions(const Item& item, const FileDataSource& source, Conflict conflict) const {
    std::string fingerprint = source.fingerprint();
    FileWriteOptions options;
    options.size = item.entry.size;
    options.overwrite = conflict == Conflict::replace;
    options.mode = item.entry.mode;
    options.mtimeNs = item.entry.mtimeNs;
    options.uploadID = uploadID(item.target, fingerprint);
    options.source = fingerprint;
    if (chunk) options.chunk = *chunk;
    if (window) options.window = *window;
    return options;
}

void FileTransfer::copyFileOnce(const Item& item, Conflict conflict, const platform::CancellationToken& cancel,
                                bool mayBePlaced) {
    StreamedSource source(*source_, item.entry, chunk, window);
    try {
        destination_->write(item.target, writeOptions(item, source, conflict), source,
                            [this, &item](uint64_t bytes) { setWritten(item.target, bytes); }, cancel);
    } catch (const BackendError& error) {
        if (fileErrorCode(error) != FileErrorCode::exists || !endsAsThere(item, conflict, mayBePlaced)) throw;
        return;
    }
    countDone(item.target, item.entry.size, false);
}

// A target in the way ends the file as done when it is this copy's own, as skipped when
// skipping; false leaves the "exists" to be raised.
bool FileTransfer::endsAsThere(const Item& item, Conflict conflict, bool mayBePlaced) {
    const bool own = mayBePlaced && holdsThisCopy(item);
    if (!own && conflict != Conflict::skip) return false;
    countDone(item.target, item.entry.size, !own);
    return true;
}

// A placed file whose answer was lost leaves nothing else behind: its upload's staging file
// became the target. It is known by what the write gave it, the source's size and exact
// time; a file that stood there before with both the same is a copy of this very version.
bool FileTransfer::holdsThisCopy(const Item& item) {
    FileEntry found;
    try {
        found = destination_->stat(item.target);
    } catch (const BackendError& error) {
        if (isRetryable(error)) throw;
        return false;
    }
    return found.type == FileType::file && found.size == item.entry.size && found.mtimeNs == item.entry.mtimeNs;
}

void FileTransfer::setWritten(const std::string& path, uint64_t bytes) {
    {
        std::lock_guard guard(lock_);
        auto found = written_.find(path);
        uint64_t before = found == written_.end() ? 0 : found->second;
        if (bytes <= before) return;
        written_[path] = bytes;
        progress_.doneBytes += bytes - before;
    }
    publish();
}

void FileTransfer::countDone(const std::string& path, uint64_t size, bool skipped) {
    setWritten(path, size);
    {
        std::lock_guard guard(lock_);
        progress_.doneFiles += 1;
        if (skipped) progress_.skippedFiles += 1;
    }
    publish();
}

void FileTransfer::setCurrent(const std::string& path) {
    {
        std::lock_guard guard(lock_);
        progress_.current = path;
    }
    publish();
}

void FileTransfer::publish() {
    // One publisher at a time, so the handler sees the totals in the order they were taken;
    // the state lock itself is never held across the call.
    std::lock_guard publishing(publishLock_);
    Progress copy;
    ProgressHandler handler;
    {
        std::lock_guard guard(lock_);
        copy = progress_;
        handler = onProgress_;
    }
    if (handler) handler(copy);
}

std::vector<std::string> FileTransfer::existing(const std::vector<std::string>& names, const std::string& directory,
                                                FileBackend& backend) {
    std::vector<std::string> found;
    for (const std::string& name : names) {
        try {
            backend.stat(filePath(directory, name));
            found.push_back(name);
        } catch (const std::exception&) {
        }
    }
    return found;
}

bool FileTransfer::isRetryable(const std::exception& error) {
    const auto* backend = dynamic_cast<const BackendError*>(&error);
    return backend && (backend->code() == "disconnected" || backend->code() == "stalled");
}

std::string FileTransfer::uploadID(const std::string& path, const std::string& fingerprint) {
    uint64_t hash = 0xcbf29ce484222325ULL;
    auto mix = [&hash](unsigned char byte) {
        hash ^= byte;
        hash *= 0x100000001b3ULL;
    };
    for (char byte : path) mix(static_cast<unsigned char>(byte));
    mix(0);
    for (char byte : fingerprint) mix(static_cast<unsigned char>(byte));
    char text[17];
    auto end = std::to_chars(text, text + sizeof text, hash, 16).ptr;
    return std::string(text, end);
}

} // namespace corvex
