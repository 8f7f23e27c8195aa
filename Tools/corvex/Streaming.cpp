#include <atomic>
#include <csignal>
#include <iostream>
#include <string_view>
#include <sys/ioctl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "CorvexKit/CorvexdBackend.h"
#include "Platform/Descriptors.h"
#include "Platform/SerialQueue.h"
#include "Tools/corvex/Commands.h"
#include "Tools/corvex/EventLines.h"
#include "Tools/corvex/Terminal.h"

namespace corvex::cli {

using namespace std::chrono_literals;

namespace {

std::string_view view(const Bytes& bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

// The daemon went on purpose: following it further would start another one.
bool daemonEnded(const SessionEvent& event, const CorvexdBackend& backend) {
    return event.as<SessionEvent::RetryPaused>() && backend.daemonWasShutDown();
}

// What ends a pane's stream: its program exited, or the pane left the tree.
bool paneIsOver(const SessionEvent& event, uint64_t pane) {
    if (auto changed = event.as<SessionEvent::PaneChanged>()) return changed->pane.id == pane && changed->pane.exited;
    if (auto state = event.as<SessionEvent::State>()) return state->state.pane(pane) == nullptr;
    return false;
}

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

// Modes a program in the pane may have left on, switched off before the shell gets the
// terminal back.
constexpr std::string_view leaveModes =
    "\x1b[m\x1b[?25h\x1b[?1049l\x1b[?1000l\x1b[?1002l\x1b[?1003l\x1b[?1006l\x1b[?2004l\x1b[?1l\x1b>";
constexpr std::string_view clearScreen = "\x1b[H\x1b[2J";

int attachPane(CorvexdBackend& backend, uint64_t pane) {
    if (!::isatty(STDIN_FILENO) || !::isatty(STDOUT_FILENO)) throw BackendError("bad_request", "attach needs a terminal");
    struct Flags {
        std::atomic<bool> detach{false};
        std::atomic<bool> resized{false};
        std::atomic<bool> hungUp{false};
    };
    auto flags = std::make_shared<Flags>();
    Size size = terminalSize();
    backend.resize(pane, size);

    // Events from before the pane was chosen, such as the empty state seen at connect, don't
    // tell of this pane.
    while (backend.events()->tryNext()) {
    }
    RawTerminal raw;
    platform::writeAll(STDOUT_FILENO, clearScreen);
    backend.subscribe(pane, std::nullopt, std::nullopt, size);

    std::weak_ptr<CorvexdBackend> weak = backend.shared_from_this();
    std::thread([weak, flags, pane] {
        platform::setCurrentThreadName("corvex.keyboard");
        char buffer[4096];
        for (;;) {
            ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) {
                flags->hungUp = true;
                return;
            }
            std::string_view typed(buffer, static_cast<size_t>(count));
            auto key = findDetachKey(typed);
            auto self = weak.lock();
            if (!self) return;
            self->sendInput(pane, asBytes(typed.substr(0, key.value_or(typed.size()))));
            if (key) {
                flags->detach = true;
                return;
            }
        }
    }).detach();
    std::thread([flags] {
        platform::setCurrentThreadName("corvex.signals");
        sigset_t set = interactiveSignals();
        for (;;) {
            int number = 0;
            if (::sigwait(&set, &number) != 0) continue;
            if (number == SIGWINCH) flags->resized = true;
            else flags->hungUp = true;
        }
    }).detach();

    auto events = backend.events();
    auto finish = [&](const std::string& note) {
        // Input is fire and forget: an answered ping behind it tells it has been read.
        try {
            backend.ping();
        } catch (const BackendError&) {
        }
        platform::writeAll(STDOUT_FILENO, leaveModes);
        raw.restore();
        platform::writeAll(STDOUT_FILENO, "\r\n[" + note + "]\r\n");
        return 0;
    };
    for (;;) {
        if (flags->detach) return finish("detached from pane " + std::to_string(pane));
        if (flags->hungUp) return finish("detached from pane " + std::to_string(pane));
        if (flags->resized.exchange(false)) {
            size = terminalSize();
            try {
                backend.setViewport(pane, size);
                backend.resize(pane, size);
            } catch (const BackendError&) {
                // A lost link resubscribes with the new viewport.
            }
        }
        auto event = events->next(50ms);
        if (!event) continue;
        if (auto output = event->as<SessionEvent::Output>(); output && output->pane == pane) {
            platform::writeAll(STDOUT_FILENO, view(output->bytes));
        } else if (auto snapshot = event->as<SessionEvent::Snapshot>(); snapshot && snapshot->pane == pane) {
            platform::writeAll(STDOUT_FILENO, clearScreen);
            platform::writeAll(STDOUT_FILENO, view(snapshot->bytes));
        } else if (paneIsOver(*event, pane)) {
            return finish("pane " + std::to_string(pane) + " exited");
        }
    }
}

} // namespace

std::optional<size_t> findDetachKey(std::string_view typed) {
    auto at = typed.find(detachKey);
    return at == std::string_view::npos ? std::nullopt : std::optional(at);
}

sigset_t interactiveSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (int number : {SIGWINCH, SIGTERM, SIGHUP, SIGINT, SIGQUIT}) sigaddset(&set, number);
    return set;
}

