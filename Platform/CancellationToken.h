#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace platform {

// Shared by whoever may cancel a piece of work and the work itself. Copies share one state.
class CancellationToken {
public:
    CancellationToken();

    void cancel() const;
    bool isCancelled() const;

    // Runs the handler once on cancellation, at once when already cancelled.
    // Handlers run on the thread that cancels, outside the token's lock.
    void onCancel(std::function<void()> handler) const;

    // Sleeps up to the duration; false when cancelled before or during the wait.
    bool sleepFor(std::chrono::steady_clock::duration duration) const;

private:
    struct State;
    std::shared_ptr<State> state_;
};

} // namespace platform
