#include "Vellum/LocalProcessWriteChannel.h"

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "Platform/SerialQueue.h"

namespace vellum {

struct LocalProcessWriteChannel::State {
    struct Request {
        std::vector<unsigned char> data;
        Completion completion;
    };

    int fd = -1;
    int wakeFd = -1; // readable once the channel is stopped, to end a wait for room
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<Request> requests;
    bool closing = false;
    bool stopped = false;

    ~State() {
        if (fd >= 0) ::close(fd);
        if (wakeFd >= 0) ::close(wakeFd);
    }

    bool isStopped() {
        std::lock_guard guard(mutex);
        return stopped;
    }

    // Writes all of data unless an error or a stop comes first; returns {errno, written}.
    std::pair<int, size_t> writeAll(const std::vector<unsigned char>& data) {
        size_t written = 0;
        while (written < data.size()) {
            if (isStopped()) return {ECANCELED, written};
            ssize_t n = ::write(fd, data.data() + written, data.size() - written);
            if (n > 0) {
                written += static_cast<size_t>(n);
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && errno != EAGAIN) return {errno, written};
            // The master shares its non-blocking flag with this duplicate: wait for room.
            pollfd entries[2] = {{fd, POLLOUT, 0}, {wakeFd, POLLIN, 0}};
            if (poll(entries, 2, -1) < 0 && errno != EINTR) return {errno, written};
        }
        return {0, written};
    }

    void run() {
        platform::setCurrentThreadName("vellum-writer");
        for (;;) {
            Request request;
            {
                std::unique_lock guard(mutex);
                ready.wait(guard, [&] { return closing || !requests.empty(); });
                if (requests.empty()) break;
                request = std::move(requests.front());
                requests.pop_front();
            }
            auto [error, written] = writeAll(request.data);
            if (request.completion) request.completion(error, written);
        }
        ::close(fd);
        fd = -1;
    }
};

std::shared_ptr<LocalProcessWriteChannel> LocalProcessWriteChannel::open(int fd) {
    auto state = std::make_shared<State>();
    state->fd = fd;
    state->wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (state->wakeFd < 0) return nullptr;
    try {
        std::thread([state] { state->run(); }).detach();
    } catch (const std::system_error&) {
        return nullptr;
    }
    return std::shared_ptr<LocalProcessWriteChannel>(new LocalProcessWriteChannel(std::move(state)));
}

LocalProcessWriteChannel::~LocalProcessWriteChannel() { close(true); }

void LocalProcessWriteChannel::write(std::vector<unsigned char> data, Completion completion) {
    {
        std::lock_guard guard(state_->mutex);
        if (!state_->closing) {
            state_->requests.push_back({std::move(data), std::move(completion)});
            state_->ready.notify_one();
            return;
        }
    }
    if (completion) completion(ECANCELED, 0);
}

void LocalProcessWriteChannel::close(bool stop) {
    std::lock_guard guard(state_->mutex);
    state_->closing = true;
    if (stop && !state_->stopped) {
        state_->stopped = true;
        uint64_t one = 1;
        (void)!::write(state_->wakeFd, &one, sizeof(one));
    }
    state_->ready.notify_one();
}

} // namespace vellum
