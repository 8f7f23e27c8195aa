#include "Vellum/SynchronizedOutputWatchdog.h"

#include <utility>

namespace vellum {

platform::TimerThread& ioTimerQueue() {
    static platform::TimerThread timers("vellum-io-timers");
    return timers;
}

SynchronizedOutputWatchdog::SynchronizedOutputWatchdog(platform::TimerThread& timers) : timers_(timers) {}

SynchronizedOutputWatchdog::~SynchronizedOutputWatchdog() { invalidate(); }

void SynchronizedOutputWatchdog::attach(std::weak_ptr<SynchronizedOutputTarget> terminal) {
    std::lock_guard guard(target_->mutex);
    target_->terminal = std::move(terminal);
}

void SynchronizedOutputWatchdog::update(bool active, uint64_t generation, platform::Duration timeout) {
    std::optional<platform::TimerThread::TimerID> previous;
    {
        std::lock_guard guard(target_->mutex);
        if (target_->invalidated) return;
        previous = std::exchange(target_->timer, std::nullopt);
        target_->armedDeadline.reset();
        if (active) {
            target_->armedGeneration = generation;
            target_->armedDeadline = std::chrono::steady_clock::now() + timeout;
            ++target_->counters.armed;
        }
    }
    if (previous) timers_.cancel(*previous);
    if (!active) return;
    // The id is known only once scheduled; a timer that fires before it is recorded finds
    // no match and does nothing, so it is scheduled under the target's lock.
    std::lock_guard guard(target_->mutex);
    if (target_->invalidated || !target_->armedDeadline) return;
    auto target = target_;
    auto slot = std::make_shared<platform::TimerThread::TimerID>(0);
    auto id = timers_.schedule(timeout, [target, slot] { fire(target, slot); });
    *slot = id;
    target_->timer = id;
}

void SynchronizedOutputWatchdog::fire(const std::shared_ptr<Target>& target,
                                      const std::shared_ptr<platform::TimerThread::TimerID>& timer) {
    std::shared_ptr<SynchronizedOutputTarget> terminal;
    uint64_t generation;
    {
        std::lock_guard guard(target->mutex);
        if (target->invalidated || target->timer != *timer || !target->armedDeadline) return;
        ++target->counters.fired;
        target->timer.reset();
        target->armedDeadline.reset();
        terminal = target->terminal.lock();
        if (!terminal) return;
        generation = target->armedGeneration;
        ++target->callsInFlight;
    }
    bool ended = false;
    if (terminal->synchronizedOutputGeneration() == generation) {
        terminal->endSynchronizedOutput();
        ended = true;
    }
    std::lock_guard guard(target->mutex);
    if (ended) ++target->counters.ended;
    --target->callsInFlight;
    target->condition.notify_all();
}

void SynchronizedOutputWatchdog::invalidate() {
    std::optional<platform::TimerThread::TimerID> timer;
    {
        std::lock_guard guard(target_->mutex);
        target_->invalidated = true;
        target_->armedDeadline.reset();
        timer = std::exchange(target_->timer, std::nullopt);
    }
    if (timer) timers_.cancel(*timer);
    std::unique_lock guard(target_->mutex);
    target_->condition.wait(guard, [&] { return target_->callsInFlight == 0; });
}

SynchronizedOutputWatchdog::Counters SynchronizedOutputWatchdog::counters() const {
    std::lock_guard guard(target_->mutex);
    return target_->counters;
}

} // namespace vellum
