#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "CorvexKit/FrameParser.h"

namespace corvexd::testing {

using nlohmann::json;
using namespace std::chrono_literals;

// A client speaking frames over a plain socket, for the tests that need to misbehave.
class RawClient {
public:
    // Whether the client opens with hello, as every well-behaved client does.
    enum class Greeting { hello, none };
    // Connects, retrying while the daemon comes up, and says hello unless told not to.
    explicit RawClient(const std::string& socketPath, std::chrono::milliseconds patience = 10s,
                       Greeting greeting = Greeting::hello);
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    // For a test that closed the descriptor itself.
    void forgetDescriptor() { fd_ = -1; }

    bool sendBytes(const std::string& bytes);
    bool sendJSON(const json& message);
    // Sends a request and waits for its reply; events seen meanwhile are kept. Absent on
    // timeout or a closed connection. `following`: frames sent right behind the request.
    std::optional<json> request(const std::string& method, const json& params = nullptr,
                                std::chrono::milliseconds timeout = 10s, const std::string& following = {});
    // The next event (or queued one); absent on timeout or close.
    std::optional<json> nextEvent(std::chrono::milliseconds timeout = 10s);
    // True when the daemon closes the connection within the timeout (reading what comes).
    bool closedByPeer(std::chrono::milliseconds timeout = 10s);
    struct Output {
        uint64_t pane = 0;
        uint64_t seq = 0;
        std::string bytes;
        size_t afterReplies = 0; // replies received before this frame
    };
    // Output frames received so far, in order.
    const std::vector<Output>& outputs() const { return outputs_; }
    struct Snapshot {
        uint64_t pane = 0;
        uint64_t seq = 0;
        int cols = 0;
        int rows = 0;
        std::string bytes;
    };
    const std::vector<Snapshot>& snapshots() const { return snapshots_; }
    // All output bytes received for a pane, in order.
    std::string outputOf(uint64_t pane) const;
    // Reads until the pane's output holds `text`; false on timeout or close.
    bool untilOutput(uint64_t pane, const std::string& text, std::chrono::milliseconds timeout = 10s);
    // Reads whatever arrives within the timeout.
    void drain(std::chrono::milliseconds timeout) { while (pump(timeout)) {} }
    // JSON frames received so far that were replies, in order.
    const std::vector<json>& replies() const { return replies_; }
    bool closed() const { return closed_; }

private:
    void connect(const std::string& socketPath, std::chrono::milliseconds patience);
    // Reads once (waiting up to `timeout`); false on close or timeout.
    bool pump(std::chrono::milliseconds timeout);

    int fd_ = -1;
    int64_t nextID_ = 1;
    bool closed_ = false;
    corvex::FrameParser parser_;
    std::deque<json> events_;
    std::vector<json> replies_;
    std::vector<Output> outputs_;
    std::vector<Snapshot> snapshots_;
};

} // namespace corvexd::testing
