#pragma once

#include <QElapsedTimer>
#include <QPointer>
#include <QTimer>
#include <QWidget>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "Corvex/TerminalPainter.h"
#include "Corvex/TerminalSelection.h"
#include "Corvex/TerminalTheme.h"
#include "Corvex/TerminalViewFrameClock.h"
#include "CorvexKit/SessionBackend.h"
#include "Vellum/FrameDriver.h"
#include "Vellum/MouseEncoder.h"
#include "Vellum/TerminalRenderSnapshot.h"
#include "Vellum/WheelInput.h"

namespace vellum {
class Terminal;
}

namespace corvex {

class TerminalGLSurface;

// A pane's terminal on the screen. It owns a terminal with no process of its own: the
// session's output is fed in from the backend and drawn here, and what the user does becomes
// bytes for the program through `onInput`. Frames come from the view's frame driver: output
// marks the view dirty, and the next tick of a clock paced to the screen takes one snapshot and
// draws the rows that changed; a quiet view stops its clock, and a hidden one draws once when
// shown again.
class TerminalView : public QWidget {
    Q_OBJECT
public:
    explicit TerminalView(QWidget* parent = nullptr);
    ~TerminalView() override;

    // Main thread. Replies the terminal generates while fed are dropped: the daemon's own
    // terminal already answered the program.
    void feedFromBackend(std::span<const uint8_t> bytes);
    bool isFeeding() const { return feeding_; }
    // The size the daemon confirmed; never reported back as a user action.
    void resizeTerminal(int cols, int rows);
    void resetTerminal(); // as ESC c
    QSize cellSize() const { return painter_.cellSize(); }
    void setFontSize(double points);
    double fontSize() const;
    void setDarkAppearance(bool dark);
    bool darkAppearance() const { return dark_; }
    // The current palette, for "client.colors".
    TerminalColors colors() const;
    // The rows shown, as text, for tests.
    std::string screenText() const;
    // The rows as the last frame took them, which may lag the terminal by a frame.
    std::string shownText() const;
    int cols() const;
    int rows() const;

    // Local actions, also for the application's shortcuts.
    void copySelection();
    void pasteClipboard();
    // The primary selection where the desktop has one (middle click, Shift+Insert).
    void pasteSelection();
    void paste(const std::string& text);
    std::string selectedText() const;
    void clearSelection();
    // Shows the live screen again after scrolling into the history.
    void scrollToBottom();
    // Moves the shown rows into the history (positive) or back (negative).
    void scrollLines(int lines);
    // Whether programs may have the mouse; with it off the mouse always selects.
    void setMouseReportingAllowed(bool allowed) { mouseReportingAllowed_ = allowed; }
    // How long a blinking cursor goes on blinking after the last input or output; then it
    // stays on and the view stops its timer. The blink rate is the desktop's.
    void setCursorBlinkTimeout(std::chrono::milliseconds timeout) { blinkTimeout_ = timeout; }
    bool isCursorBlinking() const { return blinkTimer_.isActive(); }
    // Takes a snapshot and repaints now instead of at the next frame.
    void renderNow();
    const vellum::FrameDriverCounters& frameCounters() const { return frameDriver_->counters(); }
    bool isFrameClockRunning() const { return frameDriver_->running(); }
    bool isFrameSuspended() const { return frameDriver_->visibilitySuspended(); }
    vellum::Terminal& terminal() { return *terminal_; }

    std::function<void(std::vector<uint8_t>)> onInput; // keys, paste, mouse and focus reports
    std::function<void(std::string text)> onClipboardWrite; // OSC 52 from the program
    std::function<void(std::string title)> onTitle;
    std::function<void()> onBell;
    std::function<void()> onFocusIn; // the view took the keyboard
    // Ctrl+click on a link a program printed (OSC 8); when unset the desktop opens it.
    std::function<void(std::string url)> onOpenLink;

    QSize sizeHint() const override;
    QVariant inputMethodQuery(Qt::InputMethodQuery query) const override;

protected:
    bool event(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void inputMethodEvent(QInputMethodEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;
    bool focusNextPrevChild(bool next) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    class Delegate;
    friend class Delegate;

    void scheduleFrame();
    void frame();
    void startFrameDriver();
    // Shown, in a window that is neither hidden nor minimised.
    void updateEffectiveVisibility();
    void repaintRows(int first, int last);
    void sendUserInput(std::string_view bytes);
    void restartBlink();
    void blinkTick();
    bool cursorShownNow() const;
    QRect cursorRect() const;
    // Runs `change` with the terminal's replies dropped.
    template <typename Change>
    void quietly(Change&& change);
    void applyTheme();
    // Draws through the GPU surface unless it is turned off or can't be made.
    void attachGLSurface();
    // Every repaint of the view also reaches the GPU surface while it draws the view.
    void update();
    void update(const QRect& area);

    // Pointer helpers.
    struct CellHit {
        int col = 0, row = 0;       // the cell under the pointer, on screen
        int boundaryCol = 0;        // the nearest cell edge
    };
    CellHit hitTest(QPointF position) const;
    bool mouseReportsGo(Qt::KeyboardModifiers modifiers) const;
    bool sendMouseReport(vellum::MouseAction action, vellum::MouseButton button, QPointF position,
                         Qt::KeyboardModifiers modifiers);
    void selectAt(QPointF position, SelectionUnit unit);
    void extendSelectionTo(QPointF position);
    void dragScrollTick();
    std::optional<std::string> linkAt(QPointF position) const;
    void publishSelection();
    int historyTopRow() const; // buffer row of the first shown row

    std::unique_ptr<Delegate> delegate_;
    std::unique_ptr<vellum::Terminal> terminal_;
    vellum::TerminalSnapshot snapshot_;
    TerminalPainter painter_;
    TerminalTheme theme_;
    bool dark_ = true;
    bool feeding_ = false;
    int quiet_ = 0;

    std::shared_ptr<vellum::FrameDriverSignal> frameSignal_;
    std::unique_ptr<TerminalViewFrameClock> frameClock_; // outlives the driver that stops it
    std::unique_ptr<vellum::FrameDriver> frameDriver_;
    QPointer<QWidget> watchedWindow_;
    bool hiddenSpontaneously_ = false; // the window was unmapped, minimised for instance
    QTimer blinkTimer_;
    QElapsedTimer sinceActivity_;
    bool blinkVisible_ = true;
    std::chrono::milliseconds blinkTimeout_{15000};

    TerminalSelection selection_;
    std::optional<TerminalSelection::Range> paintedSelection_;
    bool selecting_ = false;
    // A drag past the top or bottom edge scrolls while the pointer stays out there.
    QTimer dragScroll_;
    int dragScrollLines_ = 0;
    QPointF dragPosition_;
    QElapsedTimer sinceDoubleClick_;
    QPointF doubleClickAt_;
    bool mouseReportingAllowed_ = true;
    std::optional<vellum::MouseButton> reportedButton_;
    std::optional<std::pair<int, int>> lastMotionCell_;

    QString preedit_;
    vellum::WheelDistanceAccumulator<vellum::WheelRoute> wheelAccumulator_;
    vellum::WheelReportBudget wheelBudget_;
    QElapsedTimer clock_;
    TerminalGLSurface* glSurface_ = nullptr;
};

} // namespace corvex
