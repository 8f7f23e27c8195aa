#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <thread>

#include <gtest/gtest.h>

#include "Platform/Poller.h"

namespace vellum::testing {

inline size_t entriesIn(const char* folder) {
    size_t count = 0;
    for ([[maybe_unused]] auto& entry : std::filesystem::directory_iterator(folder)) ++count;
    return count;
}

// Threads of this process, less those every process session shares and keeps for the
// process's life: the I/O poller, the parse threads and the timers.
inline size_t ownThreads() {
    size_t count = 0;
    for (auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(entry.path() / "comm"), name);
        if (name != "vellum-io-poller" && name != "vellum-parse" && name != "corvex.timers") ++count;
    }
    return count;
}

// 0: no child at all; -1: children, none ended; otherwise the pid of one that ended.
inline pid_t anyChild() {
    siginfo_t info{};
    if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0) return 0;
    return info.si_pid != 0 ? info.si_pid : -1;
}

// A test that starts processes must leave no thread, descriptor or child behind once they
// are gone. Teardown waits a while for children and threads that are still winding down.
class ProcessLeakCheck : public ::testing::Test {
protected:
    void SetUp() override {
        platform::Poller::shared(); // its descriptors live as long as the process
        threads_ = ownThreads();
        descriptors_ = entriesIn("/proc/self/fd");
        ASSERT_EQ(anyChild(), 0);
    }
    void TearDown() override {
        using namespace std::chrono_literals;
        auto deadline = std::chrono::steady_clock::now() + 5s;
        while (std::chrono::steady_clock::now() < deadline && !clean()) std::this_thread::sleep_for(10ms);
        EXPECT_EQ(ownThreads(), threads_) << "threads left running";
        EXPECT_EQ(entriesIn("/proc/self/fd"), descriptors_) << "descriptors left open";
        EXPECT_EQ(anyChild(), 0) << "a child left running or unreaped";
    }

private:
    bool clean() const {
        return ownThreads() == threads_ && entriesIn("/proc/self/fd") == descriptors_ && anyChild() == 0;
    }
    size_t threads_ = 0, descriptors_ = 0;
};

} // namespace vellum::testing
