#include "Support/TerminalPane.h"

#include <QCoreApplication>
#include <QTest>

#include "Support/AppHarness.h"

namespace corvex::apptest {

QColor rgb(RGB value) { return QColor((value >> 16) & 0xff, (value >> 8) & 0xff, value & 0xff); }

int distance(QColor a, QColor b) {
    return std::abs(a.red() - b.red()) + std::abs(a.green() - b.green()) + std::abs(a.blue() - b.blue());
}

TerminalPane::TerminalPane(int cols, int rows, QSize margin) {
    window.setCentralWidget(view);
    view->resizeTerminal(cols, rows);
    window.resize(view->sizeHint() + margin);
    window.show();
    exposed_ = QTest::qWaitForWindowExposed(&window);
    window.activateWindow();
    view->setFocus();
    eventually([&] { return view->hasFocus(); }, std::chrono::seconds(2));
}

void TerminalPane::feed(std::string_view bytes) {
    view->feedFromBackend({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
    view->renderNow();
}

QImage TerminalPane::shot() {
    view->renderNow();
    QCoreApplication::processEvents();
    return view->grab().toImage().convertToFormat(QImage::Format_RGB32);
}

QRect TerminalPane::cellRect(int col, int row, int width) const {
    return {col * cell().width(), row * cell().height(), width * cell().width(), cell().height()};
}

int TerminalPane::count(const QImage& image, QRect area, const std::function<bool(QColor)>& test) {
    int n = 0;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x) n += test(image.pixelColor(x, y));
    return n;
}

int TerminalPane::inkIn(const QImage& image, QRect area) const {
    QColor bg = background();
    return count(image, area, [&](QColor c) { return distance(c, bg) > 90; });
}

} // namespace corvex::apptest
