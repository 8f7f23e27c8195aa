#include "Support/FakeDaemon.h"

#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "CorvexKit/Frame.h"
#include "CorvexKit/FrameParser.h"
#include "CorvexKit/SessionCodecJSON.h"

using namespace std::chrono_literals;
using json = nlohmann::json;

namespace corvex::testing {

FakePeer::~FakePeer() { ::close(fd_); }

void FakePeer::sendRaw(const std::string& bytes) {
    std::lock_guard guard(writeLock_);
    std::string_view rest = bytes;
    while (!rest.empty()) {
        ssize_t count = ::send(fd_, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (count <= 0) return;
        rest.remove_prefix(static_cast<size_t>(count));
    }
}

void FakePeer::sendJSON(const json& object) { sendRaw(makeJSONFrame(object.dump())); }

void FakePeer::reply(int64_t id, const json& result) { sendJSON(json{{"id", id}, {"result", result}}); }

void FakePeer::replyError(int64_t id, const std::string& code, const std::string& message) {
    sendJSON(json{{"id", id}, {"error", {{"code", code}, {"message", message}}}});
}

void FakePeer::event(const std::string& name, const json& data) { sendJSON(json{{"event", name}, {"data", data}}); }

void FakePeer::close() { ::shutdown(fd_, SHUT_RDWR); }

json FakeDaemon::defaultHello(const std::string& instance) {
    return json{{"protocol", 1},     {"daemon", "corvexd"}, {"version", "1.2"},
                {"instance", instance}, {"pid", 42},       {"features", json::array({"ping"})}};
}

FakeDaemon::FakeDaemon(std::string socketPath) : socketPath_(std::move(socketPath)) {}

FakeDaemon::~FakeDaemon() {
    std::vector<std::shared_ptr<FakePeer>> peers;
    {
        std::lock_guard guard(mutex_);
        stopping_ = true;
        peers = peers_;
    }
    stopListening();
    for (auto& peer : peers) peer->close();
    if (acceptThread_.joinable()) acceptThread_.join();
    std::vector<std::thread> threads;
    {
        std::lock_guard guard(mutex_);
        threads.swap(serveThreads_);
    }
    for (auto& thread : threads) thread.join();
}

void FakeDaemon::listen() {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socketPath_.data(), socketPath_.size());
    ::unlink(socketPath_.c_str());
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0 || ::listen(fd, 16) < 0) {
        ::close(fd);
        throw std::runtime_error("fake daemon can't listen on " + socketPath_);
    }
    if (acceptThread_.joinable()) acceptThread_.join();
    {
        std::lock_guard guard(mutex_);
        listener_ = fd;
    }
    acceptThread_ = std::thread([this, fd] { acceptLoop(fd); });
}

void FakeDaemon::stopListening() {
    int fd;
    {
        std::lock_guard guard(mutex_);
        fd = listener_;
        listener_ = -1;
    }
    if (fd < 0) return;
    ::shutdown(fd, SHUT_RDWR);
    ::unlink(socketPath_.c_str());
    if (acceptThread_.joinable()) acceptThread_.join();
    ::close(fd);
}

void FakeDaemon::acceptLoop(int listener) {
    for (;;) {
        int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            return;
        }
        auto peer = std::make_shared<FakePeer>(fd, ++connectionCount_);
        std::lock_guard guard(mutex_);
        if (stopping_) return;
        peers_.push_back(peer);
        serveThreads_.emplace_back([this, peer] { serve(peer); });
        connectionFeed_.send(peer);
    }
}

