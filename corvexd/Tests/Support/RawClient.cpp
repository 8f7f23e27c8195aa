#include "Support/RawClient.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace corvexd::testing {

RawClient::RawClient(const std::string& socketPath, std::chrono::milliseconds patience, Greeting greeting) {
    connect(socketPath, patience);
    if (fd_ < 0 || greeting == Greeting::none) return;
    request("hello", {{"protocol", 1}, {"client", "tests"}});
    replies_.clear(); // tests count the replies to their own requests
}

void RawClient::connect(const std::string& socketPath, std::chrono::milliseconds patience) {
    auto deadline = std::chrono::steady_clock::now() + patience;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof(address.sun_path) - 1);
    while (true) {
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            fd_ = fd;
            return;
        }
        ::close(fd);
        if (std::chrono::steady_clock::now() >= deadline) return;
        std::this_thread::sleep_for(10ms);
    }
}

RawClient::~RawClient() {
    if (fd_ >= 0) ::close(fd_);
}

bool RawClient::sendBytes(const std::string& bytes) {
    size_t at = 0;
    while (at < bytes.size()) {
        ssize_t count = ::send(fd_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        at += static_cast<size_t>(count);
    }
    return true;
}

bool RawClient::sendJSON(const json& message) { return sendBytes(corvex::makeJSONFrame(message.dump())); }

bool RawClient::pump(std::chrono::milliseconds timeout) {
    if (closed_ || fd_ < 0) return false;
    pollfd fds{fd_, POLLIN, 0};
    if (::poll(&fds, 1, static_cast<int>(timeout.count())) <= 0) return false;
    char buffer[65536];
    ssize_t count = ::recv(fd_, buffer, sizeof(buffer), 0);
    if (count <= 0) {
        closed_ = true;
        return false;
    }
    bool ok = parser_.append(std::string_view(buffer, static_cast<size_t>(count)), [&](uint8_t type, std::string_view payload) {
        if (type == static_cast<uint8_t>(corvex::FrameType::output)) {
            if (auto output = corvex::parseOutputPayload(payload)) {
                outputs_.push_back({output->pane, output->seq, std::string(output->bytes), replies_.size()});
            }
            return;
        }
        if (type == static_cast<uint8_t>(corvex::FrameType::snapshot)) {
            if (auto snapshot = corvex::parseSnapshotPayload(payload)) {
                snapshots_.push_back({snapshot->pane, snapshot->seq, snapshot->cols, snapshot->rows,
                                      std::string(snapshot->bytes)});
            }
            return;
        }
        if (type != static_cast<uint8_t>(corvex::FrameType::json)) return;
        json message = json::parse(payload, nullptr, false);
        if (message.contains("id")) {
            replies_.push_back(message);
        } else {
            events_.push_back(message);
        }
    });
    if (!ok) closed_ = true;
    return ok;
}

std::optional<json> RawClient::request(const std::string& method, const json& params, std::chrono::milliseconds timeout,
                                       const std::string& following) {
    int64_t id = nextID_++;
    json message = {{"id", id}, {"method", method}};
    if (!params.is_null()) message["params"] = params;
    if (!sendBytes(corvex::makeJSONFrame(message.dump()) + following)) return std::nullopt;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        for (const auto& reply : replies_) {
            if (reply["id"] == id) return reply;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= 0ms || closed_) return std::nullopt;
        pump(left);
    }
}

std::optional<json> RawClient::nextEvent(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (events_.empty()) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= 0ms || closed_) return std::nullopt;
        pump(left);
    }
    json event = events_.front();
    events_.pop_front();
    return event;
}

std::string RawClient::outputOf(uint64_t pane) const {
    std::string out;
    for (const auto& output : outputs_) {
        if (output.pane == pane) out += output.bytes;
    }
    return out;
}

bool RawClient::untilOutput(uint64_t pane, const std::string& text, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (outputOf(pane).find(text) == std::string::npos) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= 0ms || closed_) return false;
        pump(left);
    }
    return true;
}

bool RawClient::closedByPeer(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!closed_) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= 0ms) return false;
        pump(left);
    }
    return true;
}

} // namespace corvexd::testing
