#include "Vellum/BoxDrawingRenderer.h"

#include <algorithm>
#include <cmath>

namespace vellum {

namespace {

// The arms of U+2500 to U+2570, as up, right, down and left: 0 none, 1 light, 2 heavy, 3 double.
// Dashed lines are drawn solid; rounded corners as square ones.
constexpr const char* lineArms[] = {
    "0101", "0202", "1010", "2020", "0101", "0202", "1010", "2020", "0101", "0202", "1010", "2020", // 2500
    "0110", "0210", "0120", "0220", "0011", "0012", "0021", "0022", "1100", "1200", "2100", "2200", // 250C
    "1001", "1002", "2001", "2002", "1110", "1210", "2110", "1120", "2120", "2210", "1220", "2220", // 2518
    "1011", "1012", "2011", "1021", "2021", "2012", "1022", "2022", "0111", "0112", "0211", "0212", // 2524
    "0121", "0122", "0221", "0222", "1101", "1102", "1201", "1202", "2101", "2102", "2201", "2202", // 2530
    "1111", "1112", "1211", "1212", "2111", "1121", "2121", "2112", "2211", "1122", "1221", "2212", // 253C
    "1222", "2122", "2221", "2222", "0101", "0202", "1010", "2020", "0303", "3030", "0310", "0130", // 2548
    "0330", "0013", "0031", "0033", "1300", "3100", "3300", "1003", "3001", "3003", "1310", "3130", // 2554
    "3330", "1013", "3031", "3033", "0313", "0131", "0333", "1303", "3101", "3303", "1313", "3131", // 2560
    "3333", "0110", "0011", "1001", "1100",                                                         // 256C
};
// U+2574 to U+257F: half lines.
constexpr const char* halfArms[] = {"0001", "1000", "0100", "0010", "0002", "2000", "0200", "0020",
                                    "0201", "1020", "0102", "2010"};

enum Arm { up, right, down, left };

struct Canvas {
    CoverageBitmap& bitmap;
    // Fills the half-open box [x0, x1) × [y0, y1), clipped to the cell.
    void fill(int x0, int y0, int x1, int y1, uint8_t value = 255) {
        x0 = std::max(x0, 0), y0 = std::max(y0, 0);
        x1 = std::min(x1, bitmap.width), y1 = std::min(y1, bitmap.height);
        for (int y = y0; y < y1; ++y)
            for (int x = x0; x < x1; ++x) bitmap.pixels[size_t(y) * bitmap.width + x] = value;
    }
    // Coverage of the pixels inside `inside(px, py)` (pixel centres, sampled 4×4 when smoothing).
    template <typename Inside>
    void shape(bool antiAlias, Inside&& inside) {
        int samples = antiAlias ? 4 : 1;
        for (int y = 0; y < bitmap.height; ++y)
            for (int x = 0; x < bitmap.width; ++x) {
                int hits = 0;
                for (int sy = 0; sy < samples; ++sy)
                    for (int sx = 0; sx < samples; ++sx)
                        hits += inside(x + (sx + 0.5) / samples, y + (sy + 0.5) / samples);
                uint8_t value = uint8_t(hits * 255 / (samples * samples));
                auto& pixel = bitmap.pixels[size_t(y) * bitmap.width + x];
                pixel = std::max(pixel, value);
            }
    }
};

void drawLines(Canvas& canvas, const char* arms, int width, int height) {
    int light = std::max(1, int(std::lround(width / 8.0)));
    int cx = width / 2, cy = height / 2;
    int d = light + 1; // half the distance between the strokes of a double line
    auto weight = [&](Arm arm) { return arms[arm] - '0'; };
    // Where a double stroke starts near the centre: inside a double arm across it, on the centre
    // line of a single one, or past the centre when nothing crosses.
    auto start = [&](Arm across, int centre, int inner, int outer) {
        int w = weight(across);
        return w == 3 ? inner : w ? centre : outer;
    };
    for (Arm arm : {up, right, down, left}) {
        int w = weight(arm);
        if (w == 0) continue;
        if (w == 3) {
            if (arm == right) {
                canvas.fill(start(up, cx, cx + d, cx - d), cy - d, width, cy - d + light);
                canvas.fill(start(down, cx, cx + d, cx - d), cy + d - light + 1, width, cy + d + 1);
            } else if (arm == left) {
                canvas.fill(0, cy - d, start(up, cx, cx - d, cx + d) + 1, cy - d + light);
                canvas.fill(0, cy + d - light + 1, start(down, cx, cx - d, cx + d) + 1, cy + d + 1);
            } else if (arm == down) {
                canvas.fill(cx - d, start(left, cy, cy + d, cy - d), cx - d + light, height);
                canvas.fill(cx + d - light + 1, start(right, cy, cy + d, cy - d), cx + d + 1, height);
            } else {
                canvas.fill(cx - d, 0, cx - d + light, start(left, cy, cy - d, cy + d) + 1);
                canvas.fill(cx + d - light + 1, 0, cx + d + 1, start(right, cy, cy - d, cy + d) + 1);
            }
            continue;
        }
        int t = w == 2 ? light * 2 + 1 : light;
        int lo = -(t / 2), hi = t - t / 2; // the stroke covers centre + lo .. centre + hi
        switch (arm) {
        case up: canvas.fill(cx + lo, 0, cx + hi, cy + hi); break;
        case down: canvas.fill(cx + lo, cy + lo, cx + hi, height); break;
        case left: canvas.fill(0, cy + lo, cx + hi, cy + hi); break;
        case right: canvas.fill(cx + lo, cy + lo, width, cy + hi); break;
        }
    }
}

void drawBlock(Canvas& canvas, char32_t c, int width, int height) {
    double w = width, h = height;
    auto part = [&](double x0, double y0, double x1, double y1) {
        canvas.fill(int(std::lround(x0 * w)), int(std::lround(y0 * h)), int(std::lround(x1 * w)), int(std::lround(y1 * h)));
    };
    if (c == 0x2580) return part(0, 0, 1, 0.5);
    if (c >= 0x2581 && c <= 0x2588) return part(0, 1 - (c - 0x2580) / 8.0, 1, 1); // lower eighths
    if (c >= 0x2589 && c <= 0x258F) return part(0, 0, (0x2590 - c) / 8.0, 1);    // left eighths
    if (c == 0x2590) return part(0.5, 0, 1, 1);
    if (c >= 0x2591 && c <= 0x2593) return canvas.fill(0, 0, width, height, uint8_t(64 * (c - 0x2590)));
    if (c == 0x2594) return part(0, 0, 1, 0.125);
    if (c == 0x2595) return part(0.875, 0, 1, 1);
    // Quadrants: upper left 1, upper right 2, lower left 4, lower right 8.
    static constexpr int quadrants[] = {4, 8, 1, 13, 9, 7, 11, 2, 6, 14};
    int q = quadrants[c - 0x2596];
    if (q & 1) part(0, 0, 0.5, 0.5);
    if (q & 2) part(0.5, 0, 1, 0.5);
    if (q & 4) part(0, 0.5, 0.5, 1);
    if (q & 8) part(0.5, 0.5, 1, 1);
}

// Distance from (x, y) to the segment from a to b.
double segmentDistance(double x, double y, double ax, double ay, double bx, double by) {
    double dx = bx - ax, dy = by - ay;
    double t = std::clamp(((x - ax) * dx + (y - ay) * dy) / (dx * dx + dy * dy), 0.0, 1.0);
    double px = ax + t * dx - x, py = ay + t * dy - y;
    return std::sqrt(px * px + py * py);
}

void drawDiagonal(Canvas& canvas, char32_t c, int width, int height, bool antiAlias) {
    double half = std::max(1.0, width / 8.0) / 2;
    double w = width, h = height;
    canvas.shape(antiAlias, [&](double x, double y) {
        bool rising = c != 0x2572 && segmentDistance(x, y, 0, h, w, 0) <= half;
        bool falling = c != 0x2571 && segmentDistance(x, y, 0, 0, w, h) <= half;
        return rising || falling;
    });
}

// Solid triangles point into the next cell; the thin ones are their outlines' outer edges.
void drawPowerline(Canvas& canvas, char32_t c, int width, int height, bool antiAlias) {
    double w = width, h = height, mid = h / 2;
    bool pointsRight = c == 0xE0B0 || c == 0xE0B1;
    bool solid = c == 0xE0B0 || c == 0xE0B2;
    double half = std::max(1.0, width / 8.0) / 2;
    canvas.shape(antiAlias, [&](double x, double y) {
        double across = pointsRight ? x : w - x; // distance from the flat side
        if (solid) return across <= w * (1 - std::abs(y - mid) / mid);
        double tipX = pointsRight ? w : 0, baseX = pointsRight ? 0 : w;
        return segmentDistance(x, y, baseX, 0, tipX, mid) <= half || segmentDistance(x, y, tipX, mid, baseX, h) <= half;
    });
}

} // namespace

bool isPowerlineSeparator(char32_t c) { return c >= 0xE0B0 && c <= 0xE0B3; }

bool isSynthesizedGlyph(char32_t c) { return (c >= 0x2500 && c <= 0x259F) || isPowerlineSeparator(c); }

bool renderSynthesizedGlyph(char32_t c, int width, int height, bool antiAlias, CoverageBitmap& out) {
    if (!isSynthesizedGlyph(c) || width <= 0 || height <= 0) return false;
    out.width = width;
    out.height = height;
    out.pixels.assign(size_t(width) * height, 0);
    Canvas canvas{out};
    if (c >= 0x2500 && c <= 0x2570) drawLines(canvas, lineArms[c - 0x2500], width, height);
    else if (c >= 0x2571 && c <= 0x2573) drawDiagonal(canvas, c, width, height, antiAlias);
    else if (c >= 0x2574 && c <= 0x257F) drawLines(canvas, halfArms[c - 0x2574], width, height);
    else if (c >= 0x2580 && c <= 0x259F) drawBlock(canvas, c, width, height);
    else drawPowerline(canvas, c, width, height, antiAlias);
    return true;
}

} // namespace vellum
