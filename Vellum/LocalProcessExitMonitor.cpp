#include "Vellum/LocalProcessExitMonitor.h"

#include <cerrno>
#include <mutex>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

#include "Platform/Poller.h"
#include "Platform/SerialQueue.h"

namespace vellum {

struct LocalProcessExitMonitor::State {
    pid_t pid = 0;
    int pidfd = -1;
    platform::Poller::Token token = 0;
    std::shared_ptr<platform::SerialQueue> queue;
    std::mutex mutex;
    std::function<void()> handler; // cleared by cancel

    ~State() {
        if (pidfd >= 0) close(pidfd);
    }

    void fire() {
        std::function<void()> taken;
        {
            std::lock_guard guard(mutex);
            taken = std::move(handler);
            handler = nullptr;
        }
        if (taken) queue->async(std::move(taken));
    }

    // Without process descriptors a thread peeks at the child's end without reaping it.
    void waitOnThread() {
        platform::setCurrentThreadName("vellum-child-exit");
        siginfo_t info{};
        while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
        }
        fire();
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
    bool watched = false;
    if (state->pidfd >= 0) {
        std::weak_ptr<State> weak = state;
        std::lock_guard guard(state->mutex);
        state->token = platform::Poller::shared().add(state->pidfd, EPOLLIN, [weak](uint32_t) {
            auto self = weak.lock();
            if (!self) return;
            platform::Poller::Token token;
            {
                std::lock_guard guard(self->mutex);
                token = std::exchange(self->token, 0);
            }
            // Reported once: a process descriptor stays readable after the exit.
            if (token) platform::Poller::shared().remove(token);
            self->fire();
        });
        watched = state->token != 0;
    }
    if (!watched) std::thread([state] { state->waitOnThread(); }).detach();
    return std::shared_ptr<LocalProcessExitMonitor>(new LocalProcessExitMonitor(std::move(state)));
}

LocalProcessExitMonitor::~LocalProcessExitMonitor() { cancel(); }

void LocalProcessExitMonitor::cancel() {
    platform::Poller::Token token;
    {
        std::lock_guard guard(state_->mutex);
        state_->handler = nullptr;
        token = std::exchange(state_->token, 0);
    }
    if (token) platform::Poller::shared().remove(token);
}

} // namespace vellum
