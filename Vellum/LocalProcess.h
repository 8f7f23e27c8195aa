#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <sys/ioctl.h>
#include <sys/types.h>
#include <vector>

#include "Platform/Locked.h"
#include "Vellum/TerminalIOPipeline.h"

namespace platform {
class SerialQueue;
}

namespace vellum {

class LocalProcess;
class LocalProcessChildReaper;
class LocalProcessExitMonitor;
class LocalProcessWriteChannel;

enum class LocalProcessPhase { idle, starting, running, terminating, exited, windingDown };

struct LocalProcessError {
    enum class Kind { forkFailed, writeChannelFailed, writeFailed, alreadyRunning, notRunning };

    Kind kind = Kind::notRunning;
    int32_t code = 0;         // errno, for the first three
    int64_t bytesWritten = 0; // for writeFailed

    static LocalProcessError forkFailed(int32_t error) { return {Kind::forkFailed, error, 0}; }
    static LocalProcessError writeChannelFailed(int32_t error) { return {Kind::writeChannelFailed, error, 0}; }
    static LocalProcessError writeFailed(int32_t error, int64_t written) { return {Kind::writeFailed, error, written}; }
    static LocalProcessError alreadyRunning() { return {Kind::alreadyRunning, 0, 0}; }
    static LocalProcessError notRunning() { return {Kind::notRunning, 0, 0}; }

    // "forkFailed(errno: 2)", "writeFailed(code: 5, bytesWritten: 10)", "notRunning".
    std::string description() const;
    bool operator==(const LocalProcessError&) const = default;
};

// How a send ended: the bytes written, or an error (a writeFailed one says how far it got).
struct LocalProcessSendResult {
    int64_t bytesWritten = 0;
    std::optional<LocalProcessError> error;
};

class LocalProcessDelegate {
public:
    virtual ~LocalProcessDelegate() = default;
    // The exit code is absent when the child was ended by a signal or its status is unknown.
    virtual void processTerminated(LocalProcess& source, std::optional<int32_t> exitCode) = 0;
    // By default the failure is shown in the terminal itself, through dataReceived.
    virtual void processFailedToStart(LocalProcess& source, const LocalProcessError& error);
    virtual void dataReceived(std::vector<unsigned char> slice) = 0;
    virtual winsize getWindowSize() = 0;
};

// A delegate that also takes the bytes without a copy, valid only during the call; used
// when the process delivers directly on the reading thread.
class LocalProcessBorrowedDataDelegate {
public:
    virtual ~LocalProcessBorrowedDataDelegate() = default;
    virtual void dataReceivedBorrowed(std::span<const unsigned char> bytes) = 0;
};

// The default environment for a child: TERM, COLORTERM when trueColor, LANG, then some of
// this process's own variables. A missing term name means "xterm-256color".
std::vector<std::string> terminalEnvironmentVariables(const std::optional<std::string>& termName, bool trueColor);

// One child program on a pseudo-terminal. It forks, reads the child's output and hands it
// to the delegate, writes to the child in order, keeps the window size, and reports once
// how the child ended. It can be started again once it is back to idle; each session has
// a generation, and late events of an earlier one are dropped.
//
// Signals reach the child only through its reaper, so no signal can reach a process
// number after the child has been reaped. Closures that outlive a call hold a weak
// reference, so a running session never keeps the object alive; when the object goes
// with a child still running, the child gets SIGTERM, then SIGKILL after
// killEscalationDelay, and is reaped without anyone being told.
class LocalProcess : public TerminalIOPipelineDelegate, public std::enable_shared_from_this<LocalProcess> {
public:
    using DuplicateDescriptor = std::function<int(int)>;

    // Without a queue the process makes its own ("vellum.local-process.delivery"), on which
    // exit and failure reports and, without directDelivery, the data are delivered.
    static std::shared_ptr<LocalProcess> create(std::weak_ptr<LocalProcessDelegate> delegate,
                                                std::shared_ptr<platform::SerialQueue> dispatchQueue = nullptr,
                                                bool directDelivery = false,
                                                DuplicateDescriptor duplicateDescriptor = nullptr);
    ~LocalProcess() override;

    LocalProcess(const LocalProcess&) = delete;
    LocalProcess& operator=(const LocalProcess&) = delete;

    // A failure to launch is told to the delegate.
    void startProcess(const std::string& executable, const std::vector<std::string>& args = {},
                      const std::optional<std::vector<std::string>>& environment = std::nullopt,
                      const std::optional<std::string>& execName = std::nullopt,
                      const std::optional<std::string>& currentDirectory = std::nullopt);
    // A failure to launch is returned and not told to the delegate.
    std::optional<LocalProcessError> startProcessChecked(
        const std::string& executable, const std::vector<std::string>& args = {},
        const std::optional<std::vector<std::string>>& environment = std::nullopt,
        const std::optional<std::string>& execName = std::nullopt,
        const std::optional<std::string>& currentDirectory = std::nullopt);