void FakeDaemon::serve(std::shared_ptr<FakePeer> peer) {
    FrameParser parser;
    char buffer[65536];
    for (;;) {
        ssize_t count = ::read(peer->fd(), buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return;
        bool ok = parser.append(std::string_view(buffer, static_cast<size_t>(count)), [&](uint8_t type, std::string_view body) {
            if (type == static_cast<uint8_t>(FrameType::input)) {
                if (auto input = parseInputPayload(body)) {
                    std::lock_guard guard(mutex_);
                    input_[input->pane] += input->bytes;
                }
                ++inputFrames_;
                return;
            }
            if (type == static_cast<uint8_t>(FrameType::fileData)) {
                if (auto frame = parseFileDataPayload(body)) {
                    std::lock_guard guard(mutex_);
                    fileData_.push_back({frame->stream, frame->offset, frame->fin, std::string(frame->bytes)});
                }
                return;
            }
            if (type != static_cast<uint8_t>(FrameType::json)) return;
            json object = json::parse(body, nullptr, false);
            if (object.is_object() && !object.contains("id")) {
                std::lock_guard guard(mutex_);
                notifications_.push_back(object);
                return;
            }
            if (!object.is_object()) return;
            ReceivedRequest request{peer->index(), object["id"].get<int64_t>(), object.value("method", ""),
                                    object.contains("params") ? object["params"] : json()};
            {
                std::lock_guard guard(mutex_);
                requests_.push_back(request);
            }
            requestFeed_.send(request);
            handle(*peer, request);
        });
        if (!ok) return;
    }
}

void FakeDaemon::handle(FakePeer& peer, const ReceivedRequest& request) {
    json hello;
    std::optional<json> state;
    {
        std::lock_guard guard(mutex_);
        hello = hello_;
        state = stateOnSubscribe_;
    }
    {
        std::shared_lock running(handlerLock_);
        if (handler_ && handler_(peer, request)) return;
    }
    const json& params = request.params;
    if (request.method == "hello") {
        peer.reply(request.id, hello);
    } else if (request.method == "events.subscribe") {
        peer.reply(request.id, json::object());
        if (state) peer.event("state", *state);
    } else if (request.method == "state.get") {
        peer.reply(request.id, toJSON(ModelState{}));
    } else if (request.method == "ping") {
        peer.reply(request.id, json::object());
    } else if (request.method == "pane.subscribe") {
        bool has = params.contains("have_seq");
        peer.reply(request.id, json{{"mode", has ? "live" : "snapshot"},
                                    {"seq", has ? params["have_seq"].get<uint64_t>() : 0},
                                    {"cols", 80},
                                    {"rows", 24}});
    } else {
        peer.reply(request.id, json::object());
    }
}

FakeDaemon::HandlerScope FakeDaemon::setHandler(Handler handler) {
    std::unique_lock guard(handlerLock_);
    handler_ = std::move(handler);
    return HandlerScope(*this);
}

void FakeDaemon::clearHandler() {
    std::unique_lock guard(handlerLock_);
    handler_ = nullptr;
}

void FakeDaemon::setHello(json hello) {
    std::lock_guard guard(mutex_);
    hello_ = std::move(hello);
}

void FakeDaemon::setStateOnSubscribe(std::optional<json> state) {
    std::lock_guard guard(mutex_);
    stateOnSubscribe_ = std::move(state);
}

std::shared_ptr<FakePeer> FakeDaemon::nextConnection() { return connectionFeed_.receive(5s).value_or(nullptr); }

std::optional<ReceivedRequest> FakeDaemon::nextRequest(const std::string& method) {
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (std::chrono::steady_clock::now() < deadline) {
        auto next = requestFeed_.receive(deadline - std::chrono::steady_clock::now());
        if (!next) return std::nullopt;
        if (next->method == method) return next;
    }
    return std::nullopt;
}

std::vector<FakeDaemon::FileData> FakeDaemon::fileData() const {
    std::lock_guard guard(mutex_);
    return fileData_;
}

std::vector<json> FakeDaemon::notifications() const {
    std::lock_guard guard(mutex_);
    return notifications_;
}

std::map<uint64_t, std::string> FakeDaemon::input() const {
    std::lock_guard guard(mutex_);
    return input_;
}

std::vector<ReceivedRequest> FakeDaemon::requests() const {
    std::lock_guard guard(mutex_);
    return requests_;
}

} // namespace corvex::testing
