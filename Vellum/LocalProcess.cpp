#include "Vellum/LocalProcess.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <thread>
#include <unistd.h>

#include "Platform/SerialQueue.h"
#include "Vellum/LocalProcessChildReaper.h"
#include "Vellum/LocalProcessExitMonitor.h"
#include "Vellum/LocalProcessWriteChannel.h"
#include "Vellum/PseudoTerminalHelpers.h"

namespace vellum {

namespace {

platform::Locked<std::function<void(const std::string&)>>& logger() {
    static platform::Locked<std::function<void(const std::string&)>> instance;
    return instance;
}

void log(const std::string& line) {
    auto sink = logger().copy();
    if (sink) {
        sink(line);
    } else {
        std::fprintf(stderr, "%s\n", line.c_str());
    }
}

bool isLive(LocalProcessPhase phase) {
    return phase == LocalProcessPhase::running || phase == LocalProcessPhase::terminating;
}

void startThread(const char* name, std::function<void()> body) {
    std::thread([name, body = std::move(body)] {
        platform::setCurrentThreadName(name);
        body();
    }).detach();
}

} // namespace

std::string LocalProcessError::description() const {
    switch (kind) {
    case Kind::forkFailed: return "forkFailed(errno: " + std::to_string(code) + ")";
    case Kind::writeChannelFailed: return "writeChannelFailed(errno: " + std::to_string(code) + ")";
    case Kind::writeFailed:
        return "writeFailed(code: " + std::to_string(code) + ", bytesWritten: " + std::to_string(bytesWritten) + ")";
    case Kind::alreadyRunning: return "alreadyRunning";
    case Kind::notRunning: return "notRunning";
    }
    return "unknown";
}

void LocalProcessDelegate::processFailedToStart(LocalProcess&, const LocalProcessError& error) {
    std::string text = "\r\nProcess launch failed: " + error.description() + "\r\n";
    dataReceived(std::vector<unsigned char>(text.begin(), text.end()));
}

std::vector<std::string> terminalEnvironmentVariables(const std::optional<std::string>& termName, bool trueColor) {
    std::vector<std::string> env;
    env.push_back("TERM=" + termName.value_or("xterm-256color"));
    if (trueColor) env.push_back("COLORTERM=truecolor");
    env.push_back("LANG=en_US.UTF-8");
    // USER twice and the spelling LC_TYPE are long-standing behaviour that hosts rely on.
    for (const char* name : {"LOGNAME", "USER", "DISPLAY", "LC_TYPE", "USER", "HOME"}) {
        if (const char* value = std::getenv(name)) env.push_back(std::string(name) + "=" + value);
    }
    return env;
}

void LocalProcess::setLogger(std::function<void(const std::string&)> sink) { logger().set(std::move(sink)); }

std::shared_ptr<LocalProcess> LocalProcess::create(std::weak_ptr<LocalProcessDelegate> delegate,
                                                   std::shared_ptr<platform::SerialQueue> dispatchQueue,
                                                   bool directDelivery, DuplicateDescriptor duplicateDescriptor) {
    return std::shared_ptr<LocalProcess>(
        new LocalProcess(std::move(delegate), std::move(dispatchQueue), directDelivery, std::move(duplicateDescriptor)));
}

LocalProcess::LocalProcess(std::weak_ptr<LocalProcessDelegate> delegate,
                           std::shared_ptr<platform::SerialQueue> dispatchQueue, bool directDelivery,
                           DuplicateDescriptor duplicateDescriptor)
    : duplicateDescriptor_(duplicateDescriptor ? std::move(duplicateDescriptor)
                                               : DuplicateDescriptor([](int fd) { return fcntl(fd, F_DUPFD_CLOEXEC, 0); })),
      delegateReference_(std::move(delegate)),
      dispatchQueue_(dispatchQueue ? std::move(dispatchQueue)
                                   : std::make_shared<platform::SerialQueue>("vellum.local-process.delivery")),
      directDelivery_(directDelivery) {}

LocalProcess::~LocalProcess() {
    SessionState old = session_.withLock([](SessionState& state) {
        SessionState taken = std::move(state);
        state = SessionState{};
        return taken;
    });
    if (old.childMonitor) {
        old.childMonitor->cancel();
        // The monitor holds the delivery queue too; let go of it here, before the queue's
        // own thread is checked for below.
        old.childMonitor.reset();
    }
    if (old.reaper) old.reaper->signal(SIGTERM);
    if (old.pipeline || old.reaper || old.writeChannel) {
        // Nobody is told of this end, but the child must not outlive us as a zombie, nor
        // keep running after ignoring SIGTERM.
        double delay = old.killEscalationDelay;
        startThread("vellum-child-reaper", [pipeline = std::move(old.pipeline), reaper = std::move(old.reaper),
                                            channel = std::move(old.writeChannel), delay] {
            if (pipeline) {
                if (pipeline->requestShutdown()) pipeline->waitUntilFinished();
                pipeline->detachSink();
            }
            if (reaper) {
                if (!reaper->awaitExit(delay)) reaper->signal(SIGKILL);
                reaper->wait();
            }
            if (channel) channel->close(true);
        });
    }
    // A queue can't be joined from its own thread; that happens when the last reference to
    // this object went away in a callback that the queue was running.
    if (dispatchQueue_ && dispatchQueue_->isCurrent()) {
        std::thread([queue = std::move(dispatchQueue_)] {}).detach();
    }
}

std::shared_ptr<LocalProcessDelegate> LocalProcess::delegate() const { return delegateReference_.copy().lock(); }

void LocalProcess::setDelegate(std::weak_ptr<LocalProcessDelegate> delegate) {
    delegateReference_.set(std::move(delegate));
}

void LocalProcess::startProcess(const std::string& executable, const std::vector<std::string>& args,
                                const std::optional<std::vector<std::string>>& environment,
                                const std::optional<std::string>& execName,
                                const std::optional<std::string>& currentDirectory) {
    (void)startProcessWithForkpty(executable, args, environment, execName, currentDirectory, true);
}

std::optional<LocalProcessError> LocalProcess::startProcessChecked(
    const std::string& executable, const std::vector<std::string>& args,
    const std::optional<std::vector<std::string>>& environment, const std::optional<std::string>& execName,
    const std::optional<std::string>& currentDirectory) {
    return startProcessWithForkpty(executable, args, environment, execName, currentDirectory, false);
}

std::optional<LocalProcessError> LocalProcess::startProcessWithForkpty(
    const std::string& executable, const std::vector<std::string>& args,
    const std::optional<std::vector<std::string>>& environment, const std::optional<std::string>& execName,
    const std::optional<std::string>& currentDirectory, bool notifyLaunchFailure) {
    bool accepted = session_.withLock([](SessionState& state) {
        if (state.phase != LocalProcessPhase::idle) return false;
        state.phase = LocalProcessPhase::starting;
        return true;
    });
    if (!accepted) return LocalProcessError::alreadyRunning();

    winsize size{};
    if (auto target = delegate()) size = target->getWindowSize();

    std::vector<std::string> argv;
    argv.reserve(args.size() + 1);
    argv.push_back(execName.value_or(executable));
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> env = environment ? *environment : terminalEnvironmentVariables("xterm-256color", true);

    auto spawned = PseudoTerminalHelpers::spawn(executable, argv, env, currentDirectory, size);
    if (!spawned.child) {
        auto error = LocalProcessError::forkFailed(spawned.error);
        finishLaunchFailure(error, notifyLaunchFailure);
        return error;
    }
    auto [pid, master] = *spawned.child;
    return beginSession(pid, master, std::make_shared<LocalProcessChildReaper>(pid), notifyLaunchFailure);
}

std::optional<LocalProcessError> LocalProcess::adoptProcess(pid_t pid, int master,
                                                            std::function<std::optional<int>()> status) {
    bool accepted = session_.withLock([](SessionState& state) {
        if (state.phase != LocalProcessPhase::idle) return false;
        state.phase = LocalProcessPhase::starting;
        return true;
    });
    if (!accepted) {
        ::close(master);
        return LocalProcessError::alreadyRunning();
    }
    return beginSession(pid, master, std::make_shared<LocalProcessChildReaper>(pid, std::move(status)), false);
}

// Runs a child that is on its pseudo-terminal already: the writer, the reader and the
// watch for its end.
std::optional<LocalProcessError> LocalProcess::beginSession(pid_t pid, int master,
                                                            std::shared_ptr<LocalProcessChildReaper> reaper,
                                                            bool notifyLaunchFailure) {
    int duplicate = duplicateDescriptor_(master);
    if (duplicate < 0) {
        int error = errno;
        close(master);
        reaper->signal(SIGKILL);
        startThread("vellum-child-reaper", [reaper] { reaper->wait(); });
        auto failure = LocalProcessError::writeChannelFailed(error);
        finishLaunchFailure(failure, notifyLaunchFailure);
        return failure;
    }
    auto channel = LocalProcessWriteChannel::open(duplicate);
    if (!channel) {
        close(master);
        reaper->signal(SIGKILL);
        startThread("vellum-child-reaper", [reaper] { reaper->wait(); });
        auto failure = LocalProcessError::writeChannelFailed(EAGAIN);
        finishLaunchFailure(failure, notifyLaunchFailure);
        return failure;
    }

    auto [generation, terminateNow] = session_.withLock([&](SessionState& state) {
        state.generation += 1;
        bool requested = state.terminateRequestedDuringStart;
        state.terminateRequestedDuringStart = false;
        state.phase = requested ? LocalProcessPhase::terminating : LocalProcessPhase::running;
        state.childfd = master;
        state.shellPid = pid;
        state.writeChannel = channel;
        state.reaper = reaper;
        return std::pair{state.generation, requested};
    });

    auto pipeline = TerminalIOPipeline::create(master, std::weak_ptr<TerminalIOPipelineDelegate>(shared_from_this()));
    session_.withLock([&](SessionState& state) { state.pipeline = pipeline; });
    pipeline->start();

    std::weak_ptr<LocalProcess> weakSelf = weak_from_this();
    auto monitor = LocalProcessExitMonitor::watch(pid, dispatchQueue_, [weakSelf, generation, reaper] {
        if (auto self = weakSelf.lock()) self->startChildWaiter(generation, reaper);
    });
    session_.withLock([&](SessionState& state) {
        if (state.generation == generation) state.childMonitor = monitor;
    });

    if (terminateNow) reaper->signal(SIGTERM);
    return std::nullopt;
}

void LocalProcess::release() {
    auto [pipeline, monitor] = session_.withLock([](SessionState& state) {
        return std::pair{state.pipeline, std::move(state.childMonitor)};
    });
    if (monitor) monitor->cancel();
    // The pipeline stays the session's while it settles, so what it still hands on counts.
    if (pipeline) {
        if (pipeline->requestSettle()) pipeline->waitUntilFinished();
        pipeline->detachSink();
    }
    SessionState old = session_.withLock([](SessionState& state) {
        SessionState taken = std::move(state);
        state = SessionState{};
        // Reports still on their way belong to the session let go of.
        state.generation = taken.generation + 1;
        return taken;
    });
    // Keystrokes already accepted still reach the child.
    if (old.writeChannel) old.writeChannel->close(false);
}

void LocalProcess::finishLaunchFailure(const LocalProcessError& error, bool notify) {
    uint64_t generation = session_.withLock([&](SessionState& state) {
        state.terminateRequestedDuringStart = false;
        state.generation += 1;
        state.phase = notify ? LocalProcessPhase::windingDown : LocalProcessPhase::idle;
        return state.generation;
    });
    if (!notify) return;
    dispatchQueue_->async([weakSelf = weak_from_this(), generation, error] {
        auto self = weakSelf.lock();
        if (!self) return;
        bool current = self->session_.withLock([&](SessionState& state) {
            if (state.generation != generation || state.phase != LocalProcessPhase::windingDown) return false;
            state.phase = LocalProcessPhase::idle;
            return true;
        });
        if (!current) return;
        if (auto target = self->delegate()) target->processFailedToStart(*self, error);
    });
}

void LocalProcess::startChildWaiter(uint64_t generation, std::shared_ptr<LocalProcessChildReaper> reaper) {
    startThread("vellum-child-reaper", [weakSelf = weak_from_this(), generation, reaper] {
        auto status = reaper->wait();
        auto self = weakSelf.lock();
        if (!self) return;
        auto monitor = self->session_.withLock([&](SessionState& state) {
            return state.generation == generation ? std::move(state.childMonitor) : nullptr;
        });
        if (monitor) monitor->cancel();
        self->childDidExit(generation, status);
    });
}

void LocalProcess::childDidExit(uint64_t generation, std::optional<int> status) {
    std::shared_ptr<TerminalIOPipeline> pipeline;
    double drainTimeout = 0;
    bool current = session_.withLock([&](SessionState& state) {
        if (state.generation != generation || !isLive(state.phase)) return false;
        state.phase = LocalProcessPhase::exited;
        state.childfd = -1;
        state.shellPid = 0;
        pipeline = state.pipeline;
        drainTimeout = state.drainTimeout;
        return true;
    });
    if (!current) return;

    // What the child left in the terminal reaches the delegate before the exit report, but
    // a background job holding the terminal open can delay the report only so long.
    if (pipeline) {
        auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(drainTimeout));
        if (pipeline->requestDrain(deadline)) pipeline->waitUntilFinished(deadline);
        pipeline->detachSink();
    }

