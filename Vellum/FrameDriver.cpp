#include "Vellum/FrameDriver.h"

#include <chrono>

namespace vellum {

std::shared_ptr<FrameDriverSignal> FrameDriverSignal::make(MainScheduler schedule) {
    return std::shared_ptr<FrameDriverSignal>(new FrameDriverSignal(std::move(schedule)));
}

void FrameDriverSignal::configure(Sink sink) {
    bool deliverNow = false;
    {
        std::lock_guard lock(mutex_);
        if (state_.sinkConfigured) return;
        state_.sink = std::move(sink);
        state_.sinkConfigured = true;
        deliverNow = state_.pending != 0 && !state_.deliveryScheduled;
        if (deliverNow) state_.deliveryScheduled = true, ++state_.hops;
    }
    if (deliverNow) scheduleDelivery();
}

void FrameDriverSignal::publish(uint32_t events) {
    bool hop = false;
    {
        std::lock_guard lock(mutex_);
        state_.pending |= events;
        if (events & shutdown) state_.shutdownRequested = true;
        bool carriedByLink = events == dirty && state_.linkRunning;
        hop = state_.sinkConfigured && !state_.deliveryScheduled && !carriedByLink;
        if (hop) state_.deliveryScheduled = true, ++state_.hops;
    }
    if (hop) scheduleDelivery();
}

void FrameDriverSignal::setLinkRunning(bool running) {
    bool hop = false;
    {
        std::lock_guard lock(mutex_);
        state_.linkRunning = running;
        hop = !running && state_.pending != 0 && state_.sinkConfigured && !state_.deliveryScheduled;
        if (hop) state_.deliveryScheduled = true, ++state_.hops;
    }
    if (hop) scheduleDelivery();
}

void FrameDriverSignal::detach() {
    std::lock_guard lock(mutex_);
    state_.sink = nullptr;
}

uint64_t FrameDriverSignal::hopsScheduled() const {
    std::lock_guard lock(mutex_);
    return state_.hops;
}

void FrameDriverSignal::scheduleDelivery() {
    schedule_([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->deliver();
    });
}

void FrameDriverSignal::deliver() {
    uint32_t events;
    Sink sink;
    {
        std::lock_guard lock(mutex_);
        events = state_.pending;
        state_.pending = 0;
        state_.deliveryScheduled = false;
        sink = state_.sink;
    }
    if (events && sink) sink(events);
}

FrameDriver::FrameDriver(std::shared_ptr<FrameDriverSignal> signal, FrameTickSource& source)
    : signal_(std::move(signal)), source_(source) {
    nowUptimeNs = [] {
        return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count());
    };
    // The signal may outlive the driver; the destructor detaches the sink.
    signal_->configure([this](uint32_t events) { consumeSignalOnMain(events); });
}

FrameDriver::~FrameDriver() {
    invalidate();
    signal_->detach();
}

void FrameDriver::invalidate() {
    if (invalidated_) return;
    invalidated_ = true;
    if (running_) pause();
}

void FrameDriver::consumeSignalOnMain(uint32_t events) {
    ++counters_.deliveries;
    if (events & FrameDriverSignal::shutdown) return invalidate();
    if (invalidated_) return;
    if (events & FrameDriverSignal::dirty) {
        dirty_ = true;
        if (resumeIfNeeded()) tickAfterResumeIfDue();
    }
    if (events & FrameDriverSignal::immediateTick) sourceDidTick(true);
    if (events & FrameDriverSignal::linkTick) sourceDidTick(false);
}

void FrameDriver::sourceDidTick(bool isImmediate) {
    if (invalidated_) return;
    ++counters_.ticks;
    if (isImmediate) ++counters_.immediateTicks;
    if (dirty_) {
        dirty_ = false;
        idleTickCount_ = 0;
        ++counters_.frames;
        if (onTick) onTick();
    } else if (running_) {
        ++counters_.idleTicks;
        if (++idleTickCount_ >= idleTicksBeforePause) pause();
    }
}

bool FrameDriver::resumeIfNeeded() {
    if (running_ || visibilitySuspended_ || invalidated_) return false;
    running_ = true;
    idleTickCount_ = 0;
    signal_->setLinkRunning(true);
    source_.start();
    return true;
}

void FrameDriver::pause() {
    idleTickCount_ = 0;
    running_ = false;
    ++counters_.pauses;
    source_.stop();
    signal_->setLinkRunning(false);
}

// The first frame after a pause comes at once rather than at the next vertical blank, but a
// burst of resumes can't make more than about sixty such frames a second.
void FrameDriver::tickAfterResumeIfDue() {
    if (!dirty_ || invalidated_ || visibilitySuspended_) return;
    uint64_t now = nowUptimeNs();
    if (lastResumeTickUptimeNs_ != 0 && now - lastResumeTickUptimeNs_ < minimumResumeIntervalNs) return;
    lastResumeTickUptimeNs_ = now;
    sourceDidTick(true);
}

void FrameDriver::setEffectivelyVisible(bool visible) {
    effectivelyVisible_ = visible;
    if (visible != lastReportedVisibility_) {
        lastReportedVisibility_ = visible;
        if (onVisibilityChanged) onVisibilityChanged(visible);
    }
    if (!visibilitySuspensionEnabled_ || invalidated_) return;
    if (!visible && !visibilitySuspended_) {
        visibilitySuspended_ = true;
        if (running_) pause();
    } else if (visible && visibilitySuspended_) {
        visibilitySuspended_ = false;
        if (dirty_ && resumeIfNeeded()) tickAfterResumeIfDue();
    }
}

} // namespace vellum
