// The process side of the headless terminal: a child on a pseudo-terminal whose output is
// parsed under the terminal lock.
#include "Vellum/HeadlessTerminal.h"

#include <mutex>

namespace vellum {

// The watchdog goes first, waiting out a timer call in flight, so none can reach a terminal
// that is going away.
HeadlessTerminal::~HeadlessTerminal() { watchdog_.reset(); }

std::shared_ptr<HeadlessTerminal> HeadlessTerminal::create(TerminalOptions options, ProcessOptions process) {
    auto headless = std::make_shared<HeadlessTerminal>(std::move(options));
    headless->attachProcess(std::move(process));
    return headless;
}

void HeadlessTerminal::attachProcess(ProcessOptions options) {
    onLaunchFailure_ = std::move(options.onLaunchFailure);
    onEnd_ = std::move(options.onEnd);
    synchronizedOutputTimeout_ = options.synchronizedOutputTimeout;
    process_ = LocalProcess::create(std::weak_ptr<LocalProcessDelegate>(weak_from_this()), std::move(options.queue),
                                    options.directDelivery);
}

std::optional<LocalProcessError> HeadlessTerminal::startProcessChecked(
    const std::string& executable, const std::vector<std::string>& args,
    const std::optional<std::vector<std::string>>& environment, const std::optional<std::string>& execName,
    const std::optional<std::string>& currentDirectory) {
    if (!process_) return LocalProcessError::notRunning();
    return process_->startProcessChecked(executable, args, environment, execName, currentDirectory);
}

void HeadlessTerminal::startProcess(const std::string& executable, const std::vector<std::string>& args,
                                    const std::optional<std::vector<std::string>>& environment,
                                    const std::optional<std::string>& execName,
                                    const std::optional<std::string>& currentDirectory) {
    if (process_) process_->startProcess(executable, args, environment, execName, currentDirectory);
}

// A send writes what the child has room for and queues the rest; it never blocks, so a reply made
// while the child's output is being parsed goes straight out without deadlocking.
bool HeadlessTerminal::sendToProcess(std::span<const uint8_t> data) {
    if (!process_) return false;
    if (!data.empty()) process_->send(data);
    return true;
}

void HeadlessTerminal::send(std::span<const uint8_t> data) { sendToProcess(data); }

void HeadlessTerminal::send(std::string_view text) {
    sendToProcess(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

void HeadlessTerminal::resize(int cols, int rows) {
    if (cols > 0 && rows > 0) {
        std::lock_guard guard(*terminalLock_);
        if (terminal) terminal->resize(cols, rows);
    }
    if (process_ && cols >= 0 && cols <= 0xffff && rows >= 0 && rows <= 0xffff) {
        winsize size{};
        size.ws_col = static_cast<unsigned short>(cols);
        size.ws_row = static_cast<unsigned short>(rows);
        process_->updateWindowSize(size);
    }
}

void HeadlessTerminal::withTerminal(const std::function<void(Terminal&)>& visit) {
    std::lock_guard guard(*terminalLock_);
    if (terminal) visit(*terminal);
}

void HeadlessTerminal::processTerminated(LocalProcess&, std::optional<int32_t> exitCode) {
    if (onEnd_) onEnd_(exitCode);
}

void HeadlessTerminal::processFailedToStart(LocalProcess& source, const LocalProcessError& error) {
    if (onLaunchFailure_) onLaunchFailure_(error);
    else LocalProcessDelegate::processFailedToStart(source, error);
}

void HeadlessTerminal::dataReceived(std::vector<unsigned char> slice) { dataReceivedBorrowed(slice); }

void HeadlessTerminal::dataReceivedBorrowed(std::span<const unsigned char> bytes) {
    TerminalLock::setCurrentThreadRole(TerminalLockRole::parse);
    {
        std::lock_guard guard(*terminalLock_);
        if (!terminal) return; // the link was cut: the bytes go nowhere
        terminal->feed(bytes);
        parsedBytes_ += bytes.size();
    }
    outputParsed(bytes);
}

winsize HeadlessTerminal::getWindowSize() {
    winsize size{};
    std::lock_guard guard(*terminalLock_);
    if (terminal) {
        size.ws_col = static_cast<unsigned short>(terminal->cols());
        size.ws_row = static_cast<unsigned short>(terminal->rows());
    }
    return size;
}

void HeadlessTerminal::synchronizedOutputChanged(Terminal&, bool active) {
    // With no child there is nobody who could leave a batch open for long.
    if (!process_) return;
    if (active) ++synchronizedOutputGeneration_;
    if (!watchdog_) {
        if (!active) return;
        watchdog_ = std::make_unique<SynchronizedOutputWatchdog>();
        watchdog_->attach(std::weak_ptr<SynchronizedOutputTarget>(weak_from_this()));
    }
    watchdog_->update(active, synchronizedOutputGeneration_, synchronizedOutputTimeout_);
}

uint64_t HeadlessTerminal::synchronizedOutputGeneration() {
    std::lock_guard guard(*terminalLock_);
    return synchronizedOutputGeneration_;
}

void HeadlessTerminal::endSynchronizedOutput() {
    TerminalLock::setCurrentThreadRole(TerminalLockRole::timer);
    std::lock_guard guard(*terminalLock_);
    if (!terminal || !terminal->synchronizedOutputActive) return;
    terminal->synchronizedOutputActive = false;
    synchronizedOutputChanged(*terminal, false);
}

} // namespace vellum
