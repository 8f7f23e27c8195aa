#include "CorvexKit/ModelStore.h"

#include <algorithm>
#include <atomic>

#include "Platform/WorkerPool.h"

namespace corvex {

namespace {

// Events handled in one turn of the main queue before it gets a chance to run other work.
constexpr size_t drainBatch = 256;

double systemWallClock() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

template <typename... Fs>
struct Overloaded : Fs... {
    using Fs::operator()...;
};
template <typename... Fs>
Overloaded(Fs...) -> Overloaded<Fs...>;

} // namespace

// The event loop: the stream wakes it from the backend's threads, and it drains the stream on
// the main queue. It holds the store by a plain pointer that stop() and the destructor clear,
// both on the main thread, so a drain never reaches a store that has gone.
struct ModelStore::Loop {
    std::shared_ptr<SessionEventStream> stream;
    platform::MainQueue* queue = nullptr;
    ModelStore* store = nullptr;
    std::atomic<bool> scheduled{false};

    static void wake(const std::shared_ptr<Loop>& loop) {
        if (loop->scheduled.exchange(true)) return;
        loop->queue->post([loop] {
            loop->scheduled = false;
            drain(loop);
        });
    }

    static void drain(const std::shared_ptr<Loop>& loop) {
        for (size_t handled = 0; handled < drainBatch; ++handled) {
            if (!loop->store) return;
            auto event = loop->stream->tryNext();
            if (!event) return;
            loop->store->apply(*event);
        }
        if (loop->store && loop->stream->pending() > 0) wake(loop);
    }
};

ModelStore::ModelStore(std::shared_ptr<SessionBackend> backend, platform::MainQueue& mainQueue, Executor offMain)
    : backend_(std::move(backend)), mainQueue_(mainQueue), offMain_(std::move(offMain)) {
    wallClock = systemWallClock;
    if (!offMain_) {
        offMain_ = [](std::function<void()> work) { platform::WorkerPool::shared().detach(std::move(work)); };
    }
}

ModelStore::~ModelStore() {
    {
        std::lock_guard guard(alive_->lock);
        alive_->gone = true;
    }
    if (loop_) {
        loop_->store = nullptr;
        loop_->stream->setWakeup(nullptr);
    }
}

// ---- Derived values

FeatureSet ModelStore::features() const {
    if (hello_) return hello_->features();
    if (saved_) return saved_->features();
    return {};
}

const Workspace* ModelStore::focusedWorkspace() const {
    if (const auto* ws = state_.workspace(state_.focus.workspace)) return ws;
    return state_.workspaces.empty() ? nullptr : &state_.workspaces.front();
}

const Tab* ModelStore::focusedTab() const {
    const auto* ws = focusedWorkspace();
    if (!ws) return nullptr;
    if (state_.focus.tab) {
        if (const auto* tab = ws->tab(*state_.focus.tab)) return tab;
    }
    if (ws->activeTab) {
        if (const auto* tab = ws->tab(*ws->activeTab)) return tab;
    }
    return ws->tabs.empty() ? nullptr : &ws->tabs.front();
}

const Pane* ModelStore::focusedPane() const {
    const auto* tab = focusedTab();
    if (!tab) return nullptr;
    if (state_.focus.pane && tab->layout.contains(*state_.focus.pane)) return state_.pane(state_.focus.pane);
    return state_.pane(tab->activePane);
}

std::string ModelStore::displayTitle(const Tab& tab) const {
    if (tab.title && !tab.title->empty()) return *tab.title;
    if (const auto* pane = state_.pane(tab.activePane)) {
        auto title = Pane::displayTitle(pane->title, pane->cwd);
        if (title && !title->empty()) return *title;
        if (pane->cwd && !pane->cwd->empty()) return lastPathComponent(*pane->cwd);
    }
    return "Shell";
}

// ---- Lifecycle

void ModelStore::start(Completion done) {
    if (!loop_) {
        loop_ = std::make_shared<Loop>();
        loop_->stream = backend_->events();
        loop_->queue = &mainQueue_;
        loop_->store = this;
        std::weak_ptr<Loop> weakLoop = loop_;
        loop_->stream->setWakeup([weakLoop] {
            if (auto loop = weakLoop.lock()) Loop::wake(loop);
        });
    }
    auto backend = backend_;
    call([backend] { backend->start(); },
         [done = std::move(done)](std::exception_ptr error) {
             if (done) done(error);
         });
}

void ModelStore::stop() {
    if (loop_) {
        loop_->store = nullptr;
        loop_->stream->setWakeup(nullptr);
        loop_.reset();
    }
    backend_->stop();
}

void ModelStore::restore(const CachedMachineState& cache) {
    if (cache.format != CachedMachineState::currentFormat) return;
    // A cache must never replace what the daemon has told.
    if (phase_ == Phase::live && (state_.rev != 0 || !state_.workspaces.empty())) return;
    saved_ = cache;
    state_ = cache.state;
    phase_ = Phase::saved;
    changed();
}

CachedMachineState ModelStore::cacheSnapshot(double now) const {
    // While the machine stays away, the cache it was shown from is what gets saved again, so
    // `lastSeen` doesn't creep forward.
    if (phase_ == Phase::saved && saved_) return *saved_;
    CachedMachineState cache;
    cache.state = state_;
    cache.lastSeen = isConnected() ? now : lostAt_.value_or(now);
    if (hello_) {
        cache.daemonVersion = hello_->version;
        cache.instance = hello_->instance;
        cache.featureNames = hello_->featureNames.value_or(std::vector<std::string>{});
    }
    return cache;
}

// ---- Sinks

void ModelStore::registerSink(uint64_t pane, std::weak_ptr<PaneDataSink> sink) { sinks_[pane] = std::move(sink); }

void ModelStore::unregisterSink(uint64_t pane) { sinks_.erase(pane); }

std::shared_ptr<PaneDataSink> ModelStore::sink(uint64_t pane) const {
    auto it = sinks_.find(pane);
    return it == sinks_.end() ? nullptr : it->second.lock();
}

// ---- Events

void ModelStore::changed() {
    if (onChange) onChange();
}

void ModelStore::apply(const SessionEvent& event) {
    std::visit(Overloaded{
                   [&](const SessionEvent::Connected& e) { applyConnected(e.hello); },
                   [&](const SessionEvent::Disconnected& e) { applyDisconnected(e.reason); },
                   [&](const SessionEvent::Progress& e) {
                       connection_ = ConnectionState::connecting(e.text);
                       retryPaused_ = false;
                       changed();
                   },
                   [&](const SessionEvent::RetryPaused& e) {
                       connection_ = ConnectionState::reconnecting(e.reason);
                       retryPaused_ = true;
                       changed();
                   },
                   [&](const SessionEvent::State& e) { applyState(e.state); },
                   [&](const SessionEvent::PaneChanged& e) { applyPane(e.pane, e.rev); },
                   [&](const SessionEvent::Bell& e) {
                       if (onBell) onBell(e.pane);
                   },
                   [&](const SessionEvent::Clipboard& e) {
                       if (auto s = sink(e.pane)) s->paneClipboard(e.text, e.selection);
                   },
                   [&](const SessionEvent::Settings& e) {
                       settings_ = e.settings;
                       if (onSettings) onSettings(e.settings);
                   },
                   [&](const SessionEvent::Service& e) {
                       service_ = e.service;
                       if (onService) onService(e.service);
                   },
                   // Pane data goes straight to the sink and touches no published value.
                   [&](const SessionEvent::Subscribed& e) {
                       if (auto s = sink(e.pane)) s->paneSubscribed(e.subscription);
                   },
                   [&](const SessionEvent::Output& e) {
                       if (auto s = sink(e.pane)) s->paneOutput(e.seq, e.bytes);
                   },
                   [&](const SessionEvent::Snapshot& e) {
                       if (auto s = sink(e.pane)) s->paneSnapshot(e.seq, e.cols, e.rows, e.bytes);
                   },
                   [&](const SessionEvent::Resized& e) {
                       if (auto s = sink(e.pane)) s->paneResized(e.cols, e.rows, e.seq);
                   },
                   [&](const SessionEvent::Resync& e) {
                       if (auto s = sink(e.pane)) s->paneResync();
                   },
                   [&](const SessionEvent::Agent& e) { applyAgent(e.pane, e.info); },
               },
               event.value);
}

void ModelStore::applyConnected(const Hello& hello) {
    // The instance that what the views hold belongs to: the last hello's, or the cache's.
    std::optional<std::string> previous;
    if (hello_) {
        previous = hello_->instance;
    } else if (phase_ == Phase::saved && saved_) {
        previous = saved_->instance;
    }
    if (previous && *previous != hello.instance) {
        // The daemon restarted: byte positions and identifiers of the old run mean nothing now.
        std::vector<std::shared_ptr<PaneDataSink>> live;
        for (const auto& [pane, weak] : sinks_) {
            if (auto s = weak.lock()) live.push_back(std::move(s));
        }
        for (const auto& s : live) s->paneReset();
    }
    hello_ = hello;
    connection_ = ConnectionState::connected();
    retryPaused_ = false;
    lostAt_.reset();
    changed();
}

void ModelStore::applyDisconnected(const std::string& reason) {
    // Failed attempts during an outage keep the time of the first loss.
    if (connection_.isConnected()) lostAt_ = wallClock ? wallClock() : systemWallClock();
    // Local overlays are not resent; the daemon's state after reconnecting is what counts.
    localFocus_.reset();
    localMoves_.clear();
    connection_ = ConnectionState::reconnecting(reason);
    retryPaused_ = false;
    changed();
}

void ModelStore::applyState(const ModelState& received) {
    daemonState_ = received;
    daemonFocus_ = DaemonFocus{received.focus, received.activeTabs()};
    auto current = now();
    std::erase_if(localMoves_, [&](const LocalMove& move) { return current >= move.until; });

    // The daemon may not have done yet what the user just did: lay it over again.
    ModelState working = received;
    for (const auto& local : localMoves_) {
        if (auto next = working.moving(local.move)) working = std::move(*next);
    }
    if (localFocus_) {
        if (received.focus == localFocus_->focus || current >= localFocus_->until) {
            localFocus_.reset();
        } else if (auto next = working.focusing(localFocus_->target)) {
            working = std::move(*next);
        } else {
            localFocus_.reset();
        }
    }
    state_ = std::move(working);
    if (phase_ != Phase::live) {
        phase_ = Phase::live;
        saved_.reset();
    }
    changed();
}

void ModelStore::applyPane(const Pane& pane, uint64_t rev) {
    if (phase_ == Phase::saved) return;
    auto it = std::find_if(state_.panes.begin(), state_.panes.end(), [&](const Pane& p) { return p.id == pane.id; });
    if (it == state_.panes.end()) {
        state_.panes.push_back(pane);
    } else {
        auto old = it->agent;
        *it = pane;
        if (old != pane.agent && onAgentChange) onAgentChange(pane.id, old, pane.agent);
    }
    state_.rev = std::max(state_.rev, rev);
    changed();
}

void ModelStore::applyAgent(uint64_t paneID, const std::optional<AgentInfo>& info) {
    if (phase_ == Phase::saved) return;
    auto it = std::find_if(state_.panes.begin(), state_.panes.end(), [&](const Pane& p) { return p.id == paneID; });
    if (it == state_.panes.end() || it->agent == info) return;
    auto old = it->agent;
    it->agent = info;
    if (onAgentChange) onAgentChange(paneID, old, info);
    changed();
}

// ---- Focus and moves

bool ModelStore::showFocus(const FocusTarget& target) {
    if (phase_ == Phase::saved) return false;
    auto next = state_.focusing(target);
    if (!next) return false;
    // A chain of quick focus changes goes back to where the daemon was before the first.
    if (!localFocus_) daemonFocus_ = DaemonFocus{state_.focus, state_.activeTabs()};
    localFocus_ = LocalFocus{target, next->focus, now() + localFocusTimeout};
    if (*next != state_) {
        state_ = std::move(*next);
        changed();
    }
    return true;
}

void ModelStore::focus(const FocusTarget& target, Completion done) {
    showFocus(target);
    auto backend = backend_;
    call([backend, target] { backend->focus(target); },
         [this, target, done = std::move(done)](std::exception_ptr error) {
             // Only the call whose target is still the local one may touch the overlay.
             bool mine = localFocus_ && localFocus_->target == target;
             if (!error) {
                 // The daemon's state event is due within the grace.
                 if (mine) localFocus_->until = std::min(localFocus_->until, now() + localFocusGrace);
             } else if (mine) {
                 localFocus_.reset();
                 if (daemonFocus_) {
                     state_.focus = daemonFocus_->focus;
                     for (auto& ws : state_.workspaces) {
                         auto entry = daemonFocus_->activeTabs.find(ws.id);
                         if (entry != daemonFocus_->activeTabs.end()) ws.activeTab = entry->second;
                     }
                 }
                 changed();
             }
             if (done) done(error);
         });
}

void ModelStore::focusPane(uint64_t pane, Completion done) {
    auto backend = backend_;
    call([backend, pane] { backend->focusPane(pane); },
         [done = std::move(done)](std::exception_ptr error) {
             if (done) done(error);
         });
}

std::optional<int> ModelStore::showMove(const MoveRequest& request) {
    if (phase_ == Phase::saved) return std::nullopt;
    auto next = state_.moving(request);
    if (!next) return std::nullopt;
    int id = ++nextLocalMove_;
    localMoves_.push_back(LocalMove{id, request, now() + localFocusTimeout});
    if (*next != state_) {
        state_ = std::move(*next);
        changed();
    }
    return id;
}

void ModelStore::rebuildFromDaemonState() {
    if (!daemonState_) return;
    ModelState working = *daemonState_;
    // Pane and agent events since that state are newer than it; keep them.
    working.panes = state_.panes;
    working.rev = std::max(working.rev, state_.rev);
    for (const auto& local : localMoves_) {
        if (auto next = working.moving(local.move)) working = std::move(*next);
    }
    if (localFocus_) {
        if (auto next = working.focusing(localFocus_->target)) working = std::move(*next);
    }
    state_ = std::move(working);
    changed();
}

void ModelStore::move(const MoveRequest& request, Completion done) {
    auto backend = backend_;
    if (request.kind == MoveRequest::Kind::pane || request.kind == MoveRequest::Kind::tabJoin) {
        // The new tree is the daemon's to make; nothing to show ahead of it.
        call([backend, request] { backend->move(request); },
             [done = std::move(done)](std::exception_ptr error) {
                 if (done) done(error);
             });
        return;
    }
    auto id = showMove(request);
    if (!id) {
        auto error = std::make_exception_ptr(BackendError("not_found", "nothing to move: " + request.description()));
        std::weak_ptr<Alive> alive = alive_;
        mainQueue_.post([alive, error, done = std::move(done)] {
            if (Alive::standing(alive) && done) done(error);
        });
        return;
    }
    call([backend, request] { backend->move(request); },
         [this, moveID = *id, done = std::move(done)](std::exception_ptr error) {
             auto entry = std::find_if(localMoves_.begin(), localMoves_.end(),
                                       [&](const LocalMove& local) { return local.id == moveID; });
             if (!error) {
                 if (entry != localMoves_.end()) entry->until = std::min(entry->until, now() + localFocusGrace);
             } else {
                 if (entry != localMoves_.end()) localMoves_.erase(entry);
                 rebuildFromDaemonState();
             }
             if (done) done(error);
         });
}

// ---- Settings and service

void ModelStore::loadSettings(Completion done) {
    auto backend = backend_;
    call<DaemonSettings>([backend] { return backend->getSettings(); },
                         [this](DaemonSettings value) {
                             settings_ = value;
                             if (onSettings) onSettings(value);
                         },
                         std::move(done));
}

void ModelStore::changeSettings(const DaemonSettings::Change& change, Completion done) {
    auto backend = backend_;
    call<DaemonSettings>([backend, change] { return backend->setSettings(change); },
                         [this](DaemonSettings value) {
                             settings_ = value;
                             if (onSettings) onSettings(value);
                         },
                         std::move(done));
}

void ModelStore::loadService(Completion done) {
    auto backend = backend_;
    call<DaemonService>([backend] { return backend->serviceStatus(); },
                        [this](DaemonService value) {
                            service_ = value;
                            if (onService) onService(value);
                        },
                        std::move(done));
}

void ModelStore::setStartsAtLogin(bool on, Completion done) {
    auto backend = backend_;
    call<DaemonService>([backend, on] { return on ? backend->installService() : backend->uninstallService(); },
                        [this](DaemonService value) {
                            service_ = value;
                            if (onService) onService(value);
                        },
                        std::move(done));
}

// ---- Running backend calls off the main thread

void ModelStore::call(std::function<void()> work, std::function<void(std::exception_ptr)> then) {
    std::weak_ptr<Alive> alive = alive_;
    auto* queue = &mainQueue_;
    offMain_([work = std::move(work), then = std::move(then), alive, queue]() mutable {
        std::exception_ptr error;
        try {
            work();
        } catch (...) {
            error = std::current_exception();
        }
        // A store gone while the call ran may have taken its queue with it; holding the
        // lock keeps it from going while the completion is posted.
        auto held = alive.lock();
        if (!held) return;
        std::lock_guard guard(held->lock);
        if (held->gone) return;
        queue->post([then = std::move(then), alive, error] {
            if (Alive::standing(alive)) then(error);
        });
    });
}

template <typename Result>
void ModelStore::call(std::function<Result()> work, std::function<void(Result)> then, Completion done) {
    auto result = std::make_shared<std::optional<Result>>();
    call([work = std::move(work), result] { *result = work(); },
         [then = std::move(then), done = std::move(done), result](std::exception_ptr error) {
             if (!error && *result) then(std::move(**result));
             if (done) done(error);
         });
}

} // namespace corvex
