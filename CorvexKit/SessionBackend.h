#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "CorvexKit/SessionModel.h"
#include "Platform/Channel.h"

namespace corvex {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

inline ByteView asBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// The one failure a backend raises of its own. Callers test `code`, never `message`.
class BackendError : public std::runtime_error {
public:
    BackendError(std::string code, std::string message);

    const std::string& code() const { return code_; }
    const std::string& message() const { return message_; }
    // The daemon's answer to a write whose source changed underneath it.
    bool isStale() const { return code_ == "stale"; }

    bool operator==(const BackendError& other) const {
        return code_ == other.code_ && message_ == other.message_;
    }

private:
    std::string code_;
    std::string message_;
};

struct Size {
    int cols = 0;
    int rows = 0;

    bool operator==(const Size&) const = default;
};

struct SpawnOptions {
    std::optional<std::vector<std::string>> command; // absent: the login shell
    std::optional<std::string> cwd;
    std::optional<std::map<std::string, std::string>> env;
    std::optional<int> cols;
    std::optional<int> rows;

    bool operator==(const SpawnOptions&) const = default;
};

struct CreatedWorkspace {
    uint64_t workspace = 0;
    uint64_t tab = 0;
    uint64_t pane = 0;

    bool operator==(const CreatedWorkspace&) const = default;
};

struct CreatedTab {
    uint64_t tab = 0;
    uint64_t pane = 0;

    bool operator==(const CreatedTab&) const = default;
};

struct CreatedSplit {
    uint64_t pane = 0;
    uint64_t split = 0;

    bool operator==(const CreatedSplit&) const = default;
};

struct Subscription {
    enum class Mode { live, replay, snapshot };

    Mode mode = Mode::snapshot;
    uint64_t seq = 0; // where what follows begins
    int cols = 0;
    int rows = 0;

    bool operator==(const Subscription&) const = default;
};

std::string_view wireName(Subscription::Mode mode);
std::optional<Subscription::Mode> parseSubscriptionMode(std::string_view text);

struct PaneText {
    std::vector<std::string> lines; // one per screen row
    int cursorCol = 0;
    int cursorRow = 0;
    int cols = 0;
    int rows = 0;
    uint64_t seq = 0;

    std::string text() const;
    bool operator==(const PaneText&) const = default;
};

// A 24-bit colour, 0xRRGGBB.
using RGB = uint32_t;

struct TerminalColors {
    RGB foreground = 0;
    RGB background = 0;
    std::optional<RGB> cursor;
    std::optional<std::vector<RGB>> ansi;

    bool operator==(const TerminalColors&) const = default;
};

struct Hello {
    struct Machine {
        std::string hostname;
        std::string os;
        std::string arch;
        std::optional<std::string> home;

        bool operator==(const Machine&) const = default;
    };

    struct Holder {
        std::optional<int32_t> pid;
        std::optional<std::string> version;
        std::optional<int> protocol;
        std::optional<std::string> exe;
        std::optional<std::string> build;
        std::optional<bool> canUpgrade;
        std::optional<bool> outdated;
        std::optional<std::string> nameSpace; // wire key "namespace"

        bool operator==(const Holder&) const = default;
    };

    // The capabilities this client knows, found by name in `featureNames`.
    enum class Feature {
        paneKeys,
        agents,
        agentReportPid,
        ping,
        splitSetRatio,
        push,
        pushActivity,
        fs,
        paneClipboard,
        agentMute,
        paneSearch,
        agentHistory,
        agentDecide,
        settings,
        service,
        clientColors,
        restore,
        move,
        git,
        paneMove,
        paneFocus,
    };

    int protocol = 0;
    std::optional<int> protocolMin;
    std::optional<int> protocolMax;
    std::string daemon;
    std::string version;
    std::string instance; // identity of this daemon run
    std::optional<int32_t> pid;
    std::optional<Machine> machine;
    std::optional<std::vector<std::string>> featureNames;
    std::optional<std::string> exe;
    std::optional<std::string> build;
    std::optional<Holder> holder;
    std::optional<bool> holderOutdated;
    std::optional<std::string> nameSpace; // wire key "namespace"

