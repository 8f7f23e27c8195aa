#include "corvexd/Server.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <set>
#include <sys/eventfd.h>
#include <utility>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "CorvexKit/FrameParser.h"
#include "CorvexKit/SessionBackend.h"
#include "CorvexKit/ProtocolJSON.h"
#include "CorvexSession/SessionHello.h"
#include "Platform/UnixSocket.h"
#include "Platform/WorkerPool.h"
#include "corvexd/RuntimeDirectory.h"

namespace corvexd {

using nlohmann::json;

namespace {

// Large enough that a file-data frame usually arrives whole and is handed on without being
// gathered in the parser first.
constexpr size_t readChunk = 1u << 20;
constexpr int acceptRetryMilliseconds = 250;
constexpr int stallCheckMilliseconds = 100;

using RequestError = MethodError;

std::string dump(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

int listenOn(const std::string& path) {
    // The caller holds the pid file's lock, so a socket left at the path is a dead daemon's.
    ::unlink(path.c_str());
    // Bound with a private mode from the start: no moment exists where others could connect.
    mode_t previous = ::umask(0177);
    auto listening = platform::listenUnixSocket(path, 128);
    ::umask(previous);
    if (listening.error == ENAMETOOLONG) throw DaemonError("socket path too long: " + path);
    if (listening.fd < 0) throw DaemonError("can't listen on " + path + ": " + std::strerror(listening.error));
    return listening.fd;
}

bool sameUser(int fd) {
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return false;
    return credentials.uid == ::getuid();
}

std::optional<uint64_t> requestID(const json& message) {
    auto found = message.find("id");
    if (found == message.end()) return std::nullopt;
    if (found->is_number_unsigned()) return found->get<uint64_t>();
    if (found->is_number_integer() && found->get<int64_t>() >= 0) return static_cast<uint64_t>(found->get<int64_t>());
    return std::nullopt;
}

} // namespace

struct Server::Client {
    uint64_t id = 0;
    int fd = -1;
    corvex::FrameParser parser;
    std::string out;
    size_t sent = 0; // bytes of `out` already written
    bool events = false;
    bool greeted = false;    // a hello was accepted; nothing else is served before it
    bool closing = false;
    bool writeBroken = false; // the peer can't be written to; what it sent is still carried out
    std::map<uint64_t, uint64_t> panes; // subscribed pane streams, to the next position owed
    std::set<uint64_t> lost;            // streams given up on, to be opened again once drained
    std::optional<std::chrono::steady_clock::time_point> backedUpSince; // over the high-water mark since
    // A large request is being parsed aside: nothing more is read from the client, and the
    // frames already read wait here, in order, until it has been served.
    bool decoding = false;
    std::deque<std::pair<uint8_t, std::string>> waiting;
    // Streams being opened elsewhere, with what was published for them meanwhile: output as
    // its position and bytes, events as whole frames (no position).
    struct Opening {
        uint64_t token = 0;
        std::vector<std::pair<std::optional<uint64_t>, std::string>> held;
        size_t heldBytes = 0;
        bool overflowed = false;
    };
    std::map<uint64_t, Opening> opening;

