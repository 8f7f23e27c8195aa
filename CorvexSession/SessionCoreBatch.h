#pragma once

// The engine's own translation units only.

#include <memory>
#include <mutex>
#include <vector>

#include "CorvexSession/SessionCore.h"

namespace corvex {

// Events gathered under the state lock and delivered after it is let go, in order.
class SessionCore::Batch {
public:
    explicit Batch(SessionCore& core) : core_(core), lock_(core.lock_) {}
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    ~Batch() {
        if (!events_.empty()) {
            std::lock_guard outbox(core_.outboxLock_);
            for (auto& event : events_) core_.outbox_.push_back(std::move(event));
        }
        lock_.unlock();
        core_.deliver();
        for (const auto& process : hangUps_) process->hangUp();
    }

    void push(SessionEvent event) { events_.push_back(std::move(event)); }
    void hangUp(std::vector<std::shared_ptr<PaneProcess>> processes) {
        hangUps_.insert(hangUps_.end(), processes.begin(), processes.end());
    }
    // Keeps a process until the lock is let go, so that its teardown happens outside it.
    void release(std::shared_ptr<PaneProcess> process) { released_.push_back(std::move(process)); }

private:
    SessionCore& core_;
    std::unique_lock<std::mutex> lock_;
    std::vector<SessionEvent> events_;
    std::vector<std::shared_ptr<PaneProcess>> hangUps_;
    std::vector<std::shared_ptr<PaneProcess>> released_; // destroyed after the lock is let go
};

} // namespace corvex
