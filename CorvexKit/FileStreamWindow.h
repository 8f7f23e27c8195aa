#pragma once

#include <algorithm>
#include <cstdint>

// The credit rules of one file stream, apart from any connection, so the client's streams and
// the daemon's follow the same arithmetic. Offsets are bytes from the start of the file.
namespace corvex {

struct FileStreamWindow {
    enum class Kind { read, write };

    Kind kind = Kind::read;
    uint64_t window = 0;
    uint64_t chunk = 1; // read: block size, at least 1
    bool ended = false; // the stream has its outcome
    // write
    uint64_t acked = 0; // confirmed by the receiver
    uint64_t sent = 0;
    bool finSent = false;
    // read
    uint64_t received = 0;
    uint64_t readAcked = 0; // acknowledged by this side

    // Write: whether a piece ending at `upTo` may go out now.
    bool hasCreditFor(uint64_t upTo) const { return acked + window >= upTo; }

    // Read: the consumer's position asks for an acknowledgement once a quarter of the window
    // has been taken since the last one, not for each block.
    static bool readAckDue(uint64_t position, uint64_t lastAcked, uint64_t window) {
        return position - lastAcked >= (window >> 2);
    }

    // Read: records an acknowledgement; true when the sender had been held back by this side's
    // slow consumer, whose slowness then mustn't count as a stall.
    bool noteReadAck(uint64_t offset) {
        bool heldBack = readAcked + window < received + std::min(window, chunk);
        readAcked = std::max(readAcked, offset);
        return heldBack;
    }

    // Nothing moved for `idleSeconds` although the other side owed something.
    bool isStalled(double idleSeconds, double timeout) const {
        if (ended || idleSeconds < timeout) return false;
        if (kind == Kind::read) return readAcked + window >= received + std::min(window, chunk);
        if (finSent) return true;
        // Less outstanding than a quarter of the window: the writer waits for its own source.
        return sent >= acked + (std::max<uint64_t>(window, 7) >> 2);
    }
};

} // namespace corvex
