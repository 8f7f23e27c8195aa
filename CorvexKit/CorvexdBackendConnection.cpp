// The connection's life: connecting and the handshake, resubscribing, losing the link and
// the reconnect loop with its back-off, the heartbeat, and stopping.

#include <thread>

#include "CorvexKit/CorvexdBackend.h"
#include "CorvexKit/ProtocolJSON.h"

namespace corvex {

using json = nlohmann::json;
using namespace std::chrono_literals;

namespace {

std::string errorText(const std::exception& error) { return error.what(); }

constexpr const char* shutDownReason = "corvexd was shut down";

} // namespace

void CorvexdBackend::start() {
    {
        std::lock_guard guard(lock_);
        stopped_ = false;
        skipBackoff_ = false;
        daemonShutDown_ = false;
        // Already connected, or a loop is at work and is told to try at once.
        if (connection_) return;
        if (reconnecting_) {
            skipBackoff_ = true;
            return;
        }
    }
    std::shared_ptr<ByteStream> opened;
    try {
        connect(opened);
    } catch (const std::exception& error) {
        bool startLoop = false;
        {
            std::lock_guard guard(lock_);
            if (!stopped_ && !reconnecting_) {
                reconnecting_ = true;
                lastFailure_ = errorText(error);
                startLoop = true;
            }
        }
        if (opened) opened->shutdown();
        if (startLoop) startReconnectLoop(1);
        throw;
    }
}

void CorvexdBackend::connect(std::shared_ptr<ByteStream>& opened) {
    std::weak_ptr<CorvexdBackend> weak = weak_from_this();
    auto progress = [weak](const std::string& text) {
        if (auto self = weak.lock()) {
            std::lock_guard guard(self->lock_);
            self->push(SessionEvent::Progress{text});
        }
    };
    auto stream = configuration_.transport->open(progress);
    opened = stream;
    {
        std::lock_guard guard(lock_);
        if (stopped_) throw BackendError("disconnected", "the backend was stopped");
        connection_ = stream;
        lastReceived_ = now();
    }
    std::weak_ptr<ByteStream> weakStream = stream;
    stream->startReading(
        [weak, parser = FrameParser()](std::string_view bytes) mutable {
            auto self = weak.lock();
            return self && self->handleData(parser, bytes);
        },
        [weak, weakStream](const std::string& reason) {
            auto self = weak.lock();
            auto closed = weakStream.lock();
            if (self && closed) self->connectionClosed(closed, reason);
        });
    if (auto every = configuration_.transport->heartbeatInterval()) {
        auto interval = std::chrono::duration_cast<platform::Duration>(std::chrono::duration<double>(*every));
        std::thread([weak, weakStream, interval] { heartbeat(weak, weakStream, interval); }).detach();
    }

    protocol::HelloCall helloCall;
    helloCall.client = configuration_.clientName;
    Hello hello = protocol::decodeResult<protocol::HelloCall>(
        requestDuringConnect(stream, std::string(helloCall.name), protocol::encodeParams(helloCall)));

    std::vector<Resubscription> list;
    std::optional<TerminalColors> colors;
    {
        std::lock_guard guard(lock_);
        if (instance_ != hello.instance) deliveredSeq_.clear();
        instance_ = hello.instance;
        lastHello_ = hello;
        daemonShutDown_ = false;
        push(SessionEvent::Connected{hello});
        for (const auto& [pane, entry] : subscriptions_) {
            auto delivered = deliveredSeq_.find(pane);
            list.push_back({pane, delivered == deliveredSeq_.end() ? std::nullopt : std::optional(delivered->second), entry});
        }
        colors = terminalColors_;
    }
    log("connected to corvexd " + hello.version + " pid " + (hello.pid ? std::to_string(*hello.pid) : "?") +
        " instance " + hello.instance);
    if (colors && hello.has(*protocol::ClientColors::gate)) sendColors(*colors);
    requestDuringConnect(stream, std::string(protocol::EventsSubscribe::name), json());
    resubscribe(list);
}

void CorvexdBackend::sendColors(const TerminalColors& colors) {
    try {
        protocol::ClientColors method;
        method.colors = colors;
        request(std::string(method.name), protocol::encodeParams(method));
    } catch (const std::exception& error) {
        log("client.colors failed: " + errorText(error));
    }
}

void CorvexdBackend::resubscribe(const std::vector<Resubscription>& list) {
    for (const auto& item : list) {
        {
            // Unsubscribed while the connect was under way.
            std::lock_guard guard(lock_);
            if (!subscriptions_.count(item.pane)) continue;
        }
        std::string from = item.delivered ? std::to_string(*item.delivered) : "nothing";
        try {
            Subscription subscription = subscribe(item.pane, item.delivered, item.entry.scrollback, item.entry.viewport);
            log("resubscribed pane " + std::to_string(item.pane) + " from " + from + ": " +
                std::string(wireName(subscription.mode)) + " at " + std::to_string(subscription.seq));
        } catch (const std::exception& error) {
            log("resubscribing pane " + std::to_string(item.pane) + " failed: " + errorText(error));
        }
    }
}

void CorvexdBackend::connectionClosed(const std::shared_ptr<ByteStream>& stream, const std::string& reason) {
    std::map<int64_t, std::shared_ptr<PendingReply>> pending;
    std::shared_ptr<CorvexdFileChannel> channel;
    {
        std::lock_guard guard(lock_);
        if (connection_ != stream) return;
        connection_.reset();
        pending.swap(pending_);
        replyHooks_.clear();
        subscribeRequests_.clear();
        channel = fileChannel_;
    }
    BackendError error("disconnected", reason);
    failWaiting(pending, error);
    if (channel) channel->failAll(error);

    bool startLoop = false;
    bool shutDown = false;
    {
        std::lock_guard guard(lock_);
        if (daemonShutDown_ && !stopped_ && !reconnecting_) {
            // Reconnecting would start a fresh daemon, undoing what the user asked for.
            push(SessionEvent::Disconnected{shutDownReason});
            push(SessionEvent::RetryPaused{shutDownReason});
            shutDown = true;
        } else if (!stopped_ && !reconnecting_) {
            reconnecting_ = true;
            push(SessionEvent::Disconnected{reason});
            startLoop = true;
        }
    }
    if (shutDown) log("disconnected: " + std::string(shutDownReason));
    if (startLoop) {
        log("disconnected: " + reason);
        startReconnectLoop(0);
    }
}

void CorvexdBackend::startReconnectLoop(int failures) {
    std::thread([weak = weak_from_this(), failures] {
        platform::setCurrentThreadName("corvex.reconnect");
        reconnectLoop(weak, failures);
    }).detach();
}

void CorvexdBackend::reconnectLoop(const std::weak_ptr<CorvexdBackend>& weak, int failures) {
    RetryPolicy policy;
    std::string reason;
    if (auto self = weak.lock()) {
        policy = self->retryPolicy();
        std::lock_guard guard(self->lock_);
        reason = self->lastFailure_;
    } else {
        return;
    }
    if (failures >= 1 && !waitBeforeRetry(weak, failures, policy, reason)) return;
    for (;;) {
        auto self = weak.lock();
        if (!self) return;
        {
            std::lock_guard guard(self->lock_);
            if (self->stopped_) {
                self->reconnecting_ = false;
                return;
            }
        }
        std::shared_ptr<ByteStream> opened;
        try {
            self->connect(opened);
            std::lock_guard guard(self->lock_);
            // The link died again while the connect was finishing: try again at once.
            if (!self->connection_ && !self->stopped_) continue;
            self->reconnecting_ = false;
            return;
        } catch (const std::exception& error) {
            std::string text = errorText(error);
            self->log("reconnect to " + self->configuration_.transport->name() + " failed: " + text);
            if (opened) opened->shutdown();
            {
                std::lock_guard guard(self->lock_);
                self->push(SessionEvent::Disconnected{text});
            }
            ++failures;
            self.reset();
            if (!waitBeforeRetry(weak, failures, policy, text)) return;
        }
    }
}

bool CorvexdBackend::waitBeforeRetry(const std::weak_ptr<CorvexdBackend>& weak, int failures, const RetryPolicy& policy,
                                     const std::string& reason) {
    std::optional<platform::TimePoint> deadline;
    std::function<void(platform::Duration)> sleep;
    std::shared_ptr<const platform::Clock> clock;
    {
        auto self = weak.lock();
        if (!self) return false;
        sleep = self->configuration_.sleep;
        clock = self->configuration_.clock;
        if (auto delay = policy.delay(failures)) {
            deadline = clock->now() + std::chrono::duration_cast<platform::Duration>(std::chrono::duration<double>(*delay));
        } else {
            self->log(self->configuration_.transport->name() + ": " + std::to_string(failures) +
                      " attempts failed; waiting to be asked to reconnect");
            std::lock_guard guard(self->lock_);
            self->push(SessionEvent::RetryPaused{reason});
        }
    }
    const platform::Duration step = 100ms;
    for (;;) {
        {
            auto self = weak.lock();
            if (!self) return false;
            std::lock_guard guard(self->lock_);
            if (self->skipBackoff_ || self->stopped_) break;
        }
        if (!deadline) {
            sleep(step);
            continue;
        }
        auto left = *deadline - clock->now();
        if (left <= platform::Duration::zero()) break;
        sleep(std::min(step, left));
    }
    auto self = weak.lock();
    if (!self) return false;
    std::lock_guard guard(self->lock_);
    self->skipBackoff_ = false;
    return true;
}

void CorvexdBackend::reconnectNow() {
    std::shared_ptr<ByteStream> stream;
    bool startLoop = false;
    {
        std::lock_guard guard(lock_);
        skipBackoff_ = true;
        stream = connection_;
        // After a deliberate shutdown no loop runs: asking is what starts one again.
        if (daemonShutDown_ && !stream && !stopped_ && !reconnecting_) {
            reconnecting_ = true;
            startLoop = true;
        }
        daemonShutDown_ = false;
    }
    if (stream) stream->shutdown();
    if (startLoop) startReconnectLoop(0);
}

bool CorvexdBackend::daemonWasShutDown() const {
    std::lock_guard guard(lock_);
    return daemonShutDown_;
}

void CorvexdBackend::heartbeat(const std::weak_ptr<CorvexdBackend>& weak, const std::weak_ptr<ByteStream>& weakStream,
                               platform::Duration every) {
    platform::setCurrentThreadName("corvex.heartbeat");
    std::function<void(platform::Duration)> sleep;
    if (auto self = weak.lock()) {
        sleep = self->configuration_.sleep;
    } else {
        return;
    }
    for (;;) {
        sleep(every);
        auto self = weak.lock();
        auto stream = weakStream.lock();
        if (!self || !stream) return;
        platform::Duration quiet;
        {
            std::lock_guard guard(self->lock_);
            if (self->connection_ != stream) return;
            quiet = self->now() - self->lastReceived_;
        }
        if (quiet < every) continue;
        if (self->answersWithin(2 * every)) continue;
        auto seconds = std::chrono::duration_cast<std::chrono::seconds>(2 * every).count();
        self->log("no answer from " + self->configuration_.transport->name() + " in " + std::to_string(seconds) +
                  " s; reconnecting");
        stream->shutdown();
        return;
    }
}

bool CorvexdBackend::answersWithin(platform::Duration limit) {
    struct Outcome {
        std::mutex mutex;
        std::optional<bool> answered;
    };
    auto outcome = std::make_shared<Outcome>();
    std::thread([weak = weak_from_this(), outcome] {
        bool answered = false;
        if (auto self = weak.lock()) {
            try {
                self->ping();
                answered = true;
            } catch (const std::exception&) {
            }
        }
        std::lock_guard guard(outcome->mutex);
        outcome->answered = answered;
    }).detach();
    auto deadline = now() + limit;
    for (;;) {
        {
            std::lock_guard guard(outcome->mutex);
            if (outcome->answered) return *outcome->answered;
        }
        auto left = deadline - now();
        if (left <= platform::Duration::zero()) return false;
        configuration_.sleep(std::min<platform::Duration>(10ms, left));
    }
}

void CorvexdBackend::ping() {
    try {
        request(std::string(protocol::Ping::name));
    } catch (const BackendError& error) {
        if (error.code() != "unknown_method") throw;
        request(std::string(protocol::StateGet::name));
    }
}

void CorvexdBackend::stop() {
    std::shared_ptr<ByteStream> stream;
    std::map<int64_t, std::shared_ptr<PendingReply>> pending;
    std::shared_ptr<CorvexdFileChannel> channel;
    {
        std::lock_guard guard(lock_);
        stopped_ = true;
        stream = std::move(connection_);
        connection_.reset();
        pending.swap(pending_);
        subscribeRequests_.clear();
        replyHooks_.clear();
        channel = fileChannel_;
    }
    if (stream) stream->shutdown();
    BackendError error("disconnected", "the backend was stopped");
    failWaiting(pending, error);
    if (channel) channel->failAll(error);
}

} // namespace corvex