    // Runs a child that someone else started and is parent of, on the pseudo-terminal
    // whose master it gave us (which we then own). Since only the parent can reap it,
    // `status` tells how it ended; signals still reach it by its process number.
    std::optional<LocalProcessError> adoptProcess(pid_t pid, int master,
                                                  std::function<std::optional<int>()> status);
    // Stops reading once everything read has been delivered, and lets go of the child
    // without a signal: it runs on, and its later output waits in the pseudo-terminal for
    // the next reader. Nothing more is reported of this session.
    void release();

    // A failed write is logged, nothing more.
    void send(std::span<const unsigned char> data);
    // The completion runs at once when the child had room for everything or the send can't be
    // queued, else on the poller thread once the child has taken the rest.
    void send(std::span<const unsigned char> data, std::function<void(LocalProcessSendResult)> completion);
    void terminate();
    // Like terminate, with SIGHUP to the child's whole process group, as a closed terminal
    // does: an interactive shell ignores SIGTERM, and its jobs should end with it.
    void hangUp();
    bool updateWindowSize(const winsize& size);
    // While held, no output is handed on and a child that writes on soon waits at its
    // terminal; nothing read is lost. Holds this session only.
    void holdOutput(bool held);
    std::optional<std::set<unsigned char>> terminalControlBytesForPaste();
    void setHostLogging(const std::optional<std::string>& directory);
    void setDebugIO(bool on);
    void setDelegate(std::weak_ptr<LocalProcessDelegate> delegate);

    int childfd() const;
    pid_t shellPid() const;
    double drainTimeout() const;
    void setDrainTimeout(double seconds);
    double killEscalationDelay() const;
    void setKillEscalationDelay(double seconds);
    bool running() const;
    bool windingDown() const;
    LocalProcessPhase phase() const;
    uint64_t generation() const;
    int64_t sendCount() const;
    int64_t totalWritten() const;
    // The child's working directory, while it hasn't been reaped.
    std::optional<std::string> currentWorkingDirectory() const;

    void pipelineReceived(TerminalIOPipeline& reader, std::span<const unsigned char> bytes) override;
    void pipelineReachedEOF(TerminalIOPipeline& reader) override;

    // Where "Error writing data to the child" and the debug reports go; stderr by default.
    static void setLogger(std::function<void(const std::string&)> logger);

private:
    struct SessionState {
        uint64_t generation = 0;
        LocalProcessPhase phase = LocalProcessPhase::idle;
        int childfd = -1;
        pid_t shellPid = 0;
        bool terminateRequestedDuringStart = false;
        std::shared_ptr<LocalProcessChildReaper> reaper;
        std::shared_ptr<TerminalIOPipeline> pipeline;
        std::shared_ptr<LocalProcessWriteChannel> writeChannel;
        std::shared_ptr<LocalProcessExitMonitor> childMonitor;
        double drainTimeout = 0.5;
        double killEscalationDelay = 0.5;
        std::optional<std::string> loggingDirectory;
        int64_t logFileCounter = 0;
        bool debugIO = false;
        int64_t totalRead = 0;
    };
    struct Counters {
        int64_t sendCount = 0;
        int64_t totalWritten = 0;
    };

    LocalProcess(std::weak_ptr<LocalProcessDelegate> delegate, std::shared_ptr<platform::SerialQueue> dispatchQueue,
                 bool directDelivery, DuplicateDescriptor duplicateDescriptor);

    std::optional<LocalProcessError> startProcessWithForkpty(const std::string& executable,
                                                             const std::vector<std::string>& args,
                                                             const std::optional<std::vector<std::string>>& environment,
                                                             const std::optional<std::string>& execName,
                                                             const std::optional<std::string>& currentDirectory,
                                                             bool notifyLaunchFailure);
    std::optional<LocalProcessError> beginSession(pid_t pid, int master,
                                                  std::shared_ptr<LocalProcessChildReaper> reaper,
                                                  bool notifyLaunchFailure);
    void finishLaunchFailure(const LocalProcessError& error, bool notify);
    void startChildWaiter(uint64_t generation, std::shared_ptr<LocalProcessChildReaper> reaper);
    void childDidExit(uint64_t generation, std::optional<int> status);
    void finishTermination(uint64_t generation, std::optional<int32_t> exitCode);
    // Moves a running session to terminating and gives the reaper to signal through.
    std::shared_ptr<LocalProcessChildReaper> reaperForTermination();
    std::shared_ptr<LocalProcessDelegate> delegate() const;

    platform::Locked<SessionState> session_;
    DuplicateDescriptor duplicateDescriptor_;
    platform::Locked<Counters> counters_;
    platform::Locked<std::weak_ptr<LocalProcessDelegate>> delegateReference_;
    std::shared_ptr<platform::SerialQueue> dispatchQueue_;
    bool directDelivery_;
};

} // namespace vellum
