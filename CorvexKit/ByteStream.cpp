#include "CorvexKit/ByteStream.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "Platform/SerialQueue.h"

namespace corvex {

std::shared_ptr<ByteStream> ByteStream::make(int readFD, int writeFD, ShutdownAction onShutdown,
                                             CloseReason closeReason) {
    return std::shared_ptr<ByteStream>(new ByteStream(readFD, writeFD, std::move(onShutdown), std::move(closeReason)));
}

ByteStream::ByteStream(int readFD, int writeFD, ShutdownAction onShutdown, CloseReason closeReason)
    : readFD_(readFD), writeFD_(writeFD), onShutdown_(std::move(onShutdown)), closeReason_(std::move(closeReason)) {}

ByteStream::~ByteStream() {
    if (!readClosed_ && readFD_ != writeFD_) ::close(readFD_);
    ::close(writeFD_);
}

void ByteStream::startReading(DataHandler onData, CloseHandler onClose) {
    {
        std::lock_guard guard(lock_);
        if (reading_) return;
        reading_ = true;
    }
    std::thread([self = shared_from_this(), onData = std::move(onData), onClose = std::move(onClose)] {
        platform::setCurrentThreadName("corvex.corvexd.read");
        self->readLoop(onData, onClose);
    }).detach();
}

void ByteStream::readLoop(const DataHandler& onData, const CloseHandler& onClose) {
    std::vector<char> buffer(readBufferSize);
    std::string loopReason;
    for (;;) {
        ssize_t count = ::read(readFD_, buffer.data(), buffer.size());
        if (count < 0) {
            if (errno == EINTR) continue;
            loopReason = std::string("read failed: ") + std::strerror(errno);
            break;
        }
        if (count == 0) break;
        if (!onData(std::string_view(buffer.data(), static_cast<size_t>(count)))) {
            loopReason = "protocol error";
            break;
        }
    }
    bool closedHere = isClosed();
    shutdown();
    if (readFD_ != writeFD_) {
        ::close(readFD_);
        std::lock_guard guard(lock_);
        readClosed_ = true;
    }

    std::string reason;
    if (closedHere) {
        reason = "reconnecting";
    } else if (auto better = closeReason_ ? closeReason_() : std::nullopt) {
        reason = *better;
    } else if (!loopReason.empty()) {
        reason = loopReason;
    } else {
        reason = "the connection closed";
    }
    {
        std::lock_guard guard(lock_);
        finalReason_ = reason;
    }
    onClose(reason);
}

void ByteStream::write(std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t count;
        if (writeIsSocket_) {
            count = ::send(writeFD_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (count < 0 && errno == ENOTSOCK) {
                writeIsSocket_ = false;
                continue;
            }
        } else {
            count = ::write(writeFD_, bytes.data(), bytes.size());
        }
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return;
        bytes.remove_prefix(static_cast<size_t>(count));
    }
}

void ByteStream::shutdown() {
    ShutdownAction action;
    {
        std::lock_guard guard(lock_);
        if (closed_) return;
        closed_ = true;
        action = std::move(onShutdown_);
    }
    if (action) action();
}

std::optional<std::string> ByteStream::finalReason() const {
    std::lock_guard guard(lock_);
    return finalReason_;
}

bool ByteStream::isClosed() const {
    std::lock_guard guard(lock_);
    return closed_;
}

} // namespace corvex