    // The known features among `featureNames`; unknown names are skipped.
    std::set<Feature> features() const;
    bool has(Feature feature) const;

    static std::string_view wireName(Feature feature);
    static std::optional<Feature> parseFeature(std::string_view name);
    static std::set<Feature> features(const std::vector<std::string>& names);

    bool operator==(const Hello&) const = default;
};

using FeatureSet = std::set<Hello::Feature>;

struct DaemonSettings {
    struct Range {
        int min = 0;
        int max = 0;
        int defaultValue = 0; // wire key "default"

        bool operator==(const Range&) const = default;
    };
    struct Limits {
        Range scrollbackLines;

        bool operator==(const Limits&) const = default;
    };
    struct Change {
        std::optional<int> scrollbackLines;

        bool operator==(const Change&) const = default;
    };

    int scrollbackLines = 0;
    Limits limits;
    std::optional<std::string> config;
    std::optional<std::vector<uint64_t>> appliedPanes;

    bool operator==(const DaemonSettings&) const = default;
};

struct DaemonService {
    bool supported = false;
    std::optional<std::string> manager;
    std::optional<std::string> label;
    std::optional<std::string> file;
    bool installed = false;
    bool loaded = false;
    bool upToDate = false;
    std::optional<std::vector<std::string>> command;
    std::optional<bool> linger;
    std::vector<std::string> needs;
    std::optional<std::string> message;

    bool operator==(const DaemonService&) const = default;
};

struct CellPosition {
    int line = 0;
    int col = 0;

    bool operator==(const CellPosition&) const = default;
};

struct PaneSearchOptions {
    bool regex = false;
    bool caseSensitive = false;
    std::optional<int> limit;
    std::optional<CellPosition> before;

    bool operator==(const PaneSearchOptions&) const = default;
};

struct PaneSearchMatch {
    CellPosition start;
    CellPosition end;
    std::string text;
    std::string lineText;

    bool operator==(const PaneSearchMatch&) const = default;
};

struct PaneSearchResult {
    uint64_t seq = 0;
    int cols = 0;
    int rows = 0;
    int history = 0;
    std::vector<PaneSearchMatch> matches;
    std::optional<CellPosition> next;

    bool operator==(const PaneSearchResult&) const = default;
};

struct AgentHistoryEntry {
    enum class Event { state, attention, update, mute, unmute, gone, unknown };

    double at = 0;
    std::string eventName;
    std::optional<std::string> kind;
    std::optional<std::string> stateName;
    std::optional<std::string> fromName;
    std::optional<std::string> message;
    std::optional<std::string> session;
    std::optional<int32_t> pid;
    std::optional<std::string> source;
    bool guess = false;
    std::optional<bool> attention;
    std::optional<bool> muted;

    Event event() const;
    std::optional<AgentInfo::State> state() const;
    std::optional<AgentInfo::State> from() const;
    bool operator==(const AgentHistoryEntry&) const = default;
};

struct AgentHistory {
    uint64_t pane = 0;
    int64_t max = 0;
    std::vector<AgentHistoryEntry> entries; // oldest first

    bool operator==(const AgentHistory&) const = default;
};

struct PushRegistration {
    std::string device;
    std::string handle;
    std::string key;
    std::string label;
    std::string relay;
    std::string env;

    bool operator==(const PushRegistration&) const = default;
};

struct PushDevice {
    std::string device;
    std::string label;
    std::string relay;
    std::string env;
    std::optional<double> created;
    std::optional<std::string> lastError;

    bool operator==(const PushDevice&) const = default;
};

struct PushActivity {
    uint64_t pane = 0;
    std::string device;
    std::optional<double> created;
    std::optional<std::string> lastError;