    size_t pending() const { return out.size() - sent; }
};

Server::Server(ServerOptions options)
    : options_(std::move(options)), instance_(options_.instance.empty() ? corvex::newInstanceID() : options_.instance),
      decoders_(std::make_unique<platform::WorkerPool>(2)) {
    listenFd_ = listenOn(options_.socketPath);
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) {
        ::close(listenFd_);
        throw DaemonError(std::string("eventfd: ") + std::strerror(errno));
    }
}

Server::~Server() {
    // Methods may own workers that answer later; they finish while their replies can still
    // be posted.
    methods_.clear();
    reopener_ = nullptr;
    decoders_.reset();
    for (auto& [id, client] : clients_) ::close(client->fd);
    if (listenFd_ >= 0) {
        ::close(listenFd_);
        ::unlink(options_.socketPath.c_str());
    }
    if (wakeFd_ >= 0) ::close(wakeFd_);
}

void Server::stop() {
    {
        std::lock_guard guard(postedLock_);
        stopRequested_ = true;
    }
    wake();
}

void Server::post(std::function<void()> work) { post(std::move(work), false); }

void Server::post(std::function<void()> work, bool output) {
    {
        std::lock_guard guard(postedLock_);
        posted_.push_back({std::move(work), output});
    }
    wake();
}

void Server::wake() {
    uint64_t one = 1;
    [[maybe_unused]] auto written = ::write(wakeFd_, &one, sizeof(one));
}

void Server::runPosted() {
    uint64_t count;
    [[maybe_unused]] auto drained = ::read(wakeFd_, &count, sizeof(count));
    drainPosted();
}

void Server::deliver(std::function<void()> work, bool output) {
    if (std::this_thread::get_id() != serveThread_) return post(std::move(work), output);
    // Behind held output it waits its turn, so that the order of everything published holds.
    if (!drainPosted()) return post(std::move(work), output);
    work();
}

// Runs what was posted, in order, until output comes that a subscriber can't take yet; true
// when nothing is left.
bool Server::drainPosted() {
    while (true) {
        Posted item;
        {
            std::lock_guard guard(postedLock_);
            if (stopRequested_) stopping_ = true;
            if (posted_.empty()) return true;
            if (posted_.front().output && outputHeld()) return false;
            item = std::move(posted_.front());
            posted_.pop_front();
        }
        item.work();
    }
}

// A subscriber has more queued than it has read: pane output waits in the session's bounded
// budget, and so at the programs' terminals, rather than piling up here.
bool Server::outputHeld() const {
    for (const auto& [id, client] : clients_) {
        if (!client->panes.empty() && !client->closing && !client->writeBroken &&
            client->pending() > options_.outputHighWater) {
            return true;
        }
    }
    return false;
}

// A subscriber that has read nothing for a while no longer holds everyone's output: its
// streams are given up with "pane.resync", and come back once it has caught up.
void Server::releaseStalledClients() {
    auto now = std::chrono::steady_clock::now();
    for (auto& [id, client] : clients_) {
        if (client->pending() <= options_.outputHighWater) {
            client->backedUpSince.reset();
            continue;
        }
        if (!client->backedUpSince) client->backedUpSince = now;
        if (now - *client->backedUpSince < options_.stallTimeout || client->panes.empty()) continue;
        std::vector<uint64_t> panes;
        for (const auto& [pane, next] : client->panes) panes.push_back(pane);
        for (uint64_t pane : panes) resync(*client, pane);
    }
}

void Server::run() {
    serveThread_ = std::this_thread::get_id();
    std::vector<pollfd> fds;
    std::vector<uint64_t> order;
    while (!stopping_) {
        fds.clear();
        order.clear();
        // Out of descriptors, the listener stays readable while nothing can be accepted: it is
        // left out of the poll until a client goes, or a moment has passed.
        fds.push_back({acceptPaused_ ? -1 : listenFd_, POLLIN, 0});
        fds.push_back({wakeFd_, POLLIN, 0});
        fds.push_back({options_.stopFd, POLLIN, 0});
        for (auto& [id, client] : clients_) {
            short events = POLLIN;
            if (client->pending() > 0) events |= POLLOUT;
            // A client whose request is being parsed aside is left alone until it is served.
            fds.push_back({client->decoding ? -1 : client->fd, events, 0});
            order.push_back(id);
        }
        int timeout = acceptPaused_ ? acceptRetryMilliseconds : -1;
        if (anyBackedUp()) timeout = stallCheckMilliseconds;
        if (::poll(fds.data(), fds.size(), timeout) < 0) {
            if (errno == EINTR) continue;
            throw DaemonError(std::string("poll: ") + std::strerror(errno));
        }
        if (fds[2].revents) {
            stopping_ = true;
            break;
        }
        if (fds[1].revents & POLLIN) {
            runPosted();
            serveDecoded();
        }
        for (size_t i = 0; i < order.size(); ++i) {
            auto found = clients_.find(order[i]);
            if (found == clients_.end()) continue;
            Client& client = *found->second;
            short revents = fds[3 + i].revents;
            if (revents & POLLOUT) flush(client);
            if (!client.closing && (revents & (POLLIN | POLLHUP | POLLERR))) readFrom(client);
        }
        if (acceptPaused_ || (fds[0].revents & POLLIN)) acceptClients();

        std::vector<uint64_t> closing;
        for (auto& [id, client] : clients_) {
            if (client->closing) closing.push_back(id);
        }
        for (auto id : closing) closeClient(id);
        releaseStalledClients();
        drainPosted();
        reopenLostStreams();
        if (options_.ephemeral && servedAnyone_ && clients_.empty()) stopping_ = true;
    }
    if (!options_.handingOver || !options_.handingOver()) announceShutdown();
}

// Clients are told that the daemon goes on purpose, so that none of them starts a new one
// in its place; a client too far behind to take the notice in reconnects as after a crash.
void Server::announceShutdown() {
    auto frame = corvex::makeJSONFrame(dump(corvex::protocol::eventEnvelope(corvex::protocol::event::shutdown, json::object())));
    for (auto& [id, client] : clients_) {
        if (client->events && !client->closing) enqueue(*client, frame);
    }
}

void Server::acceptClients() {
    while (true) {
        int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        acceptPaused_ = fd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM);
        if (fd < 0) return; // EAGAIN, or a peer that left before we took it
        if (!sameUser(fd)) {
            ::close(fd);
            continue;
        }
        auto client = std::make_unique<Client>();
        client->id = nextClientID_++;
        client->fd = fd;
        clients_.emplace(client->id, std::move(client));
    }
}

