#include "Vellum/GlyphRasterizer.h"

#include <fontconfig/fontconfig.h>
#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_OUTLINE_H
#include <hb-ft.h>
#include <hb.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <stdexcept>
#include <unordered_map>

#include "Platform/Unicode.h"

namespace vellum {

namespace {

struct Face {
    FT_Face face = nullptr;
    hb_font_t* font = nullptr;
    FT_Int32 loadFlags = FT_LOAD_DEFAULT;
    bool color = false;      // a bitmap colour font, scaled to the cell
    bool embolden = false;   // bold asked for, and the font has none
    ~Face() {
        if (font) hb_font_destroy(font);
        if (face) FT_Done_Face(face);
    }
};

// Load flags for the hinting a pattern asks for.
FT_Int32 loadFlagsFor(FcPattern* pattern) {
    FcBool hinting = FcTrue, autohint = FcFalse, antialias = FcTrue;
    int hintStyle = FC_HINT_SLIGHT;
    FcPatternGetBool(pattern, FC_HINTING, 0, &hinting);
    FcPatternGetBool(pattern, FC_AUTOHINT, 0, &autohint);
    FcPatternGetBool(pattern, FC_ANTIALIAS, 0, &antialias);
    FcPatternGetInteger(pattern, FC_HINT_STYLE, 0, &hintStyle);
    FT_Int32 flags = FT_LOAD_DEFAULT;
    if (!hinting || hintStyle == FC_HINT_NONE) flags |= FT_LOAD_NO_HINTING;
    else if (autohint || hintStyle == FC_HINT_SLIGHT) flags |= FT_LOAD_TARGET_LIGHT;
    if (autohint) flags |= FT_LOAD_FORCE_AUTOHINT;
    if (!antialias) flags |= FT_LOAD_TARGET_MONO;
    return flags;
}

bool isEmojiCluster(const std::u32string& scalars, int cells) {
    if (scalars.empty()) return false;
    if (scalars.find(0xFE0F) != std::u32string::npos) return true;
    return cells == 2 && (platform::unicode::isExtendedPictographic(scalars[0]) ||
                          platform::unicode::isRegionalIndicator(scalars[0]));
}

// Box-filtered scaling of a BGRA bitmap, for colour fonts that only come at fixed sizes.
void scaleBgra(const uint8_t* source, int sw, int sh, int pitch, RasterGlyph& out) {
    out.pixels.assign(size_t(out.width) * out.height * 4, 0);
    for (int y = 0; y < out.height; ++y) {
        int y0 = y * sh / out.height, y1 = std::max(y0 + 1, (y + 1) * sh / out.height);
        for (int x = 0; x < out.width; ++x) {
            int x0 = x * sw / out.width, x1 = std::max(x0 + 1, (x + 1) * sw / out.width);
            uint32_t sum[4] = {0, 0, 0, 0};
            for (int sy = y0; sy < y1; ++sy)
                for (int sx = x0; sx < x1; ++sx)
                    for (int c = 0; c < 4; ++c) sum[c] += source[sy * pitch + sx * 4 + c];
            uint32_t count = uint32_t((y1 - y0) * (x1 - x0));
            for (int c = 0; c < 4; ++c) out.pixels[(size_t(y) * out.width + x) * 4 + c] = uint8_t(sum[c] / count);
        }
    }
}

} // namespace

struct GlyphRasterizer::Impl {
    FT_Library library = nullptr;
    std::string family;
    double pixelSize = 0;
    CellMetrics metrics;
    std::map<std::pair<std::string, int>, std::unique_ptr<Face>> facesByFile;
    Face* styles[4] = {};
    Face* emoji = nullptr;
    bool emojiLooked = false;
    std::unordered_map<char32_t, Face*> fallbackByScalar;
    hb_buffer_t* buffer = nullptr;

    ~Impl() {
        if (buffer) hb_buffer_destroy(buffer);
        facesByFile.clear();
        if (library) FT_Done_FreeType(library);
    }

    Face* openMatch(FcPattern* request, bool wantBold) {
        FcConfigSubstitute(nullptr, request, FcMatchPattern);
        FcDefaultSubstitute(request);
        FcResult result;
        FcPattern* match = FcFontMatch(nullptr, request, &result);
        if (!match) return nullptr;
        FcChar8* file = nullptr;
        int index = 0;
        Face* out = nullptr;
        if (FcPatternGetString(match, FC_FILE, 0, &file) == FcResultMatch) {
            FcPatternGetInteger(match, FC_INDEX, 0, &index);
            int weight = FC_WEIGHT_REGULAR;
            FcPatternGetInteger(match, FC_WEIGHT, 0, &weight);
            auto key = std::pair{std::string(reinterpret_cast<const char*>(file)), index * 2 + (wantBold && weight < FC_WEIGHT_BOLD)};
            auto& slot = facesByFile[key];
            if (!slot) slot = openFace(key.first, index, loadFlagsFor(match), wantBold && weight < FC_WEIGHT_BOLD);
            out = slot.get();
        }
        FcPatternDestroy(match);
        return out;
    }

