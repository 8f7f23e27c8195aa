#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>

#include "Platform/Locked.h"
#include "Platform/MainQueue.h"

namespace vellum {

// In delivery order.
enum class TerminalEvent { bufferActivated, mouseModeChanged, bell, programStatusChanged };

// Carries events from the parse thread to the main thread. Events merge as a set, so a
// thousand bells posted while the main thread is busy arrive as one, and at most one hop
// to the main queue is outstanding at a time.
class TerminalEventQueue {
public:
    struct Counters {
        uint64_t posts = 0;
        uint64_t drains = 0;
    };

    explicit TerminalEventQueue(platform::MainQueue& mainQueue);

    // onDrain runs on the main thread for each event; canDeliverInline (asked on the main
    // thread) allows a post made there to be delivered at once.
    void configure(std::function<void(TerminalEvent)> onDrain, std::function<bool()> canDeliverInline = nullptr);
    // Later drains deliver nothing.
    void reset();
    void post(TerminalEvent event);
    Counters counters() const;

private:
    struct State {
        std::set<TerminalEvent> pending;
        bool drainScheduled = false;
        Counters counters;
        bool configured = false;
        std::function<void(TerminalEvent)> onDrain;
        std::function<bool()> canDeliverInline;
    };
    using SharedState = platform::Locked<State>;

    static void drain(const std::shared_ptr<SharedState>& state);

    platform::MainQueue& mainQueue_;
    std::shared_ptr<SharedState> state_ = std::make_shared<SharedState>();
};

} // namespace vellum
