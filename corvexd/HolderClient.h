#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>

#include "CorvexSession/LocalPaneHost.h"
#include "corvexd/HolderProtocol.h"

namespace corvexd {

// Who the holder is, as it says in its hello.
struct HolderInfo {
    int protocol = 0;
    std::string build;
    std::string version;
    pid_t pid = 0;
    std::string executable;
};

// Asks the runtime folder's holder who it is, without serving through it; absent when none
// answers.
std::optional<HolderInfo> probeHolder(const std::string& runtimeDirectory);

// The serving process's side of the holder: panes' programs are started by the holder, which
// stays their parent, and their masters come back to be read here. One reader thread takes the
// holder's replies and its reports of programs that ended.
class HolderClient : public corvex::PaneProgramSource, public std::enable_shared_from_this<HolderClient> {
public:
    // Connects to the runtime folder's holder, which must run; raises DaemonError.
    static std::shared_ptr<HolderClient> connect(const std::string& runtimeDirectory);
    ~HolderClient() override;
    HolderClient(const HolderClient&) = delete;
    HolderClient& operator=(const HolderClient&) = delete;

    const HolderInfo& info() const { return info_; }

    std::optional<corvex::HeldProgram> start(const corvex::PaneLaunch& launch) override;
    std::optional<corvex::HeldProgram> take(uint64_t pane) override;
    // The next serving process will come for the programs: the holder keeps them when we go.
    void announceHandOver();
    // The shells end with this server.
    void quit();

private:
    explicit HolderClient(int fd) : fd_(fd) {}
    void readReplies();
    std::optional<holder::Message> request(const std::vector<std::string>& fields);
    corvex::HeldProgram program(uint64_t pane, pid_t pid, int master);
    std::optional<int> waitForStatus(uint64_t pane);

    int fd_;
    HolderInfo info_;
    std::thread reader_;
    std::mutex requestLock_; // one request at a time; taken before lock_
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<holder::Message> replies_;
    std::map<uint64_t, std::optional<int>> ended_; // pane to raw wait status
    bool closed_ = false;
};

} // namespace corvexd
