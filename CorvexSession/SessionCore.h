#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CorvexKit/SessionBackend.h"
#include "CorvexSession/AgentDetector.h"
#include "CorvexSession/AgentTracker.h"
#include "CorvexSession/PaneGitWatcher.h"

namespace vellum {
class Terminal;
}

// The session engine that both the in-process backend and the daemon serve: identifiers, the
// tree and its operations, panes' retained output and subscriptions, and what is read from or
// set on a pane's terminal. The core knows nothing of where its events go; a listener carries
// them to a reader or to a socket.
namespace corvex {

using Environment = std::map<std::string, std::string>;

// The environment a pane's program starts with: the parent's without our own variables,
// then the terminal's identity, the pane's identifier and a language, and last the
// caller's overrides.
Environment paneEnvironment(const Environment& inherited, uint64_t pane, const std::optional<Environment>& overrides);

// How a command's words become a program start. A login shell (a program and "-l") starts
// with no arguments and an argv[0] of "-" and its base name.
// Where a program named without a folder is found, as a shell finds it: the first
// executable file of that name in the folders of `searchPath` (an empty entry is the
// current folder). A name with a slash is taken as it is.
std::optional<std::string> findProgram(const std::string& name, const std::string& searchPath,
                                       const std::function<bool(const std::string&)>& isExecutable);

struct LaunchCommand {
    std::string executable;
    std::vector<std::string> args;
    std::optional<std::string> argv0;

    bool operator==(const LaunchCommand&) const = default;
};
std::optional<LaunchCommand> launchCommand(const std::vector<std::string>& command);

// The largest pane side a client may ask for: more than any real screen shows, and small
// enough that one request can't make the daemon allocate gigabytes.
inline constexpr int maximumPaneSide = 1000;
// The size itself, or "bad_request" when a side is below 1 or above maximumPaneSide.
Size checkedPaneSize(Size size);

// Where a subscribe starts, from what the client holds and what the pane retains.
Subscription::Mode subscriptionMode(std::optional<uint64_t> haveSeq, uint64_t seq, uint64_t retainedStart);

// The tail of a pane's output, in a ring that holds the bytes from seq() - size() up to
// seq(): as much as a replay may ask for, allocated as it fills, never moved.
class OutputRetention {
public:
    static constexpr uint64_t replayLimit = 0x100000;
    static constexpr size_t retainedBytes = replayLimit;

