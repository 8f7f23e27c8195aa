#include <gtest/gtest.h>

#include <QApplication>
#include <QClipboard>
#include <QElapsedTimer>
#include <QImage>
#include <QInputMethodEvent>
#include <QMainWindow>
#include <QPaintEvent>
#include <QShortcut>
#include <QTest>
#include <QWheelEvent>
#include <functional>

#include "Corvex/TerminalView.h"
#include "Support/AppHarness.h"
#include "Support/TerminalPane.h"
#include "Vellum/FrameDriver.h"
#include "Vellum/Terminal.h"

using namespace corvex;
using namespace corvex::apptest;
using namespace std::chrono_literals;

namespace {

// Records the areas the view repaints.
class PaintRecorder : public QObject {
public:
    QRegion painted;
    bool eventFilter(QObject*, QEvent* event) override {
        if (event->type() == QEvent::Paint) painted += static_cast<QPaintEvent*>(event)->region();
        return false;
    }
};

class TerminalViewTest : public ::testing::Test, protected TerminalPane {
protected:
    TerminalViewTest() : TerminalPane(24, 6, QSize(40, 40)) {}
    void SetUp() override {
        ASSERT_TRUE(exposed());
        view->onInput = [this](std::vector<uint8_t> bytes) { sent.append(bytes.begin(), bytes.end()); };
        feed("\x1b[2 q"); // a steady cursor, so that blinking does not repaint during a test
        sent.clear();
    }

    std::string take() { return std::exchange(sent, {}); }
    QPoint center(int col, int row) const {
        return {col * cell().width() + cell().width() / 2, row * cell().height() + cell().height() / 2};
    }
    void key(Qt::Key which, Qt::KeyboardModifiers modifiers = Qt::NoModifier) { QTest::keyClick(view, which, modifiers); }
    void mouse(QEvent::Type type, QPoint at, Qt::MouseButton button, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
        Qt::MouseButtons held = type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::MouseButtons(button);
        if (type == QEvent::MouseMove) held = button;
        QMouseEvent event(type, QPointF(at), view->mapToGlobal(QPointF(at)), type == QEvent::MouseMove ? Qt::NoButton : button,
                          held, modifiers);
        QApplication::sendEvent(view, &event);
    }
    void click(QPoint at, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
        mouse(QEvent::MouseButtonPress, at, Qt::LeftButton, modifiers);
        mouse(QEvent::MouseButtonRelease, at, Qt::LeftButton, modifiers);
    }
    void wheel(QPoint at, int angle, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
        QWheelEvent event(QPointF(at), view->mapToGlobal(QPointF(at)), QPoint(), QPoint(0, angle), Qt::NoButton, modifiers,
                          Qt::NoScrollPhase, false);
        QApplication::sendEvent(view, &event);
    }

    std::string sent;
};

} // namespace

TEST_F(TerminalViewTest, DrawsColoursWideCharactersAndColourEmoji) {
    // Columns: 0-1 palette red, 2-3 true colour, 4-5 a CJK character, 6 "X", 7-8 an emoji, 9 "Y".
    feed("\x1b[41m  \x1b[0m\x1b[48;2;10;200;30m  \x1b[0m\xe4\xb8\xadX\xf0\x9f\x98\x80Y");
    QImage image = shot();
    EXPECT_EQ(image.pixelColor(center(0, 0)), rgb(view->colors().ansi->at(1)));
    EXPECT_EQ(image.pixelColor(center(3, 0)), QColor(10, 200, 30));
    EXPECT_GT(inkIn(image, cellRect(4, 0, 2)), 0);
    // The characters after the wide ones keep to the grid.
    EXPECT_GT(inkIn(image, cellRect(6, 0).adjusted(1, 0, -1, 0)), 4);
    EXPECT_GT(inkIn(image, cellRect(9, 0).adjusted(1, 0, -1, 0)), 4);
    int colourful = 0;
    QRect emoji = cellRect(7, 0, 2);
    for (int y = emoji.top(); y <= emoji.bottom(); ++y)
        for (int x = emoji.left(); x <= emoji.right(); ++x) {
            QColor c = image.pixelColor(x, y);
            if (c.hsvSaturation() > 120 && c.value() > 120) ++colourful;
        }
    EXPECT_GT(colourful, 10) << "the emoji came from a colour font";
}