    std::unique_ptr<Face> openFace(const std::string& path, int index, FT_Int32 flags, bool embolden) {
        FT_Face face = nullptr;
        if (FT_New_Face(library, path.c_str(), index, &face) != 0) return nullptr;
        auto out = std::make_unique<Face>();
        out->face = face;
        out->embolden = embolden;
        if (FT_HAS_COLOR(face) && !FT_IS_SCALABLE(face) && face->num_fixed_sizes > 0) {
            // A bitmap colour font: take the strike nearest the cell height, scale later.
            int best = 0;
            for (int i = 1; i < face->num_fixed_sizes; ++i)
                if (std::abs(face->available_sizes[i].height - metrics.height) <
                    std::abs(face->available_sizes[best].height - metrics.height))
                    best = i;
            FT_Select_Size(face, best);
            out->color = true;
            out->loadFlags = FT_LOAD_COLOR;
        } else {
            FT_Set_Char_Size(face, 0, FT_F26Dot6(std::lround(pixelSize * 64)), 72, 72);
            out->loadFlags = flags | (FT_HAS_COLOR(face) ? FT_LOAD_COLOR : 0);
            out->color = false;
        }
        out->font = hb_ft_font_create_referenced(face);
        hb_ft_font_set_load_flags(out->font, out->loadFlags);
        return out;
    }

    Face* styleFace(FontStyle style) {
        int i = int(style);
        if (styles[i]) return styles[i];
        FcPattern* request = FcPatternCreate();
        FcPatternAddString(request, FC_FAMILY, reinterpret_cast<const FcChar8*>(family.c_str()));
        FcPatternAddDouble(request, FC_PIXEL_SIZE, pixelSize);
        FcPatternAddInteger(request, FC_SPACING, FC_MONO);
        bool bold = style == FontStyle::bold || style == FontStyle::boldItalic;
        bool italic = style == FontStyle::italic || style == FontStyle::boldItalic;
        FcPatternAddInteger(request, FC_WEIGHT, bold ? FC_WEIGHT_BOLD : FC_WEIGHT_REGULAR);
        FcPatternAddInteger(request, FC_SLANT, italic ? FC_SLANT_ITALIC : FC_SLANT_ROMAN);
        styles[i] = openMatch(request, bold);
        FcPatternDestroy(request);
        if (!styles[i]) styles[i] = styles[0];
        return styles[i];
    }

    Face* emojiFace() {
        if (emojiLooked) return emoji;
        emojiLooked = true;
        FcPattern* request = FcPatternCreate();
        FcPatternAddString(request, FC_FAMILY, reinterpret_cast<const FcChar8*>("Noto Color Emoji"));
        FcPatternAddBool(request, FC_COLOR, FcTrue);
        Face* face = openMatch(request, false);
        FcPatternDestroy(request);
        if (face && FT_HAS_COLOR(face->face)) emoji = face;
        return emoji;
    }

    static bool covers(Face* face, const std::u32string& scalars) {
        for (char32_t c : scalars) {
            if (c == 0x200D || (c >= 0xFE00 && c <= 0xFE0F)) continue; // joiners and selectors
            if (FT_Get_Char_Index(face->face, c) == 0) return false;
        }
        return true;
    }

    Face* fallbackFor(char32_t scalar) {
        auto found = fallbackByScalar.find(scalar);
        if (found != fallbackByScalar.end()) return found->second;
        FcPattern* request = FcPatternCreate();
        FcCharSet* set = FcCharSetCreate();
        FcCharSetAddChar(set, scalar);
        FcPatternAddCharSet(request, FC_CHARSET, set);
        FcPatternAddDouble(request, FC_PIXEL_SIZE, pixelSize);
        Face* face = openMatch(request, false);
        FcCharSetDestroy(set);
        FcPatternDestroy(request);
        fallbackByScalar.emplace(scalar, face);
        return face;
    }

    Face* faceFor(const std::u32string& scalars, int cells, FontStyle style) {
        if (isEmojiCluster(scalars, cells))
            if (Face* face = emojiFace(); face && covers(face, scalars)) return face;
        Face* face = styleFace(style);
        if (face && covers(face, scalars)) return face;
        for (char32_t c : scalars)
            if (FT_Get_Char_Index(face->face, c) == 0)
                if (Face* other = fallbackFor(c)) return other;
        return face;
    }

