#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <set>
#include <string_view>
#include <thread>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "CorvexKit/SessionBackend.h"

namespace platform {
class WorkerPool;
}

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
    // The identity of this daemon run; empty makes a new one. A server that takes over from
    // the one it replaces keeps its instance, so that clients keep their positions.
    std::string instance;
    // Asked once when serving ends: true when this server goes for another that takes its
    // clients over, which then aren't told that the daemon shuts down.
    std::function<bool()> handingOver;
    // The process that keeps the shells, as hello reports it; absent when this one does.
    std::optional<corvex::Hello::Holder> holder;
    // Bytes a client may have waiting to be sent before it is given up on.
    size_t clientQueueLimit = 32u << 20;
    // Bytes waiting beyond which a client's pane streams are given up with "pane.resync".
    size_t paneQueueLimit = 8u << 20;
    // Bytes waiting for a pane subscriber beyond which pane output is held back for it.
    size_t outputHighWater = 1u << 20;
    // How long a subscriber may stay over the high-water mark before its streams are given up.
    std::chrono::milliseconds stallTimeout{2000};
    // JSON frames at least this large are parsed off the serving thread.
    size_t decodeAsideBytes = 64u << 10;
};

using ClientID = uint64_t;

// What a method handler gets: the asking client, its params (an object, empty when absent),
// and room for frames that must follow the reply, such as a subscription's first bytes.
struct MethodCall {
    ClientID client = 0;
    const nlohmann::json& params;
    std::vector<std::string> framesAfterReply;
    // The request's id. A handler that answers later, from other work, sets `deferred`; its
    // result is then dropped and the reply is its own to send with sendFrames.
    uint64_t requestID = 0;
    bool deferred = false;
};

// Raised by a method handler for an error reply.
struct MethodError {
    std::string code;
    std::string message;
};

// Handlers run on the serving thread and return the reply's result.
using MethodHandler = std::function<nlohmann::json(MethodCall&)>;

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

    // The session layer plugs in here, before run(). A method of the same name as a built-in
    // one replaces it.
    void addMethod(const std::string& name, MethodHandler handler);
    void setInputHandler(std::function<void(ClientID, uint64_t pane, std::string_view bytes)> handler);
    void setClientGoneHandler(std::function<void(ClientID)> handler);
    // Further listeners for a client's going, beside the one above.
    void addClientGoneHandler(std::function<void(ClientID)> handler);
    // A message with a method and no request id: nothing is answered. Names without a handler
    // close the client, as before.
    void addNotification(const std::string& name, std::function<void(ClientID, const nlohmann::json& params)> handler);
    // Frames of a binary kind the server itself doesn't read, such as file data.
    void setFrameHandler(uint8_t type, std::function<void(ClientID, std::string_view payload)> handler);
    // From any thread: frames for one client, in order; dropped when it has gone.
    void sendFrames(ClientID client, std::vector<std::string> frames);
    // The features announced in hello, beyond "ping".
    void addFeatures(const std::vector<std::string>& names);

    // Serving thread only: pane output for `client` starts or stops. Output published for a
    // pane goes to every client subscribed to it.
    // `from` is the position of the first byte the client is still owed: output published
    // before it is skipped, so a stream never repeats a byte the subscribe already sent.
    void subscribePane(ClientID client, uint64_t pane, uint64_t from);
    void unsubscribePane(ClientID client, uint64_t pane);

    // Serving thread only: `client`'s stream of `pane` begins, while what opens it (a
    // snapshot, a replay) is made on another thread. Output and events published for the pane
    // meanwhile are held for the client. Returns the opening's token for releasePane.
    uint64_t holdPane(ClientID client, uint64_t pane);
    // From any thread: the opening is made. The subscribe's `reply` goes out (none when
    // empty), then the `opening` frames and what was held from position `from` on, and the
    // stream is live. Without `from` (the pane has gone) the stream closes and only the reply
    // goes; so too when an unsubscribe or a newer opening has taken the token's place.
    void releasePane(ClientID client, uint64_t pane, uint64_t token, std::string reply, std::vector<std::string> opening,
                     std::optional<uint64_t> from);

    // A pane stream given up with "pane.resync" comes back by itself once the client has
    // read everything queued for it: the server holds the stream and calls the reopener on
    // the serving thread, which later releases it with the frames that open it again (a
    // snapshot first) and the position its live stream goes on from.
    void setStreamReopener(std::function<void(ClientID, uint64_t pane, uint64_t token)> reopener);

    // From any thread. An event goes to every client that asked for events; pane output to
    // the pane's subscribers, in the order published. A client whose queue passes the pane
    // bound loses that pane's stream with "pane.resync" instead of holding up anyone.
    void broadcastEvent(const std::string& name, nlohmann::json data);
    void publishOutput(uint64_t pane, uint64_t seq, std::string bytes);
    // Told, on the serving thread, the size of each published output once it has gone to the
    // subscribers' queues: the session's output budget is given back.
    void setOutputReleased(std::function<void(size_t)> released);
    // An event for the pane's subscribers, in order with its output.
    void publishPaneEvent(uint64_t pane, const std::string& name, nlohmann::json data);

