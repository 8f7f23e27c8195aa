#pragma once

#include <atomic>
#include <chrono>

namespace platform {

using TimePoint = std::chrono::steady_clock::time_point;
using Duration = std::chrono::steady_clock::duration;

// Where timing logic reads the time, so that tests can move it by hand.
class Clock {
public:
    virtual ~Clock() = default;
    virtual TimePoint now() const = 0;
};

class SystemClock final : public Clock {
public:
    TimePoint now() const override { return std::chrono::steady_clock::now(); }
    static SystemClock& shared() {
        static SystemClock clock;
        return clock;
    }
};

class ManualClock final : public Clock {
public:
    TimePoint now() const override { return TimePoint(Duration(ticks_.load())); }
    void advance(Duration by) { ticks_ += by.count(); }

private:
    std::atomic<Duration::rep> ticks_{std::chrono::duration_cast<Duration>(std::chrono::hours(1)).count()};
};

} // namespace platform
