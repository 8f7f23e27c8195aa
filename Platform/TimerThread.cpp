#include "TimerThread.h"

#include "SerialQueue.h"

namespace platform {

TimerThread::TimerThread(std::string label) : label_(std::move(label)) {
    thread_ = std::thread([this] { run(); });
}

TimerThread::~TimerThread() {
    {
        std::lock_guard guard(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

TimerThread& TimerThread::shared() {
    static TimerThread timers;
    return timers;
}

TimerThread::TimerID TimerThread::schedule(Duration delay, std::function<void()> callback) {
    return add(delay, Duration::zero(), std::move(callback));
}

TimerThread::TimerID TimerThread::scheduleRepeating(Duration interval, std::function<void()> callback) {
    if (interval <= Duration::zero()) interval = std::chrono::milliseconds(1);
    return add(interval, interval, std::move(callback));
}

TimerThread::TimerID TimerThread::add(Duration delay, Duration interval, std::function<void()> callback) {
    TimerID id;
    {
        std::lock_guard guard(mutex_);
        id = nextID_++;
        timers_.emplace(std::chrono::steady_clock::now() + delay, Timer{id, interval, std::move(callback)});
    }
    changed_.notify_all();
    return id;
}

bool TimerThread::cancel(TimerID id) {
    std::lock_guard guard(mutex_);
    for (auto it = timers_.begin(); it != timers_.end(); ++it) {
        if (it->second.id == id) {
            timers_.erase(it);
            return true;
        }
    }
    return false;
}

void TimerThread::run() {
    setCurrentThreadName(label_);
    std::unique_lock guard(mutex_);
    while (!stopping_) {
        if (timers_.empty()) {
            changed_.wait(guard);
            continue;
        }
        auto first = timers_.begin();
        if (first->first > std::chrono::steady_clock::now()) {
            // A copy: a cancel while waiting erases the entry that holds the deadline.
            TimePoint deadline = first->first;
            changed_.wait_until(guard, deadline);
            continue;
        }
        Timer timer = std::move(first->second);
        timers_.erase(first);
        auto callback = timer.callback;
        if (timer.interval > Duration::zero()) {
            timers_.emplace(std::chrono::steady_clock::now() + timer.interval, std::move(timer));
        }
        guard.unlock();
        callback();
        guard.lock();
    }
}

} // namespace platform