void Server::closeClient(uint64_t id) {
    auto found = clients_.find(id);
    if (found == clients_.end()) return;
    ::close(found->second->fd);
    clients_.erase(found);
    if (acceptPaused_) acceptClients();
    if (clientGoneHandler_) clientGoneHandler_(id);
    for (auto& handler : goneHandlers_) handler(id);
}

Server::Client* Server::client(ClientID id) {
    auto found = clients_.find(id);
    return found == clients_.end() ? nullptr : found->second.get();
}

void Server::addMethod(const std::string& name, MethodHandler handler) { methods_[name] = std::move(handler); }

void Server::setInputHandler(std::function<void(ClientID, uint64_t, std::string_view)> handler) {
    inputHandler_ = std::move(handler);
}

void Server::setClientGoneHandler(std::function<void(ClientID)> handler) { clientGoneHandler_ = std::move(handler); }

void Server::addClientGoneHandler(std::function<void(ClientID)> handler) { goneHandlers_.push_back(std::move(handler)); }

void Server::addNotification(const std::string& name, std::function<void(ClientID, const json&)> handler) {
    notifications_[name] = std::move(handler);
}

void Server::setFrameHandler(uint8_t type, std::function<void(ClientID, std::string_view)> handler) {
    frameHandlers_[type] = std::move(handler);
}

void Server::sendFrames(ClientID id, std::vector<std::string> frames) {
    deliver([this, id, frames = std::move(frames)]() mutable {
        auto* found = client(id);
        if (!found) return;
        for (auto& frame : frames) enqueue(*found, std::move(frame));
    });
}

void Server::addFeatures(const std::vector<std::string>& names) {
    for (const auto& name : names) {
        if (std::find(features_.begin(), features_.end(), name) == features_.end()) features_.push_back(name);
    }
}

void Server::subscribePane(ClientID id, uint64_t pane, uint64_t from) {
    if (auto* found = client(id)) found->panes[pane] = from;
}

void Server::unsubscribePane(ClientID id, uint64_t pane) {
    if (auto* found = client(id)) {
        found->panes.erase(pane);
        found->lost.erase(pane);
        found->opening.erase(pane);
    }
}

uint64_t Server::holdPane(ClientID id, uint64_t pane) {
    uint64_t token = nextOpening_++;
    if (auto* found = client(id)) {
        found->panes.erase(pane);
        found->lost.erase(pane);
        found->opening[pane] = Client::Opening{token, {}, 0, false};
    }
    return token;
}

void Server::releasePane(ClientID id, uint64_t pane, uint64_t token, std::string reply, std::vector<std::string> frames,
                         std::optional<uint64_t> from) {
    deliver([this, id, pane, token, reply = std::move(reply), frames = std::move(frames), from]() mutable {
        auto* found = client(id);
        if (!found) return;
        if (!reply.empty()) enqueue(*found, std::move(reply));
        auto opened = found->opening.find(pane);
        if (opened == found->opening.end() || opened->second.token != token) return;
        auto opening = std::move(opened->second);
        found->opening.erase(opened);
        if (!from) return;
        for (auto& frame : frames) enqueue(*found, std::move(frame));
        if (opening.overflowed) {
            resync(*found, pane);
            return;
        }
        uint64_t next = *from;
        for (const auto& [seq, bytes] : opening.held) {
            if (!seq) {
                enqueue(*found, bytes);
            } else if (!deliverToClient(*found, pane, next, *seq, bytes, nullptr)) {
                return; // given up on: the rest of the held output can't follow a gap
            }
        }
        found->panes[pane] = next;
    });
}

