#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vellum {

enum class GlyphAtlasFormat : uint8_t { grayscale, bgra };
enum class GlyphAtlasKind : uint8_t { grayscale, color };

struct AtlasRegion {
    int x = 0, y = 0, width = 0, height = 0;
    bool operator==(const AtlasRegion&) const = default;
};

// One square texture into which glyph bitmaps are packed on shelves the first time they are
// met. It grows by doubling up to `maxSize` and, as the last resort, forgets everything; it
// never evicts one glyph. The pixels are kept here too, so growing needs no read-back: the
// GPU side uploads what `takeUpload` says changed since its last look.
class GlyphAtlas {
public:
    // `size` becomes the larger of 256 and the smaller of `size` and `maxSize`; `maxSize` is
    // raised to at least `size`.
    GlyphAtlas(int size, int maxSize, GlyphAtlasFormat format);

    // The largest side allowed: `VELLUM_ATLAS_MAX` when it is a number (at least 256, at most
    // 16384 on a GPU that can hold such textures, 8192 on others), else by format.
    static int recommendedMaxSize(GlyphAtlasFormat format, bool largeTextures);

    // A place for a glyph of this size with a one-pixel gutter all round, or nothing.
    // `didReset()` tells whether this call forgot every earlier region.
    std::optional<AtlasRegion> ensureRegion(int width, int height);
    // Stores a bitmap of BGRA rows, bottom row first, `width` × `height` pixels, which must be
    // the region's size. Grayscale atlases keep the alpha byte as coverage.
    void write(const AtlasRegion& region, const uint8_t* pixels, int width, int height);
    // Stores rows already in the atlas's own format, top row first.
    void writeRows(const AtlasRegion& region, const uint8_t* pixels, int bytesPerRow);

    // While a frame is built from the regions, they must stay where they are.
    void setFrozen(bool frozen) { frozen_ = frozen; }
    bool frozen() const { return frozen_; }
    bool didReset() const { return didReset_; }

    GlyphAtlasFormat format() const { return format_; }
    int bytesPerPixel() const { return bytesPerPixel_; }
    int size() const { return size_; }
    int maxSize() const { return maxSize_; }
    const std::vector<uint8_t>& data() const { return data_; }
    // Rises whenever the texture must be made again (a new side) or refilled (a reset).
    uint64_t textureGeneration() const { return textureGeneration_; }

    // What changed since the last call: the whole texture when its generation moved, else the
    // rectangle of the rows written, or nothing.
    struct Upload {
        bool whole = false;
        AtlasRegion region;
    };
    std::optional<Upload> takeUpload();

    std::string name() const { return format_ == GlyphAtlasFormat::grayscale ? "grayscale" : "color"; }

private:
    std::optional<AtlasRegion> reserve(int width, int height);
    void grow(int newSize);
    void reset();
    void markDirty(const AtlasRegion& region);

    GlyphAtlasFormat format_;
    int bytesPerPixel_;
    int maxSize_;
    int size_;
    std::vector<uint8_t> data_;
    int nextX_ = 0, nextY_ = 0, rowHeight_ = 0;
    bool didReset_ = false;
    bool frozen_ = false;
    bool loggedFrozenMiss_ = false, loggedResetOverflow_ = false;
    uint64_t textureGeneration_ = 1;
    uint64_t uploadedGeneration_ = 0;
    std::optional<AtlasRegion> dirty_;
};

} // namespace vellum