TEST_F(TerminalViewTest, StylesThemeAndFontSize) {
    feed("\x1b[7mI\x1b[0m \x1b[4mU\x1b[0m \x1b[38;2;255;0;0mR");
    QImage image = shot();
    // Inverse: the cell is filled with the foreground.
    EXPECT_EQ(image.pixelColor(cellRect(0, 0).topLeft() + QPoint(1, 1)), rgb(view->colors().foreground));
    // The underline runs under the whole cell.
    QRect underlined = cellRect(2, 0);
    bool line = false;
    for (int y = underlined.center().y(); y <= underlined.bottom(); ++y)
        if (distance(image.pixelColor(underlined.left(), y), background()) > 90 &&
            distance(image.pixelColor(underlined.right(), y), background()) > 90)
            line = true;
    EXPECT_TRUE(line);
    bool red = false;
    QRect r = cellRect(4, 0);
    for (int y = r.top(); y <= r.bottom(); ++y)
        for (int x = r.left(); x <= r.right(); ++x) red = red || (image.pixelColor(x, y).red() > 200 && image.pixelColor(x, y).green() < 80);
    EXPECT_TRUE(red);

    view->setDarkAppearance(false);
    EXPECT_EQ(view->colors().background, 0xffffffu);
    EXPECT_EQ(shot().pixelColor(center(20, 4)), QColor(Qt::white));

    QSize before = cell();
    view->setFontSize(24);
    EXPECT_GT(cell().height(), before.height());
    EXPECT_GT(cell().width(), before.width());
}

TEST_F(TerminalViewTest, BoxLinesMeetAcrossCellsAndBlocksFillThem) {
    // A horizontal line across two cells, a vertical one down two rows, a full block.
    feed("\xe2\x94\x80\xe2\x94\x80\xe2\x94\x82\xe2\x96\x88\r\n  \xe2\x94\x82");
    QImage image = shot();
    QColor ink = rgb(view->colors().foreground);
    int w = cell().width(), h = cell().height();
    EXPECT_EQ(image.pixelColor(w - 1, h / 2), ink);
    EXPECT_EQ(image.pixelColor(w, h / 2), ink);
    EXPECT_EQ(image.pixelColor(2 * w + w / 2, h - 1), ink);
    EXPECT_EQ(image.pixelColor(2 * w + w / 2, h), ink);
    EXPECT_EQ(image.pixelColor(2 * w + w / 2, 0), ink);
    EXPECT_EQ(inkIn(image, cellRect(3, 0)), w * h);
}

TEST_F(TerminalViewTest, DoubleWidthAndDoubleHeightLines) {
    feed("AB\r\n\x1b#6AB\r\n\x1b#3AB\r\n\x1b#4AB");
    QImage image = shot();
    EXPECT_EQ(inkIn(image, cellRect(2, 0, 2)), 0);
    for (int row = 1; row <= 3; ++row) EXPECT_GT(inkIn(image, cellRect(2, row, 2)), 4) << "row " << row;
    // The two halves of a double-height line are the top and the bottom of one glyph.
    EXPECT_NE(image.copy(cellRect(0, 2, 4)), image.copy(cellRect(0, 3, 4)));
    // The pointer finds the cell under it at the doubled width.
    feed("\x1b[?1000h\x1b[?1006h");
    click(center(2, 1));
    EXPECT_EQ(take(), "\x1b[<0;2;2M\x1b[<0;2;2m");
}