    bool operator==(const PushActivity&) const = default;
};

// What a backend pushes, in the order it pushed it.
struct SessionEvent {
    struct Connected { Hello hello; bool operator==(const Connected&) const = default; };
    struct Disconnected { std::string reason; bool operator==(const Disconnected&) const = default; };
    struct Progress { std::string text; bool operator==(const Progress&) const = default; };
    struct RetryPaused { std::string reason; bool operator==(const RetryPaused&) const = default; };
    struct State { ModelState state; bool operator==(const State&) const = default; };
    struct PaneChanged {
        Pane pane;
        uint64_t rev = 0;
        bool operator==(const PaneChanged&) const = default;
    };
    struct Bell { uint64_t pane = 0; bool operator==(const Bell&) const = default; };
    struct Clipboard {
        uint64_t pane = 0;
        std::string text;
        bool selection = false; // the primary selection rather than the clipboard
        bool operator==(const Clipboard&) const = default;
    };
    struct Settings { DaemonSettings settings; bool operator==(const Settings&) const = default; };
    struct Service { DaemonService service; bool operator==(const Service&) const = default; };
    struct Subscribed {
        uint64_t pane = 0;
        Subscription subscription;
        bool operator==(const Subscribed&) const = default;
    };
    struct Output {
        uint64_t pane = 0;
        uint64_t seq = 0; // position of the first byte
        Bytes bytes;
        bool operator==(const Output&) const = default;
    };
    struct Snapshot {
        uint64_t pane = 0;
        uint64_t seq = 0;
        int cols = 0;
        int rows = 0;
        Bytes bytes;
        bool operator==(const Snapshot&) const = default;
    };
    struct Resized {
        uint64_t pane = 0;
        int cols = 0;
        int rows = 0;
        uint64_t seq = 0;
        bool operator==(const Resized&) const = default;
    };
    struct Resync { uint64_t pane = 0; bool operator==(const Resync&) const = default; };
    struct Agent {
        uint64_t pane = 0;
        std::optional<AgentInfo> info;
        bool operator==(const Agent&) const = default;
    };

    using Value = std::variant<Connected, Disconnected, Progress, RetryPaused, State, PaneChanged, Bell,
                               Clipboard, Settings, Service, Subscribed, Output, Snapshot, Resized, Resync,
                               Agent>;
    Value value;

    template <typename T>
        requires(!std::is_same_v<std::decay_t<T>, SessionEvent>)
    SessionEvent(T event) : value(std::move(event)) {}

    template <typename T>
    const T* as() const { return std::get_if<T>(&value); }
    bool operator==(const SessionEvent&) const = default;
};

// A backend's events: many producers, one reader, unbounded, nothing dropped. A reader can
// block on next(), poll with tryNext(), or be woken by a handler and then drain with tryNext().
class SessionEventStream {
public:
    // False once the stream is finished; the event is then dropped.
    bool push(SessionEvent event);
    // Ends the stream; the reader still drains what was pushed before.
    void finish();

    // Blocks until an event arrives; absent once finished and drained.
    std::optional<SessionEvent> next();
    std::optional<SessionEvent> next(std::chrono::steady_clock::duration timeout);
    std::optional<SessionEvent> tryNext();
    bool isFinished() const;
    size_t pending() const;

    // Called after each push and at finish, on the pushing thread and outside any lock, so a
    // reader served by another loop can schedule a drain. Called at once if events wait.
    void setWakeup(std::function<void()> wakeup);

private:
    void wake();

    platform::Channel<SessionEvent> channel_;
    std::mutex wakeupMutex_;
    std::shared_ptr<std::function<void()>> wakeup_;
};

// What a pane's view implements to receive that pane's data. Held weakly by the store.
class PaneDataSink {
public:
    virtual ~PaneDataSink() = default;
    virtual void paneSubscribed(const Subscription& subscription) = 0;
    virtual void paneOutput(uint64_t seq, ByteView bytes) = 0;
    virtual void paneSnapshot(uint64_t seq, int cols, int rows, ByteView bytes) = 0;
    virtual void paneResized(int cols, int rows, uint64_t seq) = 0;
    // The client fell behind: drop what is queued.
    virtual void paneResync() = 0;
    // The daemon's identity changed: everything held for this pane is worthless.
    virtual void paneReset() = 0;
    virtual void paneClipboard(const std::string& text, bool selection) {
        (void)text;
        (void)selection;
    }
};

// The one interface through which everything above the protocol speaks to the place where
// sessions live. Operations block and may be called from any thread; callers on the main
// thread run them elsewhere. Failures are raised as BackendError, or as a codec error for
// replies of the wrong shape.
class SessionBackend {
public:
    virtual ~SessionBackend() = default;

