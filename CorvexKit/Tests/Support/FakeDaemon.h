#pragma once

#include <atomic>
#include <functional>
#include <shared_mutex>
#include <utility>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/Channel.h"

namespace corvex::testing {

// One accepted client connection of the fake daemon, seen from the daemon's side.
class FakePeer {
public:
    explicit FakePeer(int fd, int index) : fd_(fd), index_(index) {}
    ~FakePeer();

    int index() const { return index_; }
    void sendRaw(const std::string& bytes);
    void sendJSON(const nlohmann::json& object);
    void reply(int64_t id, const nlohmann::json& result);
    void replyError(int64_t id, const std::string& code, const std::string& message);
    void event(const std::string& name, const nlohmann::json& data);
    // Ends the connection from the daemon's side.
    void close();
    int fd() const { return fd_; }

private:
    int fd_;
    int index_;
    std::mutex writeLock_;
};

struct ReceivedRequest {
    int connection = 0;
    int64_t id = 0;
    std::string method;
    nlohmann::json params;
};

// A stand-in daemon on a real Unix socket. It answers hello, events.subscribe, ping and
// pane.subscribe on its own; a test's handler sees every request first and may answer,
// stay silent, or misbehave on purpose. Everything the clients sent is recorded.
class FakeDaemon {
public:
    // True when the handler dealt with the request (answering it or not).
    using Handler = std::function<bool(FakePeer& peer, const ReceivedRequest& request)>;

    explicit FakeDaemon(std::string socketPath);
    ~FakeDaemon();

    void listen();
    // Closes the listening socket and removes its path: later connects fail.
    void stopListening();

    const std::string& socketPath() const { return socketPath_; }

    // Removes the handler when it goes, waiting for a call in progress: declared after what
    // the handler captures, it keeps the daemon's threads from reaching a finished test.
    class [[nodiscard]] HandlerScope {
    public:
        explicit HandlerScope(FakeDaemon& daemon) : daemon_(&daemon) {}
        HandlerScope(HandlerScope&& other) noexcept : daemon_(std::exchange(other.daemon_, nullptr)) {}
        HandlerScope(const HandlerScope&) = delete;
        HandlerScope& operator=(const HandlerScope&) = delete;
        ~HandlerScope() {
            if (daemon_) daemon_->clearHandler();
        }

    private:
        FakeDaemon* daemon_;
    };

    HandlerScope setHandler(Handler handler);
    void clearHandler();
    void setHello(nlohmann::json hello);
    void setStateOnSubscribe(std::optional<nlohmann::json> state);

    // The next connection accepted, waiting up to a few seconds.
    std::shared_ptr<FakePeer> nextConnection();
    // The next request of that method (others are skipped), waiting up to a few seconds.
    std::optional<ReceivedRequest> nextRequest(const std::string& method);
    std::vector<ReceivedRequest> requests() const;
    int connectionCount() const { return connectionCount_; }
    int inputFrames() const { return inputFrames_; }
    // The bytes of every input frame, by pane, in arrival order.
    std::map<uint64_t, std::string> input() const;
    // File-data frames as they came, and the messages sent without a request id.
    struct FileData {
        uint64_t stream = 0;
        uint64_t offset = 0;
        bool fin = false;
        std::string bytes;
    };
    std::vector<FileData> fileData() const;
    std::vector<nlohmann::json> notifications() const;

    static nlohmann::json defaultHello(const std::string& instance = "A");

private:
    void acceptLoop(int listener);
    void serve(std::shared_ptr<FakePeer> peer);
    void handle(FakePeer& peer, const ReceivedRequest& request);

    std::string socketPath_;
    mutable std::mutex mutex_;
    int listener_ = -1;
    std::thread acceptThread_;
    std::vector<std::thread> serveThreads_;
    std::vector<std::shared_ptr<FakePeer>> peers_;
    std::shared_mutex handlerLock_; // held shared while a handler runs
    Handler handler_;
    nlohmann::json hello_ = defaultHello();
    std::optional<nlohmann::json> stateOnSubscribe_;
    std::vector<ReceivedRequest> requests_;
    platform::Channel<ReceivedRequest> requestFeed_;
    platform::Channel<std::shared_ptr<FakePeer>> connectionFeed_;
    std::atomic<int> connectionCount_{0};
    std::atomic<int> inputFrames_{0};
    std::map<uint64_t, std::string> input_;
    std::vector<FileData> fileData_;
    std::vector<nlohmann::json> notifications_;
    bool stopping_ = false;
};

} // namespace corvex::testing
