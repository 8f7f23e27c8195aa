#include "CorvexKit/ChunkReader.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace corvex {

ChunkReader::ChunkReader(int fd, uint64_t position, std::optional<uint64_t> end, int chunk)
    : fd_(fd), position_(position), end_(end), chunk_(std::max(chunk, 1)) {}

ChunkReader::~ChunkReader() {
    std::lock_guard guard(lock_);
    if (fd_ >= 0) ::close(fd_);
}

std::optional<Bytes> ChunkReader::next() {
    std::lock_guard guard(lock_);
    if (cancelled_) throw cancellationError();
    if (fd_ < 0) return std::nullopt;
    uint64_t amount = amountLocked(static_cast<uint64_t>(chunk_));
    Bytes block(amount);
    ssize_t count = 0;
    if (amount > 0) {
        do {
            count = ::pread(fd_, block.data(), amount, static_cast<off_t>(position_));
        } while (count < 0 && errno == EINTR);
        // A failing read raises the way the file system says; the caller translates it.
        if (count < 0) throw std::system_error(errno, std::generic_category(), "read");
    }
    if (count == 0) {
        closeLocked();
        return std::nullopt;
    }
    block.resize(static_cast<size_t>(count));
    position_ += static_cast<uint64_t>(count);
    return block;
}

size_t ChunkReader::readInto(char* into, size_t most) {
    std::lock_guard guard(lock_);
    if (cancelled_) throw cancellationError();
    size_t amount = static_cast<size_t>(amountLocked(most));
    size_t done = 0;
    while (fd_ >= 0 && done < amount) {
        ssize_t count = ::pread(fd_, into + done, amount - done, static_cast<off_t>(position_));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw std::system_error(errno, std::generic_category(), "read");
        if (count == 0) break;
        done += static_cast<size_t>(count);
        position_ += static_cast<uint64_t>(count);
    }
    return done;
}

uint64_t ChunkReader::amountLocked(uint64_t most) const {
    if (!end_) return most;
    return *end_ > position_ ? std::min(most, *end_ - position_) : 0;
}

namespace {

// The portable way, for file systems that refuse an in-kernel copy between them.
ssize_t copyThroughBuffer(int from, off_t& in, int to, off_t& out, size_t amount) {
    static thread_local std::vector<char> buffer(1u << 20);
    ssize_t count = ::pread(from, buffer.data(), std::min(amount, buffer.size()), in);
    if (count <= 0) return count;
    for (ssize_t done = 0; done < count;) {
        ssize_t written = ::pwrite(to, buffer.data() + done, static_cast<size_t>(count - done), out + done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return -1;
        done += written;
    }
    in += count;
    out += count;
    return count;
}

} // namespace

uint64_t ChunkReader::copyInto(int fd, uint64_t at, uint64_t most) {
    std::lock_guard guard(lock_);
    if (cancelled_) throw cancellationError();
    if (fd_ < 0) return 0;
    uint64_t amount = amountLocked(most);
    off_t in = static_cast<off_t>(position_), out = static_cast<off_t>(at);
    uint64_t copied = 0;
    while (copied < amount) {
        size_t left = static_cast<size_t>(amount - copied);
        ssize_t count = inKernel_ ? ::copy_file_range(fd_, &in, fd, &out, left, 0) : copyThroughBuffer(fd_, in, fd, out, left);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && inKernel_ && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) {
            inKernel_ = false;
            continue;
        }
        if (count < 0) throw std::system_error(errno, std::generic_category(), "copy");
        if (count == 0) break;
        copied += static_cast<uint64_t>(count);
    }
    position_ += copied;
    if (copied == 0) closeLocked();
    return copied;
}

std::optional<ChunkReader::Identity> ChunkReader::identity() const {
    std::lock_guard guard(lock_);
    struct stat record {};
    if (fd_ < 0 || ::fstat(fd_, &record) != 0) return std::nullopt;
    return Identity{static_cast<uint64_t>(record.st_dev), static_cast<uint64_t>(record.st_ino)};
}

void ChunkReader::close() {
    std::lock_guard guard(lock_);
    cancelled_ = cancelled_ || fd_ >= 0; // a second close keeps the first one's answer
    closeLocked();
}

uint64_t ChunkReader::position() const {
    std::lock_guard guard(lock_);
    return position_;
}

void ChunkReader::seek(uint64_t position) {
    std::lock_guard guard(lock_);
    position_ = position;
}

void ChunkReader::closeLocked() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

ByteBlocks ChunkReader::blocks(std::shared_ptr<ChunkReader> reader) {
    return [reader = std::move(reader)] { return reader->next(); };
}

} // namespace corvex
