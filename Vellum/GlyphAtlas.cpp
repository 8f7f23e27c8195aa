#include "Vellum/GlyphAtlas.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Vellum/RenderLog.h"

namespace vellum {

GlyphAtlas::GlyphAtlas(int size, int maxSize, GlyphAtlasFormat format)
    : format_(format), bytesPerPixel_(format == GlyphAtlasFormat::grayscale ? 1 : 4) {
    size_ = std::max(256, std::min(size, maxSize));
    maxSize_ = std::max(maxSize, size_);
    data_.assign(size_t(size_) * size_ * bytesPerPixel_, 0);
}

int GlyphAtlas::recommendedMaxSize(GlyphAtlasFormat format, bool largeTextures) {
    if (const char* text = std::getenv("VELLUM_ATLAS_MAX")) {
        std::string_view value(text);
        long number = 0;
        auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
        if (error == std::errc() && end == value.data() + value.size() && !value.empty()) {
            long limit = largeTextures ? 16384 : 8192;
            return int(std::min(std::max(number, 256L), limit));
        }
    }
    return format == GlyphAtlasFormat::grayscale ? 8192 : 4096;
}

std::optional<AtlasRegion> GlyphAtlas::reserve(int width, int height) {
    if (width > size_ || height > size_) return std::nullopt;
    if (nextX_ + width > size_) {
        nextX_ = 0;
        nextY_ += rowHeight_;
        rowHeight_ = 0;
    }
    if (nextY_ + height > size_) return std::nullopt;
    AtlasRegion region{nextX_, nextY_, width, height};
    nextX_ += width;
    rowHeight_ = std::max(rowHeight_, height);
    return region;
}

std::optional<AtlasRegion> GlyphAtlas::ensureRegion(int width, int height) {
    didReset_ = false;
    if (width <= 0 || height <= 0) return std::nullopt;
    int paddedWidth = width + 2, paddedHeight = height + 2;
    auto inner = [&](AtlasRegion padded) { return AtlasRegion{padded.x + 1, padded.y + 1, width, height}; };
    if (auto padded = reserve(paddedWidth, paddedHeight)) return inner(*padded);
    if (frozen_) {
        if (!loggedFrozenMiss_) {
            loggedFrozenMiss_ = true;
            renderLog("glyph atlas (" + name() + ") frozen and full; glyphs will be skipped this frame");
        }
        return std::nullopt;
    }
    if (paddedWidth > maxSize_ || paddedHeight > maxSize_) return std::nullopt;
    int side = size_;
    while (side < maxSize_ && (side < paddedWidth || side < paddedHeight || side < nextY_ + paddedHeight)) side *= 2;
    side = std::min(side, maxSize_);
    if (side > size_) {
        grow(side);
        if (auto padded = reserve(paddedWidth, paddedHeight)) return inner(*padded);
    }
    if (!loggedResetOverflow_) {
        loggedResetOverflow_ = true;
        renderLog("glyph atlas (" + name() + ") reset at size " + std::to_string(size_) +
                  ": glyph working set exceeds capacity");
    }
    reset();
    didReset_ = true;
    if (auto padded = reserve(paddedWidth, paddedHeight)) return inner(*padded);
    return std::nullopt;
}

void GlyphAtlas::grow(int newSize) {
    size_t oldRow = size_t(size_) * bytesPerPixel_, newRow = size_t(newSize) * bytesPerPixel_;
    std::vector<uint8_t> grown(newRow * newSize, 0);
    for (int y = 0; y < size_; ++y) std::memcpy(grown.data() + y * newRow, data_.data() + y * oldRow, oldRow);
    renderLog("glyph atlas (" + name() + ") grow: " + std::to_string(size_) + " -> " + std::to_string(newSize));
    data_.swap(grown);
    size_ = newSize;
    ++textureGeneration_;
    dirty_.reset();
}

void GlyphAtlas::reset() {
    nextX_ = nextY_ = rowHeight_ = 0;
    std::fill(data_.begin(), data_.end(), uint8_t(0));
    ++textureGeneration_;
    dirty_.reset();
}

void GlyphAtlas::write(const AtlasRegion& region, const uint8_t* pixels, int width, int height) {
    if (width != region.width || height != region.height || !pixels) return;
    size_t rowBytes = size_t(size_) * bytesPerPixel_;
    for (int i = 0; i < height; ++i) {
        const uint8_t* source = pixels + size_t(height - 1 - i) * width * 4;
        uint8_t* target = data_.data() + size_t(region.y + i) * rowBytes + size_t(region.x) * bytesPerPixel_;
        if (bytesPerPixel_ == 4) {
            std::memcpy(target, source, size_t(width) * 4);
        } else {
            for (int x = 0; x < width; ++x) target[x] = source[x * 4 + 3];
        }
    }
    markDirty(region);
}

void GlyphAtlas::writeRows(const AtlasRegion& region, const uint8_t* pixels, int bytesPerRow) {
    if (!pixels || region.x < 0 || region.y < 0 || region.x + region.width > size_ || region.y + region.height > size_) return;
    size_t rowBytes = size_t(size_) * bytesPerPixel_;
    for (int i = 0; i < region.height; ++i)
        std::memcpy(data_.data() + size_t(region.y + i) * rowBytes + size_t(region.x) * bytesPerPixel_,
                    pixels + size_t(i) * bytesPerRow, size_t(region.width) * bytesPerPixel_);
    markDirty(region);
}

void GlyphAtlas::markDirty(const AtlasRegion& region) {
    if (!dirty_) {
        dirty_ = region;
        return;
    }
    int left = std::min(dirty_->x, region.x), top = std::min(dirty_->y, region.y);
    int right = std::max(dirty_->x + dirty_->width, region.x + region.width);
    int bottom = std::max(dirty_->y + dirty_->height, region.y + region.height);
    dirty_ = AtlasRegion{left, top, right - left, bottom - top};
}

std::optional<GlyphAtlas::Upload> GlyphAtlas::takeUpload() {
    if (uploadedGeneration_ != textureGeneration_) {
        uploadedGeneration_ = textureGeneration_;
        dirty_.reset();
        return Upload{true, AtlasRegion{0, 0, size_, size_}};
    }
    if (!dirty_) return std::nullopt;
    Upload upload{false, *dirty_};
    dirty_.reset();
    return upload;
}

} // namespace vellum
