#pragma once

#include "Platform/MainQueue.h"

namespace corvex {

// The main queue of the core libraries, served by Qt's event loop.
class QtMainQueue final : public platform::MainQueue {
public:
    void post(std::function<void()> work) override;
    void postAfter(platform::Duration delay, std::function<void()> work) override;
    bool isMainThread() const override;
    const platform::Clock& clock() const override { return platform::SystemClock::shared(); }
};

} // namespace corvex
