#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>

namespace vellum {

// Who holds the terminal lock, for diagnostics and profiling.
enum class TerminalLockRole { main, parse, timer, other };

// The lock that guards a terminal, shared by the parse, main and timer threads. It is a
// ticket lock: waiters are served first come, first served, so a hot parse thread can't
// starve the main thread's frame and the main thread doesn't starve parsing. Not recursive.
class TerminalLock {
public:
    TerminalLock() = default;
    TerminalLock(const TerminalLock&) = delete;
    TerminalLock& operator=(const TerminalLock&) = delete;

    void lock();
    void unlock();

    template <typename Body>
    auto withLock(Body&& body) -> std::invoke_result_t<Body> {
        std::lock_guard guard(*this);
        return body();
    }

    // Aborts with the caller's place when the calling thread doesn't hold the lock.
    void preconditionLocked(const char* file = __builtin_FILE(), int line = __builtin_LINE()) const;
    bool isLockedByCurrentThread() const;
    // The role of the holder, when held.
    std::optional<TerminalLockRole> owner() const;
    size_t waiters() const;

    // Marks the calling thread's role for the lock's owner record.
    static void setCurrentThreadRole(TerminalLockRole role);
    static const char* roleName(TerminalLockRole role);

private:
    mutable std::mutex mutex_;
    std::condition_variable condition_;
    uint64_t nextTicket_ = 0;
    uint64_t nowServing_ = 0;
    size_t waiters_ = 0;
    std::optional<TerminalLockRole> owner_;
    std::thread::id ownerThread_;
};

} // namespace vellum
