#pragma once

#include <vector>

namespace vellum {

// One flag per column; a stop every `width` columns unless set or cleared by the application.
class TabStops {
public:
    // Starts afresh (index -1) or, after a resize, keeps the stops before the old width and
    // continues the regular pattern from the stop before `index`.
    void setup(int cols, int width, int index = -1);
    void set(int col);
    void clear(int col);
    void clearAll();
    bool isSet(int col) const { return col >= 0 && col < static_cast<int>(stops_.size()) && stops_[col]; }
    // The first stop after col, up to `limit` (the right margin or the last column); limit if none.
    int next(int col, int limit) const;
    // The first stop before col, or 0.
    int previous(int col) const;
    int size() const { return static_cast<int>(stops_.size()); }

private:
    std::vector<bool> stops_;
};

} // namespace vellum
