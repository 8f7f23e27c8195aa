#include "Corvex/TerminalViewFrameClock.h"

#include <QScreen>
#include <QWidget>
#include <algorithm>
#include <cmath>

namespace corvex {

namespace {

// A frame whose swap never comes (the surface went away, the window was unmapped) must not stop
// the clock for good.
constexpr qint64 longestSwapWaitMs = 100;
// However slow drawing is, a busy view shows at least this many frames a second.
constexpr qint64 longestSpacingMs = 100;

} // namespace

TerminalViewFrameClock::TerminalViewFrameClock(QWidget* view, std::function<void()> onTick)
    : view_(view), onTick_(std::move(onTick)) {
    timer_.setSingleShot(true);
    timer_.setTimerType(Qt::PreciseTimer);
    connect(&timer_, &QTimer::timeout, this, &TerminalViewFrameClock::timerFired);
}

int TerminalViewFrameClock::periodMs() const {
    QScreen* screen = view_ ? view_->screen() : nullptr;
    double rate = screen ? screen->refreshRate() : 60.0;
    if (!(rate >= 30.0 && rate <= 240.0)) rate = 60.0;
    return std::max(4, int(std::lround(1000.0 / rate)));
}

int TerminalViewFrameClock::spacingMs() const {
    return int(std::clamp<qint64>(2 * lastFrameCostMs_, periodMs(), longestSpacingMs));
}

void TerminalViewFrameClock::start() {
    if (running_) return;
    running_ = true;
    tickDue_ = false;
    sinceTick_.start();
    arm();
}

void TerminalViewFrameClock::stop() {
    running_ = false;
    tickDue_ = false;
    timer_.stop();
}

void TerminalViewFrameClock::frameRequested() {
    awaitingSwap_ = true;
    sinceRequest_.start();
}

void TerminalViewFrameClock::framePaintStarted() { sincePaint_.start(); }

void TerminalViewFrameClock::frameSwapped() {
    awaitingSwap_ = false;
    if (sincePaint_.isValid()) lastFrameCostMs_ = sincePaint_.elapsed();
    sincePaint_.invalidate();
    if (!running_ || !tickDue_) return;
    tickDue_ = false;
    // The frame's cost may have pushed the next tick further out.
    if (sinceTick_.elapsed() < spacingMs()) return arm();
    timer_.stop();
    tickNow();
}

void TerminalViewFrameClock::arm() {
    qint64 wait = std::max<qint64>(0, spacingMs() - sinceTick_.elapsed());
    timer_.start(int(wait));
}

void TerminalViewFrameClock::timerFired() {
    if (!running_) return;
    if (awaitingSwap_ && sinceRequest_.elapsed() < longestSwapWaitMs) {
        tickDue_ = true;
        timer_.start(int(longestSwapWaitMs - sinceRequest_.elapsed()));
        return;
    }
    awaitingSwap_ = false;
    tickDue_ = false;
    tickNow();
}

void TerminalViewFrameClock::tickNow() {
    sinceTick_.restart();
    arm();
    if (onTick_) onTick_();
}

} // namespace corvex
