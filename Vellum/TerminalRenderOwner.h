#pragma once

#include <optional>
#include <utility>
#include <vector>

#include "Vellum/TerminalRenderMailbox.h"
#include "Vellum/TerminalRenderSnapshot.h"

namespace vellum {

class Terminal;

// What a frame must do on the main thread once the terminal lock is gone.
struct MainFrameEffects {
    std::optional<RenderSnapshotRange> rangeChanged;
    bool appearanceChanged = false;
    bool notifyAccessibility = false;
    std::vector<int> blinkRows;
    std::optional<std::pair<int, int>> resizedTo;
    bool scroller = false;
};

// A terminal's rendering session: each frame refreshes the retained snapshot from the terminal
// (under its lock, inside the snapshot maker), consumes the mailbox and says what the main
// thread must do after.
class TerminalRenderOwner {
public:
    explicit TerminalRenderOwner(Terminal& terminal) : terminal_(terminal) {}

    MainFrameEffects prepareFrame();

    TerminalRenderMailbox& mailbox() { return mailbox_; }
    const TerminalSnapshot& snapshot() const { return snapshot_; }
    const std::optional<FrameViewState>& viewState() const { return viewState_; }

private:
    Terminal& terminal_;
    TerminalRenderMailbox mailbox_;
    TerminalSnapshot snapshot_;
    std::optional<FrameViewState> viewState_;
};

} // namespace vellum
