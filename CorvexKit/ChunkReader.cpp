#include "CorvexKit/ChunkReader.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <unistd.h>

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
    uint64_t amount = static_cast<uint64_t>(chunk_);
    if (end_) amount = *end_ > position_ ? std::min(amount, *end_ - position_) : 0;
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

void ChunkReader::close() {
    std::lock_guard guard(lock_);
    cancelled_ = cancelled_ || fd_ >= 0; // a second close keeps the first one's answer
    closeLocked();
}

uint64_t ChunkReader::position() const {
    std::lock_guard guard(lock_);
    return position_;
}

void ChunkReader::closeLocked() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

ByteBlocks ChunkReader::blocks(std::shared_ptr<ChunkReader> reader) {
    return [reader = std::move(reader)] { return reader->next(); };
}

} // namespace corvex
