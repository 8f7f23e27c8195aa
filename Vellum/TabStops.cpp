#include "Vellum/TabStops.h"

#include <algorithm>

namespace vellum {

void TabStops::setup(int cols, int width, int index) {
    cols = std::max(cols, 0);
    width = std::max(width, 1);
    if (index < 0) {
        stops_.assign(static_cast<size_t>(cols), false);
        for (int col = 0; col < cols; col += width) stops_[static_cast<size_t>(col)] = true;
        return;
    }
    stops_.resize(static_cast<size_t>(cols), false);
    int from = previous(std::min(index, cols));
    for (int col = from + width; col < cols; col += width)
        if (col >= index) stops_[static_cast<size_t>(col)] = true;
}

void TabStops::set(int col) {
    if (col >= 0 && col < size()) stops_[static_cast<size_t>(col)] = true;
}

void TabStops::clear(int col) {
    if (col >= 0 && col < size()) stops_[static_cast<size_t>(col)] = false;
}

void TabStops::clearAll() { std::fill(stops_.begin(), stops_.end(), false); }

int TabStops::next(int col, int limit) const {
    limit = std::min(limit, size() - 1);
    for (int c = std::max(col + 1, 0); c <= limit; ++c)
        if (stops_[static_cast<size_t>(c)]) return c;
    return std::max(limit, 0);
}

int TabStops::previous(int col) const {
    for (int c = std::min(col, size()) - 1; c > 0; --c)
        if (stops_[static_cast<size_t>(c)]) return c;
    return 0;
}

} // namespace vellum
