#include "Vellum/LocalProcessExitMonitor.h"

#include <cerrno>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "Platform/SerialQueue.h"

namespace vellum {

struct LocalProcessExitMonitor::State {
    pid_t pid = 0;
    int pidfd = -1;
    int cancelFd = -1;
    std::shared_ptr<platform::SerialQueue> queue;
    std::mutex mutex;
    std::function<void()> handler; // cleared by cancel

    ~State() {
        if (pidfd >= 0) close(pidfd);
        if (cancelFd >= 0) close(cancelFd);
    }

    void run() {
        platform::setCurrentThreadName("vellum-child-exit");
        if (pidfd >= 0) {
            for (;;) {
                pollfd entries[2] = {{pidfd, POLLIN, 0}, {cancelFd, POLLIN, 0}};
                int ready = poll(entries, 2, -1);
                if (ready < 0 && errno == EINTR) continue;
                if (ready < 0 || entries[1].revents) return;
                if (entries[0].revents) break;
            }
        } else {
            siginfo_t info{};
            while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
            }
        }
        std::function<void()> fire;
        {
            std::lock_guard guard(mutex);
            fire = std::move(handler);
            handler = nullptr;
        }
        if (fire) queue->async(std::move(fire));
    }
};

std::shared_ptr<LocalProcessExitMonitor> LocalProcessExitMonitor::watch(pid_t pid,
                                                                      std::shared_ptr<platform::SerialQueue> queue,
                                                                      std::function<void()> handler) {
    auto state = std::make_shared<State>();
    state->pid = pid;
    state->queue = std::move(queue);
    state->handler = std::move(handler);
    state->pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    state->cancelFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (state->pidfd >= 0 && state->cancelFd < 0) {
        close(state->pidfd);
        state->pidfd = -1;
    }
    std::thread([state] { state->run(); }).detach();
    return std::shared_ptr<LocalProcessExitMonitor>(new LocalProcessExitMonitor(std::move(state)));
}

LocalProcessExitMonitor::~LocalProcessExitMonitor() { cancel(); }

void LocalProcessExitMonitor::cancel() {
    std::lock_guard guard(state_->mutex);
    state_->handler = nullptr;
    if (state_->cancelFd >= 0) {
        uint64_t one = 1;
        (void)!write(state_->cancelFd, &one, sizeof(one));
    }
}

} // namespace vellum
