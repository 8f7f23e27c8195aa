#include "CorvexFake/LocalPaneHost.h"

#include <mutex>
#include <thread>
#include <utility>

#include "Platform/SerialQueue.h"
#include "Vellum/HeadlessTerminal.h"

namespace corvex {

namespace {

vellum::TerminalOptions terminalOptions(Size size, int scrollbackLines) {
    vellum::TerminalOptions options;
    options.cols = size.cols;
    options.rows = size.rows;
    if (scrollbackLines > 0) options.scrollback = scrollbackLines;
    return options;
}

// The pane's program on a headless terminal, which watches the output for a title and bells.
// The output is parsed on the process's parse thread, then handed to the core.
class LocalPane : public vellum::HeadlessTerminal, public PaneProcess {
public:
    LocalPane(PaneProcessEvents events, Size size, int scrollbackLines)
        : HeadlessTerminal(terminalOptions(size, scrollbackLines)), events_(std::move(events)) {}

    bool start(const PaneLaunch& launch) {
        auto terminated = events_.terminated;
        attachProcess({.queue = std::make_shared<platform::SerialQueue>("corvex.fake.pane." + std::to_string(launch.pane)),
                       .directDelivery = true,
                       .onLaunchFailure = nullptr,
                       .onEnd = [terminated](std::optional<int32_t> code) {
                           if (terminated) terminated(code);
                       }});
        std::vector<std::string> environment;
        for (const auto& [key, value] : launch.environment) environment.push_back(key + "=" + value);
        // The terminal may be narrower than asked (two columns at least); the child is told
        // the size the pane was given.
        if (launch.size.cols > 0 && launch.size.rows > 0) requestedSize_ = launch.size;
        return !startProcessChecked(launch.launch.executable, launch.launch.args, environment, launch.launch.argv0,
                                    launch.cwd);
    }

    std::optional<int32_t> pid() const override {
        pid_t pid = process()->shellPid();
        return pid > 0 ? std::optional<int32_t>(pid) : std::nullopt;
    }
    void write(ByteView bytes) override { HeadlessTerminal::send(bytes); }
    void resize(Size size) override { HeadlessTerminal::resize(size.cols, size.rows); }
    void hangUp() override { process()->hangUp(); }
    std::optional<std::string> workingDirectory() const override { return process()->currentWorkingDirectory(); }
    void withTerminal(const std::function<void(vellum::Terminal&)>& visit) override {
        HeadlessTerminal::withTerminal(visit);
    }
    uint64_t parsedBytes() const override { return HeadlessTerminal::parsedBytes(); }

    winsize getWindowSize() override {
        if (!requestedSize_) return HeadlessTerminal::getWindowSize();
        winsize size{};
        size.ws_col = static_cast<unsigned short>(requestedSize_->cols);
        size.ws_row = static_cast<unsigned short>(requestedSize_->rows);
        return size;
    }

    // Called while the output is parsed, under the terminal's lock.
    void setTerminalTitle(vellum::Terminal&, const std::string& title) override {
        std::lock_guard guard(pendingLock_);
        pendingTitle_ = title;
    }
    void bell(vellum::Terminal&) override {
        std::lock_guard guard(pendingLock_);
        pendingBell_ = true;
    }

protected:
    void outputParsed(std::span<const uint8_t> bytes) override {
        if (events_.output) events_.output(bytes);
        std::optional<std::string> title;
        bool bell = false;
        {
            std::lock_guard guard(pendingLock_);
            title = std::exchange(pendingTitle_, std::nullopt);
            bell = std::exchange(pendingBell_, false);
        }
        if ((title || bell) && events_.changed) events_.changed(title, std::nullopt, bell);
    }

private:
    PaneProcessEvents events_;
    std::optional<Size> requestedSize_; // what the pane was started with
    std::mutex pendingLock_;            // a leaf, taken inside the terminal lock
    std::optional<std::string> pendingTitle_;
    bool pendingBell_ = false;
};

} // namespace

std::shared_ptr<PaneProcess> LocalPaneHost::spawn(const PaneLaunch& launch, PaneProcessEvents events) {
    auto pane = std::make_shared<LocalPane>(std::move(events), launch.size, launch.scrollbackLines);
    if (!pane->start(launch)) return nullptr;
    return pane;
}

} // namespace corvex