TEST_F(TerminalViewTest, OnlyChangedRowsAreRepainted) {
    feed("\x1b[4;1H");
    PaintRecorder recorder;
    view->installEventFilter(&recorder);
    QCoreApplication::processEvents();
    recorder.painted = {};
    feed("hello");
    ASSERT_TRUE(eventually([&] { return !recorder.painted.isEmpty(); }));
    EXPECT_EQ(recorder.painted.boundingRect().top(), 3 * cell().height());
    EXPECT_EQ(recorder.painted.boundingRect().height(), cell().height());

    recorder.painted = {};
    view->renderNow(); // nothing changed: nothing to draw
    QTest::qWait(50);
    EXPECT_TRUE(recorder.painted.isEmpty());
    view->removeEventFilter(&recorder);
}

// Output only marks the view dirty; the frame clock makes one frame of any burst and stops
// once the view has been quiet for eight ticks.
TEST_F(TerminalViewTest, ABurstOfOutputIsOneFrameAndAQuietViewStopsItsClock) {
    ASSERT_TRUE(eventually([&] { return !view->isFrameClockRunning(); }));
    uint64_t framesBefore = view->frameCounters().frames;
    for (int i = 0; i < 200; ++i) {
        std::string line = "line " + std::to_string(i) + "\r\n";
        view->feedFromBackend({reinterpret_cast<const uint8_t*>(line.data()), line.size()});
    }
    EXPECT_EQ(view->frameCounters().frames, framesBefore) << "no frame is drawn inside a burst";
    ASSERT_TRUE(eventually([&] { return view->frameCounters().frames > framesBefore; }));
    EXPECT_TRUE(view->isFrameClockRunning());
    ASSERT_TRUE(eventually([&] { return !view->isFrameClockRunning(); }));
    EXPECT_EQ(view->frameCounters().frames, framesBefore + 1);
    EXPECT_GE(view->frameCounters().idleTicks, uint64_t(vellum::FrameDriver::idleTicksBeforePause));
    EXPECT_GT(inkIn(view->grab().toImage(), cellRect(0, 4, 8)), 0) << "the frame showed the burst's end";
}

// A view in a hidden or minimised window keeps collecting output and draws it in one frame
// when it is shown again.
TEST_F(TerminalViewTest, AHiddenOrMinimisedViewDrawsOnceWhenShown) {
    for (auto hide : {std::function<void()>([&] { window.hide(); }),
                      std::function<void()>([&] { window.setWindowState(Qt::WindowMinimized); })}) {
        ASSERT_TRUE(eventually([&] { return !view->isFrameClockRunning(); }));
        hide();
        ASSERT_TRUE(eventually([&] { return view->isFrameSuspended(); }));
        uint64_t framesBefore = view->frameCounters().frames;
        for (int i = 0; i < 3; ++i) {
            view->feedFromBackend({reinterpret_cast<const uint8_t*>("more\r\n"), 6});
            QTest::qWait(30);
        }
        EXPECT_EQ(view->frameCounters().frames, framesBefore);
        EXPECT_FALSE(view->isFrameClockRunning());
        window.setWindowState(Qt::WindowNoState);
        window.show();
        ASSERT_TRUE(eventually([&] { return !view->isFrameSuspended(); }));
        ASSERT_TRUE(eventually([&] { return view->frameCounters().frames == framesBefore + 1; }));
        ASSERT_TRUE(eventually([&] { return !view->isFrameClockRunning(); }));
        EXPECT_EQ(view->frameCounters().frames, framesBefore + 1);
    }
}

TEST_F(TerminalViewTest, CursorIsABlockWithFocusAndHollowWithout) {
    if (!view->hasFocus()) GTEST_SKIP() << "the window did not get the keyboard";
    feed("\r\n");
    QColor cursor = rgb(*view->colors().cursor);
    EXPECT_EQ(shot().pixelColor(center(0, 1)), cursor);
    view->clearFocus();
    ASSERT_TRUE(eventually([&] { return !view->hasFocus(); }));
    QImage image = shot();
    EXPECT_EQ(image.pixelColor(center(0, 1)), background());
    EXPECT_EQ(image.pixelColor(cellRect(0, 1).topLeft()), cursor);
    feed("\x1b[6 q");
    view->setFocus();
    ASSERT_TRUE(eventually([&] { return view->hasFocus(); }));
    image = shot();
    EXPECT_EQ(image.pixelColor(cellRect(0, 1).topLeft() + QPoint(0, cell().height() / 2)), cursor);
    EXPECT_EQ(image.pixelColor(center(0, 1) + QPoint(cell().width() / 3, 0)), background());
}