    // One reader; read from before start().
    virtual std::shared_ptr<SessionEventStream> events() = 0;
    // Returns once the first connection is made, or raises after the first attempt failed
    // (the backend then retries on its own).
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual void reconnectNow() {}

    virtual ModelState getState() = 0;
    virtual CreatedWorkspace createWorkspace(const std::optional<std::string>& name, const SpawnOptions& spawn) = 0;
    CreatedWorkspace createWorkspace(const std::optional<std::string>& name = std::nullopt) {
        return createWorkspace(name, SpawnOptions{});
    }
    virtual void renameWorkspace(uint64_t id, const std::string& name) = 0;
    virtual void closeWorkspace(uint64_t id) = 0;
    virtual CreatedTab createTab(uint64_t workspace, const SpawnOptions& spawn) = 0;
    CreatedTab createTab(uint64_t workspace) { return createTab(workspace, SpawnOptions{}); }
    virtual void renameTab(uint64_t id, const std::optional<std::string>& title) = 0;
    virtual void closeTab(uint64_t id) = 0;
    virtual CreatedSplit split(uint64_t pane, Direction direction, std::optional<double> ratio,
                               const SpawnOptions& spawn) = 0;
    CreatedSplit split(uint64_t pane, Direction direction, const SpawnOptions& spawn = {}) {
        return split(pane, direction, std::nullopt, spawn);
    }
    virtual void closePane(uint64_t id) = 0;
    virtual void setRatio(uint64_t split, double ratio) = 0;
    virtual void focus(const FocusTarget& target) = 0;
    virtual Subscription subscribe(uint64_t pane, std::optional<uint64_t> haveSeq = std::nullopt,
                                   std::optional<int> scrollback = std::nullopt,
                                   std::optional<Size> viewport = std::nullopt) = 0;
    virtual void unsubscribe(uint64_t pane) = 0;
    virtual void setViewport(uint64_t pane, Size size) = 0;
    virtual void resize(uint64_t pane, Size size) = 0;
    virtual void focusPane(uint64_t pane) { (void)pane; }
    // Fire and forget: never fails, never blocks on the peer.
    virtual void sendInput(uint64_t pane, ByteView bytes) = 0;
    virtual void setTerminalColors(const std::optional<TerminalColors>& colors) { (void)colors; }

    virtual void dismissRestored(uint64_t pane);
    virtual void move(const MoveRequest& request);
    virtual void ackAgent(uint64_t pane) { (void)pane; }
    virtual void muteAgent(uint64_t pane, bool muted);
    virtual PaneText paneText(uint64_t pane);
    virtual void decide(uint64_t pane, const std::string& request, PermissionDecision decision,
                        const std::optional<std::string>& message);
    virtual PaneSearchResult searchPane(uint64_t pane, const std::string& query, const PaneSearchOptions& options);
    virtual AgentHistory agentHistory(uint64_t pane, std::optional<int> limit, std::optional<double> since);
    virtual void sendKeys(uint64_t pane, const std::optional<std::string>& text, const std::vector<std::string>& keys);
    virtual DaemonSettings getSettings();
    virtual DaemonSettings setSettings(const DaemonSettings::Change& change);
    virtual DaemonService serviceStatus();
    virtual DaemonService installService();
    virtual DaemonService uninstallService();
    virtual void pushRegister(const PushRegistration& registration);
    virtual void pushUnregister(const std::string& device);
    virtual std::vector<PushDevice> pushList();
    virtual void pushTest(const std::string& device);
    virtual void pushActivity(uint64_t pane, const std::string& device, const std::string& token,
                              const std::optional<std::string>& env);
    virtual void pushActivityEnd(uint64_t pane, const std::string& device);
    virtual std::vector<PushActivity> pushActivities();
};

} // namespace corvex
