#include <gtest/gtest.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QMainWindow>
#include <QScreen>
#include <QTest>
#include <cstdlib>
#include <dlfcn.h>
#include <functional>

#include "Platform/Tests/Support/ScopedEnvironment.h"
#include "Corvex/TerminalGLSurface.h"
#include "Corvex/TerminalView.h"
#include "Support/AppHarness.h"
#include "Support/TerminalPane.h"

using namespace corvex;
using namespace corvex::apptest;

namespace {

// A pane's view in a window on the private X server, drawn by whichever path the environment picks.
struct GLPane : TerminalPane {
    GLPane() { view->setCursorBlinkTimeout(std::chrono::milliseconds(0)); }
    TerminalGLSurface* surface() const { return view->findChild<TerminalGLSurface*>(); }
};

} // namespace

TEST(TerminalGLSurface, DrawsAKnownScreen) {
    GLPane pane;
    ASSERT_TRUE(pane.surface());
    // Row 0: red "AB" on the default background, then a blue background cell, a CJK character,
    // an emoji. Row 1: a box-drawing line across three cells, then a block. The cursor sits on
    // row 2, column 1.
    pane.feed("\x1b[31mAB\x1b[0m\x1b[44m \x1b[0m\xe4\xb8\xad\xf0\x9f\x98\x80\r\n"
              "\xe2\x94\x80\xe2\x94\x80\xe2\x94\xbc\xe2\x96\x88\r\n"
              " ");
    QImage image = pane.shot();
    if (const char* dir = std::getenv("CORVEX_SCREENSHOT_DIR")) image.save(QString(dir) + "/gl-known-screen.png");
    QColor bg = rgb(pane.view->colors().background), fg = rgb(pane.view->colors().foreground);
    QColor red = rgb(pane.view->colors().ansi->at(1)), blue = rgb(pane.view->colors().ansi->at(4));
    EXPECT_GT(pane.surface()->framesDrawn(), 0u);

    EXPECT_EQ(image.pixelColor(pane.cellRect(0, 3).topLeft()), bg);
    // Text takes its colour: the red letters have red ink and nothing else.
    int redInk = pane.count(image, pane.cellRect(0, 0, 2), [&](QColor c) { return distance(c, red) < 40; });
    EXPECT_GT(redInk, 10);
    EXPECT_EQ(pane.count(image, pane.cellRect(0, 0, 2), [&](QColor c) { return distance(c, fg) < 40; }), 0);
    // The background cell is filled edge to edge, and nothing spills into its neighbours.
    QRect blueCell = pane.cellRect(2, 0);
    EXPECT_EQ(pane.count(image, blueCell, [&](QColor c) { return c == blue; }), blueCell.width() * blueCell.height());
    EXPECT_NE(image.pixelColor(blueCell.right() + 1, blueCell.center().y()), blue);
    // The wide character, from the fallback font, stays in its two cells, and the emoji starts
    // after them.
    EXPECT_GT(pane.count(image, pane.cellRect(3, 0, 2), [&](QColor c) { return distance(c, bg) > 90; }), 5);
    // The emoji is in colour: pixels of neither the text nor the background colours.
    int colourful = pane.count(image, pane.cellRect(5, 0, 2), [&](QColor c) {
        return c.saturation() > 120 && distance(c, bg) > 90 && distance(c, fg) > 90;
    });
    EXPECT_GT(colourful, 20);
    // The lines run through every cell at the same height, edge to edge, and meet the cross.
    int lineY = -1;
    for (int y = pane.cellRect(0, 1).top(); y <= pane.cellRect(0, 1).bottom(); ++y)
        if (distance(image.pixelColor(0, y), fg) < 60) lineY = y;
    ASSERT_GE(lineY, 0);
    for (int x = 0; x < 3 * pane.cell().width(); ++x) EXPECT_LT(distance(image.pixelColor(x, lineY), fg), 60) << x;
    // The block fills its cell.
    QRect block = pane.cellRect(3, 1);
    EXPECT_EQ(pane.count(image, block, [&](QColor c) { return distance(c, fg) < 30; }), block.width() * block.height());
    // The cursor: a block in the cursor colour over its cell.
    QRect cursor = pane.cellRect(1, 2);
    int cursorInk = pane.count(image, cursor, [&](QColor c) { return distance(c, bg) > 90; });
    EXPECT_GT(cursorInk, cursor.width() * cursor.height() / 2);
}