    // Returns the position of the chunk's first byte.
    uint64_t append(ByteView bytes);
    // Goes on from what another process retained: `bytes` end at `start` plus their size.
    void resume(uint64_t start, Bytes bytes);
    uint64_t seq() const { return seq_; }
    uint64_t start() const { return seq_ - ring_.size(); }
    size_t size() const { return ring_.size(); }
    Bytes bytes() const { return bytesFrom(start()); }
    Bytes bytesFrom(uint64_t position) const;

private:
    uint64_t seq_ = 0;
    Bytes ring_;
    size_t oldest_ = 0; // where the oldest byte sits once the ring is full
};

// A running pane program, as a host started it.
class PaneProcess {
public:
    virtual ~PaneProcess() = default;
    virtual std::optional<int32_t> pid() const = 0;
    virtual void write(ByteView bytes) = 0;
    virtual void resize(Size size) = 0;
    virtual void hangUp() = 0;
    virtual std::optional<std::string> workingDirectory() const = 0;
    // Runs `visit` with the terminal that parses this pane's output, while no output is
    // being parsed into it. A host without a terminal never calls it.
    virtual void withTerminal(const std::function<void(vellum::Terminal&)>& visit) { (void)visit; }
    // How many output bytes the terminal has parsed: the position its state stands for. Read
    // it inside withTerminal's visit, where it can't move.
    virtual uint64_t parsedBytes() const { return 0; }
    // Whether withTerminal has a terminal to show.
    virtual bool hasTerminal() const { return false; }
    // While held, the program's output waits (and soon the program with it); nothing is
    // lost. Never blocks.
    virtual void holdOutput(bool held) { (void)held; }
    // Stops taking the program's output once everything read has gone to the events, and
    // leaves the program running for whoever takes the pane over. Nothing more is reported.
    virtual void settle() {}
};

// What a pane's program reports. Called on any thread, never under the core's lock.
struct PaneProcessEvents {
    std::function<void(ByteView bytes)> output;
    std::function<void(std::optional<int32_t> exitCode)> terminated;
    // What the pane's terminal learned from the output: a title, a directory, a bell.
    std::function<void(const std::optional<std::string>& title, const std::optional<std::string>& cwd, bool bell)>
        changed;
    // Texts the program put on the clipboard.
    std::function<void(const std::vector<std::string>& texts)> clipboard;
};

// A pane that a previous serving process ran: its program is still running, and its terminal
// is rebuilt from `screen` to stand for the output up to `seq`.
struct PaneResume {
    std::string screen;
    uint64_t seq = 0;
};

struct PaneLaunch {
    uint64_t pane = 0;
    std::vector<std::string> command;
    LaunchCommand launch;
    Environment environment;
    std::string cwd;
    Size size;
    int scrollbackLines = 0; // rows of history the pane's terminal keeps; 0 leaves the host's default
    std::optional<PaneResume> resume; // take the running program over instead of starting one
};

// What one serving process passes to the process that replaces it: the whole tree, and for
// each running pane its retained output and the bytes that rebuild its terminal, so that
// every pane goes on at the same `seq`.
struct PaneHandOver {
    uint64_t pane = 0;
    uint64_t retainedStart = 0;
    Bytes retained;
    std::string screen;
};
struct SessionHandOver {
    ModelState state;
    uint64_t nextID = 1;
    int scrollbackLines = 0;
    std::vector<PaneHandOver> panes;
};

class PaneHost {
public:
    virtual ~PaneHost() = default;
    // Null when the program couldn't be started. Must not call back synchronously.
    virtual std::shared_ptr<PaneProcess> spawn(const PaneLaunch& launch, PaneProcessEvents events) = 0;
};

// Where the core finds the things it takes from the system.
struct SessionCoreEnvironment {
    Environment variables;
    std::string home = "/";
    std::string defaultShell = "/bin/sh";
    std::function<bool(const std::string&)> isDirectory;
    // Absent: program names are passed on as they are.
    std::function<bool(const std::string&)> isExecutable;
};
SessionCoreEnvironment currentSessionCoreEnvironment();

class SessionCore : public std::enable_shared_from_this<SessionCore> {
public:
    using Listener = std::function<void(const SessionEvent&)>;

    static std::shared_ptr<SessionCore> create(std::shared_ptr<PaneHost> host, SessionCoreEnvironment environment);

    // Events arrive in the order of the changes, one at a time and outside the core's locks;
    // a listener may call back into the core.
    void setListener(Listener listener);
    // Ends every pane; events stop.
    void stop();
    // Bounds the pane output handed to the listener and not yet released by whoever consumes
    // it: past the bound, a pane's output is held until the consumer releases some, so a
    // flooding program waits at its terminal rather than in memory, however long that takes.
    // Each pane has a small reserve of its own beyond the bound, so that a pane printing a
    // line is never held behind others that flood. Unbounded until called.
    void boundOutput(size_t bytes);
    // The consumer is done with `bytes` of the pane's output events it was handed.
    void releaseOutput(uint64_t pane, size_t bytes);
    static constexpr size_t paneOutputReserve = 64 * 1024;

    ModelState state() const;
    CreatedWorkspace createWorkspace(const std::optional<std::string>& name, const SpawnOptions& spawn);
    void renameWorkspace(uint64_t id, const std::string& name);
    void closeWorkspace(uint64_t id);
    CreatedTab createTab(uint64_t workspace, const SpawnOptions& spawn);
    void renameTab(uint64_t id, const std::optional<std::string>& title);
    void closeTab(uint64_t id);
    CreatedSplit split(uint64_t pane, Direction direction, std::optional<double> ratio, const SpawnOptions& spawn);
    void closePane(uint64_t id);
    void setRatio(uint64_t split, double ratio);
    void focus(const FocusTarget& target);
    void move(const MoveRequest& request);