// cat PANE [--no-snapshot]: the pane's bytes as they come, until its program ends.
CommandRun parseCat(Arguments& args) {
    bool noSnapshot = args.flag("--no-snapshot");
    uint64_t pane = parseID(args.positional("pane"), "pane");
    args.finish();
    return [=](CorvexdBackend& backend, Streams& io) {
        std::optional<uint64_t> from;
        if (noSnapshot) {
            ModelState state = backend.getState();
            const Pane* known = state.pane(pane);
            if (!known) throw BackendError("not_found", "no pane " + std::to_string(pane));
            from = known->seq;
        }
        backend.subscribe(pane, from);
        auto events = backend.events();
        while (auto event = events->next()) {
            if (auto output = event->as<SessionEvent::Output>(); output && output->pane == pane) {
                io.out.write(reinterpret_cast<const char*>(output->bytes.data()), static_cast<std::streamsize>(output->bytes.size()));
                io.out.flush();
            } else if (auto snapshot = event->as<SessionEvent::Snapshot>(); snapshot && snapshot->pane == pane) {
                if (noSnapshot) continue;
                io.out.write(reinterpret_cast<const char*>(snapshot->bytes.data()), static_cast<std::streamsize>(snapshot->bytes.size()));
                io.out.flush();
            } else if (paneIsOver(*event, pane)) {
                return 0;
            } else if (daemonEnded(*event, backend)) {
                io.err << shutDownNote << "\n";
                return 0;
            }
        }
        return 0;
    };
}

CommandRun parseAttach(Arguments& args) {
    uint64_t pane = parseID(args.positional("pane"), "pane");
    args.finish();
    return [=](CorvexdBackend& backend, Streams&) { return attachPane(backend, pane); };
}

// run: the focused pane, or the first, or a new workspace's, in this terminal.
CommandRun parseRun(Arguments& args) {
    args.finish();
    return [](CorvexdBackend& backend, Streams&) {
        ModelState state = backend.getState();
        uint64_t pane;
        if (state.focus.pane && state.pane(state.focus.pane)) {
            pane = *state.focus.pane;
        } else if (!state.panes.empty()) {
            pane = state.panes.front().id;
        } else {
            pane = backend.createWorkspace().pane;
        }
        return attachPane(backend, pane);
    };
}

// watch [--count N]: every event as a line of JSON.
CommandRun parseWatch(Arguments& args) {
    std::optional<int> count;
    if (auto text = args.option("--count")) count = parseInt(*text, "count");
    args.finish();
    return [=](CorvexdBackend& backend, Streams& io) {
        auto events = backend.events();
        for (int printed = 0; !count || printed < *count; ++printed) {
            auto event = events->next();
            if (!event) break;
            io.out << eventLine(*event) << "\n";
            io.out.flush();
            if (daemonEnded(*event, backend)) {
                io.err << shutDownNote << "\n";
                break;
            }
        }
        return 0;
    };
}

} // namespace corvex::cli