void Server::setStreamReopener(std::function<void(ClientID, uint64_t, uint64_t)> reopener) {
    reopener_ = std::move(reopener);
}

void Server::reopenLostStreams() {
    for (auto& [id, client] : clients_) {
        if (client->closing || client->writeBroken || client->lost.empty() || client->pending() > 0) continue;
        auto lost = std::exchange(client->lost, {});
        if (!reopener_) continue;
        for (uint64_t pane : lost) reopener_(id, pane, holdPane(id, pane));
    }
}

void Server::broadcastEvent(const std::string& name, json data) {
    auto frame = std::make_shared<std::string>(corvex::makeJSONFrame(dump(corvex::protocol::eventEnvelope(name, std::move(data)))));
    deliver([this, frame] {
        for (auto& [id, client] : clients_) {
            if (client->events) enqueue(*client, *frame);
        }
    });
}

void Server::publishOutput(uint64_t pane, uint64_t seq, std::string bytes) {
    deliver([this, pane, seq, bytes = std::move(bytes)] {
        deliverToPane(pane, seq, bytes);
        if (outputReleased_) outputReleased_(bytes.size());
    }, true);
}

void Server::setOutputReleased(std::function<void(size_t)> released) { outputReleased_ = std::move(released); }

bool Server::anyBackedUp() const {
    for (const auto& [id, client] : clients_) {
        if (client->pending() > options_.outputHighWater && !client->panes.empty()) return true;
    }
    return false;
}

void Server::publishPaneEvent(uint64_t pane, const std::string& name, json data) {
    auto frame = std::make_shared<std::string>(corvex::makeJSONFrame(dump(corvex::protocol::eventEnvelope(name, std::move(data)))));
    deliver([this, pane, frame] {
        for (auto& [id, client] : clients_) {
            if (client->panes.count(pane)) enqueue(*client, *frame);
            else if (auto opening = client->opening.find(pane); opening != client->opening.end()) {
                opening->second.held.emplace_back(std::nullopt, *frame);
            }
        }
    });
}

void Server::resync(Client& client, uint64_t pane) {
    client.panes.erase(pane);
    client.lost.insert(pane);
    auto wire = corvex::protocol::encodeEvent(corvex::SessionEvent::Resync{pane});
    enqueue(client, corvex::makeJSONFrame(dump(corvex::protocol::eventEnvelope(wire->name, std::move(wire->data)))));
}

void Server::deliverToPane(uint64_t pane, uint64_t seq, const std::string& bytes) {
    std::string whole;
    for (auto& [id, client] : clients_) {
        if (auto opening = client->opening.find(pane); opening != client->opening.end()) {
            auto& held = opening->second;
            if (held.overflowed) continue;
            held.heldBytes += bytes.size();
            if (held.heldBytes > options_.paneQueueLimit) {
                held.overflowed = true;
                held.held.clear();
            } else {
                held.held.emplace_back(seq, bytes);
            }
            continue;
        }
        auto found = client->panes.find(pane);
        if (found == client->panes.end()) continue;
        deliverToClient(*client, pane, found->second, seq, bytes, &whole);
    }
}

// One piece of a pane's output to one client whose stream goes on from `next`: what it
// already has is skipped, a gap or too much queued gives the stream up. False when given up.
bool Server::deliverToClient(Client& client, uint64_t pane, uint64_t& next, uint64_t seq, const std::string& bytes,
                             std::string* whole) {
    uint64_t end = seq + bytes.size();
    if (end <= next && !bytes.empty()) return true; // already sent by the subscribe
    if (seq > next || client.pending() + bytes.size() > options_.paneQueueLimit) {
        resync(client, pane);
        return false;
    }
    if (seq < next) {
        enqueue(client, corvex::makeOutputFrame(pane, next, std::string_view(bytes).substr(next - seq)));
    } else if (whole) {
        if (whole->empty()) *whole = corvex::makeOutputFrame(pane, seq, bytes);
        enqueue(client, *whole);
    } else {
        enqueue(client, corvex::makeOutputFrame(pane, seq, bytes));
    }
    next = end;
    return true;
}