    std::optional<int32_t> exitCode;
    if (status && (*status & 127) == 0) exitCode = (*status >> 8) & 255;

    std::shared_ptr<LocalProcessWriteChannel> channel;
    bool stillCurrent = session_.withLock([&](SessionState& state) {
        if (state.generation != generation || state.phase != LocalProcessPhase::exited) return false;
        state.pipeline.reset();
        state.reaper.reset();
        channel = std::move(state.writeChannel);
        state.phase = LocalProcessPhase::windingDown;
        return true;
    });
    if (!stillCurrent) return;
    if (channel) channel->close(true);
    dispatchQueue_->async([weakSelf = weak_from_this(), generation, exitCode] {
        if (auto self = weakSelf.lock()) self->finishTermination(generation, exitCode);
    });
}

void LocalProcess::finishTermination(uint64_t generation, std::optional<int32_t> exitCode) {
    bool current = session_.withLock([&](SessionState& state) {
        if (state.generation != generation || state.phase != LocalProcessPhase::windingDown) return false;
        state.phase = LocalProcessPhase::idle;
        return true;
    });
    // Idle first: the delegate may start the next session from this very call.
    if (!current) return;
    if (auto target = delegate()) target->processTerminated(*this, exitCode);
}

void LocalProcess::terminate() {
    if (auto reaper = reaperForTermination()) reaper->signal(SIGTERM);
}

