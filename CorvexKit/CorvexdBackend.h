#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "CorvexKit/ByteStream.h"
#include "CorvexKit/CorvexdTransport.h"
#include "CorvexKit/Frame.h"
#include "CorvexKit/FrameParser.h"
#include "CorvexKit/Protocol.h"
#include "CorvexKit/SessionBackend.h"
#include "Platform/Clock.h"
#include "Platform/SerialQueue.h"

namespace corvex {

// How reconnect attempts are spaced; `limit` failures in a row pause until asked.
struct RetryPolicy {
    std::optional<int> limit;
    double firstDelay = 0.1; // seconds
    double maxDelay = 2.0;   // seconds

    // Absent once the limit is reached.
    std::optional<double> delay(int afterFailures) const;

    static RetryPolicy remote() { return {3, 1.0, 30.0}; }
    bool operator==(const RetryPolicy&) const = default;
};

// What the file layer plugs into a backend: the binary file frames and "fs.*" events it
// reads on the reader thread, and the failure of every open stream when the link goes.
class CorvexdFileChannel {
public:
    virtual ~CorvexdFileChannel() = default;
    virtual void fileData(const FileDataFrame& frame) = 0;
    virtual void fileEvent(const std::string& name, const nlohmann::json& data) = 0;
    virtual void failAll(const BackendError& error) = 0;
};

// A session backend that speaks to one corvexd over a transport, keeps it reachable while
// started, and restores its pane subscriptions after each reconnect.
// Events are pushed while the backend's lock is held, which keeps them in step with the
// state they describe; an event stream's wake-up handler must therefore not call back into
// the backend on the pushing thread.
class CorvexdBackend final : public SessionBackend, public std::enable_shared_from_this<CorvexdBackend> {
public:
    static constexpr int protocolVersion = protocol::version;

    using TextSink = std::function<void(const std::string& text)>;
    using ReplyHook = std::function<void(const nlohmann::json& result)>;

    struct Configuration {
        std::shared_ptr<CorvexdTransport> transport;
        std::string clientName;
        TextSink log;
        TextSink trace;
        std::optional<RetryPolicy> retry;
        // Seams for the reconnect loop and the heartbeat, so tests need not wait. Background
        // threads keep copies of both, so what they capture must be shared, not borrowed.
        std::shared_ptr<const platform::Clock> clock;
        std::function<void(platform::Duration)> sleep;

        // A local daemon's socket, started through startDaemon when it isn't there.
        static Configuration socket(std::string path, std::string clientName, TextSink log = {},
                                    std::function<void()> startDaemon = {});
    };

    static std::shared_ptr<CorvexdBackend> make(Configuration configuration);
    ~CorvexdBackend() override;

    static std::string defaultSocketPath(const std::optional<std::string>& runtimeDir = std::nullopt);

    // The one way a request is made: the reply's `result`, uninterpreted. `subscribing`
    // marks a pane subscribe; `onReply` runs on the reader thread before any later frame is
    // read and before the caller resumes. Blocks until the reply or the loss of the link, so
    // it must never be called from the reader thread (a hook, the file channel). `following`:
    // whole frames that go out right behind the request, in the same write.
    nlohmann::json request(const std::string& method, nlohmann::json params,
                           std::optional<uint64_t> subscribing = std::nullopt, ReplyHook onReply = {},
                           std::string following = {});
    nlohmann::json request(const std::string& method);
    // One frame, queued for writing in call order; dropped without a connection.
    void send(FrameType type, std::string_view payload);
    // A whole frame already assembled (makeFrame and friends), so bulk data is copied once.
    void sendFrame(std::string frame);
    // The transport's description, for messages about this connection.
    std::string transportName() const;
    // The daemon is reached through a Unix socket, not through ssh.
    bool overUnixSocket() const;
    void ping();

    std::optional<Hello> lastHello() const;
    std::optional<uint64_t> deliveredSeq(uint64_t pane) const;
    bool isConnected() const;
    // A reconnect loop is at work (backing off, paused, or finishing a connect).
    bool isReconnecting() const;
    // The daemon said it was going on purpose; no reconnect follows until reconnectNow().
    bool daemonWasShutDown() const;
    RetryPolicy retryPolicy() const;
    void setFileChannel(std::shared_ptr<CorvexdFileChannel> channel);