void Server::readFrom(Client& client) {
    static thread_local std::vector<char> storage(readChunk);
    char* buffer = storage.data();
    ssize_t count = ::recv(client.fd, buffer, readChunk, MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) {
        client.closing = true;
        return;
    }
    bool framed = client.parser.append(std::string_view(buffer, static_cast<size_t>(count)),
        [&](uint8_t type, std::string_view payload) {
            if (client.closing) return;
            if (client.decoding) client.waiting.emplace_back(type, payload);
            else handleFrame(client, type, payload);
        });
    if (!framed) client.closing = true;
}

void Server::handleFrame(Client& client, uint8_t type, std::string_view payload) {
    // A client counts once it has asked something: `start` probing the socket doesn't, or an
    // ephemeral daemon would leave as soon as it had started.
    servedAnyone_ = true;
    switch (static_cast<corvex::FrameType>(type)) {
    case corvex::FrameType::json:
        if (payload.size() >= options_.decodeAsideBytes) decodeAside(client, payload);
        else handleJSON(client, payload);
        break;
    case corvex::FrameType::input:
        if (auto input = corvex::parseInputPayload(payload); input && inputHandler_) {
            inputHandler_(client.id, input->pane, input->bytes);
        }
        break;
    default:
        // Kinds a client doesn't send, or doesn't send yet: room for new ones.
        if (auto handler = frameHandlers_.find(type); handler != frameHandlers_.end()) handler->second(client.id, payload);
        break;
    }
}

json Server::builtInMethod(Client& client, const std::string& name, MethodCall& call) {
    namespace protocol = corvex::protocol;
    if (name == protocol::HelloCall::name) return protocol::encodeResult<protocol::HelloCall>(hello());
    if (name == protocol::Ping::name) return protocol::encodeResult<protocol::Ping>({});
    if (name == protocol::StateGet::name) return protocol::encodeResult<protocol::StateGet>({});
    if (name == protocol::EventsSubscribe::name) {
        client.events = true;
        auto state = methods_.count(std::string(protocol::StateGet::name))
                         ? methods_[std::string(protocol::StateGet::name)](call)
                         : protocol::encodeResult<protocol::StateGet>({});
        call.framesAfterReply.push_back(
            corvex::makeJSONFrame(dump(protocol::eventEnvelope(protocol::event::state, std::move(state)))));
        return protocol::encodeResult<protocol::EventsSubscribe>({});
    }
    throw RequestError{"unknown_method", "unknown method " + name};
}

void Server::greet(Client& client, const json& params) {
    corvex::protocol::HelloCall asked;
    corvex::protocol::decodeParams(params, asked);
    int lowest = corvex::protocol::version, highest = corvex::protocol::version;
    if (asked.protocol < lowest || asked.protocol > highest) {
        throw RequestError{"unsupported_protocol", "protocol " + std::to_string(asked.protocol) +
                                                       " is not supported; this daemon speaks protocol " +
                                                       std::to_string(lowest) + " to " + std::to_string(highest)};
    }
    client.greeted = true;
}

corvex::Hello Server::hello() const {
    auto hello = corvex::sessionHello({"corvexd", options_.version, instance_, features_});
    hello.exe = options_.executable;
    hello.build = options_.buildId;
    if (options_.holder) {
        hello.holder = options_.holder;
        hello.holderOutdated = options_.holder->outdated.value_or(false);
        return hello;
    }
    corvex::Hello::Holder holder;
    holder.pid = hello.pid;
    holder.version = options_.version;
    holder.protocol = corvex::protocol::version;
    holder.exe = options_.executable;
    holder.build = options_.buildId;
    holder.canUpgrade = false;
    holder.outdated = false;
    hello.holder = holder;
    hello.holderOutdated = false;
    return hello;
}

void Server::handleJSON(Client& client, std::string_view text) { handleMessage(client, json::parse(text, nullptr, false)); }

