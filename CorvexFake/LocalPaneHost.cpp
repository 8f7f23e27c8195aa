#include "CorvexFake/LocalPaneHost.h"

#include "Platform/Locked.h"
#include "Platform/SerialQueue.h"
#include "Vellum/LocalProcess.h"
#include "Vellum/Terminal.h"
#include "Vellum/TerminalDelegate.h"

#include <mutex>
#include <thread>
#include <utility>

namespace corvex {

namespace {

// The pane's program and the terminal that watches its output for a title and bells.
class LocalPane : public PaneProcess, public vellum::LocalProcessDelegate, public vellum::TerminalDelegate {
public:
    LocalPane(PaneProcessEvents events, Size size, int scrollbackLines) : events_(std::move(events)), size_(size) {
        vellum::TerminalOptions options;
        options.cols = size.cols;
        options.rows = size.rows;
        if (scrollbackLines > 0) options.scrollback = scrollbackLines;
        terminal_ = std::make_unique<vellum::Terminal>(this, options);
    }

    ~LocalPane() override {
        process_.reset();
        // The last reference may go in a report that this very queue is running; a queue
        // can't join its own thread.
        if (queue_ && queue_->isCurrent()) std::thread([queue = std::move(queue_)] {}).detach();
    }

    bool start(const std::shared_ptr<LocalPane>& self, const PaneLaunch& launch) {
        queue_ = std::make_shared<platform::SerialQueue>("corvex.fake.pane." + std::to_string(launch.pane));
        process_ = vellum::LocalProcess::create(std::weak_ptr<vellum::LocalProcessDelegate>(self), queue_);
        std::vector<std::string> environment;
        for (const auto& [key, value] : launch.environment) environment.push_back(key + "=" + value);
        auto error = process_->startProcessChecked(launch.launch.executable, launch.launch.args, environment,
                                                   launch.launch.argv0, launch.cwd);
        return !error;
    }

    std::optional<int32_t> pid() const override {
        pid_t pid = process_->shellPid();
        return pid > 0 ? std::optional<int32_t>(pid) : std::nullopt;
    }
    void write(ByteView bytes) override {
        if (!bytes.empty()) process_->send(bytes);
    }
    void resize(Size size) override {
        size_.withLock([&](Size& held) { held = size; });
        if (size.cols > 0 && size.rows > 0) {
            std::lock_guard guard(terminalLock_);
            terminal_->resize(size.cols, size.rows);
        }
        if (size.cols >= 0 && size.cols <= 0xffff && size.rows >= 0 && size.rows <= 0xffff) {
            process_->updateWindowSize(windowSize(size));
        }
    }
    void hangUp() override { process_->terminate(); }
    std::optional<std::string> workingDirectory() const override { return process_->currentWorkingDirectory(); }
    void withTerminal(const std::function<void(vellum::Terminal&)>& visit) override {
        std::lock_guard guard(terminalLock_);
        visit(*terminal_);
    }
    uint64_t parsedBytes() const override { return parsed_; }

    void processTerminated(vellum::LocalProcess&, std::optional<int32_t> exitCode) override {
        if (events_.terminated) events_.terminated(exitCode);
    }
    void dataReceived(std::vector<unsigned char> slice) override {
        std::optional<std::string> title;
        bool bell = false;
        {
            std::lock_guard guard(terminalLock_);
            terminal_->feed(std::span<const uint8_t>(slice.data(), slice.size()));
            parsed_ += slice.size();
            title = std::exchange(pendingTitle_, std::nullopt);
            bell = std::exchange(pendingBell_, false);
        }
        if (events_.output) events_.output(slice);
        if ((title || bell) && events_.changed) events_.changed(title, std::nullopt, bell);
    }

    // Called while the output is parsed, under the terminal's lock.
    void setTerminalTitle(vellum::Terminal&, const std::string& title) override { pendingTitle_ = title; }
    void bell(vellum::Terminal&) override { pendingBell_ = true; }
    void sizeChanged(vellum::Terminal&) override {}
    void send(vellum::Terminal&, std::span<const uint8_t> data) override {
        if (process_ && !data.empty()) process_->send(data);
    }
    winsize getWindowSize() override { return windowSize(size_.withLock([](Size& held) { return held; })); }

private:
    static winsize windowSize(Size size) {
        winsize out{};
        out.ws_col = static_cast<unsigned short>(size.cols);
        out.ws_row = static_cast<unsigned short>(size.rows);
        return out;
    }

    PaneProcessEvents events_;
    platform::Locked<Size> size_;
    std::shared_ptr<platform::SerialQueue> queue_;
    std::shared_ptr<vellum::LocalProcess> process_;
    std::mutex terminalLock_; // guards the terminal and what it left pending
    std::unique_ptr<vellum::Terminal> terminal_;
    std::optional<std::string> pendingTitle_;
    bool pendingBell_ = false;
    uint64_t parsed_ = 0; // under terminalLock_
};

} // namespace

std::shared_ptr<PaneProcess> LocalPaneHost::spawn(const PaneLaunch& launch, PaneProcessEvents events) {
    auto pane = std::make_shared<LocalPane>(std::move(events), launch.size, launch.scrollbackLines);
    if (!pane->start(pane, launch)) return nullptr;
    return pane;
}

} // namespace corvex
