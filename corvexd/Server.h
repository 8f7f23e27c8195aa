#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace corvexd {

struct ServerOptions {
    std::string socketPath;
    std::string version;
    std::string buildId;
    std::string executable;
    // Leave when the last client has gone (after at least one came).
    bool ephemeral = false;
    // A descriptor that becomes readable when the daemon should end (a signalfd), or -1.
    int stopFd = -1;
    // Bytes a client may have waiting to be sent before it is given up on.
    size_t clientQueueLimit = 16u << 20;
};

// The protocol server: one thread polls the listening socket and every client. Sockets are
// non-blocking and each client has its own bounded queue of outgoing bytes, so a client that
// stops reading can only lose itself. A client that breaks the framing or sends something
// that isn't a request is closed alone.
class Server {
public:
    // Binds and listens; raises DaemonError.
    explicit Server(ServerOptions options);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Serves until stop() or the stop descriptor fires; then closes every client.
    void run();
    // From any thread.
    void stop();
    // Runs work on the serving thread; from any thread.
    void post(std::function<void()> work);

    const std::string& instance() const { return instance_; }

private:
    struct Client;

    void acceptClients();
    void readFrom(Client& client);
    void handleFrame(Client& client, uint8_t type, std::string_view payload);
    void handleJSON(Client& client, std::string_view text);
    void flush(Client& client);
    void enqueue(Client& client, std::string frame);
    void closeClient(uint64_t id);
    void runPosted();
    void wake();

    ServerOptions options_;
    std::string instance_;
    int listenFd_ = -1;
    int wakeFd_ = -1;
    bool stopping_ = false;
    bool servedAnyone_ = false;
    uint64_t nextClientID_ = 1;
    std::map<uint64_t, std::unique_ptr<Client>> clients_;

    std::mutex postedLock_;
    std::vector<std::function<void()>> posted_;
    bool stopRequested_ = false; // under postedLock_
};

} // namespace corvexd
