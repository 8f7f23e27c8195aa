#include "CorvexKit/CorvexdBackend.h"

#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <thread>

#include "CorvexKit/SessionCodecJSON.h"
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

// Identifiers and positions: a JSON integer that isn't negative (the parser keeps those
// as unsigned).
std::optional<uint64_t> unsignedField(const json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end() || !found->is_number_unsigned()) return std::nullopt;
    return found->get<uint64_t>();
}

std::optional<int> intField(const json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end() || !found->is_number_integer()) return std::nullopt;
    return found->get<int>();
}

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

json spawnParams(const SpawnOptions& spawn) {
    json params = toJSON(spawn);
    return params.is_object() ? params : json::object();
}

template <typename T>
T decoded(const json& result) {
    return decodeJSON<T>(result);
}

template <typename T>
std::vector<T> decodedList(const json& result, const char* key) {
    std::vector<T> list;
    if (!result.is_object()) return list;
    auto found = result.find(key);
    if (found == result.end() || found->is_null()) return list;
    if (!found->is_array()) throw DecodingError(std::string("\"") + key + "\" is not a list");
    for (const auto& item : *found) list.push_back(decodeJSON<T>(item));
    return list;
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
        json envelope{{"id", id}, {"method", method}};
        if (!params.is_null()) envelope["params"] = params;
        text = envelope.dump();
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
    if (name.rfind("fs.", 0) == 0) {
        std::shared_ptr<CorvexdFileChannel> channel;
        {
            std::lock_guard guard(lock_);
            channel = fileChannel_;
        }
        if (channel) channel->fileEvent(name, data);
        return;
    }
    std::optional<SessionEvent> event;
    try {
        if (name == "state") {
            event = SessionEvent::State{decodeJSON<ModelState>(data)};
        } else if (name == "pane") {
            event = SessionEvent::PaneChanged{decodeJSON<Pane>(data), unsignedField(data, "rev").value_or(0)};
        } else if (name == "settings") {
            event = SessionEvent::Settings{decodeJSON<DaemonSettings>(data)};
        } else if (name == "service") {
            event = SessionEvent::Service{decodeJSON<DaemonService>(data)};
        }
    } catch (const DecodingError&) {
        return;
    }
    auto pane = unsignedField(data, "pane");
    if (name == "bell") {
        if (pane) event = SessionEvent::Bell{*pane};
    } else if (name == "pane.clipboard") {
        auto text = data.find("text");
        if (pane && text != data.end() && text->is_string()) {
            event = SessionEvent::Clipboard{*pane, text->get<std::string>(),
                                            stringField(data, "target", "") == "selection"};
        }
    } else if (name == "pane.resized") {
        auto cols = intField(data, "cols");
        auto rows = intField(data, "rows");
        auto seq = unsignedField(data, "seq");
        if (pane && cols && rows && seq) event = SessionEvent::Resized{*pane, *cols, *rows, *seq};
    } else if (name == "pane.resync") {
        if (pane) event = SessionEvent::Resync{*pane};
    } else if (name == "agent") {
        if (pane) {
            std::optional<AgentInfo> info;
            if (auto agent = data.find("agent"); agent != data.end() && agent->is_object()) {
                try {
                    info = decodeJSON<AgentInfo>(*agent);
                } catch (const DecodingError&) {
                }
            }
            event = SessionEvent::Agent{*pane, std::move(info)};
        }
    }
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

    Hello hello = decodeJSON<Hello>(requestDuringConnect(
        stream, "hello", json{{"protocol", protocolVersion}, {"client", configuration_.clientName}}));

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
    if (colors && hello.has(Hello::Feature::clientColors)) sendColors(*colors);
    requestDuringConnect(stream, "events.subscribe", json());
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
        request("client.colors", json{{"colors", toJSON(colors)}});
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
        request("ping");
    } catch (const BackendError& error) {
        if (error.code() != "unknown_method") throw;
        request("state.get");
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

ModelState CorvexdBackend::getState() { return decoded<ModelState>(request("state.get")); }

CreatedWorkspace CorvexdBackend::createWorkspace(const std::optional<std::string>& name, const SpawnOptions& spawn) {
    json params = spawnParams(spawn);
    if (name) params["name"] = *name;
    return decoded<CreatedWorkspace>(request("workspace.create", params));
}

void CorvexdBackend::renameWorkspace(uint64_t id, const std::string& name) {
    request("workspace.rename", json{{"workspace", id}, {"name", name}});
}

void CorvexdBackend::closeWorkspace(uint64_t id) { request("workspace.close", json{{"workspace", id}}); }

CreatedTab CorvexdBackend::createTab(uint64_t workspace, const SpawnOptions& spawn) {
    json params = spawnParams(spawn);
    params["workspace"] = workspace;
    return decoded<CreatedTab>(request("tab.create", params));
}

void CorvexdBackend::renameTab(uint64_t id, const std::optional<std::string>& title) {
    json params{{"tab", id}};
    if (title) params["title"] = *title;
    request("tab.rename", params);
}

void CorvexdBackend::closeTab(uint64_t id) { request("tab.close", json{{"tab", id}}); }

CreatedSplit CorvexdBackend::split(uint64_t pane, Direction direction, std::optional<double> ratio,
                                   const SpawnOptions& spawn) {
    json params = spawnParams(spawn);
    params["pane"] = pane;
    params["direction"] = wireName(direction);
    if (ratio) params["ratio"] = *ratio;
    return decoded<CreatedSplit>(request("pane.split", params));
}

void CorvexdBackend::closePane(uint64_t id) { request("pane.close", json{{"pane", id}}); }

void CorvexdBackend::setRatio(uint64_t split, double ratio) {
    request("split.set_ratio", json{{"split", split}, {"ratio", ratio}});
}

void CorvexdBackend::focus(const FocusTarget& target) {
    const char* key = target.kind == FocusTarget::Kind::pane ? "pane"
                      : target.kind == FocusTarget::Kind::tab ? "tab"
                                                               : "workspace";
    request("focus", json{{key, target.id}});
}

Subscription CorvexdBackend::subscribe(uint64_t pane, std::optional<uint64_t> haveSeq, std::optional<int> scrollback,
                                       std::optional<Size> viewport) {
    {
        std::lock_guard guard(lock_);
        subscriptions_[pane] = SubscriptionEntry{scrollback, viewport};
    }
    json params{{"pane", pane}};
    if (haveSeq) params["have_seq"] = *haveSeq;
    if (scrollback) params["scrollback"] = *scrollback;
    if (viewport) params["viewport"] = json{{"cols", viewport->cols}, {"rows", viewport->rows}};
    return decoded<Subscription>(request("pane.subscribe", params, pane));
}

void CorvexdBackend::unsubscribe(uint64_t pane) {
    {
        std::lock_guard guard(lock_);
        subscriptions_.erase(pane);
        deliveredSeq_.erase(pane);
    }
    request("pane.unsubscribe", json{{"pane", pane}});
}

void CorvexdBackend::setViewport(uint64_t pane, Size size) {
    {
        std::lock_guard guard(lock_);
        if (auto entry = subscriptions_.find(pane); entry != subscriptions_.end()) entry->second.viewport = size;
    }
    request("pane.viewport", json{{"pane", pane}, {"cols", size.cols}, {"rows", size.rows}});
}

void CorvexdBackend::resize(uint64_t pane, Size size) {
    request("pane.resize", json{{"pane", pane}, {"cols", size.cols}, {"rows", size.rows}});
}

void CorvexdBackend::focusPane(uint64_t pane) {
    if (!hasFeature(Hello::Feature::paneFocus)) return;
    request("pane.focus", json{{"pane", pane}});
}

void CorvexdBackend::setTerminalColors(const std::optional<TerminalColors>& colors) {
    bool sendNow = false;
    {
        std::lock_guard guard(lock_);
        if (terminalColors_ == colors) return;
        terminalColors_ = colors;
        sendNow = connection_ && colors && lastHello_ && lastHello_->has(Hello::Feature::clientColors);
    }
    if (!sendNow) return;
    std::thread([weak = weak_from_this(), colors = *colors] {
        if (auto self = weak.lock()) self->sendColors(colors);
    }).detach();
}

void CorvexdBackend::dismissRestored(uint64_t pane) { request("pane.dismiss_restored", json{{"pane", pane}}); }

void CorvexdBackend::move(const MoveRequest& move) {
    auto beside = [&](const char* key) {
        json params{{key, move.id}, {"to_pane", move.beside}, {"direction", wireName(move.direction)}, {"focus", move.focus}};
        if (move.ratio) params["ratio"] = *move.ratio;
        return params;
    };
    switch (move.kind) {
    case MoveRequest::Kind::workspace:
        request("workspace.move", json{{"workspace", move.id}, {"index", move.index}});
        break;
    case MoveRequest::Kind::tab: {
        json params{{"tab", move.id}, {"index", move.index}};
        if (move.workspace) params["workspace"] = *move.workspace;
        if (move.focus) params["focus"] = true;
        request("tab.move", params);
        break;
    }
    case MoveRequest::Kind::pane:
        request("pane.move", beside("pane"));
        break;
    case MoveRequest::Kind::tabJoin:
        request("tab.join", beside("tab"));
        break;
    }
}

void CorvexdBackend::ackAgent(uint64_t pane) { request("agent.ack", json{{"pane", pane}}); }

void CorvexdBackend::muteAgent(uint64_t pane, bool muted) {
    request("agent.mute", json{{"pane", pane}, {"muted", muted}});
}

PaneText CorvexdBackend::paneText(uint64_t pane) { return decoded<PaneText>(request("pane.text", json{{"pane", pane}})); }

void CorvexdBackend::decide(uint64_t pane, const std::string& requestID, PermissionDecision decision,
                            const std::optional<std::string>& message) {
    json params{{"pane", pane}, {"request", requestID}, {"decision", wireName(decision)}};
    if (message) params["message"] = *message;
    request("agent.decide", params);
}

PaneSearchResult CorvexdBackend::searchPane(uint64_t pane, const std::string& query, const PaneSearchOptions& options) {
    json params{{"pane", pane}, {"query", query}, {"regex", options.regex}, {"case_sensitive", options.caseSensitive}};
    if (options.limit) params["limit"] = *options.limit;
    if (options.before) params["before"] = json{{"line", options.before->line}, {"col", options.before->col}};
    return decoded<PaneSearchResult>(request("pane.search", params));
}

AgentHistory CorvexdBackend::agentHistory(uint64_t pane, std::optional<int> limit, std::optional<double> since) {
    json params{{"pane", pane}};
    if (limit) params["limit"] = *limit;
    if (since) params["since"] = *since;
    return decoded<AgentHistory>(request("agent.history", params));
}

void CorvexdBackend::sendKeys(uint64_t pane, const std::optional<std::string>& text, const std::vector<std::string>& keys) {
    json params{{"pane", pane}, {"keys", keys}};
    if (text) params["text"] = *text;
    request("pane.keys", params);
}

DaemonSettings CorvexdBackend::getSettings() { return decoded<DaemonSettings>(request("settings.get")); }

DaemonSettings CorvexdBackend::setSettings(const DaemonSettings::Change& change) {
    return decoded<DaemonSettings>(request("settings.set", toJSON(change)));
}

DaemonService CorvexdBackend::serviceStatus() { return decoded<DaemonService>(request("service.status")); }
DaemonService CorvexdBackend::installService() { return decoded<DaemonService>(request("service.install")); }
DaemonService CorvexdBackend::uninstallService() { return decoded<DaemonService>(request("service.uninstall")); }

void CorvexdBackend::pushRegister(const PushRegistration& registration) {
    request("push.register", toJSON(registration));
}

void CorvexdBackend::pushUnregister(const std::string& device) { request("push.unregister", json{{"device", device}}); }

std::vector<PushDevice> CorvexdBackend::pushList() { return decodedList<PushDevice>(request("push.list"), "devices"); }

void CorvexdBackend::pushTest(const std::string& device) { request("push.test", json{{"device", device}}); }

void CorvexdBackend::pushActivity(uint64_t pane, const std::string& device, const std::string& token,
                                  const std::optional<std::string>& env) {
    json params{{"pane", pane}, {"device", device}, {"token", token}};
    if (env) params["env"] = *env;
    request("push.activity", params);
}

void CorvexdBackend::pushActivityEnd(uint64_t pane, const std::string& device) {
    request("push.activity_end", json{{"pane", pane}, {"device", device}});
}

std::vector<PushActivity> CorvexdBackend::pushActivities() {
    return decodedList<PushActivity>(request("push.list"), "activities");
}

} // namespace corvex
