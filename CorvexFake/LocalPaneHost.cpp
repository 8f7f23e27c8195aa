#include "CorvexFake/LocalPaneHost.h"

#include "Platform/Locked.h"
#include "Platform/SerialQueue.h"
#include "Vellum/LocalProcess.h"

#include <thread>

namespace corvex {

namespace {

class LocalPane : public PaneProcess, public vellum::LocalProcessDelegate {
public:
    LocalPane(PaneProcessEvents events, Size size) : events_(std::move(events)), size_(size) {}

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
        if (size.cols >= 0 && size.cols <= 0xffff && size.rows >= 0 && size.rows <= 0xffff) {
            process_->updateWindowSize(windowSize(size));
        }
    }
    void hangUp() override { process_->terminate(); }
    std::optional<std::string> workingDirectory() const override { return process_->currentWorkingDirectory(); }

    void processTerminated(vellum::LocalProcess&, std::optional<int32_t> exitCode) override {
        if (events_.terminated) events_.terminated(exitCode);
    }
    void dataReceived(std::vector<unsigned char> slice) override {
        if (events_.output) events_.output(slice);
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
};

} // namespace

std::shared_ptr<PaneProcess> LocalPaneHost::spawn(const PaneLaunch& launch, PaneProcessEvents events) {
    auto pane = std::make_shared<LocalPane>(std::move(events), launch.size);
    if (!pane->start(pane, launch)) return nullptr;
    return pane;
}

} // namespace corvex
