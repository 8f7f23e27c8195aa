#include "Vellum/WheelInput.h"

#include <algorithm>

namespace vellum {

WheelRoute chooseWheelRoute(const WheelRouteInputs& in) {
    if (in.bypass) return in.alternateBuffer ? WheelRoute::none : WheelRoute::localScrollback;
    if (in.reportingAllowed && in.mouseMode != 0) return WheelRoute::mouse;
    if (in.alternateBuffer) return in.alternateScroll ? WheelRoute::cursorKeys : WheelRoute::none;
    return WheelRoute::localScrollback;
}

int notchLines(double distance, double deltaY) {
    int lines = int(std::lround(distance));
    if (lines == 0 && deltaY != 0) lines = deltaY > 0 ? 1 : -1;
    return lines;
}

int WheelReportBudget::grant(int requested, uint64_t nowNanoseconds) {
    if (requested < 1) return 0;
    if (nowNanoseconds >= stampNanoseconds) {
        allowance = std::min(capacity, allowance + double(nowNanoseconds - stampNanoseconds) / 1e9 * ratePerSecond);
        stampNanoseconds = nowNanoseconds;
    }
    int granted = std::min(requested, int(std::floor(allowance)));
    allowance -= granted;
    return granted;
}

} // namespace vellum