TEST_F(TerminalViewTest, ABlinkingCursorStopsWhenQuiet) {
    if (!view->hasFocus()) GTEST_SKIP() << "the window did not get the keyboard";
    QApplication::setCursorFlashTime(100);
    view->setCursorBlinkTimeout(std::chrono::milliseconds(300));
    feed("\x1b[1 q");
    ASSERT_TRUE(view->isCursorBlinking());
    PaintRecorder recorder;
    view->installEventFilter(&recorder);
    QCoreApplication::processEvents();
    recorder.painted = {};
    EXPECT_TRUE(eventually([&] { return !recorder.painted.isEmpty(); }));
    EXPECT_EQ(recorder.painted.boundingRect().top(), 0); // the cursor's row only
    EXPECT_EQ(recorder.painted.boundingRect().height(), cell().height());

    ASSERT_TRUE(eventually([&] { return !view->isCursorBlinking(); }));
    EXPECT_EQ(shot().pixelColor(center(0, 0)), rgb(*view->colors().cursor)); // it stops shown
    recorder.painted = {};
    QTest::qWait(200);
    EXPECT_TRUE(recorder.painted.isEmpty()) << "an idle view draws nothing";
    key(Qt::Key_A);
    EXPECT_TRUE(view->isCursorBlinking());
    view->removeEventFilter(&recorder);
}

TEST_F(TerminalViewTest, SynchronizedOutputIsDrawnWhenComplete) {
    feed("\x1b[?2026hhalf");
    EXPECT_EQ(inkIn(shot(), cellRect(1, 0, 3)), 0);
    feed(" done\x1b[?2026l");
    EXPECT_GT(inkIn(shot(), cellRect(1, 0, 3)), 10);

    // A batch that never ends is drawn after the timeout.
    feed("\r\n\x1b[?2026hstuck");
    EXPECT_EQ(inkIn(shot(), cellRect(1, 1, 3)), 0);
    EXPECT_TRUE(eventually([&] { return inkIn(shot(), cellRect(1, 1, 3)) > 10; }, 4000ms));
}

TEST_F(TerminalViewTest, ReverseVideoAndHiddenCursor) {
    feed("\x1b[?25l\x1b[?5h");
    QImage image = shot();
    EXPECT_EQ(image.pixelColor(center(10, 3)), rgb(view->colors().foreground));
    EXPECT_EQ(image.pixelColor(center(0, 0)), rgb(view->colors().foreground)); // no cursor drawn
}

TEST_F(TerminalViewTest, KeysReachTheProgramInXtermEncoding) {
    struct Case {
        Qt::Key key;
        Qt::KeyboardModifiers modifiers;
        std::string bytes;
    };
    auto press = [&](const std::vector<Case>& cases) {
        for (const auto& c : cases) {
            key(c.key, c.modifiers);
            EXPECT_EQ(take(), c.bytes) << QKeySequence(c.key | c.modifiers).toString().toStdString();
        }
    };
    // One key of each kind Qt hands over; the bytes for every key are KeyEncoder's tests.
    press({{Qt::Key_A, {}, "a"},
           {Qt::Key_C, Qt::ControlModifier, "\x03"},
           {Qt::Key_X, Qt::AltModifier, "\x1bx"},
           {Qt::Key_Left, Qt::ControlModifier, "\x1b[1;5D"},
           {Qt::Key_F5, {}, "\x1b[15~"},
           {Qt::Key_Backtab, Qt::ShiftModifier, "\x1b[Z"},
           // Ctrl+Shift chords are the application's.
           {Qt::Key_T, Qt::ControlModifier | Qt::ShiftModifier, ""}});
    feed("\x1b[?1h\x1b=");
    press({{Qt::Key_Up, {}, "\x1bOA"}, {Qt::Key_Plus, Qt::KeypadModifier, "\x1bOk"}});
}

