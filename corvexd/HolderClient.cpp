#include "corvexd/HolderClient.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "corvexd/RuntimeDirectory.h"

namespace corvexd {

namespace {

// How long a pane waits for the holder's word on how its program ended, after the program
// has gone: the holder reaps at once, so this only bounds a holder that has gone too.
constexpr auto statusTimeout = std::chrono::seconds(10);
constexpr auto replyTimeout = std::chrono::seconds(10);

int connectHolder(const std::string& runtimeDirectory) {
    std::string path = holder::socketPath(runtimeDirectory);
    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

std::optional<HolderInfo> parseHello(const std::optional<holder::Message>& message) {
    if (!message || message->fields.size() < 6 || message->fields[0] != "hello") return std::nullopt;
    HolderInfo info;
    try {
        info.protocol = std::stoi(message->fields[1]);
        info.pid = static_cast<pid_t>(std::stol(message->fields[4]));
    } catch (const std::exception&) {
        return std::nullopt;
    }
    info.build = message->fields[2];
    info.version = message->fields[3];
    info.executable = message->fields[5];
    return info;
}

} // namespace

std::optional<HolderInfo> probeHolder(const std::string& runtimeDirectory) {
    int fd = connectHolder(runtimeDirectory);
    if (fd < 0) return std::nullopt;
    timeval timeout{5, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    std::optional<holder::Message> reply;
    if (holder::send(fd, {"probe"})) reply = holder::receive(fd);
    ::close(fd);
    return parseHello(reply);
}

std::shared_ptr<HolderClient> HolderClient::connect(const std::string& runtimeDirectory) {
    int fd = connectHolder(runtimeDirectory);
    if (fd < 0) throw DaemonError("can't reach the holder: " + std::string(std::strerror(errno)));
    std::shared_ptr<HolderClient> client(new HolderClient(fd));
    client->reader_ = std::thread([raw = client.get()] { raw->readReplies(); });
    auto hello = parseHello(client->request({"hello"}));
    if (!hello) throw DaemonError("the holder didn't say who it is");
    client->info_ = *hello;
    return client;
}

HolderClient::~HolderClient() {
    ::shutdown(fd_, SHUT_RDWR);
    if (reader_.joinable()) reader_.join();
    ::close(fd_);
    for (auto& reply : replies_) {
        if (reply.descriptor >= 0) ::close(reply.descriptor);
    }
}

void HolderClient::readReplies() {
    for (;;) {
        auto message = holder::receive(fd_);
        std::lock_guard guard(lock_);
        if (!message) {
            closed_ = true;
            changed_.notify_all();
            return;
        }
        if (message->fields[0] == "exited" && message->fields.size() == 3) {
            try {
                ended_[std::stoull(message->fields[1])] = std::stoi(message->fields[2]);
            } catch (const std::exception&) {
            }
        } else {
            replies_.push_back(std::move(*message));
        }
        changed_.notify_all();
    }
}

std::optional<holder::Message> HolderClient::request(const std::vector<std::string>& fields) {
    std::lock_guard serial(requestLock_);
    if (!holder::send(fd_, fields)) return std::nullopt;
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, replyTimeout, [&] { return !replies_.empty() || closed_; });
    if (replies_.empty()) return std::nullopt;
    auto reply = std::move(replies_.front());
    replies_.pop_front();
    return reply;
}

std::optional<corvex::HeldProgram> HolderClient::start(const corvex::PaneLaunch& launch) {
    int cols = launch.size.cols > 0 ? launch.size.cols : 80;
    int rows = launch.size.rows > 0 ? launch.size.rows : 24;
    std::vector<std::string> fields{"spawn", std::to_string(launch.pane), launch.launch.executable, launch.cwd,
                                    std::to_string(cols), std::to_string(rows),
                                    std::to_string(launch.launch.args.size() + 1),
                                    launch.launch.argv0.value_or(launch.launch.executable)};
    fields.insert(fields.end(), launch.launch.args.begin(), launch.launch.args.end());
    for (const auto& [key, value] : launch.environment) fields.push_back(key + "=" + value);
    auto reply = request(fields);
    if (!reply || reply->fields[0] != "spawned" || reply->fields.size() != 2 || reply->descriptor < 0) {
        if (reply && reply->descriptor >= 0) ::close(reply->descriptor);
        return std::nullopt;
    }
    return program(launch.pane, static_cast<pid_t>(std::stol(reply->fields[1])), reply->descriptor);
}

std::optional<corvex::HeldProgram> HolderClient::take(uint64_t pane) {
    auto reply = request({"take", std::to_string(pane)});
    if (!reply || reply->fields[0] != "held" || reply->fields.size() != 3 || reply->descriptor < 0) {
        if (reply && reply->descriptor >= 0) ::close(reply->descriptor);
        return std::nullopt;
    }
    // A program that ended while no server ran is reported by the reply itself.
    if (!reply->fields[2].empty()) {
        std::lock_guard guard(lock_);
        ended_[pane] = std::stoi(reply->fields[2]);
    }
    return program(pane, static_cast<pid_t>(std::stol(reply->fields[1])), reply->descriptor);
}

corvex::HeldProgram HolderClient::program(uint64_t pane, pid_t pid, int master) {
    std::weak_ptr<HolderClient> weak = weak_from_this();
    corvex::HeldProgram held;
    held.pid = pid;
    held.master = master;
    held.status = [weak, pane]() -> std::optional<int> {
        auto self = weak.lock();
        return self ? self->waitForStatus(pane) : std::nullopt;
    };
    held.release = [weak, pane] {
        auto self = weak.lock();
        if (!self) return;
        {
            std::lock_guard guard(self->lock_);
            self->ended_.erase(pane);
        }
        holder::send(self->fd_, {"release", std::to_string(pane)});
    };
    return held;
}

std::optional<int> HolderClient::waitForStatus(uint64_t pane) {
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, statusTimeout, [&] { return ended_.count(pane) > 0 || closed_; });
    auto found = ended_.find(pane);
    return found == ended_.end() ? std::nullopt : found->second;
}

void HolderClient::announceHandOver() { holder::send(fd_, {"handover"}); }

void HolderClient::quit() { holder::send(fd_, {"quit"}); }

} // namespace corvexd
