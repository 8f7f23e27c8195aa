#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace platform {

// One named thread running submitted work in FIFO order. The destructor runs what was
// already queued, then joins the thread.
class SerialQueue {
public:
    explicit SerialQueue(std::string label);
    ~SerialQueue();

    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    void async(std::function<void()> work);
    // Runs the work on the queue and waits for it. Must not be called from the queue itself.
    void sync(const std::function<void()>& work);
    bool isCurrent() const;
    const std::string& label() const { return label_; }

private:
    void run();

    std::string label_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::function<void()>> work_;
    bool stopping_ = false;
    std::thread thread_;
};

// Names the calling thread; Linux keeps the first 15 bytes.
void setCurrentThreadName(const std::string& name);

} // namespace platform
