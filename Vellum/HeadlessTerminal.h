#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Vellum/LocalProcess.h"
#include "Vellum/SynchronizedOutputWatchdog.h"
#include "Vellum/Terminal.h"
#include "Vellum/TerminalLock.h"

namespace platform {
class SerialQueue;
}

namespace vellum {

// A terminal without a view. Bytes come in through `feed`; what the terminal sends back goes
// to the child program when one runs, else to `onSend` when set, and is otherwise collected
// in `replies`.
//
// Made with `create`, it also hosts a child program on a pseudo-terminal: the child's output
// is parsed on the I/O pipeline's parse thread under `terminalLock()`, and whoever else reads
// or feeds the terminal while a child runs must hold that lock too (`withTerminal`).
class HeadlessTerminal : public TerminalDelegate,
                         public LocalProcessDelegate,
                         public LocalProcessBorrowedDataDelegate,
                         public SynchronizedOutputTarget,
                         public std::enable_shared_from_this<HeadlessTerminal> {
public:
    explicit HeadlessTerminal(TerminalOptions options = {}) : terminal(std::make_unique<Terminal>(this, std::move(options))) {}
    ~HeadlessTerminal() override;

    void feed(std::span<const uint8_t> bytes) {
        if (terminal) terminal->feed(bytes);
    }
    void feed(std::string_view text) {
        if (terminal) terminal->feed(text);
    }

    void sizeChanged(Terminal&) override {}
    void send(Terminal&, std::span<const uint8_t> data) override {
        if (sendToProcess(data)) return;
        if (onSend) onSend(data);
        else replies.append(data.begin(), data.end());
    }

    void hostCurrentDirectoryUpdated(Terminal& source) override { dir = source.hostCurrentDirectory; }
    void createImageFromBitmap(Terminal&, std::vector<uint8_t>& rgba, int width, int height) override {
        images.push_back({rgba, width, height});
    }

    std::unique_ptr<Terminal> terminal;
    std::function<void(std::span<const uint8_t>)> onSend;
    std::string replies;
    // Where the program says it works (OSC 7), and the bitmaps it showed.
    std::optional<std::string> dir;
    struct Image {
        std::vector<uint8_t> rgba;
        int width = 0, height = 0;
    };
    std::vector<Image> images;

    // What the view knows, passed on under the terminal's lock.
    void setTerminalVisibility(bool visible) {
        withTerminal([&](Terminal& t) { t.setTerminalVisibility(visible); });
    }
    void updatePixelGeometry(int cellWidth, int cellHeight) {
        withTerminal([&](Terminal& t) { t.updatePixelGeometry(cellWidth, cellHeight); });
    }

    // Copies taken under the terminal's lock.
    TerminalInputStateSnapshot terminalInputStateSnapshot() {
        TerminalInputStateSnapshot snapshot;
        withTerminal([&](Terminal& t) { snapshot = t.inputStateSnapshot(); });
        return snapshot;
    }
    TerminalContentSnapshot terminalContentSnapshot(TerminalContentRegion region, bool alternate = false) {
        TerminalContentSnapshot snapshot;
        withTerminal([&](Terminal& t) { snapshot = t.contentSnapshot(region, alternate); });
        return snapshot;
    }

    // The process side.

    struct ProcessOptions {
        // Where exit and launch-failure reports arrive, and the output too without direct
        // delivery; the process makes a queue of its own when none is given.
        std::shared_ptr<platform::SerialQueue> queue;
        // Parse on the pipeline's parse thread, without a copy or a hop to the queue.
        bool directDelivery = true;
        // Without it a launch failure is written into the terminal itself.
        std::function<void(const LocalProcessError&)> onLaunchFailure;
        std::function<void(std::optional<int32_t> exitCode)> onEnd;
        // A synchronized-output batch that the child opens and never closes ends after this.
        std::chrono::milliseconds synchronizedOutputTimeout{1000};
    };

    static std::shared_ptr<HeadlessTerminal> create(TerminalOptions options, ProcessOptions process);

    // A failed launch is returned; `onLaunchFailure` hears only of failures of `startProcess`.
    std::optional<LocalProcessError> startProcessChecked(
        const std::string& executable, const std::vector<std::string>& args = {},
        const std::optional<std::vector<std::string>>& environment = std::nullopt,
        const std::optional<std::string>& execName = std::nullopt,
        const std::optional<std::string>& currentDirectory = std::nullopt);
    void startProcess(const std::string& executable, const std::vector<std::string>& args = {},
                      const std::optional<std::vector<std::string>>& environment = std::nullopt,
                      const std::optional<std::string>& execName = std::nullopt,
                      const std::optional<std::string>& currentDirectory = std::nullopt);

    // Writes to the child; dropped when none runs.
    void send(std::span<const uint8_t> data);
    void send(std::string_view text);
    // The terminal under its lock, then the child's window size.
    void resize(int cols, int rows);
    // Runs `visit` on the terminal while no output is being parsed into it.
    void withTerminal(const std::function<void(Terminal&)>& visit);
    TerminalLock& terminalLock() { return *terminalLock_; }
    // Bytes of the child's output parsed so far: the position the terminal's state stands
    // for. Read it under terminalLock().
    uint64_t parsedBytes() const { return parsedBytes_; }
    LocalProcess* process() const { return process_.get(); }

    // LocalProcessDelegate, LocalProcessBorrowedDataDelegate.
    void processTerminated(LocalProcess& source, std::optional<int32_t> exitCode) override;
    void processFailedToStart(LocalProcess& source, const LocalProcessError& error) override;
    void dataReceived(std::vector<unsigned char> slice) override;
    void dataReceivedBorrowed(std::span<const unsigned char> bytes) override;
    winsize getWindowSize() override;

    // SynchronizedOutputTarget, and the terminal's notice of a batch.
    uint64_t synchronizedOutputGeneration() override;
    void endSynchronizedOutput() override;
    void synchronizedOutputChanged(Terminal& source, bool active) override;

protected:
    // Makes the process; once, right after the object has come to be owned by a shared_ptr.
    void attachProcess(ProcessOptions options);
    // After each piece of the child's output has been parsed, outside the terminal lock, on
    // the delivering thread. Delegate calls made during the parse have been made by then.
    virtual void outputParsed(std::span<const uint8_t> bytes) { (void)bytes; }

private:
    bool sendToProcess(std::span<const uint8_t> data);

    std::shared_ptr<TerminalLock> terminalLock_ = std::make_shared<TerminalLock>();
    std::chrono::milliseconds synchronizedOutputTimeout_{1000};
    // Under the terminal lock. The watchdog is made at the first batch, so that a terminal
    // whose child never asks for one starts no timer thread.
    uint64_t synchronizedOutputGeneration_ = 0;
    std::unique_ptr<SynchronizedOutputWatchdog> watchdog_;
    std::function<void(const LocalProcessError&)> onLaunchFailure_;
    std::function<void(std::optional<int32_t>)> onEnd_;
    uint64_t parsedBytes_ = 0; // under terminalLock_
    std::shared_ptr<LocalProcess> process_; // last, so it goes first
};

} // namespace vellum
