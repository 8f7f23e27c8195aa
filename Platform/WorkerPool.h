#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace platform {

// A few threads for detached work: transport opens, reconnect loops, heartbeats, commands.
// Work may block; the pool grows up to its limit when every thread is busy.
class WorkerPool {
public:
    explicit WorkerPool(size_t maxThreads = 16, std::string label = "corvex.worker");
    ~WorkerPool();

    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void detach(std::function<void()> work);
    // Waits until every queued and running piece of work has finished.
    void waitIdle();

    // The process-wide pool.
    static WorkerPool& shared();

private:
    void run();

    size_t maxThreads_;
    std::string label_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::condition_variable idle_;
    std::deque<std::function<void()>> work_;
    std::vector<std::thread> threads_;
    size_t busy_ = 0;
    bool stopping_ = false;
};

} // namespace platform
