#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace corvex {

// One full-duplex byte stream to a daemon, used for one connection. The reader closes a
// separate read descriptor after its loop; the write descriptor (the socket, when both are
// one) lives until the stream is dropped, so a late write can never meet a reused
// descriptor number: it fails on the shut-down descriptor instead.
class ByteStream : public std::enable_shared_from_this<ByteStream> {
public:
    using DataHandler = std::function<bool(std::string_view bytes)>;
    using CloseHandler = std::function<void(const std::string& reason)>;
    using ShutdownAction = std::function<void()>;
    using CloseReason = std::function<std::optional<std::string>()>;

    static constexpr size_t readBufferSize = 65536;

    // readFD and writeFD may be the same descriptor. onShutdown must make the reader stop
    // (shutting the socket down, ending the child); closeReason may supply a better
    // reason than the reader's own when the far side ended the stream.
    static std::shared_ptr<ByteStream> make(int readFD, int writeFD, ShutdownAction onShutdown,
                                            CloseReason closeReason = {});
    ~ByteStream();

    ByteStream(const ByteStream&) = delete;
    ByteStream& operator=(const ByteStream&) = delete;

    // Reads on a thread named "corvex.corvexd.read" until the end of the stream, an error,
    // or onData yielding false; then calls onClose once with the reason. Call it once.
    void startReading(DataHandler onData, CloseHandler onClose);

    // Writes all of the bytes or gives up silently; the reader learns of a dead peer.
    // Meant for one serial write queue; holds no lock.
    void write(std::string_view bytes);

    // Marks the stream closed by this side and runs onShutdown, both only the first time.
    void shutdown();
    bool isClosed() const;
    // The reason handed to onClose, once the reader has ended.
    std::optional<std::string> finalReason() const;

private:
    ByteStream(int readFD, int writeFD, ShutdownAction onShutdown, CloseReason closeReason);
    void readLoop(const DataHandler& onData, const CloseHandler& onClose);

    const int readFD_;
    const int writeFD_;
    ShutdownAction onShutdown_;
    CloseReason closeReason_;
    mutable std::mutex lock_;
    bool closed_ = false;
    bool reading_ = false;
    bool readClosed_ = false;
    std::optional<std::string> finalReason_;
    bool writeIsSocket_ = true;
};

} // namespace corvex