void LocalProcess::hangUp() {
    if (auto reaper = reaperForTermination()) reaper->signalGroup(SIGHUP);
}

std::shared_ptr<LocalProcessChildReaper> LocalProcess::reaperForTermination() {
    return session_.withLock([](SessionState& state) -> std::shared_ptr<LocalProcessChildReaper> {
        switch (state.phase) {
        case LocalProcessPhase::terminating: return state.reaper;
        case LocalProcessPhase::running:
            state.phase = LocalProcessPhase::terminating;
            return state.reaper;
        case LocalProcessPhase::starting: state.terminateRequestedDuringStart = true; return nullptr;
        default: return nullptr;
        }
    });
}

void LocalProcess::send(std::span<const unsigned char> data) {
    send(data, [](LocalProcessSendResult result) {
        if (result.error && result.error->kind == LocalProcessError::Kind::writeFailed) {
            log("Error writing data to the child, errno=" + std::to_string(result.error->code));
        }
    });
}

void LocalProcess::send(std::span<const unsigned char> data, std::function<void(LocalProcessSendResult)> completion) {
    bool debugIO = false;
    auto channel = session_.withLock([&](SessionState& state) -> std::shared_ptr<LocalProcessWriteChannel> {
        debugIO = state.debugIO;
        return isLive(state.phase) ? state.writeChannel : nullptr;
    });
    if (!channel) {
        completion({0, LocalProcessError::notRunning()});
        return;
    }
    if (data.empty()) {
        completion({0, std::nullopt});
        return;
    }
    int64_t number = counters_.withLock([](Counters& counters) { return ++counters.sendCount; });
    if (debugIO) {
        log("[SEND-" + std::to_string(number) + "] Queuing data to client: " + std::string(data.begin(), data.end()));
    }
    auto size = static_cast<int64_t>(data.size());
    channel->write(std::vector<unsigned char>(data.begin(), data.end()),
                   [weakSelf = weak_from_this(), size, number, debugIO, completion = std::move(completion)](
                       int error, size_t written) {
                       int64_t bytesWritten = error ? std::max<int64_t>(0, static_cast<int64_t>(written)) : size;
                       if (auto self = weakSelf.lock()) {
                           int64_t total = self->counters_.withLock([&](Counters& counters) {
                               counters.totalWritten += bytesWritten;
                               return counters.totalWritten;
                           });
                           if (debugIO) {
                               log("[SEND-" + std::to_string(number) + "] completed bytes=" + std::to_string(total));
                           }
                       }
                       if (error) {
                           completion({bytesWritten, LocalProcessError::writeFailed(error, bytesWritten)});
                       } else {
                           completion({bytesWritten, std::nullopt});
                       }
                   });
}

