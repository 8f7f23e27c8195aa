#include "MainQueue.h"

namespace platform {

void QueuedWork::post(std::function<void()> work) { ready_.push_back(std::move(work)); }

void QueuedWork::postAt(TimePoint when, std::function<void()> work) { delayed_.emplace(when, std::move(work)); }

void QueuedWork::promoteDue(TimePoint now) {
    while (!delayed_.empty() && delayed_.begin()->first <= now) {
        ready_.push_back(std::move(delayed_.begin()->second));
        delayed_.erase(delayed_.begin());
    }
}

std::function<void()> QueuedWork::takeReady() {
    if (ready_.empty()) return nullptr;
    auto work = std::move(ready_.front());
    ready_.pop_front();
    return work;
}

ManualMainQueue::ManualMainQueue() : mainThread_(std::this_thread::get_id()) {}

void ManualMainQueue::post(std::function<void()> work) {
    {
        std::lock_guard guard(mutex_);
        work_.post(std::move(work));
    }
    posted_.notify_all();
}

void ManualMainQueue::postAfter(Duration delay, std::function<void()> work) {
    std::lock_guard guard(mutex_);
    work_.postAt(clock_.now() + delay, std::move(work));
}

bool ManualMainQueue::isMainThread() const { return std::this_thread::get_id() == mainThread_; }

size_t ManualMainQueue::runPending() {
    size_t count = 0;
    for (;;) {
        std::function<void()> next;
        {
            std::lock_guard guard(mutex_);
            work_.promoteDue(clock_.now());
            next = work_.takeReady();
        }
        if (!next) return count;
        next();
        ++count;
    }
}

void ManualMainQueue::advance(Duration by) {
    // Step deadline by deadline so that work scheduled by due work sees the right time.
    TimePoint target = clock_.now() + by;
    for (;;) {
        runPending();
        Duration step;
        {
            std::lock_guard guard(mutex_);
            if (!work_.hasDelayed() || work_.nextDeadline() > target) break;
            step = work_.nextDeadline() - clock_.now();
        }
        if (step > Duration::zero()) clock_.advance(step);
    }
    Duration rest = target - clock_.now();
    if (rest > Duration::zero()) clock_.advance(rest);
    runPending();
}

bool ManualMainQueue::runUntil(const std::function<bool()>& done, Duration timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        runPending();
        if (done()) return true;
        std::unique_lock guard(mutex_);
        if (!posted_.wait_until(guard, deadline, [&] { return work_.hasReady(); })) {
            guard.unlock();
            runPending();
            return done();
        }
    }
}

void RunLoopMainQueue::post(std::function<void()> work) {
    {
        std::lock_guard guard(mutex_);
        work_.post(std::move(work));
    }
    changed_.notify_all();
}

void RunLoopMainQueue::postAfter(Duration delay, std::function<void()> work) {
    {
        std::lock_guard guard(mutex_);
        work_.postAt(clock().now() + delay, std::move(work));
    }
    changed_.notify_all();
}

bool RunLoopMainQueue::isMainThread() const {
    std::lock_guard guard(mutex_);
    return std::this_thread::get_id() == runner_;
}

void RunLoopMainQueue::run() {
    std::unique_lock guard(mutex_);
    runner_ = std::this_thread::get_id();
    while (!stopped_) {
        work_.promoteDue(clock().now());
        if (auto next = work_.takeReady()) {
            guard.unlock();
            next();
            next = nullptr;
            guard.lock();
            continue;
        }
        if (work_.hasDelayed()) {
            changed_.wait_until(guard, work_.nextDeadline());
        } else {
            changed_.wait(guard);
        }
    }
    stopped_ = false;
}

void RunLoopMainQueue::stop() {
    {
        std::lock_guard guard(mutex_);
        stopped_ = true;
    }
    changed_.notify_all();
}

} // namespace platform
