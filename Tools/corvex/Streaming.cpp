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
#include "Tools/corvex/Attach.h"
#include "Tools/corvex/AttachKeys.h"
#include "Tools/corvex/Commands.h"
#include "Tools/corvex/EventLines.h"
#include "Tools/corvex/Terminal.h"

namespace corvex::cli {

using namespace std::chrono_literals;

namespace {


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

// --prefix C-a and the like; Ctrl-\\ when absent.
char parsePrefix(Arguments& args) {
    auto text = args.option("--prefix");
    if (!text) return detachKey;
    auto key = parsePrefixKey(*text);
    if (!key) throw UsageError("bad --prefix: " + *text + " (a control key, such as C-a or C-\\)");
    return *key;
}

} // namespace

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
    char prefix = parsePrefix(args);
    uint64_t pane = parseID(args.positional("pane"), "pane");
    args.finish();
    return [=](CorvexdBackend& backend, Streams&) { return attachSession(backend, pane, prefix); };
}

// run: the focused pane, or the first, or a new workspace's, in this terminal.
CommandRun parseRun(Arguments& args) {
    char prefix = parsePrefix(args);
    SpawnOptions spawn = parseSpawn(args, true);
    args.finish();
    return [=](CorvexdBackend& backend, Streams&) {
        ModelState state = backend.getState();
        uint64_t pane;
        if (state.focus.pane && state.pane(state.focus.pane)) {
            pane = *state.focus.pane;
        } else if (!state.panes.empty()) {
            pane = state.panes.front().id;
        } else {
            pane = backend.createWorkspace(std::nullopt, spawn).pane;
        }
        return attachSession(backend, pane, prefix);
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