    void measure() {
        Face* face = styleFace(FontStyle::regular);
        if (!face) throw std::runtime_error("no font matches \"" + family + "\"");
        FT_Face f = face->face;
        double scale = f->size->metrics.y_scale / 65536.0 / 64.0; // font units to pixels
        double ascender = f->size->metrics.ascender / 64.0, descender = -f->size->metrics.descender / 64.0;
        double advance = pixelSize * 0.6;
        if (FT_Load_Char(f, 'M', FT_LOAD_DEFAULT | FT_LOAD_NO_HINTING) == 0) advance = f->glyph->advance.x / 64.0;
        metrics.width = std::max(1, int(std::ceil(advance - 0.001)));
        metrics.height = std::max(1, int(std::ceil(ascender + descender - 0.001)));
        metrics.ascent = int(std::lround(ascender));
        metrics.lineThickness = std::max(1, int(std::lround(f->underline_thickness * scale)));
        metrics.underlinePosition = std::min(metrics.height - metrics.lineThickness,
                                             metrics.ascent - int(std::lround(f->underline_position * scale)));
        metrics.strikePosition = metrics.ascent - int(std::lround(ascender * 0.3));
    }
};

GlyphRasterizer::GlyphRasterizer(const std::string& family, double pixelSize) : impl_(std::make_unique<Impl>()) {
    if (FT_Init_FreeType(&impl_->library) != 0) throw std::runtime_error("FreeType could not start");
    FcInit();
    impl_->family = family;
    impl_->pixelSize = pixelSize;
    impl_->buffer = hb_buffer_create();
    impl_->measure();
}

GlyphRasterizer::~GlyphRasterizer() = default;

const CellMetrics& GlyphRasterizer::metrics() const { return impl_->metrics; }
const std::string& GlyphRasterizer::family() const { return impl_->family; }
double GlyphRasterizer::pixelSize() const { return impl_->pixelSize; }

void GlyphRasterizer::rasterize(std::string_view cluster, int cells, FontStyle style, std::vector<RasterGlyph>& out) {
    out.clear();
    std::u32string scalars = platform::unicode::decodeUtf8(cluster);
    if (std::all_of(scalars.begin(), scalars.end(), [](char32_t c) { return c == U' '; })) return;
    cells = std::max(cells, 1);
    Face* face = impl_->faceFor(scalars, cells, style);
    if (!face) return;
    hb_buffer_t* buffer = impl_->buffer;
    hb_buffer_reset(buffer);
    hb_buffer_add_utf8(buffer, cluster.data(), int(cluster.size()), 0, int(cluster.size()));
    hb_buffer_guess_segment_properties(buffer);
    hb_shape(face->font, buffer, nullptr, 0);
    unsigned count = 0;
    hb_glyph_info_t* infos = hb_buffer_get_glyph_infos(buffer, &count);
    hb_glyph_position_t* positions = hb_buffer_get_glyph_positions(buffer, &count);
    const CellMetrics& m = impl_->metrics;
    int boxWidth = m.width * cells;
    double penX = 0;
    for (unsigned i = 0; i < count; ++i) {
        FT_Face f = face->face;
        if (FT_Load_Glyph(f, infos[i].codepoint, face->loadFlags) != 0) continue;
        if (face->embolden && f->glyph->format == FT_GLYPH_FORMAT_OUTLINE)
            FT_Outline_Embolden(&f->glyph->outline, std::max<FT_Pos>(32, FT_Pos(impl_->pixelSize * 2)));
        if (FT_Render_Glyph(f->glyph, FT_RENDER_MODE_NORMAL) != 0) continue;
        const FT_Bitmap& bitmap = f->glyph->bitmap;
        RasterGlyph glyph;
        if (bitmap.width == 0 || bitmap.rows == 0) {
            penX += positions[i].x_advance / 64.0;
            continue;
        }
        if (bitmap.pixel_mode == FT_PIXEL_MODE_BGRA) {
            glyph.color = true;
            // Fit the picture into the cells, keeping its shape, centred.
            double scale = std::min(double(boxWidth) / bitmap.width, double(m.height) / bitmap.rows);
            if (!face->color) scale = std::min(scale, 1.0);
            glyph.width = std::max(1, int(std::lround(bitmap.width * scale)));
            glyph.height = std::max(1, int(std::lround(bitmap.rows * scale)));
            glyph.left = (boxWidth - glyph.width) / 2;
            glyph.top = (m.height - glyph.height) / 2;
            scaleBgra(bitmap.buffer, int(bitmap.width), int(bitmap.rows), bitmap.pitch, glyph);
            out.push_back(std::move(glyph));
            if (face->color) break; // a colour cluster is one picture
            continue;
        }
        glyph.width = int(bitmap.width);
        glyph.height = int(bitmap.rows);
        glyph.left = int(std::lround(penX + positions[i].x_offset / 64.0)) + f->glyph->bitmap_left;
        glyph.top = m.ascent - f->glyph->bitmap_top - int(std::lround(positions[i].y_offset / 64.0));
        glyph.pixels.resize(size_t(glyph.width) * glyph.height);
        for (int y = 0; y < glyph.height; ++y) {
            const uint8_t* row = bitmap.buffer + ptrdiff_t(y) * bitmap.pitch;
            for (int x = 0; x < glyph.width; ++x) {
                uint8_t value = bitmap.pixel_mode == FT_PIXEL_MODE_MONO ? ((row[x >> 3] >> (7 - (x & 7))) & 1) * 255 : row[x];
                glyph.pixels[size_t(y) * glyph.width + x] = value;
            }
        }
        penX += positions[i].x_advance / 64.0;
        out.push_back(std::move(glyph));
    }
}

} // namespace vellum