void Server::decodeAside(Client& client, std::string_view text) {
    client.decoding = true;
    decoders_->detach([this, id = client.id, text = std::string(text)] {
        auto message = std::make_shared<json>(json::parse(text, nullptr, false));
        {
            std::lock_guard guard(decodedLock_);
            decoded_.emplace_back(id, std::move(message));
        }
        wake();
    });
}

// Serves each request parsed aside, then what its client sent after it, until another large
// one goes aside in turn. Runs from the serving loop itself, never inside another request.
void Server::serveDecoded() {
    std::vector<std::pair<ClientID, std::shared_ptr<json>>> ready;
    {
        std::lock_guard guard(decodedLock_);
        ready.swap(decoded_);
    }
    for (auto& [id, message] : ready) {
        Client* found = client(id);
        if (!found) continue;
        found->decoding = false;
        if (!found->closing) handleMessage(*found, *message);
        message.reset();
        while (!found->decoding && !found->closing && !found->waiting.empty()) {
            auto [type, payload] = std::move(found->waiting.front());
            found->waiting.pop_front();
            handleFrame(*found, type, payload);
        }
    }
}

void Server::handleMessage(Client& client, const json& message) {
    auto id = message.is_object() ? requestID(message) : std::nullopt;
    auto method = message.is_object() ? message.find("method") : message.end();
    auto params = message.is_object() ? message.find("params") : message.end();
    static const json noParams = json::object();
    if (!id) {
        auto notification = method != message.end() && method->is_string()
                                ? notifications_.find(method->get<std::string>())
                                : notifications_.end();
        if (notification == notifications_.end() || message.contains("id")) {
            client.closing = true;
            return;
        }
        notification->second(client.id, params != message.end() && params->is_object() ? *params : noParams);
        return;
    }
    MethodCall call{client.id, params != message.end() && params->is_object() ? *params : noParams, {}, *id};
    json reply;
    auto fail = [&](std::string_view code, std::string_view message) {
        reply = corvex::protocol::errorEnvelope(*id, code, message);
        call.framesAfterReply.clear();
    };
    try {
        if (method == message.end() || !method->is_string()) throw RequestError{"bad_request", "a request needs a method"};
        if (params != message.end() && !params->is_object() && !params->is_null()) {
            throw RequestError{"bad_request", "params must be an object"};
        }
        const std::string& name = method->get_ref<const std::string&>();
        if (name == corvex::protocol::HelloCall::name) {
            greet(client, call.params);
        } else if (!client.greeted) {
            throw RequestError{"bad_request", "the first request must be hello"};
        }
        auto handler = methods_.find(name);
        json result = handler != methods_.end() ? handler->second(call) : builtInMethod(client, name, call);
        if (call.deferred) return;
        reply = corvex::protocol::resultEnvelope(*id, std::move(result));
    } catch (const RequestError& error) {
        fail(error.code, error.message);
    } catch (const corvex::BackendError& error) {
        fail(error.code(), error.message());
    } catch (const json::exception& error) {
        // A handler read a param of the wrong shape.
        fail("bad_request", error.what());
    } catch (const corvex::DecodingError& error) {
        fail("bad_request", error.what());
    } catch (const std::exception& error) {
        // One request failed; the daemon and its other clients go on.
        fail("internal", error.what());
    }
    enqueue(client, corvex::makeJSONFrame(dump(reply)));
    for (auto& frame : call.framesAfterReply) enqueue(client, std::move(frame));
}

// A peer that has closed its end may still have requests in our receive buffer: they are
// carried out, and their replies go nowhere.
void Server::dropOutput(Client& client) {
    client.writeBroken = true;
    client.out.clear();
    client.sent = 0;
}

void Server::enqueue(Client& client, std::string frame) {
    if (client.closing || client.writeBroken) return;
    if (client.pending() + frame.size() > options_.clientQueueLimit) {
        client.closing = true;
        return;
    }
    if (client.sent > 0 && client.sent * 2 >= client.out.size()) {
        client.out.erase(0, client.sent);
        client.sent = 0;
    }
    client.out += frame;
    flush(client);
}

void Server::flush(Client& client) {
    while (client.pending() > 0) {
        ssize_t count = ::send(client.fd, client.out.data() + client.sent, client.pending(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN) dropOutput(client);
            return;
        }
        client.sent += static_cast<size_t>(count);
    }
    client.out.clear();
    client.sent = 0;
}

} // namespace corvexd
