#include "Vellum/LocalProcessWriteChannel.h"

#include <cerrno>
#include <deque>
#include <fcntl.h>
#include <mutex>
#include <sys/epoll.h>
#include <unistd.h>
#include <utility>

#include "Platform/Poller.h"

namespace vellum {

struct LocalProcessWriteChannel::State {
    struct Request {
        std::vector<unsigned char> data;
        Completion completion;
    };
    using Finished = std::vector<std::pair<Completion, std::pair<int, size_t>>>;

    int fd = -1;
    platform::Poller::Token token = 0;
    std::mutex mutex;
    std::deque<Request> requests;
    size_t frontWritten = 0; // bytes of the oldest request already written
    bool waitingForRoom = false;
    bool closing = false;
    bool stopped = false;

    ~State() {
        if (fd >= 0) ::close(fd);
    }

    // Writes what the child has room for, in order; the completions of what ended are
    // returned to be called outside the lock.
    Finished pumpLocked() {
        Finished finished;
        while (!requests.empty()) {
            auto& front = requests.front();
            if (stopped) {
                finished.push_back({std::move(front.completion), {ECANCELED, frontWritten}});
                requests.pop_front();
                frontWritten = 0;
                continue;
            }
            ssize_t n = front.data.size() > frontWritten
                            ? ::write(fd, front.data.data() + frontWritten, front.data.size() - frontWritten)
                            : 0;
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && errno == EAGAIN) {
                watchForRoomLocked(true);
                return finished;
            }
            if (n < 0) {
                finished.push_back({std::move(front.completion), {errno, frontWritten}});
            } else {
                frontWritten += static_cast<size_t>(n);
                if (frontWritten < front.data.size()) continue;
                finished.push_back({std::move(front.completion), {0, frontWritten}});
            }
            requests.pop_front();
            frontWritten = 0;
        }
        watchForRoomLocked(false);
        return finished;
    }

    void watchForRoomLocked(bool on) {
        if (waitingForRoom == on || token == 0) return;
        waitingForRoom = on;
        platform::Poller::shared().modify(token, on ? uint32_t(EPOLLOUT) : 0u);
    }

    // The descriptor goes once everything accepted has been written or given up.
    bool doneLocked() const { return closing && requests.empty(); }

    static void complete(Finished finished) {
        for (auto& [completion, result] : finished) {
            if (completion) completion(result.first, result.second);
        }
    }

    void pumpAndFinish() {
        Finished finished;
        platform::Poller::Token release = 0;
        {
            std::lock_guard guard(mutex);
            finished = pumpLocked();
            if (doneLocked()) release = std::exchange(token, 0);
        }
        if (release) platform::Poller::shared().remove(release);
        complete(std::move(finished));
        if (release) closeDescriptor();
    }

    void closeDescriptor() {
        std::lock_guard guard(mutex);
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
};

std::shared_ptr<LocalProcessWriteChannel> LocalProcessWriteChannel::open(int fd) {
    auto state = std::make_shared<State>();
    state->fd = fd;
    // Writes wait for room on the poller, never on a thread of their own. The flag is the
    // master's too, whose reader wants it as well.
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return nullptr;
    state->token = platform::Poller::shared().add(fd, 0, [state](uint32_t) { state->pumpAndFinish(); });
    if (state->token == 0) return nullptr;
    return std::shared_ptr<LocalProcessWriteChannel>(new LocalProcessWriteChannel(std::move(state)));
}

// Writes accepted before a close without stop still go out after the handle has gone: the
// poller holds the state until they have.
LocalProcessWriteChannel::~LocalProcessWriteChannel() {
    bool closed;
    {
        std::lock_guard guard(state_->mutex);
        closed = state_->closing;
    }
    if (!closed) close(true);
}

void LocalProcessWriteChannel::write(std::vector<unsigned char> data, Completion completion) {
    {
        std::lock_guard guard(state_->mutex);
        if (!state_->closing) {
            state_->requests.push_back({std::move(data), std::move(completion)});
            // Behind a write that waits for room, this one waits its turn.
            if (state_->waitingForRoom) return;
            completion = nullptr;
        }
    }
    if (completion) return completion(ECANCELED, 0);
    state_->pumpAndFinish();
}

void LocalProcessWriteChannel::close(bool stop) {
    {
        std::lock_guard guard(state_->mutex);
        state_->closing = true;
        if (stop) state_->stopped = true;
    }
    state_->pumpAndFinish();
}

} // namespace vellum
