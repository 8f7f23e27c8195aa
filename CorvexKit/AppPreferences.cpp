#include "CorvexKit/AppPreferences.h"

#include <algorithm>
#include <cmath>

namespace corvex::prefs {

double sidebarWidth(std::optional<double> stored) {
    if (!stored || !(*stored > 0)) return defaultSidebarWidth;
    return std::clamp(*stored, minSidebarWidth, maxSidebarWidth);
}

double uiScale(std::optional<double> stored) {
    if (!stored || !std::isfinite(*stored)) return 1.0;
    double rounded = std::round(*stored * 10) / 10;
    return std::clamp(rounded, 0.8, 1.6);
}

double fontSize(std::optional<double> stored) {
    if (!stored || !(*stored > 0)) return defaultFontSize;
    return std::clamp(*stored, 8.0, 32.0);
}

std::string appearance(std::optional<std::string> stored) {
    if (stored == "light" || stored == "dark") return *stored;
    return "system";
}

} // namespace corvex::prefs
