#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "CorvexKit/SessionBackend.h"
#include "Platform/MainQueue.h"

namespace corvex {

// What a pane host drives: the pane's terminal view and the bit of window system around it.
class PaneTerminal {
public:
    virtual ~PaneTerminal() = default;
    // Bytes from the daemon, fed as one piece; replies the terminal makes while fed are dropped.
    virtual void feedFromBackend(ByteView bytes) = 0;
    virtual void resizeTerminal(int cols, int rows) = 0;
    virtual Size terminalSize() const = 0;
    // One cell in pixels.
    virtual Size cellSize() const = 0;
    // Whether the pane and every one of its ancestors are shown.
    virtual bool isShown() const = 0;
    virtual void writeClipboard(const std::string& text, bool selection) = 0;
    // Asks the window system for a layout pass, which ends in PaneHostSink::layoutChanged.
    virtual void requestLayout() = 0;
};

// Where a host speaks to the pane's machine. Calls block; the host runs them off the main
// thread through its executor.
struct PaneHostContext {
    std::shared_ptr<SessionBackend> backend;
    platform::MainQueue* mainQueue = nullptr;
    std::function<void(std::function<void()>)> offMain;
    // Thread-safe: failures are logged from the thread the call ran on.
    std::function<void(const std::string&)> log;
    bool logModel = false;
};

// A pane on screen as the session sees it: the pane's data sink, its position in the output
// stream, and the decisions of when to subscribe and what size to ask for. A pane is never
// resized locally ahead of its PTY: the terminal changes size only when the daemon says so.
// Main thread only.
class PaneHostSink final : public PaneDataSink, public std::enable_shared_from_this<PaneHostSink> {
public:
    static std::shared_ptr<PaneHostSink> make(uint64_t pane, PaneTerminal& terminal, PaneHostContext context);

    uint64_t pane() const { return pane_; }
    std::optional<uint64_t> haveSeq() const { return haveSeq_; }
    bool subscribed() const { return subscribed_; }
    std::optional<Size> sentViewport() const { return sentViewport_; }
    size_t pendingBytes() const { return pending_.size(); }

    // The view's bounds changed (or were first set): subscribe once they are real, and tell
    // the daemon the size that fits them.
    void layoutChanged(double width, double height);
    void subscribe();
    void unsubscribe();
    // The view leaves the window for good: no more calls reach the terminal.
    void detach();
    Size fittedSize(double width, double height) const;
    // User input, straight to the daemon.
    void sendInput(ByteView bytes);
    void flush();

    void paneSubscribed(const Subscription& subscription) override;
    void paneOutput(uint64_t seq, ByteView bytes) override;
    void paneSnapshot(uint64_t seq, int cols, int rows, ByteView bytes) override;
    void paneResized(int cols, int rows, uint64_t seq) override;
    void paneResync() override;
    void paneReset() override;
    void paneClipboard(const std::string& text, bool selection) override;

    // Room the view keeps around the terminal, in pixels, across both sides together.
    static constexpr double margin = 12;

private:
    PaneHostSink(uint64_t pane, PaneTerminal& terminal, PaneHostContext context);

    void applySize(int cols, int rows);
    void sendViewportIfNeeded();
    void log(const std::string& text) const;
    void offMain(std::function<void()> work) const;

    uint64_t pane_;
    PaneTerminal* terminal_;
    PaneHostContext context_;
    double width_ = 0;
    double height_ = 0;
    std::optional<uint64_t> haveSeq_;
    std::optional<Size> paneSize_;
    std::optional<Size> sentViewport_;
    bool subscribed_ = false;
    Bytes pending_;
    bool flushScheduled_ = false;
    bool wantsSubscription_ = false;
};

} // namespace corvex