    // SessionBackend
    std::shared_ptr<SessionEventStream> events() override { return events_; }
    void start() override;
    void stop() override;
    void reconnectNow() override;
    ModelState getState() override;
    CreatedWorkspace createWorkspace(const std::optional<std::string>& name, const SpawnOptions& spawn) override;
    void renameWorkspace(uint64_t id, const std::string& name) override;
    void closeWorkspace(uint64_t id) override;
    CreatedTab createTab(uint64_t workspace, const SpawnOptions& spawn) override;
    void renameTab(uint64_t id, const std::optional<std::string>& title) override;
    void closeTab(uint64_t id) override;
    CreatedSplit split(uint64_t pane, Direction direction, std::optional<double> ratio,
                       const SpawnOptions& spawn) override;
    void closePane(uint64_t id) override;
    void setRatio(uint64_t split, double ratio) override;
    void focus(const FocusTarget& target) override;
    Subscription subscribe(uint64_t pane, std::optional<uint64_t> haveSeq = std::nullopt,
                           std::optional<int> scrollback = std::nullopt,
                           std::optional<Size> viewport = std::nullopt) override;
    void unsubscribe(uint64_t pane) override;
    void setViewport(uint64_t pane, Size size) override;
    void resize(uint64_t pane, Size size) override;
    void focusPane(uint64_t pane) override;
    void sendInput(uint64_t pane, ByteView bytes) override;
    void setTerminalColors(const std::optional<TerminalColors>& colors) override;
    void dismissRestored(uint64_t pane) override;
    void move(const MoveRequest& request) override;
    void ackAgent(uint64_t pane) override;
    void muteAgent(uint64_t pane, bool muted) override;
    PaneText paneText(uint64_t pane) override;
    void decide(uint64_t pane, const std::string& request, PermissionDecision decision,
                const std::optional<std::string>& message) override;
    PaneSearchResult searchPane(uint64_t pane, const std::string& query, const PaneSearchOptions& options) override;
    AgentHistory agentHistory(uint64_t pane, std::optional<int> limit, std::optional<double> since) override;
    void sendKeys(uint64_t pane, const std::optional<std::string>& text, const std::vector<std::string>& keys) override;
    DaemonSettings getSettings() override;
    DaemonSettings setSettings(const DaemonSettings::Change& change) override;
    DaemonService serviceStatus() override;
    DaemonService installService() override;
    DaemonService uninstallService() override;
    void pushRegister(const PushRegistration& registration) override;
    void pushUnregister(const std::string& device) override;
    std::vector<PushDevice> pushList() override;
    void pushTest(const std::string& device) override;
    void pushActivity(uint64_t pane, const std::string& device, const std::string& token,
                      const std::optional<std::string>& env) override;
    void pushActivityEnd(uint64_t pane, const std::string& device) override;
    std::vector<PushActivity> pushActivities() override;

    using SessionBackend::createTab;
    using SessionBackend::createWorkspace;
    using SessionBackend::split;

private:
    struct PendingReply;
    struct SubscriptionEntry {
        std::optional<int> scrollback;
        std::optional<Size> viewport;
    };
    struct Resubscription {
        uint64_t pane;
        std::optional<uint64_t> delivered;
        SubscriptionEntry entry;
    };

    explicit CorvexdBackend(Configuration configuration);

    // `opened` receives the stream as soon as there is one, for the caller to shut down
    // when a later step fails.
    void connect(std::shared_ptr<ByteStream>& opened);
    void startReconnectLoop(int failures);
    // The loop and the heartbeat hold the backend weakly between steps, so dropping the
    // last owner ends them.
    static void reconnectLoop(const std::weak_ptr<CorvexdBackend>& weak, int failures);
    static bool waitBeforeRetry(const std::weak_ptr<CorvexdBackend>& weak, int failures, const RetryPolicy& policy,
                                const std::string& reason);
    static void heartbeat(const std::weak_ptr<CorvexdBackend>& weak, const std::weak_ptr<ByteStream>& weakStream,
                          platform::Duration every);
    void connectionClosed(const std::shared_ptr<ByteStream>& stream, const std::string& reason);
    bool answersWithin(platform::Duration limit);
    void resubscribe(const std::vector<Resubscription>& list);
    void sendColors(const TerminalColors& colors);

    bool handleData(FrameParser& parser, std::string_view bytes);
    void handleFrame(uint8_t type, std::string_view body);
    void handleJSON(std::string_view body);
    void handleReply(int64_t id, const nlohmann::json& object);
    void handleEvent(const std::string& name, const nlohmann::json& data);
    void handleOutput(const OutputFrame& frame);
    void handleSnapshot(const SnapshotFrame& frame);

    // One typed method of the protocol: sent unless its feature gate is closed.
    template <typename M>
    typename M::Result call(const M& method);
    void push(SessionEvent event); // with lock_ held
    void log(const std::string& text) const;
    void trace(const std::string& text) const;
    platform::TimePoint now() const { return configuration_.clock->now(); }
    bool hasFeature(Hello::Feature feature) const;
    // A request of the connect sequence: it belongs to the stream just opened, and a stream
    // that has died already fails it with its own close reason.
    nlohmann::json requestDuringConnect(const std::shared_ptr<ByteStream>& stream, const std::string& method,
                                        const nlohmann::json& params);
    void failWaiting(const std::map<int64_t, std::shared_ptr<PendingReply>>& pending, const BackendError& error);
    std::shared_ptr<ByteStream> currentConnection() const;
    void sendOn(const std::shared_ptr<ByteStream>& stream, std::string frame);

    Configuration configuration_;
    const std::shared_ptr<SessionEventStream> events_ = std::make_shared<SessionEventStream>();
    platform::SerialQueue writeQueue_{"corvex.corvexd.write"};

    mutable std::mutex lock_;
    std::shared_ptr<ByteStream> connection_;
    int64_t nextRequestID_ = 1;
    std::map<int64_t, std::shared_ptr<PendingReply>> pending_;
    std::map<int64_t, uint64_t> subscribeRequests_;
    std::map<int64_t, ReplyHook> replyHooks_;
    std::map<uint64_t, SubscriptionEntry> subscriptions_;
    std::map<uint64_t, uint64_t> deliveredSeq_;
    std::optional<std::string> instance_;
    std::optional<Hello> lastHello_;
    std::optional<TerminalColors> terminalColors_;
    std::shared_ptr<CorvexdFileChannel> fileChannel_;
    bool stopped_ = true;
    bool reconnecting_ = false;
    bool skipBackoff_ = false;
    bool daemonShutDown_ = false;
    std::string lastFailure_;
    platform::TimePoint lastReceived_{};
};

} // namespace corvex
