#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "CorvexKit/ModelStoreCache.h"
#include "CorvexKit/SessionBackend.h"
#include "CorvexKit/SessionModel.h"
#include "Platform/MainQueue.h"

namespace corvex {

struct ConnectionState {
    enum class Kind { connecting, reconnecting, idle, connected };

    Kind kind = Kind::idle;
    std::string text; // the step of an attempt, or why the link is down

    static ConnectionState connecting(std::string step) { return {Kind::connecting, std::move(step)}; }
    static ConnectionState reconnecting(std::string reason) { return {Kind::reconnecting, std::move(reason)}; }
    static ConnectionState idle() { return {}; }
    static ConnectionState connected() { return {Kind::connected, {}}; }

    bool isConnected() const { return kind == Kind::connected; }
    bool operator==(const ConnectionState&) const = default;
};

// The client's copy of one machine's state. It turns the backend's events into published
// state, routes each pane's data to that pane's sink, and shows focus changes and moves at
// once, laid over the daemon's state until the daemon confirms them or a short time passes.
//
// Everything here runs on the main queue: the event loop, every callback, every completion.
// Backend calls that block are run by `offMain` and their completions posted back.
class ModelStore {
public:
    enum class Phase { saved, live };

    // Runs blocking work away from the main thread.
    using Executor = std::function<void(std::function<void()>)>;
    // Called on the main thread when an operation ends; null on success.
    using Completion = std::function<void(std::exception_ptr)>;

    // `offMain` defaults to the shared worker pool. Both the queue and the backend must
    // outlive the store.
    ModelStore(std::shared_ptr<SessionBackend> backend, platform::MainQueue& mainQueue, Executor offMain = {});
    ~ModelStore();

    ModelStore(const ModelStore&) = delete;
    ModelStore& operator=(const ModelStore&) = delete;

    SessionBackend& backend() const { return *backend_; }
    const std::shared_ptr<SessionBackend>& sharedBackend() const { return backend_; }

    // Published values.
    const ModelState& state() const { return state_; }
    bool retryPaused() const { return retryPaused_; }
    const std::optional<Hello>& hello() const { return hello_; }
    const ConnectionState& connection() const { return connection_; }
    const std::optional<DaemonSettings>& settings() const { return settings_; }
    const std::optional<DaemonService>& service() const { return service_; }
    Phase phase() const { return phase_; }
    // The cache shown while in phase `saved`.
    const std::optional<CachedMachineState>& saved() const { return saved_; }
    // When the link was lost, in seconds since the Unix epoch.
    std::optional<double> lostAt() const { return lostAt_; }
    // The last state as the daemon sent it, without local overlays.
    const std::optional<ModelState>& daemonState() const { return daemonState_; }

    bool isConnected() const { return connection_.isConnected(); }
    bool isSaved() const { return phase_ == Phase::saved; }
    bool isFocusLocal() const { return localFocus_.has_value(); }
    bool isMoveLocal() const { return !localMoves_.empty(); }
    FeatureSet features() const;
    const Workspace* focusedWorkspace() const;
    const Tab* focusedTab() const;
    const Pane* focusedPane() const;
    std::string displayTitle(const Tab& tab) const;

    std::function<void()> onChange;
    std::function<void(uint64_t pane)> onBell;
    std::function<void(const DaemonSettings&)> onSettings;
    std::function<void(const DaemonService&)> onService;
    std::function<void(uint64_t pane, const std::optional<AgentInfo>& old, const std::optional<AgentInfo>& now)>
        onAgentChange;

    // How long a local focus or move is shown without the daemon's confirmation, and how long
    // once the backend has accepted it.
    platform::Duration localFocusTimeout = std::chrono::seconds(3);
    platform::Duration localFocusGrace = std::chrono::milliseconds(500);
    // Wall-clock time in seconds since the Unix epoch, for `lostAt`.
    std::function<double()> wallClock;

    // Starts the event loop (once) and then the backend; `done` gets the backend's failure.
    void start(Completion done = {});
    void stop();

    // Shows a cached state until the daemon's first state arrives; never replaces live data.
    void restore(const CachedMachineState& cache);
    CachedMachineState cacheSnapshot(double now) const;

    void focus(const FocusTarget& target, Completion done = {});
    void focusPane(uint64_t pane, Completion done = {});
    void move(const MoveRequest& request, Completion done = {});

    // A second registration for the pane replaces the first. The sink is held weakly.
    void registerSink(uint64_t pane, std::weak_ptr<PaneDataSink> sink);
    void unregisterSink(uint64_t pane);

    void loadSettings(Completion done = {});
    void changeSettings(const DaemonSettings::Change& change, Completion done = {});
    void loadService(Completion done = {});
    void setStartsAtLogin(bool on, Completion done = {});

    // Handles one event; the event loop calls it for each event of the backend, in order.
    void apply(const SessionEvent& event);

private:
    struct LocalFocus {
        FocusTarget target;
        Focus focus;
        platform::TimePoint until;
    };
    struct DaemonFocus {
        Focus focus;
        std::map<uint64_t, std::optional<uint64_t>> activeTabs;
    };
    struct LocalMove {
        int id = 0;
        MoveRequest move;
        platform::TimePoint until;
    };
    struct Loop;
    // Whether the store still stands, for work that finishes on other threads: the store
    // and its main queue may go while a backend call runs.
    struct Alive {
        std::mutex lock;
        bool gone = false;

        static bool standing(const std::weak_ptr<Alive>& alive) {
            auto held = alive.lock();
            if (!held) return false;
            std::lock_guard guard(held->lock);
            return !held->gone;
        }
    };

    platform::TimePoint now() const { return mainQueue_.clock().now(); }
    void changed();
    std::shared_ptr<PaneDataSink> sink(uint64_t pane) const;

    void applyConnected(const Hello& hello);
    void applyDisconnected(const std::string& reason);
    void applyState(const ModelState& received);
    void applyPane(const Pane& pane, uint64_t rev);
    void applyAgent(uint64_t pane, const std::optional<AgentInfo>& info);

    bool showFocus(const FocusTarget& target);
    std::optional<int> showMove(const MoveRequest& request);
    void rebuildFromDaemonState();

    template <typename Result>
    void call(std::function<Result()> work, std::function<void(Result)> then, Completion done);
    void call(std::function<void()> work, std::function<void(std::exception_ptr)> then);

    std::shared_ptr<SessionBackend> backend_;
    platform::MainQueue& mainQueue_;
    Executor offMain_;

    ModelState state_;
    bool retryPaused_ = false;
    std::optional<Hello> hello_;
    ConnectionState connection_;
    std::optional<DaemonSettings> settings_;
    std::optional<DaemonService> service_;
    Phase phase_ = Phase::live;
    std::optional<CachedMachineState> saved_;
    std::optional<double> lostAt_;
    std::unordered_map<uint64_t, std::weak_ptr<PaneDataSink>> sinks_;
    std::shared_ptr<Loop> loop_;
    std::optional<LocalFocus> localFocus_;
    std::optional<DaemonFocus> daemonFocus_;
    std::vector<LocalMove> localMoves_;
    int nextLocalMove_ = 0;
    std::optional<ModelState> daemonState_;

    // Completions posted to the main queue check this, so none reaches a destroyed store.
    std::shared_ptr<Alive> alive_ = std::make_shared<Alive>();
};

} // namespace corvex
