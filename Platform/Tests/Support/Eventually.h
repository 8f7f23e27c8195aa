#pragma once

#include <chrono>
#include <thread>

namespace platform::testing {

// Polls until the condition holds or the time is up; whether it came to hold. Tests wait for
// what they expect with this, never with a fixed sleep.
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

} // namespace platform::testing
