#include "Tools/corvex/Attach.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <deque>
#include <mutex>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "CorvexKit/AgentRules.h"
#include "CorvexKit/CorvexdBackend.h"
#include "Platform/Descriptors.h"
#include "Platform/SerialQueue.h"
#include "Tools/corvex/AttachKeys.h"
#include "Tools/corvex/AttachScreen.h"
#include "Tools/corvex/Commands.h"
#include "Tools/corvex/SessionTree.h"
#include "Tools/corvex/Terminal.h"
#include "Vellum/HeadlessTerminal.h"

namespace corvex::cli {

using namespace std::chrono_literals;

namespace {

Size terminalSize() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0) {
        return Size{size.ws_col, size.ws_row};
    }
    return Size{80, 24};
}

class RawTerminal {
public:
    RawTerminal() {
        if (::tcgetattr(STDIN_FILENO, &saved_) != 0) return;
        termios raw = saved_;
        ::cfmakeraw(&raw);
        active_ = ::tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
    }
    ~RawTerminal() { restore(); }
    void restore() {
        if (active_) ::tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
        active_ = false;
    }

private:
    termios saved_{};
    bool active_ = false;
};

// The alternate screen while attached; on the way out every mode that attach set is undone
// and the user's own screen, with the prompt they left, comes back as it was.
constexpr std::string_view enterScreen = "\x1b[?1049h\x1b[H\x1b[2J";
constexpr std::string_view leaveScreen = "\x1b[m\x1b[?1l\x1b>\x1b[?2004l\x1b[?1004l\x1b[?25h\x1b[?1049l";

// Asks the user's terminal for its colours and waits briefly; a terminal that doesn't
// answer costs at most the timeout.
std::optional<TerminalColors> askColors() {
    platform::writeAll(STDOUT_FILENO, colorQueries());
    std::string replies;
    auto deadline = std::chrono::steady_clock::now() + 300ms;
    // The device attributes answer ("ESC [ ? ... c") comes last.
    auto answered = [&] {
        size_t at = replies.rfind("\x1b[?");
        return at != std::string::npos && replies.find('c', at) != std::string::npos;
    };
    while (!answered()) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= 0ms) break;
        pollfd poller{STDIN_FILENO, POLLIN, 0};
        if (::poll(&poller, 1, static_cast<int>(left.count())) <= 0) continue;
        char buffer[4096];
        ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (count <= 0) break;
        replies.append(buffer, static_cast<size_t>(count));
    }
    return parseColorReplies(replies);
}

// Modes of the pane's program that change what keys send: the user's terminal is put in
// the same ones, so that its keys arrive as the program expects them.
std::string inputModes(const vellum::TerminalInputStateSnapshot& state) {
    std::string out;
    out += state.applicationCursor ? "\x1b[?1h" : "\x1b[?1l";
    out += state.applicationKeypad ? "\x1b=" : "\x1b>";
    out += state.bracketedPasteMode ? "\x1b[?2004h" : "\x1b[?2004l";
    out += state.focusReportingEnabled ? "\x1b[?1004h" : "\x1b[?1004l";
    return out;
}

struct Shared {
    std::mutex lock;
    std::deque<AttachAction> actions;
    // While the scrollback view is open keys go to it, never to the pane.
    std::atomic<bool> viewing{false};
    std::string viewKeys;
    // Keys typed behind a prefix action wait until it is done: after a split or a move of
    // focus they belong to the pane the action leads to, not the one it leaves.
    bool acting = false;
    std::string heldKeys;
    std::atomic<bool> hungUp{false};
    std::atomic<bool> resized{false};
    std::atomic<uint64_t> pane{0};
};

class AttachView {
public:
    AttachView(CorvexdBackend& backend, uint64_t pane, char prefix) : backend_(backend), prefix_(prefix) {
        shared_->pane = pane;
    }

