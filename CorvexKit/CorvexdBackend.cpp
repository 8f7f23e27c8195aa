#include "CorvexKit/CorvexdBackend.h"

#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <thread>

#include "CorvexKit/ProtocolJSON.h"
#include "CorvexKit/UnixSocketTransport.h"

namespace corvex {

using json = nlohmann::json;
using namespace std::chrono_literals;

// ---------------------------------------------------------------- retry policy

std::optional<double> RetryPolicy::delay(int afterFailures) const {
    if (limit && afterFailures >= *limit) return std::nullopt;
    return std::min(maxDelay, std::ldexp(firstDelay, std::max(afterFailures, 1) - 1));
}

// ---------------------------------------------------------------- waiting callers

struct CorvexdBackend::PendingReply {
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    json result;
    std::optional<BackendError> error;

    void resolve(json value) {
        std::lock_guard guard(mutex);
        result = std::move(value);
        done = true;
        finished.notify_all();
    }
    void fail(const BackendError& failure) {
        std::lock_guard guard(mutex);
        if (done) return;
        error = failure;
        done = true;
        finished.notify_all();
    }
    json wait() {
        std::unique_lock guard(mutex);
        finished.wait(guard, [&] { return done; });
        if (error) throw *error;
        return std::move(result);
    }
};

namespace {

std::string stringField(const json& object, const char* key, std::string fallback) {
    auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : fallback;
}

std::string hexPrefix(ByteView bytes, size_t count) {
    std::string out;
    char digits[3];
    for (size_t i = 0; i < std::min(count, bytes.size()); ++i) {
        std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
        out += digits;
    }
    return out;
}

std::string errorText(const std::exception& error) { return error.what(); }

constexpr const char* notConnected = "not connected to corvexd";

} // namespace

// ---------------------------------------------------------------- construction

CorvexdBackend::Configuration CorvexdBackend::Configuration::socket(std::string path, std::string clientName,
                                                                  TextSink log, std::function<void()> startDaemon) {
    Configuration configuration;
    configuration.transport = std::make_shared<UnixSocketTransport>(std::move(path), std::move(startDaemon));
    configuration.clientName = std::move(clientName);
    configuration.log = std::move(log);
    return configuration;
}

std::shared_ptr<CorvexdBackend> CorvexdBackend::make(Configuration configuration) {
    return std::shared_ptr<CorvexdBackend>(new CorvexdBackend(std::move(configuration)));
}

CorvexdBackend::CorvexdBackend(Configuration configuration) : configuration_(std::move(configuration)) {
    if (!configuration_.clock) {
        configuration_.clock = std::shared_ptr<const platform::Clock>(&platform::SystemClock::shared(),
                                                                      [](const platform::Clock*) {});
    }
    if (!configuration_.sleep) configuration_.sleep = [](platform::Duration d) { std::this_thread::sleep_for(d); };
}

CorvexdBackend::~CorvexdBackend() {
    std::shared_ptr<ByteStream> stream;
    {
        std::lock_guard guard(lock_);
        stopped_ = true;
        stream = std::move(connection_);
    }
    if (stream) stream->shutdown();
    failWaiting(pending_, BackendError("disconnected", "the backend was stopped"));
}

std::string CorvexdBackend::defaultSocketPath(const std::optional<std::string>& runtimeDir) {
    return defaultCorvexdSocketPath(runtimeDir);
}

RetryPolicy CorvexdBackend::retryPolicy() const {
    if (configuration_.retry) return *configuration_.retry;
    return RetryPolicy{std::nullopt, 0.1, configuration_.transport->maxReconnectDelay()};
}

std::optional<Hello> CorvexdBackend::lastHello() const {
    std::lock_guard guard(lock_);
    return lastHello_;
}

std::optional<uint64_t> CorvexdBackend::deliveredSeq(uint64_t pane) const {
    std::lock_guard guard(lock_);
    auto found = deliveredSeq_.find(pane);
    return found == deliveredSeq_.end() ? std::nullopt : std::optional(found->second);
}

bool CorvexdBackend::isConnected() const { return currentConnection() != nullptr; }

bool CorvexdBackend::isReconnecting() const {
    std::lock_guard guard(lock_);
    return reconnecting_;
}

std::shared_ptr<ByteStream> CorvexdBackend::currentConnection() const {
    std::lock_guard guard(lock_);
    return connection_;
}

void CorvexdBackend::setFileChannel(std::shared_ptr<CorvexdFileChannel> channel) {
    std::lock_guard guard(lock_);
    fileChannel_ = std::move(channel);
}

bool CorvexdBackend::hasFeature(Hello::Feature feature) const {
    std::lock_guard guard(lock_);
    return lastHello_ && lastHello_->has(feature);
}

void CorvexdBackend::push(SessionEvent event) { events_->push(std::move(event)); }

void CorvexdBackend::log(const std::string& text) const {
    if (configuration_.log) configuration_.log(text);
}

void CorvexdBackend::trace(const std::string& text) const {
    if (configuration_.trace) configuration_.trace(text);
}

void CorvexdBackend::failWaiting(const std::map<int64_t, std::shared_ptr<PendingReply>>& pending,
                                 const BackendError& error) {
    for (const auto& [id, waiter] : pending) waiter->fail(error);
}

// ---------------------------------------------------------------- frames out

void CorvexdBackend::sendOn(const std::shared_ptr<ByteStream>& stream, std::string frame) {
    writeQueue_.async([stream, frame = std::move(frame)] { stream->write(frame); });
}

void CorvexdBackend::send(FrameType type, std::string_view payload) {
    if (auto stream = currentConnection()) sendOn(stream, makeFrame(type, payload));
}

void CorvexdBackend::sendInput(uint64_t pane, ByteView bytes) {
    if (configuration_.trace) {
        trace("\u2192 INPUT pane " + std::to_string(pane) + " " + std::to_string(bytes.size()) + "B " +
              hexPrefix(bytes, 16));
    }
    auto stream = currentConnection();
    if (!stream) return;
    std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const size_t most = maxFramePayload - inputHeaderSize;
    do {
        sendOn(stream, makeInputFrame(pane, text.substr(0, most)));
        text.remove_prefix(std::min(most, text.size()));
    } while (!text.empty());
}

json CorvexdBackend::request(const std::string& method) { return request(method, json()); }

json CorvexdBackend::request(const std::string& method, const json& params, std::optional<uint64_t> subscribing,
                             ReplyHook onReply) {
    auto waiter = std::make_shared<PendingReply>();
    std::shared_ptr<ByteStream> stream;
    int64_t id;
    {
        std::lock_guard guard(lock_);
        if (!connection_) throw BackendError("disconnected", notConnected);
        stream = connection_;
        id = nextRequestID_++;
        pending_[id] = waiter;
        if (subscribing) subscribeRequests_[id] = *subscribing;
        if (onReply) replyHooks_[id] = std::move(onReply);
    }
    std::string text;
    try {
        text = protocol::requestEnvelope(id, method, params).dump();
    } catch (const json::exception& error) {
        std::lock_guard guard(lock_);
        pending_.erase(id);
        subscribeRequests_.erase(id);
        replyHooks_.erase(id);
        throw BackendError("bad_request", "can't encode " + method + ": " + error.what());
    }
    // The frame goes to the stream the caller was entered for: a request failed by that
    // stream's close must never reach its successor.
    sendOn(stream, makeJSONFrame(text));
    return waiter->wait();
}

// ---------------------------------------------------------------- frames in

bool CorvexdBackend::handleData(FrameParser& parser, std::string_view bytes) {
    {
        std::lock_guard guard(lock_);
        lastReceived_ = now();
    }
    return parser.append(bytes, [this](uint8_t type, std::string_view body) { handleFrame(type, body); });
}

void CorvexdBackend::handleFrame(uint8_t type, std::string_view body) {
    switch (static_cast<FrameType>(type)) {
    case FrameType::json:
        handleJSON(body);
        break;
    case FrameType::output:
        if (auto frame = parseOutputPayload(body)) handleOutput(*frame);
        break;
    case FrameType::snapshot:
        if (auto frame = parseSnapshotPayload(body)) handleSnapshot(*frame);
        break;
    case FrameType::fileData:
        if (auto frame = parseFileDataPayload(body)) {
            std::shared_ptr<CorvexdFileChannel> channel;
            {
                std::lock_guard guard(lock_);
                channel = fileChannel_;
            }
            if (channel) channel->fileData(*frame);
        }
        break;
    default:
        break; // input in this direction, and kinds still to come
    }
}

void CorvexdBackend::handleJSON(std::string_view body) {
    json object = json::parse(body, nullptr, false);
    if (!object.is_object()) return;
    if (auto id = object.find("id"); id != object.end() && id->is_number()) {
        handleReply(id->get<int64_t>(), object);
    } else if (auto name = object.find("event"); name != object.end() && name->is_string()) {
        auto data = object.find("data");
        handleEvent(name->get<std::string>(), data == object.end() ? json() : *data);
    }
}

void CorvexdBackend::handleReply(int64_t id, const json& object) {
    std::shared_ptr<PendingReply> waiter;
    std::optional<uint64_t> subscribing;
    ReplyHook hook;
    {
        std::lock_guard guard(lock_);
        auto found = pending_.find(id);
        if (found == pending_.end()) return;
        waiter = std::move(found->second);
        pending_.erase(found);
        if (auto pane = subscribeRequests_.find(id); pane != subscribeRequests_.end()) {
            subscribing = pane->second;
            subscribeRequests_.erase(pane);
        }
        if (auto entry = replyHooks_.find(id); entry != replyHooks_.end()) {
            hook = std::move(entry->second);
            replyHooks_.erase(entry);
        }
    }
    if (auto error = object.find("error"); error != object.end() && error->is_object()) {
        waiter->fail(BackendError(stringField(*error, "code", "internal"), stringField(*error, "message", "corvexd error")));
        return;
    }
    auto found = object.find("result");
    json result = found == object.end() ? json::object() : *found;
    if (hook) {
        try {
            hook(result);
        } catch (const std::exception& error) {
            log("reply hook failed: " + errorText(error));
        }
    }
    if (subscribing) {
        try {
            auto subscription = decodeJSON<Subscription>(result);
            std::lock_guard guard(lock_);
            deliveredSeq_[*subscribing] = subscription.seq;
            push(SessionEvent::Subscribed{*subscribing, subscription});
        } catch (const DecodingError&) {
            // The caller's own decoding reports it.
        }
    }
    waiter->resolve(std::move(result));
}

void CorvexdBackend::handleEvent(const std::string& name, const json& data) {
    if (!data.is_object()) return;
    if (name.starts_with(protocol::event::filePrefix)) {
        std::shared_ptr<CorvexdFileChannel> channel;
        {
            std::lock_guard guard(lock_);
            channel = fileChannel_;
        }
        if (channel) channel->fileEvent(name, data);
        return;
    }
    auto event = protocol::decodeEvent(name, data);
    if (!event) return;
    std::lock_guard guard(lock_);
    push(std::move(*event));
}

void CorvexdBackend::handleOutput(const OutputFrame& frame) {
    if (configuration_.trace) {
        trace("\u2190 OUTPUT pane " + std::to_string(frame.pane) + " seq " + std::to_string(frame.seq) + " " +
              std::to_string(frame.bytes.size()) + "B");
    }
    Bytes bytes(frame.bytes.begin(), frame.bytes.end());
    std::lock_guard guard(lock_);
    deliveredSeq_[frame.pane] = frame.seq + frame.bytes.size();
    push(SessionEvent::Output{frame.pane, frame.seq, std::move(bytes)});
}

void CorvexdBackend::handleSnapshot(const SnapshotFrame& frame) {
    if (configuration_.trace) {
        trace("\u2190 SNAPSHOT pane " + std::to_string(frame.pane) + " seq " + std::to_string(frame.seq) + " " +
              std::to_string(frame.cols) + "x" + std::to_string(frame.rows) + " " + std::to_string(frame.bytes.size()) +
              "B");
    }
    Bytes bytes(frame.bytes.begin(), frame.bytes.end());
    std::lock_guard guard(lock_);
    deliveredSeq_[frame.pane] = frame.seq;
    push(SessionEvent::Snapshot{frame.pane, frame.seq, frame.cols, frame.rows, std::move(bytes)});
}

// ---------------------------------------------------------------- connection lifecycle

void CorvexdBackend::start() {
    {
        std::lock_guard guard(lock_);
        stopped_ = false;
        skipBackoff_ = false;
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

json CorvexdBackend::requestDuringConnect(const std::shared_ptr<ByteStream>& stream, const std::string& method,
                                          const json& params) {
    try {
        return request(method, params);
    } catch (const BackendError& error) {
        // The stream closed before the request could go out: its own reason says more.
        if (error.code() != "disconnected" || error.message() != notConnected) throw;
        if (auto reason = stream->finalReason()) throw BackendError("disconnected", *reason);
        throw;
    }
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
    {
        std::lock_guard guard(lock_);
        if (!stopped_ && !reconnecting_) {
            reconnecting_ = true;
            push(SessionEvent::Disconnected{reason});
            startLoop = true;
        }
    }
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
    {
        std::lock_guard guard(lock_);
        skipBackoff_ = true;
        stream = connection_;
    }
    if (stream) stream->shutdown();
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

// ---------------------------------------------------------------- operations

template <typename M>
typename M::Result CorvexdBackend::call(const M& method) {
    if constexpr (M::gate.has_value()) {
        if (!hasFeature(*M::gate)) return typename M::Result{};
    }
    return protocol::decodeResult<M>(request(std::string(M::name), protocol::encodeParams(method)));
}

ModelState CorvexdBackend::getState() { return call(protocol::StateGet{}); }

CreatedWorkspace CorvexdBackend::createWorkspace(const std::optional<std::string>& name, const SpawnOptions& spawn) {
    protocol::WorkspaceCreate method;
    method.workspaceName = name;
    method.spawn = spawn;
    return call(method);
}

void CorvexdBackend::renameWorkspace(uint64_t id, const std::string& name) {
    protocol::WorkspaceRename method;
    method.workspace = id;
    method.workspaceName = name;
    call(method);
}

void CorvexdBackend::closeWorkspace(uint64_t id) {
    protocol::WorkspaceClose method;
    method.workspace = id;
    call(method);
}

CreatedTab CorvexdBackend::createTab(uint64_t workspace, const SpawnOptions& spawn) {
    protocol::TabCreate method;
    method.workspace = workspace;
    method.spawn = spawn;
    return call(method);
}

void CorvexdBackend::renameTab(uint64_t id, const std::optional<std::string>& title) {
    protocol::TabRename method;
    method.tab = id;
    method.title = title;
    call(method);
}

void CorvexdBackend::closeTab(uint64_t id) {
    protocol::TabClose method;
    method.tab = id;
    call(method);
}

CreatedSplit CorvexdBackend::split(uint64_t pane, Direction direction, std::optional<double> ratio,
                                   const SpawnOptions& spawn) {
    protocol::PaneSplit method;
    method.pane = pane;
    method.direction = direction;
    method.ratio = ratio;
    method.spawn = spawn;
    return call(method);
}

void CorvexdBackend::closePane(uint64_t id) {
    protocol::PaneClose method;
    method.pane = id;
    call(method);
}

void CorvexdBackend::setRatio(uint64_t split, double ratio) {
    protocol::SplitSetRatio method;
    method.split = split;
    method.ratio = ratio;
    call(method);
}

void CorvexdBackend::focus(const FocusTarget& target) {
    protocol::FocusCall method;
    method.target = target;
    call(method);
}

Subscription CorvexdBackend::subscribe(uint64_t pane, std::optional<uint64_t> haveSeq, std::optional<int> scrollback,
                                       std::optional<Size> viewport) {
    {
        std::lock_guard guard(lock_);
        subscriptions_[pane] = SubscriptionEntry{scrollback, viewport};
    }
    protocol::PaneSubscribe method;
    method.pane = pane;
    method.haveSeq = haveSeq;
    method.scrollback = scrollback;
    method.viewport = viewport;
    auto result = request(std::string(method.name), protocol::encodeParams(method), pane);
    return protocol::decodeResult<protocol::PaneSubscribe>(result);
}

void CorvexdBackend::unsubscribe(uint64_t pane) {
    {
        std::lock_guard guard(lock_);
        subscriptions_.erase(pane);
        deliveredSeq_.erase(pane);
    }
    protocol::PaneUnsubscribe method;
    method.pane = pane;
    call(method);
}

void CorvexdBackend::setViewport(uint64_t pane, Size size) {
    {
        std::lock_guard guard(lock_);
        if (auto entry = subscriptions_.find(pane); entry != subscriptions_.end()) entry->second.viewport = size;
    }
    protocol::PaneViewport method;
    method.pane = pane;
    method.size = size;
    call(method);
}

void CorvexdBackend::resize(uint64_t pane, Size size) {
    protocol::PaneResize method;
    method.pane = pane;
    method.size = size;
    call(method);
}

void CorvexdBackend::focusPane(uint64_t pane) {
    protocol::PaneFocus method;
    method.pane = pane;
    call(method);
}

void CorvexdBackend::setTerminalColors(const std::optional<TerminalColors>& colors) {
    bool sendNow = false;
    {
        std::lock_guard guard(lock_);
        if (terminalColors_ == colors) return;
        terminalColors_ = colors;
        sendNow = connection_ && colors && lastHello_ && lastHello_->has(*protocol::ClientColors::gate);
    }
    if (!sendNow) return;
    std::thread([weak = weak_from_this(), colors = *colors] {
        if (auto self = weak.lock()) self->sendColors(colors);
    }).detach();
}

void CorvexdBackend::dismissRestored(uint64_t pane) {
    protocol::PaneDismissRestored method;
    method.pane = pane;
    call(method);
}

void CorvexdBackend::move(const MoveRequest& move) {
    switch (move.kind) {
    case MoveRequest::Kind::workspace: {
        protocol::WorkspaceMove method;
        method.workspace = move.id;
        method.index = move.index;
        call(method);
        break;
    }
    case MoveRequest::Kind::tab: {
        protocol::TabMove method;
        method.tab = move.id;
        method.index = move.index;
        method.workspace = move.workspace;
        method.focus = move.focus;
        call(method);
        break;
    }
    case MoveRequest::Kind::pane: {
        protocol::PaneMove method;
        method.pane = move.id;
        method.toPane = move.beside;
        method.direction = move.direction;
        method.focus = move.focus;
        method.ratio = move.ratio;
        call(method);
        break;
    }
    case MoveRequest::Kind::tabJoin: {
        protocol::TabJoin method;
        method.tab = move.id;
        method.toPane = move.beside;
        method.direction = move.direction;
        method.focus = move.focus;
        method.ratio = move.ratio;
        call(method);
        break;
    }
    }
}

void CorvexdBackend::ackAgent(uint64_t pane) {
    protocol::AgentAck method;
    method.pane = pane;
    call(method);
}

void CorvexdBackend::muteAgent(uint64_t pane, bool muted) {
    protocol::AgentMute method;
    method.pane = pane;
    method.muted = muted;
    call(method);
}

PaneText CorvexdBackend::paneText(uint64_t pane) {
    protocol::PaneTextCall method;
    method.pane = pane;
    return call(method);
}

void CorvexdBackend::decide(uint64_t pane, const std::string& requestID, PermissionDecision decision,
                            const std::optional<std::string>& message) {
    protocol::AgentDecide method;
    method.pane = pane;
    method.request = requestID;
    method.decision = decision;
    method.message = message;
    call(method);
}

PaneSearchResult CorvexdBackend::searchPane(uint64_t pane, const std::string& query, const PaneSearchOptions& options) {
    protocol::PaneSearch method;
    method.pane = pane;
    method.query = query;
    method.options = options;
    return call(method);
}

AgentHistory CorvexdBackend::agentHistory(uint64_t pane, std::optional<int> limit, std::optional<double> since) {
    protocol::AgentHistoryCall method;
    method.pane = pane;
    method.limit = limit;
    method.since = since;
    return call(method);
}

void CorvexdBackend::sendKeys(uint64_t pane, const std::optional<std::string>& text, const std::vector<std::string>& keys) {
    protocol::PaneKeys method;
    method.pane = pane;
    method.keys = keys;
    method.text = text;
    call(method);
}

DaemonSettings CorvexdBackend::getSettings() { return call(protocol::SettingsGet{}); }

DaemonSettings CorvexdBackend::setSettings(const DaemonSettings::Change& change) {
    protocol::SettingsSet method;
    method.change = change;
    return call(method);
}

DaemonService CorvexdBackend::serviceStatus() { return call(protocol::ServiceStatus{}); }
DaemonService CorvexdBackend::installService() { return call(protocol::ServiceInstall{}); }
DaemonService CorvexdBackend::uninstallService() { return call(protocol::ServiceUninstall{}); }

void CorvexdBackend::pushRegister(const PushRegistration& registration) {
    protocol::PushRegister method;
    method.registration = registration;
    call(method);
}

void CorvexdBackend::pushUnregister(const std::string& device) {
    protocol::PushUnregister method;
    method.device = device;
    call(method);
}

std::vector<PushDevice> CorvexdBackend::pushList() { return call(protocol::PushList{}); }

void CorvexdBackend::pushTest(const std::string& device) {
    protocol::PushTest method;
    method.device = device;
    call(method);
}

void CorvexdBackend::pushActivity(uint64_t pane, const std::string& device, const std::string& token,
                                  const std::optional<std::string>& env) {
    protocol::PushActivityStart method;
    method.pane = pane;
    method.device = device;
    method.token = token;
    method.env = env;
    call(method);
}

void CorvexdBackend::pushActivityEnd(uint64_t pane, const std::string& device) {
    protocol::PushActivityEnd method;
    method.pane = pane;
    method.device = device;
    call(method);
}

std::vector<PushActivity> CorvexdBackend::pushActivities() { return call(protocol::PushActivities{}); }

} // namespace corvex
