#pragma once

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

namespace corvex::bench {

// Sleeps in the event loop until something happens, checking `done` after each wake.
inline bool eventually(const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    QTimer tick;
    tick.start(5);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return done();
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

// Lets the event loop run for `duration` with nothing to wait for.
inline void idle(std::chrono::milliseconds duration) {
    QEventLoop loop;
    QTimer::singleShot(duration, &loop, &QEventLoop::quit);
    loop.exec();
}

inline std::string executableDirectory() {
    return std::filesystem::canonical("/proc/self/exe").parent_path().string();
}

} // namespace corvex::bench
