#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace vellum {

// An image placed on rows of the screen (sixel, inline images). Immutable once made, so rows
// and snapshots share it.
struct TerminalImage {
    uint64_t identifier = 0;
    int column = 0;          // first cell column the image covers
    int columnCount = 0;     // cells covered across
    int rowCount = 0;        // cells covered down
    int pixelWidth = 0;
    int pixelHeight = 0;
    std::shared_ptr<const std::vector<uint8_t>> rgba; // pixelWidth * pixelHeight * 4 bytes
};

} // namespace vellum
