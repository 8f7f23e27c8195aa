#include "Poller.h"

#include <array>
#include <cerrno>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "SerialQueue.h"

namespace platform {

namespace {
constexpr Poller::Token wakeToken = 0;
constexpr int eventsPerRound = 64;
} // namespace

Poller::Poller(std::string label) : label_(std::move(label)) {
    epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (epollFd_ >= 0 && wakeFd_ >= 0) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = wakeToken;
        ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeFd_, &event);
    }
    thread_ = std::thread([this] { run(); });
}

Poller::~Poller() {
    {
        std::lock_guard guard(mutex_);
        stopping_ = true;
    }
    uint64_t one = 1;
    (void)!::write(wakeFd_, &one, sizeof one);
    if (thread_.joinable()) thread_.join();
    if (epollFd_ >= 0) ::close(epollFd_);
    if (wakeFd_ >= 0) ::close(wakeFd_);
}

Poller& Poller::shared() {
    // Never destroyed: descriptors may still be removed from it while the process exits.
    static auto* poller = new Poller("vellum-io-poller");
    return *poller;
}

Poller::Token Poller::add(int fd, uint32_t events, Handler handler) {
    std::lock_guard guard(mutex_);
    if (epollFd_ < 0 || stopping_) return 0;
    Token token = nextToken_++;
    epoll_event event{};
    event.events = events;
    event.data.u64 = token;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event) != 0) return 0;
    entries_[token] = Entry{fd, std::make_shared<Handler>(std::move(handler))};
    return token;
}

void Poller::modify(Token token, uint32_t events) {
    std::lock_guard guard(mutex_);
    auto found = entries_.find(token);
    if (found == entries_.end()) return;
    epoll_event event{};
    event.events = events;
    event.data.u64 = token;
    ::epoll_ctl(epollFd_, EPOLL_CTL_MOD, found->second.fd, &event);
}

void Poller::remove(Token token) {
    std::unique_lock guard(mutex_);
    auto found = entries_.find(token);
    if (found != entries_.end()) {
        ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, found->second.fd, nullptr);
        entries_.erase(found);
    }
    if (isCurrent()) return;
    handlerDone_.wait(guard, [&] { return running_ != token; });
}

void Poller::run() {
    setCurrentThreadName(label_);
    std::array<epoll_event, eventsPerRound> ready{};
    for (;;) {
        int count = ::epoll_wait(epollFd_, ready.data(), eventsPerRound, -1);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return;
        for (int i = 0; i < count; ++i) {
            Token token = ready[static_cast<size_t>(i)].data.u64;
            if (token == wakeToken) {
                uint64_t value;
                (void)!::read(wakeFd_, &value, sizeof value);
                continue;
            }
            std::shared_ptr<Handler> handler;
            {
                std::lock_guard guard(mutex_);
                // Removed earlier in this round: its event is stale.
                auto found = entries_.find(token);
                if (found == entries_.end()) continue;
                handler = found->second.handler;
                running_ = token;
            }
            (*handler)(ready[static_cast<size_t>(i)].events);
            handler.reset();
            {
                std::lock_guard guard(mutex_);
                running_ = 0;
            }
            handlerDone_.notify_all();
        }
        std::lock_guard guard(mutex_);
        if (stopping_) return;
    }
}

} // namespace platform
