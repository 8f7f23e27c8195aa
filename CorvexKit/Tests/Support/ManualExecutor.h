#pragma once

#include <deque>
#include <functional>

namespace corvex::testkit {

// Work meant for other threads, held until the test runs it, so the moment a blocking backend
// call "returns" is the test's choice.
class ManualExecutor {
public:
    std::function<void(std::function<void()>)> executor() {
        return [this](std::function<void()> work) { pending_.push_back(std::move(work)); };
    }

    size_t pending() const { return pending_.size(); }

    // Runs the oldest held work; false when none is held.
    bool runNext() {
        if (pending_.empty()) return false;
        auto work = std::move(pending_.front());
        pending_.pop_front();
        work();
        return true;
    }

    size_t runAll() {
        size_t count = 0;
        while (runNext()) ++count;
        return count;
    }

private:
    std::deque<std::function<void()>> pending_;
};

} // namespace corvex::testkit