// A frame that changes one row draws only that row's band over the last frame: the other rows
// keep their pixels, and the picture is the one a full redraw makes.
TEST(TerminalGLSurface, OneChangedRowLeavesTheOtherRowsIntact) {
    GLPane pane;
    ASSERT_TRUE(pane.surface());
    pane.feed("\x1b[31mred row\r\n\x1b[42mgreen back\x1b[0m\r\nplain\r\n\x1b[4munder\x1b[0m\r\n\x1b[44m    \x1b[0m"
              "\r\nlast\x1b[2;1H");
    QImage before = pane.shot();
    uint64_t partial = pane.surface()->partialFrames();
    pane.feed("\x1b[3;1H\x1b[35mCHANGED\x1b[0m\x1b[2;1H");
    QImage after = pane.shot();
    if (const char* dir = std::getenv("CORVEX_SCREENSHOT_DIR")) after.save(QString(dir) + "/gl-one-row.png");
    EXPECT_GT(pane.surface()->partialFrames(), partial);

    auto rowOf = [&](const QImage& image, int row) { return image.copy(pane.cellRect(0, row, 24)); };
    EXPECT_NE(rowOf(after, 2), rowOf(before, 2));
    EXPECT_GT(pane.count(after, pane.cellRect(0, 2, 7), [&](QColor c) { return distance(c, rgb(pane.view->colors().ansi->at(5))) < 40; }), 10);
    for (int row : {0, 1, 3, 4, 5}) EXPECT_EQ(rowOf(after, row), rowOf(before, row)) << "row " << row;

    // A palette round trip redraws everything from scratch: the same picture.
    pane.view->setDarkAppearance(!pane.view->darkAppearance());
    pane.shot();
    pane.view->setDarkAppearance(!pane.view->darkAppearance());
    EXPECT_EQ(pane.shot(), after);
}

TEST(TerminalGLSurface, QuietPaneDrawsNoFrames) {
    GLPane pane;
    ASSERT_TRUE(pane.surface());
    pane.feed("hello");
    ASSERT_TRUE(eventually([&] { return pane.surface()->framesDrawn() > 0; }));
    QTest::qWait(200);
    uint64_t frames = pane.surface()->framesDrawn();
    QTest::qWait(500);
    EXPECT_EQ(pane.surface()->framesDrawn(), frames);
    pane.feed("\r\nworld");
    EXPECT_TRUE(eventually([&] { return pane.surface()->framesDrawn() > frames; }));
}

// Output that streams in for a while is drawn at most once per refresh, each frame swapped
// before the next is asked for, and the clock stops when the stream does.
TEST(TerminalGLSurface, StreamingOutputIsDrawnAtMostOncePerRefresh) {
    GLPane pane;
    ASSERT_TRUE(pane.surface());
    ASSERT_TRUE(eventually([&] { return !pane.view->isFrameClockRunning(); }));
    uint64_t framesBefore = pane.surface()->framesDrawn();
    QElapsedTimer streaming;
    streaming.start();
    for (int i = 0; streaming.elapsed() < 400; ++i) {
        std::string line = "line " + std::to_string(i) + "\r\n";
        pane.view->feedFromBackend({reinterpret_cast<const uint8_t*>(line.data()), line.size()});
        QCoreApplication::processEvents(QEventLoop::AllEvents, 2);
    }
    double refreshMs = 1000.0 / std::max(30.0, pane.view->screen()->refreshRate());
    uint64_t drawn = pane.surface()->framesDrawn() - framesBefore;
    EXPECT_GE(drawn, 1u);
    EXPECT_LE(double(drawn), double(streaming.elapsed()) / refreshMs + 2);
    ASSERT_TRUE(eventually([&] { return !pane.view->isFrameClockRunning(); }));
    EXPECT_NE(pane.view->screenText().find("line"), std::string::npos);
}

TEST(TerminalGLSurface, TurnedOffByTheEnvironment) {
    platform::testing::ScopedEnvironment off("VELLUM_METAL_LAYER", "0");
    GLPane pane;
    EXPECT_FALSE(pane.surface());
    pane.feed("\x1b[41m  ");
    EXPECT_EQ(pane.shot().pixelColor(pane.center(0, 0)), rgb(pane.view->colors().ansi->at(1)));
}
int main(int argc, char** argv) {
    // Mesa unloads its driver at exit, which would leave the caches it keeps without a name
    // that the leak suppressions can match.
    dlopen("/usr/lib/x86_64-linux-gnu/dri/swrast_dri.so", RTLD_LAZY | RTLD_NODELETE);
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
