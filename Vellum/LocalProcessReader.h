#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <thread>

#include "Platform/Locked.h"

namespace vellum {

class LocalProcessReader;

// Receives what a reader reads, on the reader's thread.
class LocalProcessReaderDelegate {
public:
    virtual ~LocalProcessReaderDelegate() = default;
    // The bytes are valid only during the call.
    virtual void readerReceived(LocalProcessReader& reader, std::span<const unsigned char> bytes) = 0;
    virtual void readerReachedEOF(LocalProcessReader& reader) = 0;
};

// The read side of a pseudo-terminal master: one thread ("vellum-io-gather") reads the
// descriptor into a 64 KiB buffer and hands each read to the delegate, which may block;
// that is the backpressure that stops a fast child. The reader owns the descriptor and
// closes it when its thread ends. After an exit it can drain what is left until a
// deadline, so that a background job holding the terminal open can't hold up the report.
class LocalProcessReader : public std::enable_shared_from_this<LocalProcessReader> {
public:
    using Deadline = std::chrono::steady_clock::time_point;

    static std::shared_ptr<LocalProcessReader> create(int fd, std::weak_ptr<LocalProcessReaderDelegate> delegate);
    ~LocalProcessReader();

    LocalProcessReader(const LocalProcessReader&) = delete;
    LocalProcessReader& operator=(const LocalProcessReader&) = delete;

    // Once only. When the thread can't run, the descriptor is closed and EOF reported.
    void start();
    // Read on until end of file or the deadline. False when called from the reader's own thread.
    bool requestDrain(Deadline deadline);
    // Stop reading soon. False when called from the reader's own thread.
    bool requestShutdown();
    // Waits until the thread has ended (its descriptors closed) or the deadline passed;
    // true when it has ended.
    bool waitUntilFinished(std::optional<Deadline> deadline = std::nullopt);
    // Later reads and end of file go nowhere.
    void detachSink();

private:
    enum class RunPhase { streaming, draining, quitting };

    LocalProcessReader(int fd, std::weak_ptr<LocalProcessReaderDelegate> delegate);
    void run();
    void wake();
    void closeDescriptors();
    std::shared_ptr<LocalProcessReaderDelegate> sinkDelegate();

    int fd_;
    int controlReadFd_ = -1;
    int controlWriteFd_ = -1;
    platform::Locked<std::weak_ptr<LocalProcessReaderDelegate>> sink_;

    std::mutex mutex_;
    std::condition_variable condition_;
    RunPhase runPhase_ = RunPhase::streaming;
    Deadline deadline_{};
    bool started_ = false;
    bool finished_ = false;
    bool descriptorsClosed_ = false;
    std::thread::id thread_;
};

} // namespace vellum
