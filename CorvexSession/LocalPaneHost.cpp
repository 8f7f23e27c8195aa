#include "CorvexSession/LocalPaneHost.h"

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

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The path of a directory a program reported: "file://host/path" with %-escapes, or a
// plain absolute path. Anything else says nothing.
std::optional<std::string> reportedDirectory(std::string_view report) {
    constexpr std::string_view scheme = "file://";
    if (report.substr(0, scheme.size()) == scheme) {
        report.remove_prefix(scheme.size());
        auto slash = report.find('/');
        if (slash == std::string_view::npos) return std::nullopt;
        report.remove_prefix(slash);
    }
    if (report.empty() || report.front() != '/') return std::nullopt;
    std::string path;
    for (size_t i = 0; i < report.size(); ++i) {
        if (report[i] == '%' && i + 2 < report.size() && hexValue(report[i + 1]) >= 0 && hexValue(report[i + 2]) >= 0) {
            path.push_back(static_cast<char>(hexValue(report[i + 1]) * 16 + hexValue(report[i + 2])));
            i += 2;
        } else {
            path.push_back(report[i]);
        }
    }
    return path;
}

// The pane's program on a headless terminal, which watches the output for a title, a directory,
// bells and clipboard texts.
// The output is parsed on the shared parse threads, then handed to the core.
class LocalPane : public vellum::HeadlessTerminal, public PaneProcess {
public:
    LocalPane(PaneProcessEvents events, Size size, int scrollbackLines)
        : HeadlessTerminal(terminalOptions(size, scrollbackLines)), events_(std::move(events)) {}

    bool start(const PaneLaunch& launch, PaneProgramSource* source, std::shared_ptr<platform::SerialQueue> reports) {
        auto terminated = events_.terminated;
        if (source) {
            auto held = launch.resume ? source->take(launch.pane) : source->start(launch);
            if (!held) return false;
            held_ = *held;
            terminated = [terminated, release = held->release](std::optional<int32_t> code) {
                if (release) release();
                if (terminated) terminated(code);
            };
        }
        attachProcess({.queue = std::move(reports),
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
        if (source) return adopt(launch);
        return !startProcessChecked(launch.launch.executable, launch.launch.args, environment, launch.launch.argv0,
                                    launch.cwd);
    }

    // The terminal is rebuilt before any of the program's new output is read, and counts on
    // from where the previous process stopped.
    bool adopt(const PaneLaunch& launch) {
        if (launch.resume) {
            HeadlessTerminal::feed(std::string_view(launch.resume->screen));
            replies.clear(); // answers to the rebuilding, not to the program
            parsedOffset_ = launch.resume->seq;
        }
        return !process()->adoptProcess(held_.pid, held_.master, held_.status);
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
    uint64_t parsedBytes() const override { return parsedOffset_ + HeadlessTerminal::parsedBytes(); }
    // The program stays held for the next process; this one stops reading it.
    void settle() override { process()->release(); }
    bool hasTerminal() const override { return true; }

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
    void hostCurrentDirectoryUpdated(vellum::Terminal& source) override {
        HeadlessTerminal::hostCurrentDirectoryUpdated(source);
        if (!source.hostCurrentDirectory) return;
        auto directory = reportedDirectory(*source.hostCurrentDirectory);
        std::lock_guard guard(pendingLock_);
        if (directory) pendingCwd_ = directory;
    }
    void clipboardCopy(vellum::Terminal&, const std::vector<uint8_t>& content) override {
        std::lock_guard guard(pendingLock_);
        pendingClipboard_.emplace_back(content.begin(), content.end());
    }

protected:
    void outputParsed(std::span<const uint8_t> bytes) override {
        if (events_.output) events_.output(bytes);
        std::optional<std::string> title, cwd;
        bool bell = false;
        std::vector<std::string> clipboard;
        {
            std::lock_guard guard(pendingLock_);
            title = std::exchange(pendingTitle_, std::nullopt);
            cwd = std::exchange(pendingCwd_, std::nullopt);
            bell = std::exchange(pendingBell_, false);
            clipboard = std::exchange(pendingClipboard_, {});
        }
        if (!clipboard.empty() && events_.clipboard) events_.clipboard(clipboard);
        if ((title || cwd || bell) && events_.changed) events_.changed(title, cwd, bell);
    }

private:
    PaneProcessEvents events_;
    HeldProgram held_;
    uint64_t parsedOffset_ = 0;
    std::optional<Size> requestedSize_; // what the pane was started with
    std::mutex pendingLock_;            // a leaf, taken inside the terminal lock
    std::optional<std::string> pendingTitle_, pendingCwd_;
    bool pendingBell_ = false;
    std::vector<std::string> pendingClipboard_;
};

} // namespace

LocalPaneHost::LocalPaneHost(std::shared_ptr<PaneProgramSource> source)
    : source_(std::move(source)), reports_(std::make_shared<platform::SerialQueue>("corvex.pane-reports")) {}

std::shared_ptr<PaneProcess> LocalPaneHost::spawn(const PaneLaunch& launch, PaneProcessEvents events) {
    auto pane = std::make_shared<LocalPane>(std::move(events), launch.size, launch.scrollbackLines);
    if (!pane->start(launch, source_.get(), reports_)) return nullptr;
    return pane;
}

} // namespace corvex
