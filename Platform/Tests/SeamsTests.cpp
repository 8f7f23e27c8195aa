#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "Platform/Descriptors.h"
#include "Platform/ProcessInfo.h"
#include "Platform/UnixSocket.h"
#include "Platform/Tests/Support/Eventually.h"

using namespace platform;

TEST(UnixSocket, ListensConnectsAndSaysWhyNot) {
    auto folder = std::filesystem::temp_directory_path() / ("seams-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    std::string path = (folder / "s.sock").string();

    auto missing = connectUnixSocket(path);
    EXPECT_EQ(missing.fd, -1);
    EXPECT_EQ(missing.error, ENOENT);
    EXPECT_EQ(connectUnixSocket("/" + std::string(200, 'x')).error, ENAMETOOLONG);

    auto listening = listenUnixSocket(path);
    ASSERT_GE(listening.fd, 0) << std::strerror(listening.error);
    EXPECT_EQ(listenUnixSocket(path).error, EADDRINUSE);
    auto client = connectUnixSocket(path);
    ASSERT_GE(client.fd, 0);
    int served = ::accept(listening.fd, nullptr, nullptr);
    ASSERT_GE(served, 0);

    // A large write arrives whole; a peer that has gone fails it without a signal.
    std::string bytes(1 << 20, 'z');
    std::thread reader([&] {
        std::string got;
        char buffer[65536];
        while (got.size() < bytes.size()) {
            ssize_t count = ::read(served, buffer, sizeof buffer);
            if (count <= 0) break;
            got.append(buffer, static_cast<size_t>(count));
        }
        EXPECT_EQ(got, bytes);
    });
    EXPECT_TRUE(writeAll(client.fd, bytes));
    reader.join();
    ::close(served);
    EXPECT_FALSE(writeAll(client.fd, bytes));

    ::close(client.fd);
    ::close(listening.fd);
    std::filesystem::remove_all(folder);
}

TEST(ProcessInfo, LivesUntilItIsAZombieAndKnowsItsFolder) {
    EXPECT_TRUE(processLives(::getpid()));
    EXPECT_EQ(processWorkingDirectory(::getpid()), std::filesystem::current_path().string());
    EXPECT_NE(executablePath().find("Platform_SeamsTests"), std::string::npos) << executablePath();

    pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    ASSERT_GT(child, 0);
    // Not yet reaped, the child is a zombie and no longer counts as running.
    EXPECT_TRUE(platform::testing::eventually([&] { return !processLives(child); }));
    ::waitpid(child, nullptr, 0);
    EXPECT_FALSE(processLives(child));
}
