#pragma once

#include <QColor>
#include <QImage>
#include <QMainWindow>
#include <QRect>
#include <QSize>
#include <functional>
#include <string_view>

#include "Corvex/TerminalView.h"

namespace corvex::apptest {

QColor rgb(RGB value);
// Sum of the channel differences.
int distance(QColor a, QColor b);

// A terminal view alone in a window on the test's X server, shown, focused where the server
// allows, drawn by whichever path the environment picks.
struct TerminalPane {
    QMainWindow window;
    TerminalView* view = new TerminalView;

    // `margin` is extra room around the grid.
    explicit TerminalPane(int cols = 24, int rows = 6, QSize margin = {});
    bool exposed() const { return exposed_; }

    // Feeds output as if from the daemon and draws it at once.
    void feed(std::string_view bytes);
    // What the window shows now.
    QImage shot();

    QSize cell() const { return view->cellSize(); }
    QRect cellRect(int col, int row, int width = 1) const;
    QPoint center(int col, int row) const { return cellRect(col, row).center(); }
    QColor background() const { return rgb(view->colors().background); }
    // Pixels of `area` for which `test` holds.
    static int count(const QImage& image, QRect area, const std::function<bool(QColor)>& test);
    // Pixels of `area` well away from the background.
    int inkIn(const QImage& image, QRect area) const;

private:
    bool exposed_ = false;
};

} // namespace corvex::apptest
