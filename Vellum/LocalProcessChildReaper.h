#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <sys/types.h>

namespace vellum {

// The only route by which a signal reaches a child. Reaping and forbidding further signals
// happen in one critical section, so no signal can go to a process number that the kernel
// has freed and may have given to another process.
class LocalProcessChildReaper {
public:
    explicit LocalProcessChildReaper(pid_t pid) : pid_(pid) {}
    // For a child that another process is parent of and reaps: `status` blocks until that
    // process tells how the child ended (nothing when it can't).
    using StatusSource = std::function<std::optional<int>()>;
    LocalProcessChildReaper(pid_t pid, StatusSource status) : pid_(pid), status_(std::move(status)) {}

    LocalProcessChildReaper(const LocalProcessChildReaper&) = delete;
    LocalProcessChildReaper& operator=(const LocalProcessChildReaper&) = delete;

    pid_t pid() const { return pid_; }

    // Sends the signal unless the child has been reaped; true when it was sent.
    bool signal(int signalNumber);
    // Sends the signal to the child's process group, then to the child itself. The child
    // leads its own session, so while it is unreaped the group's number can't be reused.
    bool signalGroup(int signalNumber);
    bool signalAllowed();

    // Blocks until the child has ended, reaps it and returns its raw wait status; nothing
    // when the status can't be known (or another caller reaped it first).
    std::optional<int> wait();

    // Waits up to `seconds` for the child to end without reaping it; true when it ended.
    bool awaitExit(double seconds);

    // Runs fn(pid) under the lock while the process number still names the child.
    template <typename Fn>
    auto whileAlive(Fn&& fn) -> std::optional<decltype(fn(pid_t{}))> {
        std::lock_guard guard(lock_);
        if (!signalAllowed_) return std::nullopt;
        return fn(pid_);
    }

private:
    const pid_t pid_;
    const StatusSource status_;
    std::mutex lock_;
    bool signalAllowed_ = true;
};

} // namespace vellum
