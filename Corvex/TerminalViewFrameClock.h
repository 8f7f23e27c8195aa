#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>
#include <cstdint>
#include <functional>

#include "Vellum/FrameDriver.h"

class QWidget;

namespace corvex {

// A view's tick source: while started it ticks once per refresh of the screen the view is on.
// When a tick has asked the GPU surface for a frame, the next tick waits for that frame's swap
// as well, so frames never pile up behind a slow presenter and a flood of output costs at most
// one frame per refresh. Where drawing is slow (software OpenGL) ticks are spaced to twice what
// the last frame cost, so that frames take at most half of the main thread and output is never
// starved by its own drawing. Stopped, it has no timer at all.
class TerminalViewFrameClock final : public QObject, public vellum::FrameTickSource {
public:
    TerminalViewFrameClock(QWidget* view, std::function<void()> onTick);

    void start() override;
    void stop() override;
    bool isRunning() const { return running_; }

    // The surface was asked for a frame, began drawing it, and swapped it.
    void frameRequested();
    void framePaintStarted();
    void frameSwapped();

    // The refresh period of the view's screen, within sane bounds.
    int periodMs() const;
    // The time between two ticks now: the refresh period, or twice the last frame's cost.
    int spacingMs() const;

private:
    void timerFired();
    void tickNow();
    void arm();

    QWidget* view_;
    std::function<void()> onTick_;
    QTimer timer_;
    QElapsedTimer sinceTick_;
    QElapsedTimer sinceRequest_;
    QElapsedTimer sincePaint_;
    qint64 lastFrameCostMs_ = 0;
    bool running_ = false;
    bool awaitingSwap_ = false;
    bool tickDue_ = false; // the timer fired while a frame was still on its way
};

} // namespace corvex
