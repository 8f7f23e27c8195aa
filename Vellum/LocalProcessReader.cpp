#include "Vellum/LocalProcessReader.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

#include "Platform/SerialQueue.h"

namespace vellum {

namespace {
constexpr size_t bufferSize = 65536;
}

std::shared_ptr<LocalProcessReader> LocalProcessReader::create(int fd,
                                                               std::weak_ptr<LocalProcessReaderDelegate> delegate) {
    return std::shared_ptr<LocalProcessReader>(new LocalProcessReader(fd, std::move(delegate)));
}

LocalProcessReader::LocalProcessReader(int fd, std::weak_ptr<LocalProcessReaderDelegate> delegate)
    : fd_(fd), sink_(std::move(delegate)) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0) {
        controlReadFd_ = ends[0];
        controlWriteFd_ = ends[1];
    }
}

LocalProcessReader::~LocalProcessReader() { closeDescriptors(); }

void LocalProcessReader::closeDescriptors() {
    std::lock_guard guard(mutex_);
    if (descriptorsClosed_) return;
    descriptorsClosed_ = true;
    for (int* fd : {&fd_, &controlReadFd_, &controlWriteFd_}) {
        if (*fd >= 0) ::close(*fd);
        *fd = -1;
    }
}

std::shared_ptr<LocalProcessReaderDelegate> LocalProcessReader::sinkDelegate() { return sink_.copy().lock(); }

void LocalProcessReader::start() {
    bool usable;
    {
        std::lock_guard guard(mutex_);
        if (started_) return;
        started_ = true;
        int flags = fd_ >= 0 ? fcntl(fd_, F_GETFL) : -1;
        usable = controlReadFd_ >= 0 && flags >= 0 && fcntl(fd_, F_SETFL, flags | O_NONBLOCK) == 0;
        if (usable) {
            try {
                std::thread thread([self = shared_from_this()] { self->run(); });
                thread_ = thread.get_id();
                thread.detach();
            } catch (const std::system_error&) {
                usable = false;
            }
        }
    }
    if (usable) return;
    closeDescriptors();
    if (auto delegate = sinkDelegate()) delegate->readerReachedEOF(*this);
    std::lock_guard guard(mutex_);
    finished_ = true;
    condition_.notify_all();
}

void LocalProcessReader::wake() {
    char byte = 1;
    if (controlWriteFd_ >= 0) (void)!::write(controlWriteFd_, &byte, 1);
    condition_.notify_all();
}

bool LocalProcessReader::requestDrain(Deadline deadline) {
    bool neverStarted, fromReader;
    {
        std::lock_guard guard(mutex_);
        fromReader = std::this_thread::get_id() == thread_;
        if (runPhase_ == RunPhase::streaming) {
            runPhase_ = RunPhase::draining;
            deadline_ = deadline;
        }
        wake();
        neverStarted = !started_;
        if (neverStarted) finished_ = true;
    }
    if (neverStarted) closeDescriptors();
    return !fromReader;
}

bool LocalProcessReader::requestShutdown() {
    bool neverStarted, fromReader;
    {
        std::lock_guard guard(mutex_);
        fromReader = std::this_thread::get_id() == thread_;
        runPhase_ = RunPhase::quitting;
        wake();
        neverStarted = !started_;
        if (neverStarted) finished_ = true;
    }
    if (neverStarted) closeDescriptors();
    return !fromReader;
}

bool LocalProcessReader::waitUntilFinished(std::optional<Deadline> deadline) {
    std::unique_lock guard(mutex_);
    if (!deadline) {
        condition_.wait(guard, [&] { return finished_; });
        return true;
    }
    return condition_.wait_until(guard, *deadline, [&] { return finished_; });
}

void LocalProcessReader::detachSink() { sink_.set({}); }

void LocalProcessReader::run() {
    platform::setCurrentThreadName("vellum-io-gather");
    std::vector<unsigned char> buffer(bufferSize);
    bool reachedEOF = false;
    for (;;) {
        int timeout = -1;
        {
            std::lock_guard guard(mutex_);
            if (runPhase_ == RunPhase::quitting) break;
            if (runPhase_ == RunPhase::draining) {
                auto left = deadline_ - std::chrono::steady_clock::now();
                if (left <= Deadline::duration::zero()) break;
                timeout = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
            }
        }
        pollfd entries[2] = {{fd_, POLLIN, 0}, {controlReadFd_, POLLIN, 0}};
        int ready = poll(entries, 2, timeout);
        if (ready < 0 && errno != EINTR) {
            reachedEOF = true;
            break;
        }
        if (ready <= 0) continue;
        if (entries[1].revents) {
            char drain[16];
            while (::read(controlReadFd_, drain, sizeof(drain)) > 0) {
            }
            continue;
        }
        ssize_t n = ::read(fd_, buffer.data(), buffer.size());
        if (n > 0) {
            if (auto delegate = sinkDelegate()) {
                delegate->readerReceived(*this, std::span(buffer.data(), static_cast<size_t>(n)));
            }
            continue;
        }
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        // 0, or EIO once the last holder of the terminal's other side has gone.
        reachedEOF = true;
        break;
    }
    if (reachedEOF) {
        if (auto delegate = sinkDelegate()) delegate->readerReachedEOF(*this);
    }
    closeDescriptors();
    std::lock_guard guard(mutex_);
    finished_ = true;
    condition_.notify_all();
}

} // namespace vellum
