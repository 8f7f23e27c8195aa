#include "CorvexKit/PaneHostSink.h"

#include <algorithm>
#include <exception>

namespace corvex {

namespace {

std::string describe(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown error";
    }
}

} // namespace

std::shared_ptr<PaneHostSink> PaneHostSink::make(uint64_t pane, PaneTerminal& terminal, PaneHostContext context) {
    return std::shared_ptr<PaneHostSink>(new PaneHostSink(pane, terminal, std::move(context)));
}

PaneHostSink::PaneHostSink(uint64_t pane, PaneTerminal& terminal, PaneHostContext context)
    : pane_(pane), terminal_(&terminal), context_(std::move(context)) {}

void PaneHostSink::log(const std::string& text) const {
    if (context_.log) context_.log(text);
}

void PaneHostSink::offMain(std::function<void()> work) const {
    if (context_.offMain) context_.offMain(std::move(work));
    else work();
}

Size PaneHostSink::fittedSize(double width, double height) const {
    Size cell = terminal_ ? terminal_->cellSize() : Size{1, 1};
    double usableWidth = std::max(0.0, width - margin);
    double usableHeight = std::max(0.0, height - margin);
    int cols = cell.cols > 0 ? static_cast<int>(usableWidth / cell.cols) : 0;
    int rows = cell.rows > 0 ? static_cast<int>(usableHeight / cell.rows) : 0;
    return {std::max(cols, 2), std::max(rows, 1)};
}

void PaneHostSink::layoutChanged(double width, double height) {
    width_ = width;
    height_ = height;
    if (!subscribed_ && wantsSubscription_) subscribe();
    sendViewportIfNeeded();
}

void PaneHostSink::subscribe() {
    if (subscribed_ || !terminal_) return;
    if (width_ <= 0 || height_ <= 0) {
        // Subscribing at a made-up size would make the daemon resize the PTY right after.
        wantsSubscription_ = true;
        terminal_->requestLayout();
        return;
    }
    wantsSubscription_ = false;
    subscribed_ = true;
    Size size = fittedSize(width_, height_);
    sentViewport_ = size;
    auto backend = context_.backend;
    auto log = context_.log;
    uint64_t pane = pane_;
    std::optional<uint64_t> have = haveSeq_;
    offMain([backend, log, pane, have, size] {
        try {
            backend->subscribe(pane, have, std::nullopt, size);
        } catch (...) {
            if (log) log("subscribe pane " + std::to_string(pane) + " failed: " + describe(std::current_exception()));
        }
    });
}

void PaneHostSink::unsubscribe() {
    if (!subscribed_) return;
    flush();
    subscribed_ = false;
    auto backend = context_.backend;
    uint64_t pane = pane_;
    offMain([backend, pane] {
        try {
            backend->unsubscribe(pane);
        } catch (...) {
            // The pane may be gone already; nothing waits on this.
        }
    });
}

void PaneHostSink::detach() {
    subscribed_ = false;
    wantsSubscription_ = false;
    pending_.clear();
    terminal_ = nullptr;
}

void PaneHostSink::sendViewportIfNeeded() {
    if (!subscribed_ || width_ <= 0 || height_ <= 0 || !terminal_) return;
    Size size = fittedSize(width_, height_);
    if (sentViewport_ == size) return;
    sentViewport_ = size;
    if (context_.logModel)
        log("pane " + std::to_string(pane_) + " viewport " + std::to_string(size.cols) + "x" +
            std::to_string(size.rows));
    auto backend = context_.backend;
    auto logger = context_.log;
    uint64_t pane = pane_;
    offMain([backend, logger, pane, size] {
        try {
            backend->setViewport(pane, size);
        } catch (...) {
            if (logger)
                logger("viewport pane " + std::to_string(pane) + " failed: " + describe(std::current_exception()));
        }
    });
}

void PaneHostSink::sendInput(ByteView bytes) {
    if (!bytes.empty()) context_.backend->sendInput(pane_, bytes);
}

void PaneHostSink::applySize(int cols, int rows) {
    if (!terminal_) return;
    Size size{cols, rows};
    if (paneSize_ == size && terminal_->terminalSize() == size) return;
    if (context_.logModel)
        log("pane " + std::to_string(pane_) + " terminal → " + std::to_string(cols) + "x" + std::to_string(rows));
    paneSize_ = size;
    terminal_->resizeTerminal(cols, rows);
    terminal_->requestLayout();
}

void PaneHostSink::flush() {
    flushScheduled_ = false;
    if (pending_.empty() || !terminal_) return;
    Bytes bytes;
    bytes.swap(pending_);
    terminal_->feedFromBackend(bytes);
    if (haveSeq_) *haveSeq_ += bytes.size();
}

void PaneHostSink::paneSubscribed(const Subscription& subscription) {
    flush();
    applySize(subscription.cols, subscription.rows);
}

void PaneHostSink::paneOutput(uint64_t seq, ByteView bytes) {
    if (!terminal_) return;
    if (haveSeq_) {
        uint64_t expected = *haveSeq_ + pending_.size();
        if (seq != expected)
            log("pane " + std::to_string(pane_) + ": output at " + std::to_string(seq) + ", expected " +
                std::to_string(expected));
    } else {
        haveSeq_ = seq;
    }
    pending_.insert(pending_.end(), bytes.begin(), bytes.end());
    if (flushScheduled_) return;
    flushScheduled_ = true;
    // A burst of frames in one turn of the main queue costs one feed.
    std::weak_ptr<PaneHostSink> weak = weak_from_this();
    context_.mainQueue->post([weak] {
        if (auto host = weak.lock()) host->flush();
    });
}

void PaneHostSink::paneSnapshot(uint64_t seq, int cols, int rows, ByteView bytes) {
    if (!terminal_) return;
    pending_.clear();
    applySize(cols, rows);
    terminal_->feedFromBackend(bytes);
    haveSeq_ = seq;
}

void PaneHostSink::paneResized(int cols, int rows, uint64_t seq) {
    (void)seq;
    flush();
    applySize(cols, rows);
}

void PaneHostSink::paneResync() {
    pending_.clear();
}

void PaneHostSink::paneReset() {
    pending_.clear();
    haveSeq_.reset();
    if (!terminal_) return;
    static const uint8_t fullReset[] = {0x1B, 'c'};
    terminal_->feedFromBackend(fullReset);
}

void PaneHostSink::paneClipboard(const std::string& text, bool selection) {
    // Only the pane the user can see may write the clipboard.
    if (!terminal_ || !terminal_->isShown()) return;
    terminal_->writeClipboard(text, selection);
    size_t characters = std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; });
    log("pane " + std::to_string(pane_) + ": copied " + std::to_string(characters) +
        " characters to the clipboard (OSC 52)");
}

} // namespace corvex
