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
// one frame per refresh. Stopped, it has no timer at all.
class TerminalViewFrameClock final : public QObject, public vellum::FrameTickSource {
public:
    TerminalViewFrameClock(QWidget* view, std::function<void()> onTick);

    void start() override;
    void stop() override;
    bool isRunning() const { return running_; }

    // The surface was asked for a frame; it reports the swap through `frameSwapped`.
    void frameRequested();
    void frameSwapped();

    // The refresh period of the view's screen, within sane bounds.
    int periodMs() const;

private:
    void timerFired();
    void tickNow();
    void arm();

    QWidget* view_;
    std::function<void()> onTick_;
    QTimer timer_;
    QElapsedTimer sinceTick_;
    QElapsedTimer sinceRequest_;
    bool running_ = false;
    bool awaitingSwap_ = false;
    bool tickDue_ = false; // the timer fired while a frame was still on its way
};

} // namespace corvex