private:
    struct Client;

    void acceptClients();
    void readFrom(Client& client);
    void handleFrame(Client& client, uint8_t type, std::string_view payload);
    void handleJSON(Client& client, std::string_view text);
    void handleMessage(Client& client, const nlohmann::json& message);
    // A large request is parsed on a worker; the client's later frames wait behind it, and
    // everyone else is served meanwhile.
    void decodeAside(Client& client, std::string_view text);
    void serveDecoded();
    nlohmann::json builtInMethod(Client& client, const std::string& name, MethodCall& call);
    corvex::Hello hello() const;
    void flush(Client& client);
    void enqueue(Client& client, std::string frame);
    void dropOutput(Client& client);
    // Checks the protocol a hello asks for; raises MethodError when it isn't served.
    void greet(Client& client, const nlohmann::json& params);
    void closeClient(uint64_t id);
    void announceShutdown();
    void runPosted();
    bool drainPosted();
    void post(std::function<void()> work, bool output);
    // Runs at once when called on the serving thread (after what others posted before it,
    // so the order of events holds), else posts.
    void deliver(std::function<void()> work, bool output = false);
    bool outputHeld() const;
    bool anyBackedUp() const;
    void releaseStalledClients();
    void wake();
    void deliverToPane(uint64_t pane, uint64_t seq, const std::string& bytes);
    bool deliverToClient(Client& client, uint64_t pane, uint64_t& next, uint64_t seq, const std::string& bytes,
                         std::string* whole);
    void resync(Client& client, uint64_t pane);
    void reopenLostStreams();
    Client* client(ClientID id);

    ServerOptions options_;
    std::string instance_;
    int listenFd_ = -1;
    int wakeFd_ = -1;
    bool acceptPaused_ = false; // no descriptor was free for the last connection
    bool stopping_ = false;
    std::thread::id serveThread_;
    bool servedAnyone_ = false;
    uint64_t nextClientID_ = 1;
    std::map<uint64_t, std::unique_ptr<Client>> clients_;
    std::map<std::string, MethodHandler> methods_;
    std::function<void(ClientID, uint64_t, std::string_view)> inputHandler_;
    std::function<void(ClientID)> clientGoneHandler_;
    std::vector<std::function<void(ClientID)>> goneHandlers_;
    std::map<std::string, std::function<void(ClientID, const nlohmann::json&)>> notifications_;
    std::map<uint8_t, std::function<void(ClientID, std::string_view)>> frameHandlers_;
    std::function<void(ClientID, uint64_t, uint64_t)> reopener_;
    uint64_t nextOpening_ = 1;
    std::vector<std::string> features_{"ping"};

    std::function<void(size_t)> outputReleased_;
    std::mutex decodedLock_;
    std::vector<std::pair<ClientID, std::shared_ptr<nlohmann::json>>> decoded_; // under decodedLock_
    std::unique_ptr<platform::WorkerPool> decoders_; // after what its work touches, so it ends first

    struct Posted {
        std::function<void()> work;
        bool output = false; // pane output, which waits while a subscriber is backed up
    };
    std::mutex postedLock_;
    std::deque<Posted> posted_;
    bool stopRequested_ = false; // under postedLock_
};

} // namespace corvexd
