#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "Clock.h"

namespace platform {

// The main thread's queue as the core libraries see it: the app backs it with its event
// loop, the daemon and tools with RunLoopMainQueue, tests with ManualMainQueue.
class MainQueue {
public:
    virtual ~MainQueue() = default;
    // Thread-safe; the work runs later on the main thread, in posting order.
    virtual void post(std::function<void()> work) = 0;
    virtual void postAfter(Duration delay, std::function<void()> work) = 0;
    virtual bool isMainThread() const = 0;
    // The clock that postAfter measures delays with.
    virtual const Clock& clock() const = 0;
};

// Shared bookkeeping of ready and delayed work for the two loop implementations.
class QueuedWork {
public:
    void post(std::function<void()> work);
    void postAt(TimePoint when, std::function<void()> work);
    // Moves every delayed item due at `now` to the ready list.
    void promoteDue(TimePoint now);
    std::function<void()> takeReady();
    bool hasReady() const { return !ready_.empty(); }
    bool hasDelayed() const { return !delayed_.empty(); }
    TimePoint nextDeadline() const { return delayed_.begin()->first; }

private:
    std::deque<std::function<void()>> ready_;
    std::multimap<TimePoint, std::function<void()>> delayed_;
};

// A main queue for tests. Time stands still until advance() moves it, so timing logic can be
// tested without sleeping; work posted from other threads runs when the test pumps.
class ManualMainQueue final : public MainQueue {
public:
    ManualMainQueue();

    void post(std::function<void()> work) override;
    void postAfter(Duration delay, std::function<void()> work) override;
    bool isMainThread() const override;
    const Clock& clock() const override { return clock_; }

    // Runs ready work, including work posted while running, and returns how much ran.
    size_t runPending();
    // Moves time forward and runs what becomes due, in deadline order.
    void advance(Duration by);
    // Pumps (waiting in real time for posts from other threads) until done() holds or the
    // timeout passes. Returns done().
    bool runUntil(const std::function<bool()>& done, Duration timeout = std::chrono::seconds(5));

private:
    mutable std::mutex mutex_;
    std::condition_variable posted_;
    QueuedWork work_;
    ManualClock clock_;
    std::thread::id mainThread_;
};

// A main queue served by whichever thread calls run(), until stop().
class RunLoopMainQueue final : public MainQueue {
public:
    void post(std::function<void()> work) override;
    void postAfter(Duration delay, std::function<void()> work) override;
    bool isMainThread() const override;
    const Clock& clock() const override { return SystemClock::shared(); }

    void run();
    void stop();

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    QueuedWork work_;
    std::thread::id runner_;
    bool stopped_ = false;
};

} // namespace platform
