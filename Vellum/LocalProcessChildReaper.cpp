#include "Vellum/LocalProcessChildReaper.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace vellum {

bool LocalProcessChildReaper::signal(int signalNumber) {
    std::lock_guard guard(lock_);
    if (!signalAllowed_) return false;
    return kill(pid_, signalNumber) == 0;
}

bool LocalProcessChildReaper::signalGroup(int signalNumber) {
    std::lock_guard guard(lock_);
    if (!signalAllowed_) return false;
    bool sent = kill(-pid_, signalNumber) == 0;
    return kill(pid_, signalNumber) == 0 || sent;
}

bool LocalProcessChildReaper::signalAllowed() {
    std::lock_guard guard(lock_);
    return signalAllowed_;
}

std::optional<int> LocalProcessChildReaper::wait() {
    if (status_) {
        auto status = status_();
        std::lock_guard guard(lock_);
        signalAllowed_ = false;
        return status;
    }
    // Peek first without reaping: blocking in waitpid with the lock held would keep a
    // terminate from getting through for as long as the child lives.
    siginfo_t info{};
    int peeked;
    do {
        peeked = waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
    } while (peeked != 0 && errno == EINTR);

    std::lock_guard guard(lock_);
    if (peeked != 0 || !signalAllowed_) {
        signalAllowed_ = false;
        return std::nullopt;
    }
    int status = 0;
    pid_t reaped;
    do {
        reaped = waitpid(pid_, &status, 0);
    } while (reaped < 0 && errno == EINTR);
    signalAllowed_ = false;
    if (reaped != pid_) return std::nullopt;
    return status;
}

bool LocalProcessChildReaper::awaitExit(double seconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    if (pidfd >= 0) {
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd entry{pidfd, POLLIN, 0};
            int ready = poll(&entry, 1, static_cast<int>(std::max<long long>(0, left.count())));
            if (ready < 0 && errno == EINTR) continue;
            close(pidfd);
            return ready > 0;
        }
    }
    // Without process descriptors, look now and then.
    for (;;) {
        siginfo_t info{};
        if (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) return true;
        if (info.si_pid == pid_) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

} // namespace vellum
