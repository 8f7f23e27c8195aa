#include "Corvex/TerminalBoxDrawing.h"

#include <QPainter>
#include <algorithm>
#include <cmath>

namespace corvex {

namespace {

// The arms of U+2500 to U+2570, as up, right, down and left: 0 none, 1 light, 2 heavy, 3 double.
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

void drawLines(QPainter& painter, const char* arms, const QRect& r, const QColor& color) {
    int light = std::max(1, int(std::lround(r.width() / 8.0)));
    int cx = r.left() + r.width() / 2, cy = r.top() + r.height() / 2;
    int d = light + 1; // half the distance between the strokes of a double line
    auto weight = [&](Arm arm) { return arms[arm] - '0'; };
    auto fill = [&](int x0, int y0, int x1, int y1) { // inclusive-exclusive box
        if (x1 > x0 && y1 > y0) painter.fillRect(QRect(x0, y0, x1 - x0, y1 - y0), color);
    };
    // Where a double stroke starts near the centre: inside a double arm across it, on the
    // centre line of a single one, or past the centre when nothing crosses.
    auto start = [&](Arm across, int centre, int inner, int outer) {
        int w = weight(across);
        return w == 3 ? inner : w ? centre : outer;
    };
    for (Arm arm : {up, right, down, left}) {
        int w = weight(arm);
        if (w == 0) continue;
        if (w == 3) {
            if (arm == right) {
                fill(start(up, cx, cx + d, cx - d), cy - d, r.right() + 1, cy - d + light);
                fill(start(down, cx, cx + d, cx - d), cy + d - light + 1, r.right() + 1, cy + d + 1);
            } else if (arm == left) {
                fill(r.left(), cy - d, start(up, cx, cx - d, cx + d) + 1, cy - d + light);
                fill(r.left(), cy + d - light + 1, start(down, cx, cx - d, cx + d) + 1, cy + d + 1);
            } else if (arm == down) {
                fill(cx - d, start(left, cy, cy + d, cy - d), cx - d + light, r.bottom() + 1);
                fill(cx + d - light + 1, start(right, cy, cy + d, cy - d), cx + d + 1, r.bottom() + 1);
            } else {
                fill(cx - d, r.top(), cx - d + light, start(left, cy, cy - d, cy + d) + 1);
                fill(cx + d - light + 1, r.top(), cx + d + 1, start(right, cy, cy - d, cy + d) + 1);
            }
            continue;
        }
        int t = w == 2 ? light * 2 + 1 : light;
        int lo = -(t / 2), hi = t - t / 2; // the stroke covers centre + lo .. centre + hi
        switch (arm) {
        case up: fill(cx + lo, r.top(), cx + hi, cy + hi); break;
        case down: fill(cx + lo, cy + lo, cx + hi, r.bottom() + 1); break;
        case left: fill(r.left(), cy + lo, cx + hi, cy + hi); break;
        case right: fill(cx + lo, cy + lo, r.right() + 1, cy + hi); break;
        }
    }
}

void drawBlock(QPainter& painter, char32_t c, const QRect& r, const QColor& color) {
    double w = r.width(), h = r.height();
    auto part = [&](double x0, double y0, double x1, double y1) {
        QRect box(QPoint(r.left() + int(std::lround(x0 * w)), r.top() + int(std::lround(y0 * h))),
                  QPoint(r.left() + int(std::lround(x1 * w)) - 1, r.top() + int(std::lround(y1 * h)) - 1));
        painter.fillRect(box, color);
    };
    if (c == 0x2580) return part(0, 0, 1, 0.5);
    if (c >= 0x2581 && c <= 0x2588) return part(0, 1 - (c - 0x2580) / 8.0, 1, 1); // lower eighths
    if (c >= 0x2589 && c <= 0x258F) return part(0, 0, (0x2590 - c) / 8.0, 1);    // left eighths
    if (c == 0x2590) return part(0.5, 0, 1, 1);
    if (c >= 0x2591 && c <= 0x2593) {
        QColor shade = color;
        shade.setAlphaF(0.25 * (c - 0x2590));
        painter.fillRect(r, shade);
        return;
    }
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

void drawDiagonal(QPainter& painter, char32_t c, const QRect& r, const QColor& color) {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(color, std::max(1.0, r.width() / 8.0)));
    QRectF box(r);
    if (c != 0x2572) painter.drawLine(box.bottomLeft(), box.topRight());
    if (c != 0x2571) painter.drawLine(box.topLeft(), box.bottomRight());
    painter.restore();
}

} // namespace

bool drawBoxCharacter(QPainter& painter, char32_t c, const QRect& cell, const QColor& color) {
    if (c >= 0x2500 && c <= 0x2570) drawLines(painter, lineArms[c - 0x2500], cell, color);
    else if (c >= 0x2571 && c <= 0x2573) drawDiagonal(painter, c, cell, color);
    else if (c >= 0x2574 && c <= 0x257F) drawLines(painter, halfArms[c - 0x2574], cell, color);
    else if (c >= 0x2580 && c <= 0x259F) drawBlock(painter, c, cell, color);
    else return false;
    return true;
}

} // namespace corvex