    // Pushes `subscribed` and then what the subscriber lacks: the bytes from `haveSeq` on
    // (replay), or a snapshot. A pane with a terminal is snapshotted from its screen and
    // `scrollback` rows of history, at the position the terminal has parsed, which may be
    // ahead of output still on its way: a consumer skips output before a snapshot's `seq`.
    // With `first`, those first events go to it on the calling thread instead of the
    // listener, for a consumer that serves several subscribers from the one stream. It is
    // called under the core's lock, so that no later output overtakes them, and must not
    // call back into the core.
    Subscription subscribe(uint64_t pane, std::optional<uint64_t> haveSeq, std::optional<Size> viewport,
                           int scrollback = 0, const Listener& first = {});
    void unsubscribe(uint64_t pane);
    void setViewport(uint64_t pane, Size size);
    void resize(uint64_t pane, Size size);
    void sendInput(uint64_t pane, ByteView bytes);
    // The text first, then the named keys together; a key name it doesn't know raises
    // "bad_request" and sends none of the keys.
    void sendKeys(uint64_t pane, const std::optional<std::string>& text, const std::vector<std::string>& keys);

    // What the pane's terminal shows. A pane without a terminal raises "unknown_method".
    PaneText paneText(uint64_t pane);
    PaneSearchResult searchPane(uint64_t pane, const std::string& query, const PaneSearchOptions& options);
    // The colours the user sees, which the panes' programs are told when they ask; for every
    // pane now and those made later. Absent leaves the terminals as they are.
    void setTerminalColors(const std::optional<TerminalColors>& colors);

    void ackAgent(uint64_t pane);
    void muteAgent(uint64_t pane, bool muted);
    // Answers a held permission request for the hook that waits on it; raises when the pane
    // has no such request.
    void decide(uint64_t pane, const std::string& request, PermissionDecision decision = PermissionDecision::allow,
                const std::optional<std::string>& message = std::nullopt);
    // A status hook's report; the id of the permission request it holds open, if any.
    // Raises when the pane is unknown.
    std::optional<std::string> reportAgent(const AgentReport& report);
    // What the hook holding `request` is to answer its agent.
    AgentVerdict agentVerdict(uint64_t pane, const std::string& request);
    AgentHistory agentHistory(uint64_t pane, std::optional<int> limit, std::optional<double> since) const;
    void dismissRestored(uint64_t pane);
    void setAgent(uint64_t pane, const std::optional<AgentInfo>& info);
    void setRestored(uint64_t pane, const std::optional<PaneRestore>& restored);
    void setGit(uint64_t pane, const std::optional<PaneGit>& git);
    // Raises when the pane is unknown.
    void requirePane(uint64_t pane) const;
    // A folder asked for that isn't there is refused, not swapped for the home folder.
    void requireFolder(const SpawnOptions& spawn) const;
    // Runs `visit` with the pane's terminal and the output position its state stands for,
    // outside the core's lock. Raises when the pane is unknown.
    void withPaneTerminal(uint64_t pane, const std::function<void(vellum::Terminal&, uint64_t parsed)>& visit);
    // History rows for every pane's terminal, now and for panes made later; the panes it
    // reached.
    std::vector<uint64_t> setScrollbackLines(int lines);
    // Rebuilds a saved tree, identifiers and all, on a core that holds nothing yet: each pane
    // starts its command again in its folder and size and is marked restored at `at` (seconds
    // since the epoch). A pane whose program can't start leaves the tree as a closed one would.
    void restore(const ModelState& saved, double at);

    // Settles every pane (no output is taken after this) and describes the session for the
    // process that takes it over. The core is of no further use.
    SessionHandOver handOver();
    // Takes over a handed-over session, on a core that holds nothing yet; the panes' programs
    // come from the host. A pane the host can't take leaves the tree as a closed one would.
    void takeOver(const SessionHandOver& session);

