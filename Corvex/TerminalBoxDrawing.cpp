#include "Corvex/TerminalBoxDrawing.h"

#include <QImage>
#include <QPainter>
#include <unordered_map>

namespace corvex {

namespace {

struct TintedKey {
    char32_t character;
    int width, height;
    QRgb color;
    bool operator==(const TintedKey&) const = default;
};

struct TintedKeyHash {
    size_t operator()(const TintedKey& key) const {
        size_t h = std::hash<uint64_t>{}(uint64_t(key.character) << 32 | uint32_t(key.color));
        return h ^ (std::hash<uint64_t>{}(uint64_t(uint32_t(key.width)) << 32 | uint32_t(key.height)) * 31);
    }
};

// The coverage in the ink's colour, premultiplied, so that painting it is one image blit.
QImage tinted(const vellum::CoverageBitmap& coverage, const QColor& color) {
    QImage image(coverage.width, coverage.height, QImage::Format_ARGB32_Premultiplied);
    for (int y = 0; y < coverage.height; ++y) {
        auto* line = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < coverage.width; ++x) {
            int a = coverage.at(x, y);
            line[x] = qRgba(color.red() * a / 255, color.green() * a / 255, color.blue() * a / 255, a);
        }
    }
    return image;
}

} // namespace

bool drawBoxCharacter(QPainter& painter, char32_t character, const QRect& cell, const QColor& color) {
    if (!isBoxCharacter(character) || cell.width() <= 0 || cell.height() <= 0) return false;
    // Screens repeat a few characters in a few colours; a redraw blits what was drawn before.
    static std::unordered_map<TintedKey, QImage, TintedKeyHash> cache;
    TintedKey key{character, cell.width(), cell.height(), color.rgba()};
    auto found = cache.find(key);
    if (found == cache.end()) {
        vellum::CoverageBitmap coverage;
        if (!vellum::renderSynthesizedGlyph(character, cell.width(), cell.height(), true, coverage)) return false;
        if (cache.size() > 1024) cache.clear();
        found = cache.emplace(key, tinted(coverage, color)).first;
    }
    painter.drawImage(cell.topLeft(), found->second);
    return true;
}

} // namespace corvex
