#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "CorvexKit/FileModel.h"

namespace corvex {

// Reads an open file in blocks, for a stream's consumer on one side and its cancel function on
// the other: a close during a read waits for the read, and the next call then raises the
// cancellation. Owns the descriptor.
class ChunkReader {
public:
    // `end` absent reads to the end of the file; `chunk` is at least 1.
    ChunkReader(int fd, uint64_t position, std::optional<uint64_t> end, int chunk);
    ~ChunkReader();

    ChunkReader(const ChunkReader&) = delete;
    ChunkReader& operator=(const ChunkReader&) = delete;

    // The next block, nothing at the end; raises cancellationError() after a close.
    std::optional<Bytes> next();
    // Reads up to `most` bytes from where the reader stands into `into`, fewer only at the
    // end; raises as next() does.
    size_t readInto(char* into, size_t most);
    // Copies up to `most` bytes from where the reader stands into `fd` at `at`, inside the
    // kernel where the file systems allow it; 0 at the end. Raises as next() does.
    uint64_t copyInto(int fd, uint64_t at, uint64_t most);
    void close();

    struct Identity {
        uint64_t device = 0;
        uint64_t inode = 0;
    };
    // Of the open file; nothing once closed.
    std::optional<Identity> identity() const;

    uint64_t position() const;
    // The next read or copy starts at `position`.
    void seek(uint64_t position);

    // The reader as a sequence, sharing it with whoever may close it.
    static ByteBlocks blocks(std::shared_ptr<ChunkReader> reader);

private:
    void closeLocked();
    // The bytes left to read, at most `most`.
    uint64_t amountLocked(uint64_t most) const;

    mutable std::mutex lock_;
    int fd_ = -1;
    uint64_t position_ = 0;
    std::optional<uint64_t> end_;
    int chunk_ = 1;
    bool cancelled_ = false;
    bool inKernel_ = true; // copy_file_range, until the file systems refuse it
};

} // namespace corvex