    int run() {
        if (!::isatty(STDIN_FILENO) || !::isatty(STDOUT_FILENO)) {
            throw BackendError("bad_request", "attach needs a terminal");
        }
        state_ = backend_.getState();
        if (!state_.pane(pane())) throw BackendError("not_found", "no pane " + std::to_string(pane()));
        auto hello = backend_.lastHello();
        machine_ = hello && hello->machine ? hello->machine->hostname : "corvexd";
        // Events from before the pane was chosen don't tell of this pane.
        while (backend_.events()->tryNext()) {
        }
        RawTerminal raw;
        if (auto colors = askColors()) backend_.setTerminalColors(colors);
        historyLines_ = retainedHistory();
        platform::writeAll(STDOUT_FILENO, enterScreen);
        startThreads();
        show(pane());
        std::string note = loop();
        // Input is fire and forget: an answered ping behind it tells it has been read.
        try {
            backend_.ping();
        } catch (const BackendError&) {
        }
        platform::writeAll(STDOUT_FILENO, leaveScreen);
        raw.restore();
        platform::writeAll(STDOUT_FILENO, "[" + note + "]\r\n");
        return 0;
    }

private:
    uint64_t pane() const { return shared_->pane; }

    Size area() const { return Size{client_.cols, std::max(client_.rows - 1, 1)}; }

    void startThreads() {
        std::weak_ptr<CorvexdBackend> weak = backend_.shared_from_this();
        auto shared = shared_;
        char prefix = prefix_;
        std::thread([weak, shared, prefix] {
            platform::setCurrentThreadName("corvex.keyboard");
            PrefixReader reader(prefix);
            char buffer[4096];
            for (;;) {
                ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
                if (count < 0 && errno == EINTR) continue;
                if (count <= 0) {
                    shared->hungUp = true;
                    return;
                }
                auto self = weak.lock();
                if (!self) return;
                std::string_view typed(buffer, static_cast<size_t>(count));
                if (shared->viewing) {
                    std::lock_guard guard(shared->lock);
                    shared->viewKeys += typed;
                    continue;
                }
                for (auto& item : reader.feed(typed)) {
                    if (auto* bytes = std::get_if<std::string>(&item)) {
                        {
                            std::lock_guard guard(shared->lock);
                            if (shared->viewing) {
                                shared->viewKeys += *bytes;
                                continue;
                            }
                            if (shared->acting || !shared->actions.empty()) {
                                shared->heldKeys += *bytes;
                                continue;
                            }
                        }
                        self->sendInput(shared->pane, asBytes(*bytes));
                        continue;
                    }
                    auto action = std::get<AttachAction>(item);
                    // Set here, not when the loop gets to it, so that keys typed right after
                    // already go to the view.
                    if (action == AttachAction::scrollback) shared->viewing = true;
                    std::lock_guard guard(shared->lock);
                    shared->actions.push_back(action);
                    if (action == AttachAction::detach) return;
                }
            }
        }).detach();
        std::thread([shared] {
            platform::setCurrentThreadName("corvex.signals");
            sigset_t set = interactiveSignals();
            for (;;) {
                int number = 0;
                if (::sigwait(&set, &number) != 0) continue;
                if (number == SIGWINCH) shared->resized = true;
                else shared->hungUp = true;
            }
        }).detach();
    }

    // Starts showing a pane with the rest of its tab around it.
    void show(uint64_t id) {
        shared_->pane = id;
        client_ = terminalSize();
        retile(false);
        painter_.invalidate();
        dirty_ = true;
    }

    // Lays the focused pane's tab out on the screen: panes that appear get a fresh local
    // terminal fed from their snapshot on, panes that left are dropped, and each pane is
    // sized to its place (all of them when `resizeAll`, as after the user's terminal changed).
    void retile(bool resizeAll) {
        uint64_t focus = pane();
        auto where = state_.location(focus);
        Layout layout = where && where->tab && where->tab->layout.contains(focus) ? where->tab->layout : Layout::leaf(focus);
        tiles_ = tileLayout(layout, area().cols, area().rows);
        for (auto it = panes_.begin(); it != panes_.end();) {
            if (tiles_.panes.count(it->first)) {
                ++it;
                continue;
            }
            try {
                backend_.unsubscribe(it->first);
            } catch (const BackendError&) {
            }
            it = panes_.erase(it);
        }
        for (const auto& [id, rect] : tiles_.panes) {
            Size size{std::max(rect.cols, 1), std::max(rect.rows, 1)};
            auto [at, fresh] = panes_.try_emplace(id);
            bool moved = !(at->second.size == size);
            at->second.size = size;
            if (fresh) {
                const Pane* known = state_.pane(id);
                resetTerminal(id, known ? known->cols : size.cols, known ? known->rows : size.rows);
                backend_.resize(id, size);
                backend_.subscribe(id, std::nullopt, historyLines_, size);
            } else if (moved || resizeAll) {
                try {
                    backend_.setViewport(id, size);
                    backend_.resize(id, size);
                } catch (const BackendError&) {
                    // A lost link resubscribes with the new viewport.
                }
            }
        }
    }