TEST_F(TerminalViewTest, CtrlShiftGoesToShortcutsAndPlainCtrlToTheProgram) {
    int shortcutRuns = 0, plainRuns = 0;
    QShortcut app(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_T), &window);
    QObject::connect(&app, &QShortcut::activated, [&] { ++shortcutRuns; });
    QShortcut plain(QKeySequence(Qt::CTRL | Qt::Key_T), &window);
    QObject::connect(&plain, &QShortcut::activated, [&] { ++plainRuns; });
    if (!view->hasFocus()) GTEST_SKIP() << "shortcuts need an active window";
    key(Qt::Key_T, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_EQ(shortcutRuns, 1);
    EXPECT_EQ(take(), "");
    key(Qt::Key_T, Qt::ControlModifier);
    EXPECT_EQ(plainRuns, 0);
    EXPECT_EQ(take(), "\x14");
}

TEST_F(TerminalViewTest, InputMethodPreeditIsDrawnAndCommitIsSent) {
    feed("ab");
    QRect caret = view->inputMethodQuery(Qt::ImCursorRectangle).toRect();
    EXPECT_EQ(caret, cellRect(2, 0));
    int blank = inkIn(shot(), cellRect(3, 0, 3));

    QInputMethodEvent preedit(QStringLiteral("nihon"), {});
    QApplication::sendEvent(view, &preedit);
    EXPECT_EQ(take(), "");
    EXPECT_GT(inkIn(shot(), cellRect(3, 0, 3)), blank + 10);

    QInputMethodEvent commit;
    commit.setCommitString(QString::fromUtf8("\xe6\x97\xa5\xe6\x9c\xac"));
    QApplication::sendEvent(view, &commit);
    EXPECT_EQ(take(), "\xe6\x97\xa5\xe6\x9c\xac");
    EXPECT_EQ(inkIn(shot(), cellRect(3, 0, 3)), blank);
}

TEST_F(TerminalViewTest, RepliesWhileFeedingAreDroppedAndFocusIsReported) {
    feed("\x1b[c\x1b[6n\x1b[?1004h");
    EXPECT_EQ(take(), "");
    QFocusEvent out(QEvent::FocusOut), in(QEvent::FocusIn);
    QApplication::sendEvent(view, &in);
    take(); // a report only when the view did not have the keyboard already
    QApplication::sendEvent(view, &out);
    EXPECT_EQ(take(), "\x1b[O");
    int focusIns = 0;
    view->onFocusIn = [&] { ++focusIns; };
    QApplication::sendEvent(view, &in);
    EXPECT_EQ(take(), "\x1b[I");
    EXPECT_EQ(focusIns, 1);
}

TEST_F(TerminalViewTest, MouseReportsAndTheShiftBypass) {
    feed("abcdef\x1b[?1002h\x1b[?1006h");
    click(center(2, 1));
    EXPECT_EQ(take(), "\x1b[<0;3;2M\x1b[<0;3;2m");

    mouse(QEvent::MouseButtonPress, center(0, 0), Qt::RightButton, Qt::ControlModifier);
    mouse(QEvent::MouseMove, center(0, 0) + QPoint(1, 0), Qt::RightButton); // same cell: no report
    mouse(QEvent::MouseMove, center(1, 0), Qt::RightButton);
    mouse(QEvent::MouseButtonRelease, center(1, 0), Qt::RightButton);
    EXPECT_EQ(take(), "\x1b[<18;1;1M\x1b[<34;2;1M\x1b[<2;2;1m");

    EXPECT_EQ(view->cursor().shape(), Qt::ArrowCursor); // the program has the mouse

    // With Shift the mouse selects instead.
    mouse(QEvent::MouseButtonPress, cellRect(1, 0).topLeft(), Qt::LeftButton, Qt::ShiftModifier);
    mouse(QEvent::MouseMove, cellRect(4, 0).topLeft(), Qt::LeftButton, Qt::ShiftModifier);
    mouse(QEvent::MouseButtonRelease, cellRect(4, 0).topLeft(), Qt::LeftButton, Qt::ShiftModifier);
    EXPECT_EQ(take(), "");
    EXPECT_EQ(view->selectedText(), "bcd");
    EXPECT_EQ(view->cursor().shape(), Qt::IBeamCursor);
}

