#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace vellum {

// A thread of its own that runs `onRender` once per signal; signals that arrive while a render
// runs are folded into one more render.
class RenderLoop {
public:
    struct Counters {
        uint64_t signals = 0, frames = 0, coalesced = 0;
    };

    explicit RenderLoop(std::function<void()> onRender);
    ~RenderLoop(); // stops and joins

    void signal();
    void stop();
    Counters counters() const;

private:
    void run();

    std::function<void()> onRender_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool pending_ = false, stopped_ = false;
    Counters counters_;
    std::thread thread_;
};

} // namespace vellum