    vellum::HeadlessTerminal& local() { return *panes_.at(pane()).terminal; }

    void resetTerminal(uint64_t id, int cols, int rows) {
        vellum::TerminalOptions options;
        options.cols = std::max(cols, 1);
        options.rows = std::max(rows, 1);
        options.scrollback = historyLines_;
        auto& terminal = panes_[id].terminal;
        terminal = std::make_shared<vellum::HeadlessTerminal>(options);
        // The daemon's own terminal of the pane answers the program; this one stays silent.
        terminal->onSend = [](std::span<const uint8_t>) {};
    }

    // As much history as the daemon keeps of a pane, for the scrollback view.
    int retainedHistory() {
        try {
            return std::max(backend_.getSettings().scrollbackLines, 0);
        } catch (const BackendError&) {
            return 3000;
        }
    }

    void openScrollback() {
        auto history = local().terminal->contentSnapshot(vellum::TerminalContentRegion::history(historyLines_), false);
        view_.emplace(std::move(history.rows), area().rows);
        dirty_ = true;
    }

    void feedScrollback() {
        std::string keys;
        {
            // Keys typed right after the prefix may come before the view opens: they wait.
            std::lock_guard guard(shared_->lock);
            if (!view_) return;
            keys.swap(shared_->viewKeys);
        }
        if (keys.empty()) return;
        dirty_ = true;
        if (view_->feed(keys)) return;
        view_.reset();
        shared_->viewing = false;
    }

    std::string loop() {
        auto events = backend_.events();
        for (;;) {
            if (shared_->hungUp) return "detached from pane " + std::to_string(pane());
            if (auto note = takeActions()) return *note;
            feedScrollback();
            if (shared_->resized.exchange(false)) {
                client_ = terminalSize();
                if (view_) view_->setHeight(area().rows);
                try {
                    retile(true);
                } catch (const BackendError&) {
                    // A lost link resubscribes with the new viewport.
                }
                painter_.invalidate();
                dirty_ = true;
            }
            auto event = events->next(dirty_ ? 5ms : 50ms);
            while (event) {
                if (auto note = take(*event)) return *note;
                event = events->tryNext();
            }
            if (dirty_) paint();
        }
    }

    // One event; a note when it ends the attach.
    std::optional<std::string> take(const SessionEvent& event) {
        uint64_t id = pane();
        if (auto output = event.as<SessionEvent::Output>(); output && panes_.count(output->pane)) {
            panes_.at(output->pane).terminal->feed(std::span<const uint8_t>(output->bytes.data(), output->bytes.size()));
            dirty_ = true;
        } else if (auto snapshot = event.as<SessionEvent::Snapshot>(); snapshot && panes_.count(snapshot->pane)) {
            resetTerminal(snapshot->pane, snapshot->cols, snapshot->rows);
            panes_.at(snapshot->pane).terminal->feed(std::span<const uint8_t>(snapshot->bytes.data(), snapshot->bytes.size()));
            dirty_ = true;
        } else if (auto resized = event.as<SessionEvent::Resized>(); resized && panes_.count(resized->pane)) {
            panes_.at(resized->pane).terminal->terminal->resize(std::max(resized->cols, 1), std::max(resized->rows, 1));
            dirty_ = true;
        } else if (auto state = event.as<SessionEvent::State>()) {
            state_ = state->state;
            dirty_ = true;
            if (!state_.pane(id)) return "pane " + std::to_string(id) + " exited";
            // Another client may have split or closed panes of the tab shown.
            try {
                retile(false);
            } catch (const BackendError& error) {
                message_ = error.message();
            }
        } else if (auto changed = event.as<SessionEvent::PaneChanged>()) {
            for (auto& each : state_.panes) {
                if (each.id == changed->pane.id) each = changed->pane;
            }
            dirty_ = true;
            if (changed->pane.id == id && changed->pane.exited) return "pane " + std::to_string(id) + " exited";
        } else if (auto agent = event.as<SessionEvent::Agent>()) {
            for (auto& each : state_.panes) {
                if (each.id == agent->pane) each.agent = agent->info;
            }
            dirty_ = true;
        } else if (event.as<SessionEvent::RetryPaused>() && backend_.daemonWasShutDown()) {
            return std::string("corvexd was shut down");
        }
        return std::nullopt;
    }

