#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "Platform/Clock.h"
#include "Platform/TimerThread.h"

namespace vellum {

// The terminal side of the watchdog: a terminal whose synchronized-output batch can be
// ended from outside. Each batch has a generation, so a late timer can't end a newer one.
class SynchronizedOutputTarget {
public:
    virtual ~SynchronizedOutputTarget() = default;
    virtual uint64_t synchronizedOutputGeneration() = 0;
    // Ends the batch and renders what it held back; takes the terminal lock itself.
    virtual void endSynchronizedOutput() = 0;
};

// The timer thread ("vellum-io-timers") shared by the terminals' timers.
platform::TimerThread& ioTimerQueue();

// Ends a synchronized-output batch that a program opened and never closed.
class SynchronizedOutputWatchdog {
public:
    struct Counters {
        uint64_t armed = 0;
        uint64_t fired = 0;
        uint64_t ended = 0; // fired while the batch was still the armed one
    };

    explicit SynchronizedOutputWatchdog(platform::TimerThread& timers = ioTimerQueue());
    ~SynchronizedOutputWatchdog();

    SynchronizedOutputWatchdog(const SynchronizedOutputWatchdog&) = delete;
    SynchronizedOutputWatchdog& operator=(const SynchronizedOutputWatchdog&) = delete;

    void attach(std::weak_ptr<SynchronizedOutputTarget> terminal);
    // Active: arm for this generation, ending it after the timeout. Inactive: disarm.
    void update(bool active, uint64_t generation, platform::Duration timeout);
    // After it returns no call into the terminal is running or can come.
    void invalidate();
    Counters counters() const;

private:
    struct Target {
        std::mutex mutex;
        std::condition_variable condition;
        std::weak_ptr<SynchronizedOutputTarget> terminal;
        uint64_t armedGeneration = 0;
        std::optional<platform::TimePoint> armedDeadline;
        std::optional<platform::TimerThread::TimerID> timer;
        bool invalidated = false;
        size_t callsInFlight = 0;
        Counters counters;
    };

    static void fire(const std::shared_ptr<Target>& target,
                     const std::shared_ptr<platform::TimerThread::TimerID>& timer);

    platform::TimerThread& timers_;
    std::shared_ptr<Target> target_ = std::make_shared<Target>();
};

} // namespace vellum
