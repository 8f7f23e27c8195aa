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
    // The failure's words, not the exception: a copied exception shares its message with the
    // original, and the waiter and the one who failed it are on different threads.
    std::optional<std::pair<std::string, std::string>> error;

    void resolve(json value) {
        std::lock_guard guard(mutex);
        result = std::move(value);
        done = true;
        finished.notify_all();
    }
    void fail(const BackendError& failure) {
        std::lock_guard guard(mutex);
        if (done) return;
        error.emplace(failure.code(), failure.message());
        done = true;
        finished.notify_all();
    }
    json wait() {
        std::unique_lock guard(mutex);
        finished.wait(guard, [&] { return done; });
        if (error) throw BackendError(error->first, error->second);
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

void CorvexdBackend::sendFrame(std::string frame) {
    if (auto stream = currentConnection()) sendOn(stream, std::move(frame));
}

std::string CorvexdBackend::transportName() const { return configuration_.transport->name(); }

bool CorvexdBackend::overUnixSocket() const {
    return dynamic_cast<const UnixSocketTransport*>(configuration_.transport.get()) != nullptr;
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

json CorvexdBackend::request(const std::string& method, json params, std::optional<uint64_t> subscribing,
                             ReplyHook onReply, std::string following) {
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
        // Moved, not copied: a batch of small files is a big object.
        text = protocol::requestEnvelope(id, method, std::move(params)).dump();
    } catch (const json::exception& error) {
        std::lock_guard guard(lock_);
        pending_.erase(id);
        subscribeRequests_.erase(id);
        replyHooks_.erase(id);
        throw BackendError("bad_request", "can't encode " + method + ": " + error.what());
    }
    // The frame goes to the stream the caller was entered for: a request failed by that
    // stream's close must never reach its successor.
    if (following.empty()) {
        sendOn(stream, makeJSONFrame(text));
    } else {
        // Two writes in one turn of the queue, so nothing comes between them: the data, often
        // a whole file, isn't copied once more to sit behind the request.
        writeQueue_.async([stream, head = makeJSONFrame(text), following = std::move(following)] {
            stream->write(head);
            stream->write(following);
        });
    }
    return waiter->wait();
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
    if (name == protocol::event::shutdown) {
        std::lock_guard guard(lock_);
        daemonShutDown_ = true;
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

} // namespace corvex