    std::optional<std::string> takeActions() {
        std::deque<AttachAction> actions;
        {
            std::lock_guard guard(shared_->lock);
            actions.swap(shared_->actions);
            shared_->acting = !actions.empty();
        }
        for (auto action : actions) {
            try {
                if (auto note = act(action)) return note;
            } catch (const BackendError& error) {
                message_ = error.message();
                dirty_ = true;
            }
        }
        if (actions.empty()) return std::nullopt;
        std::string held;
        {
            std::lock_guard guard(shared_->lock);
            shared_->acting = false;
            // Another action came meanwhile: its turn first, then the keys.
            if (!shared_->actions.empty()) return std::nullopt;
            held.swap(shared_->heldKeys);
            if (shared_->viewing) {
                shared_->viewKeys.insert(0, held);
                held.clear();
            }
        }
        if (!held.empty()) backend_.sendInput(pane(), asBytes(held));
        return std::nullopt;
    }

    std::optional<std::string> act(AttachAction action) {
        auto where = state_.location(pane());
        switch (action) {
        case AttachAction::detach: return "detached from pane " + std::to_string(pane());
        case AttachAction::sendPrefix: break;
        case AttachAction::scrollback: openScrollback(); break;
        case AttachAction::nextTab:
        case AttachAction::previousTab:
            if (where && where->workspace && where->tab) {
                const auto& tabs = where->workspace->tabs;
                size_t at = 0;
                while (at < tabs.size() && tabs[at].id != where->tab->id) ++at;
                size_t next = action == AttachAction::nextTab ? (at + 1) % tabs.size() : (at + tabs.size() - 1) % tabs.size();
                switchTo(tabs[next].activePane);
            }
            break;
        case AttachAction::newTab:
            if (where && where->workspace) {
                SpawnOptions spawn;
                if (const Pane* current = state_.pane(pane())) spawn.cwd = current->cwd;
                switchTo(backend_.createTab(where->workspace->id, spawn).pane);
            }
            break;
        case AttachAction::splitRight:
        case AttachAction::splitDown:
            switchTo(backend_.split(pane(), action == AttachAction::splitRight ? Direction::right : Direction::down,
                                    std::nullopt, SpawnOptions{})
                         .pane);
            break;
        case AttachAction::nextPane:
        case AttachAction::previousPane:
            if (where && where->tab) {
                auto panes = where->tab->layout.panes();
                size_t at = 0;
                while (at < panes.size() && panes[at] != pane()) ++at;
                if (panes.size() > 1) {
                    size_t next = action == AttachAction::nextPane ? (at + 1) % panes.size()
                                                                    : (at + panes.size() - 1) % panes.size();
                    switchTo(panes[next]);
                }
            }
            break;
        case AttachAction::closePane: {
            uint64_t closing = pane();
            std::optional<uint64_t> after;
            if (where && where->tab) {
                for (uint64_t other : where->tab->layout.panes()) {
                    if (other != closing && !after) after = other;
                }
            }
            // The tab's last pane: the attach goes on in another tab of the workspace.
            if (!after && where && where->workspace) {
                for (const auto& tab : where->workspace->tabs) {
                    if (!after && where->tab && tab.id != where->tab->id) after = tab.activePane;
                }
            }
            if (!after) {
                backend_.closePane(closing);
                return "pane " + std::to_string(closing) + " closed";
            }
            // Keys typed from now on go where the attach goes on, not to the closing pane.
            shared_->pane = *after;
            try {
                backend_.closePane(closing);
            } catch (const BackendError&) {
                shared_->pane = closing;
                throw;
            }
            state_ = backend_.getState();
            show(*after);
            try {
                backend_.focus(FocusTarget::pane(*after));
            } catch (const BackendError&) {
            }
            break;
        }
        }
        return std::nullopt;
    }