TEST_F(TerminalViewTest, WordAndLineSelectionCopyAndBracketedPaste) {
    feed("echo hello-world.txt (x)\r\nnext");
    QPoint word = center(8, 0);
    mouse(QEvent::MouseButtonPress, word, Qt::LeftButton);
    mouse(QEvent::MouseButtonRelease, word, Qt::LeftButton);
    mouse(QEvent::MouseButtonDblClick, word, Qt::LeftButton);
    mouse(QEvent::MouseButtonRelease, word, Qt::LeftButton);
    EXPECT_EQ(view->selectedText(), "hello-world.txt");
    QImage image = shot();
    EXPECT_EQ(image.pixelColor(cellRect(6, 0).topLeft() + QPoint(1, 1)), rgb(view->colors().foreground)); // drawn inverted

    key(Qt::Key_C, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_EQ(QGuiApplication::clipboard()->text(), "hello-world.txt");
    EXPECT_EQ(take(), "");

    mouse(QEvent::MouseButtonPress, word, Qt::LeftButton); // the third click
    mouse(QEvent::MouseButtonRelease, word, Qt::LeftButton);
    EXPECT_EQ(view->selectedText(), "echo hello-world.txt (x)");

    QGuiApplication::clipboard()->setText("ls\nrm x\x1b[201~");
    key(Qt::Key_V, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_EQ(take(), "ls\rrm x\x1b[201~");
    feed("\x1b[?2004h");
    view->pasteClipboard();
    EXPECT_EQ(take(), "\x1b[200~ls\rrm x\x1b[201~");
}

TEST_F(TerminalViewTest, SelectionAcrossRowsAndWrappedLines) {
    feed("0123456789012345678901234567\r\nnext line   \r\n");
    // Three clicks take the whole logical line, wrapped rows joined without a line feed.
    for (int i = 0; i < 3; ++i) {
        mouse(i == 1 ? QEvent::MouseButtonDblClick : QEvent::MouseButtonPress, center(1, 1), Qt::LeftButton);
        mouse(QEvent::MouseButtonRelease, center(1, 1), Qt::LeftButton);
    }
    EXPECT_EQ(view->selectedText(), "0123456789012345678901234567");

    // A drag from the middle of one row into the next; blanks at a row's end are dropped.
    mouse(QEvent::MouseButtonPress, cellRect(2, 1).topLeft(), Qt::LeftButton);
    mouse(QEvent::MouseMove, cellRect(6, 2).topLeft(), Qt::LeftButton);
    mouse(QEvent::MouseMove, cellRect(4, 2).topLeft(), Qt::LeftButton);
    mouse(QEvent::MouseButtonRelease, cellRect(4, 2).topLeft(), Qt::LeftButton);
    EXPECT_EQ(view->selectedText(), "67\nnext");
    mouse(QEvent::MouseButtonPress, cellRect(0, 0).topLeft(), Qt::LeftButton);
    mouse(QEvent::MouseMove, cellRect(0, 3).topLeft(), Qt::LeftButton);
    EXPECT_EQ(view->selectedText(), "0123456789012345678901234567\nnext line\n");
    feed("\x1b[?1049h");
    EXPECT_EQ(view->selectedText(), ""); // the other screen has its own rows
    click(center(5, 4)); // a click alone selects nothing
    EXPECT_EQ(view->selectedText(), "");
}

TEST_F(TerminalViewTest, DraggingPastTheTopScrollsTheHistory) {
    for (int i = 0; i < 20; ++i) feed("line " + std::to_string(i) + "\r\n");
    mouse(QEvent::MouseButtonPress, cellRect(4, 2).topLeft(), Qt::LeftButton);
    mouse(QEvent::MouseMove, QPoint(0, -5), Qt::LeftButton);
    ASSERT_TRUE(eventually([&] { return view->selectedText().rfind("line 10", 0) == 0; }));
    mouse(QEvent::MouseButtonRelease, QPoint(0, -5), Qt::LeftButton);
    std::string selected = view->selectedText();
    QTest::qWait(120);
    EXPECT_EQ(view->selectedText(), selected) << "the scrolling stops with the drag";
    EXPECT_EQ(selected.substr(selected.size() - 12), "line 16\nline"); // up to where the drag began
}

TEST_F(TerminalViewTest, WheelScrollsHistoryOrGoesToTheProgram) {
    for (int i = 0; i < 20; ++i) feed("line " + std::to_string(i) + "\r\n");
    std::string live = view->screenText();
    wheel(center(1, 1), 120);
    view->renderNow();
    EXPECT_EQ(view->screenText().substr(0, 7), "line 12");
    EXPECT_EQ(take(), "");
    key(Qt::Key_A); // typing goes back to the live screen
    EXPECT_EQ(view->screenText(), live);
    take();
    key(Qt::Key_Home, Qt::ShiftModifier);
    view->renderNow();
    EXPECT_EQ(view->screenText().substr(0, 7), "line 0\n");
    key(Qt::Key_PageDown, Qt::ShiftModifier);
    view->renderNow();
    EXPECT_EQ(view->screenText().substr(0, 7), "line 5\n");
    key(Qt::Key_End, Qt::ShiftModifier);
    view->renderNow();
    EXPECT_EQ(view->screenText(), live);
    EXPECT_EQ(take(), "");

    feed("\x1b[?1049h\x1b[?1000h\x1b[?1006h");
    wheel(center(1, 1), 120 * 10); // a flick: at most six reports
    std::string reports = take();
    size_t count = 0;
    for (size_t at = reports.find("\x1b[<64;2;2M"); at != std::string::npos; at = reports.find("\x1b[<64;2;2M", at + 1)) ++count;
    EXPECT_EQ(count, 6u);
    EXPECT_EQ(reports.size(), count * 10);

    wheel(center(1, 1), -120, Qt::ShiftModifier); // Shift on the alternate screen: nothing
    EXPECT_EQ(take(), "");
    feed("\x1b[?1000l");
    wheel(center(1, 1), -120); // no mouse mode: alternate scroll sends cursor keys
    EXPECT_EQ(take(), "\x1b[B\x1b[B\x1b[B");
}

TEST_F(TerminalViewTest, CtrlClickOpensALink) {
    std::vector<std::string> opened;
    view->onOpenLink = [&](std::string url) { opened.push_back(std::move(url)); };
    feed("\x1b]8;id=1;https://example.com/a?b=1\x1b\\link\x1b]8;;\x1b\\ plain");
    QImage image = shot();
    EXPECT_GT(inkIn(image, QRect(cellRect(0, 0).left(), cellRect(0, 0).bottom() - 3, 4 * cell().width(), 4)),
              inkIn(image, QRect(cellRect(5, 0).left(), cellRect(5, 0).bottom() - 3, 4 * cell().width(), 4)))
        << "the link is underlined";
    click(center(2, 0), Qt::ControlModifier);
    click(center(6, 0), Qt::ControlModifier);
    click(center(2, 0));
    EXPECT_EQ(opened, std::vector<std::string>{"https://example.com/a?b=1"});
}

TEST_F(TerminalViewTest, OscClipboardTitleAndBell) {
    std::string clipboard, title;
    int bells = 0;
    view->onClipboardWrite = [&](std::string text) { clipboard = std::move(text); };
    view->onTitle = [&](std::string text) { title = std::move(text); };
    view->onBell = [&] { ++bells; };
    feed("\x1b]52;c;aGVsbG8=\x07\x1b]2;my title\x07\x07");
    EXPECT_EQ(clipboard, "hello");
    EXPECT_EQ(title, "my title");
    EXPECT_EQ(bells, 1);
    view->resetTerminal();
    view->renderNow();
    EXPECT_EQ(view->screenText().find_first_not_of("\n"), std::string::npos);
}

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
