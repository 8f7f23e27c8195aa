#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace vellum {

// The write side of one process session: writes go out in order, each with exactly one
// completion, and the descriptor is closed once the channel has stopped. A write goes out at
// once on the caller's thread when the child has room, else waits for room on the shared
// poller, whose thread then completes it. Dropping the last handle of an open channel closes
// it with the stop flag.
class LocalProcessWriteChannel {
public:
    // error is 0 on success, else the errno that ended the write after `written` bytes
    // (ECANCELED when the channel was stopped first).
    using Completion = std::function<void(int error, size_t written)>;

    // Takes ownership of fd. Nothing when it can't be watched (fd is closed then).
    static std::shared_ptr<LocalProcessWriteChannel> open(int fd);
    ~LocalProcessWriteChannel();

    LocalProcessWriteChannel(const LocalProcessWriteChannel&) = delete;
    LocalProcessWriteChannel& operator=(const LocalProcessWriteChannel&) = delete;

    void write(std::vector<unsigned char> data, Completion completion);
    // With stop, writes not yet done end with ECANCELED; without, they finish first.
    void close(bool stop);

    struct State;

private:
    explicit LocalProcessWriteChannel(std::shared_ptr<State> state) : state_(std::move(state)) {}
    std::shared_ptr<State> state_;
};

} // namespace vellum
