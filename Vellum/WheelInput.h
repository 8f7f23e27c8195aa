#pragma once

#include <cmath>
#include <cstdint>
#include <optional>

namespace vellum {

// Where a wheel event goes.
enum class WheelRoute : uint8_t { mouse, cursorKeys, localScrollback, none };

struct WheelRouteInputs {
    bool bypass = false;           // Shift, or another modifier that takes the wheel from the program
    bool reportingAllowed = true;  // the view lets programs have the mouse
    int mouseMode = 0;             // the terminal's tracking mode, 0 for none
    bool alternateBuffer = false;
    bool alternateScroll = false;  // mode 1007: the wheel sends cursor keys on the alternate screen
};

WheelRoute chooseWheelRoute(const WheelRouteInputs& inputs);

// The part of a line that a smooth (trackpad) scroll has not yet acted on, and the route it
// belongs to: half a line twice gives one line, and the fraction keeps its sign.
template <typename Route>
struct WheelDistanceAccumulator {
    double remainder = 0;
    std::optional<Route> route;

    // Whole lines in `distance` (pixels) plus what was left over; a new route starts from 0.
    int takeWholeLines(Route next, double distance, double cellHeight) {
        if (route != next) remainder = 0;
        route = next;
        if (!(cellHeight > 0)) return 0;
        remainder += distance / cellHeight;
        double whole = std::trunc(remainder);
        remainder -= whole;
        return int(whole);
    }
    void clear() {
        remainder = 0;
        route.reset();
    }
};

// Lines for one notch of a wheel without smooth deltas: the rounded distance, and never less
// than one line in the direction of the event.
int notchLines(double distance, double deltaY);

// A token bucket for wheel reports to a program: it fills at `ratePerSecond` up to `capacity`,
// so that a flick cannot flood the program. What is refused is dropped, not queued.
struct WheelReportBudget {
    static constexpr double ratePerSecond = 100;
    static constexpr double capacity = 6; // one event's worth
    static constexpr int maximumPerEvent = 6;

    double allowance = capacity;
    uint64_t stampNanoseconds = 0;

    int grant(int requested, uint64_t nowNanoseconds);
};

} // namespace vellum
