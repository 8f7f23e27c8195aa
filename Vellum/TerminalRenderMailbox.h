#pragma once

#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace vellum {

// What a frame needs from the view, copied on the main thread.
struct FrameViewState {
    int cellPixelWidth = 0, cellPixelHeight = 0;
    int viewWidth = 0, viewHeight = 0;
    double renderingScale = 1;
    bool textBlinkVisible = true;
    bool commandActive = false;
    bool operator==(const FrameViewState&) const = default;
};

// Where the main thread and the frame's thread meet. A newer view state replaces an older one;
// a frame takes whatever is there.
class TerminalRenderMailbox {
public:
    struct State {
        std::optional<FrameViewState> latestViewState;
        std::optional<std::pair<int, int>> pendingSize; // columns and rows
        bool suppressAccessibility = false;
        std::vector<int> blinkRows;
        bool updateScroller = false;
    };

    void post(FrameViewState state) {
        std::lock_guard lock(mutex_);
        state_.latestViewState = std::move(state);
    }
    void postSize(int cols, int rows) {
        std::lock_guard lock(mutex_);
        state_.pendingSize = std::pair{cols, rows};
    }
    void postBlinkRows(std::vector<int> rows) {
        std::lock_guard lock(mutex_);
        state_.blinkRows = std::move(rows);
    }
    void requestScrollerUpdate() {
        std::lock_guard lock(mutex_);
        state_.updateScroller = true;
    }
    // Empties the mailbox but for the view state, which stays until a newer one comes.
    State take() {
        std::lock_guard lock(mutex_);
        State out = state_;
        state_.pendingSize.reset();
        state_.blinkRows.clear();
        state_.updateScroller = false;
        state_.suppressAccessibility = false;
        return out;
    }

private:
    std::mutex mutex_;
    State state_;
};

} // namespace vellum