    // Asks each pane's program for its directory and publishes the changes.
    void pollWorkingDirectories();
    // Asks git about each pane's folder and publishes what changed. Runs git, so it is called
    // from one timer thread, never under a caller's lock.
    void pollGit();
    // Looks at each pane's foreground program and screen for agents without hooks, and at
    // each hook-reported agent's process; publishes what changed. From one timer thread.
    void pollAgents();
    // What a pane's terminal learned from the output.
    void paneChanged(uint64_t pane, const std::optional<std::string>& title, const std::optional<std::string>& cwd,
                     bool bell);
    void paneClipboard(uint64_t pane, const std::vector<std::string>& texts);

    // Whether a write is a mouse or focus report rather than a keystroke.
    static bool isReport(ByteView bytes);

private:
    struct PaneRecord {
        std::shared_ptr<PaneProcess> process;
        Size size;
        OutputRetention output;
        bool subscribed = false;
    };
    class Batch;

    SessionCore(std::shared_ptr<PaneHost> host, SessionCoreEnvironment environment);

    uint64_t takeID() { return nextID_++; }
    uint64_t spawnPane(const SpawnOptions& options, std::optional<uint64_t> id = std::nullopt);
    void deliver();
    // What a pane's program reports, routed back to this core.
    PaneProcessEvents eventsFor(uint64_t pane);
    void paneOutput(uint64_t pane, ByteView bytes);
    // Whether the pane may hand on more output; under budgetLock_.
    bool outputRoomLocked(uint64_t pane) const;
    void paneTerminated(uint64_t pane, std::optional<int32_t> exitCode);

    void publishState(Batch& batch);
    // Sets the pane's agent, records the change and tells the listener.
    void changeAgent(Batch& batch, uint64_t pane, const std::optional<AgentInfo>& agent);
    void publishPane(Batch& batch, uint64_t pane);
    // The agent a look at the pane finds, from the one it has now; on pollAgents's thread.
    std::optional<AgentInfo> nextGuess(uint64_t pane, int32_t pid, const std::optional<AgentInfo>& agent,
                                       std::optional<int32_t> reporter);
    void removeFromLayout(uint64_t pane);
    std::vector<std::shared_ptr<PaneProcess>> detach(const std::vector<uint64_t>& panes);
    void applySize(uint64_t pane, Size size, bool notifySubscriber);
    void graft(const MoveRequest& request);
    void restoreTree(const ModelState& saved, double at);
    // A subscribe in snapshot mode, from the screen of the pane's terminal.
    Subscription subscribeFromTerminal(uint64_t pane, int scrollback, const Listener& first);
    // Gives a new pane's terminal the colours set so far; outside the lock.
    void paint(uint64_t pane);
    // The pane's process, or null when it is unknown.
    std::shared_ptr<PaneProcess> process(uint64_t pane) const;
    Pane& statePane(uint64_t pane);
    PaneRecord& record(uint64_t pane);
    static Layout splitBeside(const Layout& leaf, uint64_t id, Direction direction, double ratio, Layout moved);

    std::shared_ptr<PaneHost> host_;
    SessionCoreEnvironment environment_;
    mutable std::mutex lock_;
    std::mutex outboxLock_; // taken after lock_ when both are held, never before it
    std::deque<SessionEvent> outbox_;
    bool delivering_ = false;
    Listener listener_;
    ModelState state_;
    uint64_t nextID_ = 1;
    int scrollbackLines_ = 0;
    std::optional<TerminalColors> colors_;
    std::map<uint64_t, PaneRecord> panes_;
    AgentTracker agents_;
    PaneGitWatcher git_; // used by pollGit's thread alone
    GitRefreshSchedule gitSchedule_; // used by pollGit's thread alone
    std::map<uint64_t, GuessedAgentLook> guessed_; // used by pollAgents's thread alone
    std::mutex budgetLock_; // taken after lock_ when both are held; only a pipeline's leaf lock after it
    size_t outputBound_ = 0; // 0: unbounded
    size_t outputHeld_ = 0;
    std::map<uint64_t, size_t> paneOutputHeld_;
    std::map<uint64_t, std::shared_ptr<PaneProcess>> outputHeldBack_; // panes whose output waits for room
    bool budgetOpen_ = true; // false once stopped: nothing is held any more
};

} // namespace corvex
