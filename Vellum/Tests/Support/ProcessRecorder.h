#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Vellum/LocalProcess.h"

namespace vellum::testing {

// Collects what a process reports, and lets a test wait for it.
class ProcessRecorder : public LocalProcessDelegate {
public:
    void processTerminated(LocalProcess& source, std::optional<int32_t> exitCode) override {
        std::function<void(LocalProcess&)> then;
        {
            std::lock_guard guard(mutex_);
            exits_.push_back(exitCode);
            then = std::move(onTerminated);
            onTerminated = nullptr;
        }
        if (then) then(source);
        changed_.notify_all();
    }
    void dataReceived(std::vector<unsigned char> slice) override {
        std::lock_guard guard(mutex_);
        output_.append(slice.begin(), slice.end());
        changed_.notify_all();
    }
    winsize getWindowSize() override { return {24, 80, 0, 0}; }

    template <typename Pred>
    bool waitFor(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, timeout, [&] { return pred(); });
    }
    bool waitForOutput(const std::string& text) {
        return waitFor([&] { return output_.find(text) != std::string::npos; });
    }
    bool waitForOutputSize(size_t size) {
        return waitFor([&] { return output_.size() >= size; });
    }
    bool waitForExits(size_t count) {
        return waitFor([&] { return exits_.size() >= count; });
    }
    std::string output() {
        std::lock_guard guard(mutex_);
        return output_;
    }
    std::vector<std::optional<int32_t>> exits() {
        std::lock_guard guard(mutex_);
        return exits_;
    }

    std::function<void(LocalProcess&)> onTerminated; // runs once, inside the report

protected:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string output_;
    std::vector<std::optional<int32_t>> exits_;
};

} // namespace vellum::testing
