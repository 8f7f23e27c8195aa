#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

namespace platform {

// An unbounded multi-producer, single-reader queue. Closing wakes the reader, which
// still drains what was sent before the close.
template <typename T>
class Channel {
public:
    // False when the channel is already closed; the value is then dropped.
    bool send(T value) {
        {
            std::lock_guard guard(mutex_);
            if (closed_) return false;
            items_.push_back(std::move(value));
        }
        ready_.notify_one();
        return true;
    }

    // Blocks until a value arrives, or returns nothing once closed and drained.
    std::optional<T> receive() {
        std::unique_lock guard(mutex_);
        ready_.wait(guard, [&] { return !items_.empty() || closed_; });
        return takeLocked();
    }

    // Like receive, but gives up after the timeout.
    template <typename Rep, typename Period>
    std::optional<T> receive(std::chrono::duration<Rep, Period> timeout) {
        std::unique_lock guard(mutex_);
        ready_.wait_for(guard, timeout, [&] { return !items_.empty() || closed_; });
        return takeLocked();
    }

    std::optional<T> tryReceive() {
        std::lock_guard guard(mutex_);
        return takeLocked();
    }

    void close() {
        {
            std::lock_guard guard(mutex_);
            closed_ = true;
        }
        ready_.notify_all();
    }

    bool isClosed() const {
        std::lock_guard guard(mutex_);
        return closed_;
    }

    size_t size() const {
        std::lock_guard guard(mutex_);
        return items_.size();
    }

private:
    std::optional<T> takeLocked() {
        if (items_.empty()) return std::nullopt;
        std::optional<T> value(std::move(items_.front()));
        items_.pop_front();
        return value;
    }

    mutable std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<T> items_;
    bool closed_ = false;
};

} // namespace platform
