#include "Vellum/TerminalEventQueue.h"

namespace vellum {

TerminalEventQueue::TerminalEventQueue(platform::MainQueue& mainQueue) : mainQueue_(mainQueue) {}

void TerminalEventQueue::configure(std::function<void(TerminalEvent)> onDrain, std::function<bool()> canDeliverInline) {
    state_->withLock([&](State& state) {
        state.configured = true;
        state.onDrain = std::move(onDrain);
        state.canDeliverInline = std::move(canDeliverInline);
    });
}

void TerminalEventQueue::reset() {
    state_->withLock([](State& state) {
        state.configured = false;
        state.onDrain = nullptr;
        state.canDeliverInline = nullptr;
        state.pending.clear();
    });
}

void TerminalEventQueue::post(TerminalEvent event) {
    std::function<bool()> canDeliverInline;
    bool onMain = mainQueue_.isMainThread();
    bool schedule = state_->withLock([&](State& state) {
        ++state.counters.posts;
        state.pending.insert(event);
        canDeliverInline = state.canDeliverInline;
        if (onMain || state.drainScheduled) return false;
        state.drainScheduled = true;
        return true;
    });
    if (onMain) {
        if (canDeliverInline && canDeliverInline()) {
            drain(state_);
            return;
        }
        schedule = state_->withLock([](State& state) {
            if (state.drainScheduled) return false;
            state.drainScheduled = true;
            return true;
        });
    }
    if (schedule) mainQueue_.post([weak = std::weak_ptr<SharedState>(state_)] {
        if (auto state = weak.lock()) drain(state);
    });
}

void TerminalEventQueue::drain(const std::shared_ptr<SharedState>& shared) {
    std::set<TerminalEvent> events;
    std::function<void(TerminalEvent)> onDrain;
    shared->withLock([&](State& state) {
        state.drainScheduled = false;
        events.swap(state.pending);
        if (!events.empty()) ++state.counters.drains;
        onDrain = state.configured ? state.onDrain : nullptr;
    });
    if (!onDrain) return;
    for (TerminalEvent event : events) onDrain(event);
}

TerminalEventQueue::Counters TerminalEventQueue::counters() const { return state_->copy().counters; }

} // namespace vellum
