#include "Vellum/TerminalLock.h"

#include <cstdio>
#include <cstdlib>

namespace vellum {

namespace {
thread_local TerminalLockRole currentRole = TerminalLockRole::other;
}

void TerminalLock::setCurrentThreadRole(TerminalLockRole role) { currentRole = role; }

const char* TerminalLock::roleName(TerminalLockRole role) {
    switch (role) {
    case TerminalLockRole::main: return "main";
    case TerminalLockRole::parse: return "parse";
    case TerminalLockRole::timer: return "timer";
    case TerminalLockRole::other: break;
    }
    return "other";
}

void TerminalLock::lock() {
    std::unique_lock guard(mutex_);
    uint64_t ticket = nextTicket_++;
    if (nowServing_ != ticket) {
        ++waiters_;
        condition_.wait(guard, [&] { return nowServing_ == ticket; });
        --waiters_;
    }
    owner_ = currentRole;
    ownerThread_ = std::this_thread::get_id();
}

void TerminalLock::unlock() {
    std::lock_guard guard(mutex_);
    owner_.reset();
    ownerThread_ = {};
    ++nowServing_;
    if (waiters_ > 0) condition_.notify_all();
}

bool TerminalLock::isLockedByCurrentThread() const {
    std::lock_guard guard(mutex_);
    return owner_ && ownerThread_ == std::this_thread::get_id();
}

void TerminalLock::preconditionLocked(const char* file, int line) const {
    if (isLockedByCurrentThread()) return;
    std::fprintf(stderr, "%s:%d: the terminal lock is not held by this thread\n", file, line);
    std::abort();
}

std::optional<TerminalLockRole> TerminalLock::owner() const {
    std::lock_guard guard(mutex_);
    return owner_;
}

size_t TerminalLock::waiters() const {
    std::lock_guard guard(mutex_);
    return waiters_;
}

} // namespace vellum
