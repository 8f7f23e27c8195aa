#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace platform {

// One thread that waits on many descriptors at once (epoll), so that a process with hundreds
// of pseudo-terminals and children doesn't need a thread for each. Handlers run on the
// poller thread and must not block: they read what is there, hand it on and return.
// Interest is level-triggered: a descriptor that stays readable is reported again on the
// next round, after every other ready descriptor had its turn.
class Poller {
public:
    using Token = uint64_t;
    using Handler = std::function<void(uint32_t events)>;

    explicit Poller(std::string label = "corvex.poller");
    ~Poller();

    Poller(const Poller&) = delete;
    Poller& operator=(const Poller&) = delete;

    // Watches fd for `events` (EPOLLIN, EPOLLOUT...); 0 when it can't be watched. The
    // descriptor stays the caller's and must stay open until removed.
    Token add(int fd, uint32_t events, Handler handler);
    // Changes what is watched; 0 events pauses the descriptor without forgetting it.
    void modify(Token token, uint32_t events);
    // Once it returns, the handler isn't running and won't run again, except when called
    // from that handler itself, which then simply finishes.
    void remove(Token token);
    bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

    // The process-wide poller.
    static Poller& shared();

private:
    struct Entry {
        int fd = -1;
        std::shared_ptr<Handler> handler;
    };

    void run();

    std::string label_;
    int epollFd_ = -1;
    int wakeFd_ = -1;
    mutable std::mutex mutex_;
    std::condition_variable handlerDone_;
    std::map<Token, Entry> entries_;
    Token nextToken_ = 1;
    Token running_ = 0; // the token whose handler runs now
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace platform
