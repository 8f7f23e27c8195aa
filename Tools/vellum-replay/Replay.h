#pragma once

#include <string>
#include <string_view>

namespace vellum::replay {

struct ReplayOptions {
    int cols = 80;
    int rows = 24;
    int scrollback = 1000;
    size_t chunk = 0; // 0: the whole input at once
    bool cells = false;
};

// Feeds `bytes` in chunks to a headless terminal and gives its state as one JSON object.
std::string replay(std::string_view bytes, const ReplayOptions& options);

} // namespace vellum::replay
