#include "SerialQueue.h"

#include <future>
#include <pthread.h>

namespace platform {

void setCurrentThreadName(const std::string& name) {
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
}

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)) {
    thread_ = std::thread([this] { run(); });
}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard guard(mutex_);
        stopping_ = true;
    }
    ready_.notify_one();
    if (thread_.joinable()) thread_.join();
}

void SerialQueue::async(std::function<void()> work) {
    {
        std::lock_guard guard(mutex_);
        work_.push_back(std::move(work));
    }
    ready_.notify_one();
}

void SerialQueue::sync(const std::function<void()>& work) {
    std::promise<void> done;
    async([&] {
        work();
        done.set_value();
    });
    done.get_future().wait();
}

bool SerialQueue::isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

void SerialQueue::run() {
    setCurrentThreadName(label_);
    for (;;) {
        std::function<void()> next;
        {
            std::unique_lock guard(mutex_);
            ready_.wait(guard, [&] { return stopping_ || !work_.empty(); });
            if (work_.empty()) return;
            next = std::move(work_.front());
            work_.pop_front();
        }
        next();
    }
}

} // namespace platform
