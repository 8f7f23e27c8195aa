#include "WorkerPool.h"

#include "SerialQueue.h"

namespace platform {

WorkerPool::WorkerPool(size_t maxThreads, std::string label)
    : maxThreads_(maxThreads == 0 ? 1 : maxThreads), label_(std::move(label)) {}

WorkerPool::~WorkerPool() {
    {
        std::lock_guard guard(mutex_);
        stopping_ = true;
    }
    ready_.notify_all();
    for (auto& thread : threads_) thread.join();
}

WorkerPool& WorkerPool::shared() {
    static WorkerPool pool;
    return pool;
}

void WorkerPool::detach(std::function<void()> work) {
    {
        std::lock_guard guard(mutex_);
        work_.push_back(std::move(work));
        size_t idleThreads = threads_.size() - busy_;
        if (idleThreads < work_.size() && threads_.size() < maxThreads_) {
            threads_.emplace_back([this] { run(); });
        }
    }
    ready_.notify_one();
}

void WorkerPool::waitIdle() {
    std::unique_lock guard(mutex_);
    idle_.wait(guard, [&] { return work_.empty() && busy_ == 0; });
}

void WorkerPool::run() {
    setCurrentThreadName(label_);
    std::unique_lock guard(mutex_);
    for (;;) {
        ready_.wait(guard, [&] { return stopping_ || !work_.empty(); });
        if (work_.empty()) return;
        auto next = std::move(work_.front());
        work_.pop_front();
        ++busy_;
        guard.unlock();
        next();
        next = nullptr;
        guard.lock();
        --busy_;
        if (work_.empty() && busy_ == 0) idle_.notify_all();
    }
}

} // namespace platform