    void switchTo(uint64_t id) {
        if (id == pane()) return;
        state_ = backend_.getState();
        show(id);
        try {
            backend_.focus(FocusTarget::pane(id));
        } catch (const BackendError&) {
        }
    }

    std::string statusLine() const {
        std::string line = " " + machine_;
        auto where = state_.location(pane());
        if (where && where->workspace) {
            line += " | " + where->workspace->name + " |";
            int number = 1;
            for (const auto& tab : where->workspace->tabs) {
                bool current = where->tab && where->tab->id == tab.id;
                line += " " + std::to_string(number++) + ":" + tabLabel(state_, tab) + (current ? "*" : "");
                for (uint64_t id : tab.layout.panes()) {
                    if (const Pane* each = state_.pane(id); each && each->agent) line += " [" + agentBadge(*each) + "]";
                }
            }
        }
        if (!message_.empty()) line += " | " + message_;
        line += " | " + prefixName(prefix_) + " d detaches";
        return line;
    }

    ScreenFrame tiledFrame() {
        std::vector<vellum::TerminalContentSnapshot> contents;
        contents.reserve(tiles_.panes.size());
        std::vector<PaneTile> tiles;
        size_t focused = 0;
        for (const auto& [id, rect] : tiles_.panes) {
            auto& terminal = *panes_.at(id).terminal->terminal;
            bool alternate = terminal.inputStateSnapshot().isAlternateBuffer;
            contents.push_back(terminal.contentSnapshot(vellum::TerminalContentRegion::viewport(), alternate));
            if (id == pane()) focused = tiles.size();
            tiles.push_back(PaneTile{&contents.back(), !terminal.cursorHidden, rect});
        }
        return composeTiles(tiles, tiles_, focused, client_.cols, client_.rows, statusLine());
    }

    void paint() {
        dirty_ = false;
        if (view_) {
            platform::writeAll(STDOUT_FILENO, painter_.paint(view_->frame(client_.cols, client_.rows)));
            return;
        }
        auto& terminal = *local().terminal;
        auto input = terminal.inputStateSnapshot();
        std::string bytes = painter_.paint(panes_.size() > 1 ? tiledFrame() : [&] {
            auto content = terminal.contentSnapshot(vellum::TerminalContentRegion::viewport(), input.isAlternateBuffer);
            return composeFrame(content, !terminal.cursorHidden, client_.cols, client_.rows, statusLine());
        }());
        std::string modes = inputModes(input);
        if (modes != modes_) {
            bytes += modes;
            modes_ = modes;
        }
        platform::writeAll(STDOUT_FILENO, bytes);
    }

    CorvexdBackend& backend_;
    char prefix_;
    std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
    ModelState state_;
    std::string machine_;
    std::string message_;
    Size client_{80, 24};
    struct ShownPane {
        std::shared_ptr<vellum::HeadlessTerminal> terminal;
        Size size; // the place it has on the screen
    };
    // Every pane of the tab shown, each with its own subscription.
    std::map<uint64_t, ShownPane> panes_;
    TileLayout tiles_;
    ScreenPainter painter_;
    std::string modes_;
    std::optional<ScrollbackView> view_;
    int historyLines_ = 0;
    bool dirty_ = false;
};

} // namespace

int attachSession(CorvexdBackend& backend, uint64_t pane, char prefix) { return AttachView(backend, pane, prefix).run(); }

} // namespace corvex::cli