bool LocalProcess::updateWindowSize(const winsize& size) {
    // Under the lock, so that the reader can't close the descriptor in between.
    return session_.withLock([&](SessionState& state) {
        if (!isLive(state.phase) || state.childfd < 0) return false;
        return PseudoTerminalHelpers::setWinSize(state.childfd, size) == 0;
    });
}

void LocalProcess::holdOutput(bool held) {
    auto pipeline = session_.withLock([](SessionState& state) { return state.pipeline; });
    if (pipeline) pipeline->hold(held);
}

std::optional<std::set<unsigned char>> LocalProcess::terminalControlBytesForPaste() {
    return session_.withLock([](SessionState& state) -> std::optional<std::set<unsigned char>> {
        if (!isLive(state.phase)) return std::nullopt;
        return PseudoTerminalHelpers::terminalControlBytesForPaste(state.childfd);
    });
}

void LocalProcess::setHostLogging(const std::optional<std::string>& directory) {
    session_.withLock([&](SessionState& state) {
        state.loggingDirectory = directory;
        state.logFileCounter = 0;
    });
}

void LocalProcess::setDebugIO(bool on) {
    session_.withLock([&](SessionState& state) { state.debugIO = on; });
}

void LocalProcess::pipelineReceived(TerminalIOPipeline& reader, std::span<const unsigned char> bytes) {
    std::optional<std::string> logPath;
    std::optional<int64_t> total;
    bool current = session_.withLock([&](SessionState& state) {
        if (state.pipeline.get() != &reader) return false;
        if (state.debugIO) {
            state.totalRead += static_cast<int64_t>(bytes.size());
            total = state.totalRead;
        }
        if (state.loggingDirectory) {
            logPath = *state.loggingDirectory + "/log-" + std::to_string(state.logFileCounter);
            state.logFileCounter += 1;
        }
        return true;
    });
    // A late read of an earlier session dies here.
    if (!current) return;
    if (total) {
        log("[READ] count=" + std::to_string(bytes.size()) + " received from host total=" + std::to_string(*total));
    }
    if (logPath) {
        std::ofstream file(*logPath, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        if (!file) log("Got error while logging data dump to " + *logPath + ": " + std::strerror(errno));
    }

    auto target = delegate();
    if (!target) return;
    if (directDelivery_) {
        if (auto borrowed = dynamic_cast<LocalProcessBorrowedDataDelegate*>(target.get())) {
            borrowed->dataReceivedBorrowed(bytes);
            return;
        }
        target->dataReceived(std::vector<unsigned char>(bytes.begin(), bytes.end()));
        return;
    }
    // Waiting for the delivery keeps a fast child from queueing unbounded data.
    std::vector<unsigned char> copy(bytes.begin(), bytes.end());
    dispatchQueue_->sync([&] { target->dataReceived(std::move(copy)); });
}

void LocalProcess::pipelineReachedEOF(TerminalIOPipeline& reader) {
    session_.withLock([&](SessionState& state) {
        if (state.pipeline.get() == &reader) state.childfd = -1;
    });
}

int LocalProcess::childfd() const {
    return session_.withLock([](const SessionState& state) { return state.childfd; });
}
pid_t LocalProcess::shellPid() const {
    return session_.withLock([](const SessionState& state) { return state.shellPid; });
}
double LocalProcess::drainTimeout() const {
    return session_.withLock([](const SessionState& state) { return state.drainTimeout; });
}
void LocalProcess::setDrainTimeout(double seconds) {
    session_.withLock([&](SessionState& state) { state.drainTimeout = seconds; });
}
double LocalProcess::killEscalationDelay() const {
    return session_.withLock([](const SessionState& state) { return state.killEscalationDelay; });
}
void LocalProcess::setKillEscalationDelay(double seconds) {
    session_.withLock([&](SessionState& state) { state.killEscalationDelay = seconds; });
}
bool LocalProcess::running() const {
    return session_.withLock([](const SessionState& state) {
        return isLive(state.phase) || state.phase == LocalProcessPhase::exited;
    });
}
bool LocalProcess::windingDown() const {
    return session_.withLock([](const SessionState& state) { return state.phase == LocalProcessPhase::windingDown; });
}
LocalProcessPhase LocalProcess::phase() const {
    return session_.withLock([](const SessionState& state) { return state.phase; });
}
uint64_t LocalProcess::generation() const {
    return session_.withLock([](const SessionState& state) { return state.generation; });
}
int64_t LocalProcess::sendCount() const {
    return counters_.withLock([](const Counters& counters) { return counters.sendCount; });
}
int64_t LocalProcess::totalWritten() const {
    return counters_.withLock([](const Counters& counters) { return counters.totalWritten; });
}

std::optional<std::string> LocalProcess::currentWorkingDirectory() const {
    auto reaper = session_.withLock([](const SessionState& state) { return state.reaper; });
    if (!reaper) return std::nullopt;
    // Only while the process number still names our child.
    auto found = reaper->whileAlive([](pid_t pid) { return PseudoTerminalHelpers::workingDirectory(pid); });
    return found ? *found : std::nullopt;
}

} // namespace vellum
