#include "Vellum/RenderLoop.h"

#include <pthread.h>

namespace vellum {

RenderLoop::RenderLoop(std::function<void()> onRender) : onRender_(std::move(onRender)) {
    thread_ = std::thread([this] { run(); });
}

RenderLoop::~RenderLoop() { stop(); }

void RenderLoop::signal() {
    {
        std::lock_guard lock(mutex_);
        ++counters_.signals;
        if (pending_) ++counters_.coalesced;
        pending_ = true;
    }
    wake_.notify_one();
}

void RenderLoop::stop() {
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

RenderLoop::Counters RenderLoop::counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
}

void RenderLoop::run() {
    pthread_setname_np(pthread_self(), "vellum-render");
    std::unique_lock lock(mutex_);
    while (true) {
        wake_.wait(lock, [&] { return pending_ || stopped_; });
        if (stopped_) return;
        pending_ = false;
        ++counters_.frames;
        lock.unlock();
        onRender_();
        lock.lock();
    }
}

} // namespace vellum
