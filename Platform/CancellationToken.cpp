#include "CancellationToken.h"

#include <condition_variable>
#include <mutex>
#include <vector>

namespace platform {

struct CancellationToken::State {
    std::mutex mutex;
    std::condition_variable changed;
    bool cancelled = false;
    std::vector<std::function<void()>> handlers;
};

CancellationToken::CancellationToken() : state_(std::make_shared<State>()) {}

void CancellationToken::cancel() const {
    std::vector<std::function<void()>> handlers;
    {
        std::lock_guard guard(state_->mutex);
        if (state_->cancelled) return;
        state_->cancelled = true;
        handlers.swap(state_->handlers);
    }
    state_->changed.notify_all();
    for (auto& handler : handlers) handler();
}

bool CancellationToken::isCancelled() const {
    std::lock_guard guard(state_->mutex);
    return state_->cancelled;
}

void CancellationToken::onCancel(std::function<void()> handler) const {
    {
        std::lock_guard guard(state_->mutex);
        if (!state_->cancelled) {
            state_->handlers.push_back(std::move(handler));
            return;
        }
    }
    handler();
}

bool CancellationToken::sleepFor(std::chrono::steady_clock::duration duration) const {
    std::unique_lock guard(state_->mutex);
    return !state_->changed.wait_for(guard, duration, [&] { return state_->cancelled; });
}

} // namespace platform
