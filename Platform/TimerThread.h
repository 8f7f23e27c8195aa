#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "Clock.h"

namespace platform {

// One thread that runs callbacks at their deadlines. Callbacks run on the timer thread,
// outside its lock, so they may schedule or cancel other timers.
class TimerThread {
public:
    using TimerID = uint64_t;

    explicit TimerThread(std::string label = "corvex.timers");
    ~TimerThread();

    TimerThread(const TimerThread&) = delete;
    TimerThread& operator=(const TimerThread&) = delete;

    TimerID schedule(Duration delay, std::function<void()> callback);
    TimerID scheduleRepeating(Duration interval, std::function<void()> callback);
    // False when the timer already fired (one-shot) or was never scheduled.
    bool cancel(TimerID id);

    static TimerThread& shared();

private:
    struct Timer {
        TimerID id;
        Duration interval; // zero for one-shot timers
        std::function<void()> callback;
    };

    TimerID add(Duration delay, Duration interval, std::function<void()> callback);
    void run();

    std::string label_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::multimap<TimePoint, Timer> timers_;
    TimerID nextID_ = 1;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace platform
