#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CorvexKit/FileModel.h"
#include "CorvexKit/SessionBackend.h"

// The one definition of the daemon protocol above the frames, used by both ends: the methods
// with their parameters, results and feature gates, the event names, and the version. Each
// method is a struct of its parameters; `name` is its wire name and `Result` what it answers.
// The JSON side of these lives in ProtocolJSON.h, for codec translation units only.
namespace corvex::protocol {

inline constexpr int version = 1;

// The answer of a method whose result is ignored.
struct NoResult {
    bool operator==(const NoResult&) const = default;
};

// A method that only a daemon with `feature` is sent; without it the call returns at once.
template <Hello::Feature feature>
struct Gated {
    static constexpr std::optional<Hello::Feature> gate = feature;
};
struct Ungated {
    static constexpr std::optional<Hello::Feature> gate = std::nullopt;
};

struct HelloCall : Ungated {
    static constexpr std::string_view name = "hello";
    using Result = Hello;
    int protocol = version;
    std::string client;
};

struct ClientColors : Gated<Hello::Feature::clientColors> {
    static constexpr std::string_view name = "client.colors";
    using Result = NoResult;
    TerminalColors colors;
};

struct EventsSubscribe : Ungated {
    static constexpr std::string_view name = "events.subscribe";
    using Result = NoResult;
};

struct Ping : Ungated {
    static constexpr std::string_view name = "ping";
    using Result = NoResult;
};

struct StateGet : Ungated {
    static constexpr std::string_view name = "state.get";
    using Result = ModelState;
};

struct WorkspaceCreate : Ungated {
    static constexpr std::string_view name = "workspace.create";
    using Result = CreatedWorkspace;
    std::optional<std::string> workspaceName; // wire key "name"
    SpawnOptions spawn;                       // merged into the params
};

struct WorkspaceRename : Ungated {
    static constexpr std::string_view name = "workspace.rename";
    using Result = NoResult;
    uint64_t workspace = 0;
    std::string workspaceName; // wire key "name"
};

struct WorkspaceClose : Ungated {
    static constexpr std::string_view name = "workspace.close";
    using Result = NoResult;
    uint64_t workspace = 0;
};

struct TabCreate : Ungated {
    static constexpr std::string_view name = "tab.create";
    using Result = CreatedTab;
    uint64_t workspace = 0;
    SpawnOptions spawn;
};

struct TabRename : Ungated {
    static constexpr std::string_view name = "tab.rename";
    using Result = NoResult;
    uint64_t tab = 0;
    std::optional<std::string> title;
};

struct TabClose : Ungated {
    static constexpr std::string_view name = "tab.close";
    using Result = NoResult;
    uint64_t tab = 0;
};

struct PaneSplit : Ungated {
    static constexpr std::string_view name = "pane.split";
    using Result = CreatedSplit;
    uint64_t pane = 0;
    Direction direction = Direction::right;
    std::optional<double> ratio;
    SpawnOptions spawn;
};

struct PaneClose : Ungated {
    static constexpr std::string_view name = "pane.close";
    using Result = NoResult;
    uint64_t pane = 0;
};

struct SplitSetRatio : Ungated {
    static constexpr std::string_view name = "split.set_ratio";
    using Result = NoResult;
    uint64_t split = 0;
    double ratio = 0.5;
};

// Exactly one of `pane`, `tab`, `workspace` on the wire.
struct FocusCall : Ungated {
    static constexpr std::string_view name = "focus";
    using Result = NoResult;
    FocusTarget target;
};

struct PaneSubscribe : Ungated {
    static constexpr std::string_view name = "pane.subscribe";
    using Result = Subscription;
    uint64_t pane = 0;
    std::optional<uint64_t> haveSeq;
    std::optional<int> scrollback;
    std::optional<Size> viewport;
};

struct PaneUnsubscribe : Ungated {
    static constexpr std::string_view name = "pane.unsubscribe";
    using Result = NoResult;
    uint64_t pane = 0;
};

struct PaneViewport : Ungated {
    static constexpr std::string_view name = "pane.viewport";
    using Result = NoResult;
    uint64_t pane = 0;
    Size size;
};

struct PaneResize : Ungated {
    static constexpr std::string_view name = "pane.resize";
    using Result = NoResult;
    uint64_t pane = 0;
    Size size;
};

struct PaneFocus : Gated<Hello::Feature::paneFocus> {
    static constexpr std::string_view name = "pane.focus";
    using Result = NoResult;
    uint64_t pane = 0;
};

struct PaneKeys : Ungated {
    static constexpr std::string_view name = "pane.keys";
    using Result = NoResult;
    uint64_t pane = 0;
    std::vector<std::string> keys;
    std::optional<std::string> text;
};

struct PaneDismissRestored : Ungated {
    static constexpr std::string_view name = "pane.dismiss_restored";
    using Result = NoResult;
    uint64_t pane = 0;
};

struct PaneTextCall : Ungated {
    static constexpr std::string_view name = "pane.text";
    using Result = PaneText;
    uint64_t pane = 0;
};

struct PaneSearch : Ungated {
    static constexpr std::string_view name = "pane.search";
    using Result = PaneSearchResult;
    uint64_t pane = 0;
    std::string query;
    PaneSearchOptions options;
};

struct WorkspaceMove : Ungated {
    static constexpr std::string_view name = "workspace.move";
    using Result = NoResult;
    uint64_t workspace = 0;
    int index = 0;
};

struct TabMove : Ungated {
    static constexpr std::string_view name = "tab.move";
    using Result = NoResult;
    uint64_t tab = 0;
    int index = 0;
    std::optional<uint64_t> workspace;
    bool focus = false;
};

// "pane.move" and "tab.join": a pane or a whole tab grafted beside another pane.
struct PaneMove : Ungated {
    static constexpr std::string_view name = "pane.move";
    using Result = NoResult;
    uint64_t pane = 0;
    uint64_t toPane = 0;
    Direction direction = Direction::right;
    bool focus = false;
    std::optional<double> ratio;
};

struct TabJoin : Ungated {
    static constexpr std::string_view name = "tab.join";
    using Result = NoResult;
    uint64_t tab = 0;
    uint64_t toPane = 0;
    Direction direction = Direction::right;
    bool focus = false;
    std::optional<double> ratio;
};

struct AgentAck : Ungated {
    static constexpr std::string_view name = "agent.ack";
    using Result = NoResult;
    uint64_t pane = 0;
};

struct AgentMute : Ungated {
    static constexpr std::string_view name = "agent.mute";
    using Result = NoResult;
    uint64_t pane = 0;
    bool muted = false;
};

struct AgentDecide : Ungated {
    static constexpr std::string_view name = "agent.decide";
    using Result = NoResult;
    uint64_t pane = 0;
    std::string request;
    PermissionDecision decision = PermissionDecision::allow;
    std::optional<std::string> message;
};

struct AgentHistoryCall : Ungated {
    static constexpr std::string_view name = "agent.history";
    using Result = AgentHistory;
    uint64_t pane = 0;
    std::optional<int> limit;
    std::optional<double> since;
};

// A status hook's report, sent by the hook command that runs inside a pane to that pane's
// daemon. The answer names the request a permission request is held open under.
struct AgentReport : Ungated {
    static constexpr std::string_view name = "agent.report";
    struct Result {
        std::optional<std::string> request;
        bool operator==(const Result&) const = default;
    };
    uint64_t pane = 0;
    std::string kind;  // "claude", "codex"
    std::string event; // the agent's own name of what happened: "Stop", "agent-turn-complete", ...
    std::optional<int32_t> pid;
    std::optional<std::string> session;
    std::optional<std::string> message;
    std::optional<std::string> prompt;
    std::optional<std::string> tool;
    std::optional<std::string> toolInput;
};

// A held permission request as the hook waiting on it sees it: still open, answered, or
// gone unanswered.
struct AgentVerdict {
    bool open = false;
    std::optional<PermissionDecision> decision;
    std::optional<std::string> message;
    bool operator==(const AgentVerdict&) const = default;
};

struct AgentVerdictCall : Ungated {
    static constexpr std::string_view name = "agent.verdict";
    using Result = AgentVerdict;
    uint64_t pane = 0;
    std::string request;
};

struct SettingsGet : Ungated {
    static constexpr std::string_view name = "settings.get";
    using Result = DaemonSettings;
};

struct SettingsSet : Ungated {
    static constexpr std::string_view name = "settings.set";
    using Result = DaemonSettings;
    DaemonSettings::Change change; // its fields are the params
};

struct ServiceStatus : Ungated {
    static constexpr std::string_view name = "service.status";
    using Result = DaemonService;
};

struct ServiceInstall : Ungated {
    static constexpr std::string_view name = "service.install";
    using Result = DaemonService;
};

struct ServiceUninstall : Ungated {
    static constexpr std::string_view name = "service.uninstall";
    using Result = DaemonService;
};

struct PushRegister : Ungated {
    static constexpr std::string_view name = "push.register";
    using Result = NoResult;
    PushRegistration registration; // its fields are the params
};

struct PushUnregister : Ungated {
    static constexpr std::string_view name = "push.unregister";
    using Result = NoResult;
    std::string device;
};

// "push.list" answers both lists; each call reads its own key, and a missing key is empty.
struct PushList : Ungated {
    static constexpr std::string_view name = "push.list";
    using Result = std::vector<PushDevice>;
};

struct PushActivities : Ungated {
    static constexpr std::string_view name = "push.list";
    using Result = std::vector<PushActivity>;
};

struct PushTest : Ungated {
    static constexpr std::string_view name = "push.test";
    using Result = NoResult;
    std::string device;
};

struct PushActivityStart : Ungated {
    static constexpr std::string_view name = "push.activity";
    using Result = NoResult;
    uint64_t pane = 0;
    std::string device;
    std::string token;
    std::optional<std::string> env;
};

struct PushActivityEnd : Ungated {
    static constexpr std::string_view name = "push.activity_end";
    using Result = NoResult;
    uint64_t pane = 0;
    std::string device;
};

// Every method with parameters, for the codec's declarations.
#define CORVEX_PROTOCOL_METHODS(X)                                                                                   \
    X(HelloCall) X(ClientColors) X(EventsSubscribe) X(Ping) X(StateGet) X(WorkspaceCreate) X(WorkspaceRename)         \
    X(WorkspaceClose) X(TabCreate) X(TabRename) X(TabClose) X(PaneSplit) X(PaneClose) X(SplitSetRatio) X(FocusCall)  \
    X(PaneSubscribe) X(PaneUnsubscribe) X(PaneViewport) X(PaneResize) X(PaneFocus) X(PaneKeys)                        \
    X(PaneDismissRestored) X(PaneTextCall) X(PaneSearch) X(WorkspaceMove) X(TabMove) X(PaneMove) X(TabJoin)          \
    X(AgentAck) X(AgentMute) X(AgentDecide) X(AgentHistoryCall) X(AgentReport) X(AgentVerdictCall) X(SettingsGet) X(SettingsSet) X(ServiceStatus)       \
    X(ServiceInstall) X(ServiceUninstall) X(PushRegister) X(PushUnregister) X(PushList) X(PushActivities)            \
    X(PushTest) X(PushActivityStart) X(PushActivityEnd)


// ---------------------------------------------------------------- files
// Metadata is plain requests; a read or a write opens a stream whose bytes travel in
// file-data frames beside the session's other traffic, paced by a credit window.

struct FsStat : Gated<Hello::Feature::fs> {
    static constexpr std::string_view name = "fs.stat";
    using Result = FileEntry;
    std::string path;
};

struct FsList : Gated<Hello::Feature::fs> {
    static constexpr std::string_view name = "fs.list";
    using Result = FileListing;
    std::string path;
    bool hidden = false;
    std::optional<int> limit;
    std::optional<std::string> cursor;
};

struct FsMkdir : Gated<Hello::Feature::fs> {
    static constexpr std::string_view name = "fs.mkdir";
    using Result = FileEntry;
    std::string path;
    bool parents = false;
};

struct FsSetattr : Gated<Hello::Feature::fs> {
    static constexpr std::string_view name = "fs.setattr";
    using Result = FileEntry;
    std::string path;
    std::optional<std::string> mtimeNs;
    std::optional<int> mode;
};

struct FsRename : Gated<Hello::Feature::fs> {
    static constexpr std::string_view name = "fs.rename";
    using Result = FileEntry;
    std::string from;
    std::string to;
    bool overwrite = false;
};

struct FsRemove : Gated<Hello::Feature::fs> {
    static constexpr std::string_view name = "fs.remove";
    using Result = NoResult;
    std::string path;
    bool recursive = false;
};

struct FsStatfs : Gated<Hello::Feature::fs> {
    static constexpr std::string_view name = "fs.statfs";
    using Result = FileSpace;
    std::string path;
};

// A read stream as opened: where its data really begins, and the file it reads.
struct FileReadOpened {
    std::optional<uint64_t> stream;
    std::optional<uint64_t> offset;
    uint64_t size = 0;
    std::string mtimeNs;
    bool operator==(const FileReadOpened&) const = default;
};

struct FsRead : Gated<Hello::Feature::fs> {
    static constexpr std::string_view name = "fs.read";
    using Result = FileReadOpened;
    std::string path;
    FileReadOptions options;
};

// A write stream as opened: the offset the receiver already holds, and its window.
struct FileWriteOpened {
    std::optional<uint64_t> stream;
    uint64_t offset = 0;
    std::optional<uint64_t> window;
    // A put's reply: the file as placed. No stream stays open.
    std::optional<FileEntry> entry;
    bool operator==(const FileWriteOpened&) const = default;
};

// A source file that the daemon can open itself, because it runs on the same machine as the
// client: the daemon copies it into the target in the kernel, and no data frame travels. The
// daemon refuses it with `fsLocalSourceRefused` unless the boot id is its own and the path
// opens the very file (device and inode) the client saw, as another mount namespace may not;
// then the client sends the bytes. Size and time are checked as a read's are ("changed").
struct LocalSource {
    std::string path;
    std::string bootID;
    uint64_t device = 0;
    uint64_t inode = 0;
    uint64_t size = 0;
    std::string mtimeNs;
    bool operator==(const LocalSource&) const = default;
};

// In hello's features when "fs.write" takes "local_source".
inline constexpr std::string_view fsLocalSourceFeature = "fs.local_source";
// The error code of an "fs.write" whose local source the daemon can't open as the client's.
inline constexpr std::string_view fsLocalSourceRefused = "local_source_refused";

// In hello's features when "fs.write" takes "put".
inline constexpr std::string_view fsPutFeature = "fs.put";
// The streams a client names itself for its puts: never one the daemon hands out.
inline constexpr uint64_t fsPutStreamBit = uint64_t(1) << 63;
// Small enough that sending it whole again costs less than asking where to resume.
inline constexpr uint64_t fsPutLargest = 256u << 10;
// In hello's features when a client's puts count apart from its streams, up to fsPutsAtOnce
// of them unanswered at a time: a tree of small files is bound by how many are on their way.
inline constexpr std::string_view fsPutsFeature = "fs.puts";
inline constexpr int fsPutsAtOnce = 128;

struct FsWrite : Gated<Hello::Feature::fs> {
    static constexpr std::string_view name = "fs.write";
    using Result = FileWriteOpened;
    std::string path;
    FileWriteOptions options;
    std::optional<LocalSource> localSource;
    // A put: a small file's whole data follows the request at once, in frames on this stream
    // (fsPutStreamBit set, unique among the client's puts), ending with the end frame. No
    // reply opens a stream; the one reply comes when the file is placed, with its entry, or
    // is the write's error. At most fsPutLargest bytes, and `size` is required; what an
    // earlier attempt staged is kept and the rest of the data taken.
    std::optional<uint64_t> put;
};

// In hello's features when "fs.put_batch" is served.
inline constexpr std::string_view fsPutBatchFeature = "fs.put_batch";
// Files in one batch at most. Each counts as one of the client's fsPutsAtOnce puts.
inline constexpr int fsPutBatchLargest = 64;

// One file's outcome in a batch: placed (with the offset its data continued from), or the
// error code and message its own put would have been answered with.
struct FilePutOutcome {
    std::optional<FileEntry> entry; // in a single put's reply only
    uint64_t offset = 0;
    std::string code; // empty when placed
    std::string message;
    bool operator==(const FilePutOutcome&) const = default;
};

struct FilePutOutcomes {
    std::vector<FilePutOutcome> files; // in the order of the request
    bool operator==(const FilePutOutcomes&) const = default;
};

// Many small files in one request: each is a put ("put" set, a stream of its own), its data in
// frames right behind the request, in any order. One reply once every file has its outcome;
// a file's failure is its own and the others go on. A request that can't be taken at all
// (too many files, too many puts at once) is answered with its error, and no file is written.
struct FsPutBatch : Gated<Hello::Feature::fs> {
    static constexpr std::string_view name = "fs.put_batch";
    using Result = FilePutOutcomes;
    std::vector<FsWrite> files;
};

struct FsCancel : Gated<Hello::Feature::fs> {
    static constexpr std::string_view name = "fs.cancel";
    using Result = NoResult;
    uint64_t stream = 0;
};

// "fs.ack" both ways: from the daemon, bytes of a write it has taken; from the client, as a
// message without a request id, bytes of a read it has consumed.
struct FsAck {
    static constexpr std::string_view name = "fs.ack";
    uint64_t stream = 0;
    uint64_t offset = 0;
    bool operator==(const FsAck&) const = default;
};

// "fs.done": the final entry of a write or read, or the end of a cancelled stream.
struct FsDone {
    static constexpr std::string_view name = "fs.done";
    uint64_t stream = 0;
    std::optional<FileEntry> entry;
    bool cancelled = false;
    bool operator==(const FsDone&) const = default;
};

struct FsError {
    static constexpr std::string_view name = "fs.error";
    uint64_t stream = 0;
    std::string code;
    std::string message;
    bool operator==(const FsError&) const = default;
};

#define CORVEX_PROTOCOL_FILE_METHODS(X)                                                                              \
    X(FsStat) X(FsList) X(FsMkdir) X(FsSetattr) X(FsRename) X(FsRemove) X(FsStatfs) X(FsRead) X(FsWrite) X(FsPutBatch) X(FsCancel)

// Wire names of the events a daemon sends.
namespace event {
inline constexpr std::string_view state = "state";
inline constexpr std::string_view pane = "pane";
inline constexpr std::string_view bell = "bell";
inline constexpr std::string_view settings = "settings";
inline constexpr std::string_view service = "service";
inline constexpr std::string_view clipboard = "pane.clipboard";
inline constexpr std::string_view resized = "pane.resized";
inline constexpr std::string_view resync = "pane.resync";
inline constexpr std::string_view agent = "agent";
// The daemon is going on purpose (stop or shutdown): a client that hears it doesn't start
// another one behind the user's back.
inline constexpr std::string_view shutdown = "daemon.shutdown";
// The file layer's events begin with this.
inline constexpr std::string_view filePrefix = "fs.";
} // namespace event

// How a daemon routes an event: to every client that asked for events, or in order with a
// pane's output to that pane's subscribers.
enum class EventRoute { everyone, paneSubscribers };

} // namespace corvex::protocol
