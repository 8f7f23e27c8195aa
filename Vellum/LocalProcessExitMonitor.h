#pragma once

#include <functional>
#include <memory>
#include <sys/types.h>

namespace platform {
class SerialQueue;
}

namespace vellum {

// Tells a queue once that a child has ended, without reaping it: the shared poller watches
// the child's process descriptor (or, where there is none, a thread peeks with waitid).
// Cancelling before the exit means the handler never runs.
class LocalProcessExitMonitor {
public:
    static std::shared_ptr<LocalProcessExitMonitor> watch(pid_t pid, std::shared_ptr<platform::SerialQueue> queue,
                                                          std::function<void()> handler);
    ~LocalProcessExitMonitor();

    LocalProcessExitMonitor(const LocalProcessExitMonitor&) = delete;
    LocalProcessExitMonitor& operator=(const LocalProcessExitMonitor&) = delete;

    void cancel();

    struct State;

private:
    explicit LocalProcessExitMonitor(std::shared_ptr<State> state) : state_(std::move(state)) {}
    std::shared_ptr<State> state_;
};

} // namespace vellum
