#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace vellum {

// Where any thread tells a view's frame clock that something happened. Marks are OR-ed together
// and handed to the main thread in one hop; a dirty mark while the clock runs needs no hop at
// all, since the next tick takes it along.
class FrameDriverSignal : public std::enable_shared_from_this<FrameDriverSignal> {
public:
    enum Events : uint32_t { dirty = 1, immediateTick = 2, linkTick = 4, shutdown = 8 };
    using Sink = std::function<void(uint32_t events)>;
    // Runs a function on the main thread later.
    using MainScheduler = std::function<void(std::function<void()>)>;

    static std::shared_ptr<FrameDriverSignal> make(MainScheduler schedule);

    // Once. Marks published before are delivered at once.
    void configure(Sink sink);
    void publish(uint32_t events);
    // On a stop with marks pending, they are delivered, so a mark that raced with the stop is
    // not lost.
    void setLinkRunning(bool running);

    // The sink is gone for good: marks from here on are dropped.
    void detach();
    uint64_t hopsScheduled() const;

private:
    explicit FrameDriverSignal(MainScheduler schedule) : schedule_(std::move(schedule)) {}
    void scheduleDelivery();
    void deliver();

    struct State {
        uint32_t pending = 0;
        bool deliveryScheduled = false, linkRunning = false, shutdownRequested = false, sinkConfigured = false;
        Sink sink;
        uint64_t hops = 0;
    };
    MainScheduler schedule_;
    mutable std::mutex mutex_;
    State state_;
};

// What drives the ticks: a vsync-paced callback that can be started and stopped.
class FrameTickSource {
public:
    virtual ~FrameTickSource() = default;
    virtual void start() = 0;
    virtual void stop() = 0;
};

struct FrameDriverCounters {
    uint64_t ticks = 0, frames = 0, idleTicks = 0, pauses = 0, immediateTicks = 0, deliveries = 0;
};

// A view's frame clock, on the main thread: a tick with something dirty makes one frame; eight
// quiet ticks in a row stop the tick source, so an idle view costs nothing. A hidden view keeps
// collecting dirty marks and draws once when it is shown.
class FrameDriver {
public:
    static constexpr int idleTicksBeforePause = 8;
    static constexpr uint64_t minimumResumeIntervalNs = 16'000'000;

    FrameDriver(std::shared_ptr<FrameDriverSignal> signal, FrameTickSource& source);
    ~FrameDriver();

    std::function<void()> onTick;                        // make one frame
    std::function<void(bool visible)> onVisibilityChanged;
    std::function<uint64_t()> nowUptimeNs;               // replaceable for tests of time

    FrameDriverSignal& signal() { return *signal_; }
    // The view's window was shown, hidden, minimised or covered.
    void setEffectivelyVisible(bool visible);
    void setVisibilitySuspensionEnabled(bool enabled) { visibilitySuspensionEnabled_ = enabled; }
    // After this, nothing ticks again.
    void invalidate();

    bool running() const { return running_; }
    bool isDirty() const { return dirty_; }
    bool visibilitySuspended() const { return visibilitySuspended_; }
    const FrameDriverCounters& counters() const { return counters_; }

private:
    void consumeSignalOnMain(uint32_t events);
    void sourceDidTick(bool isImmediate);
    bool resumeIfNeeded();
    void pause();
    void tickAfterResumeIfDue();

    std::shared_ptr<FrameDriverSignal> signal_;
    FrameTickSource& source_;
    bool dirty_ = false, running_ = false, invalidated_ = false;
    uint64_t lastResumeTickUptimeNs_ = 0;
    bool visibilitySuspended_ = false, visibilitySuspensionEnabled_ = true;
    bool effectivelyVisible_ = true, lastReportedVisibility_ = true;
    int idleTickCount_ = 0;
    FrameDriverCounters counters_;
};

} // namespace vellum
