#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <future>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "CorvexKit/ByteStream.h"
#include "CorvexKit/SSHProcessTransport.h"
#include "CorvexKit/SessionBackend.h"
#include "CorvexKit/UnixSocketTransport.h"
#include "Platform/Channel.h"
#include "Platform/System.h"
#include "Platform/Tests/Support/ScopedEnvironment.h"
#include "Support/ScratchDirectory.h"

using namespace corvex;
using namespace corvex::testing;
using namespace std::chrono_literals;

namespace {

// What a stream's reader hands out, collected for the test thread.
struct Reading {
    platform::Channel<std::string> data;
    std::promise<std::string> closed;
    std::future<std::string> reason = closed.get_future();
    std::atomic<int> closeCalls{0};

    void start(ByteStream& stream, std::function<bool(std::string_view)> accept = {}) {
        stream.startReading(
            [this, accept](std::string_view bytes) {
                data.send(std::string(bytes));
                return accept ? accept(bytes) : true;
            },
            [this](const std::string& why) {
                if (closeCalls++ == 0) closed.set_value(why);
            });
    }

    std::string waitReason() {
        if (reason.wait_for(10s) != std::future_status::ready) return "<no close>";
        return reason.get();
    }

    // Everything received until `count` bytes have come, or a timeout.
    std::string receive(size_t count) {
        std::string all;
        while (all.size() < count) {
            auto next = data.receive(10s);
            if (!next) break;
            all += *next;
        }
        return all;
    }
};

struct SocketPair {
    int local = -1;
    int remote = -1;
    SocketPair() {
        int fds[2];
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
        local = fds[0];
        remote = fds[1];
    }
    ~SocketPair() {
        if (remote >= 0) ::close(remote);
    }
    void closeRemote() {
        ::close(remote);
        remote = -1;
    }
    std::shared_ptr<ByteStream> stream(std::function<void()> extraShutdown = {},
                                       ByteStream::CloseReason closeReason = {}) {
        int fd = local;
        return ByteStream::make(
            fd, fd,
            [fd, extraShutdown] {
                ::shutdown(fd, SHUT_RDWR);
                if (extraShutdown) extraShutdown();
            },
            std::move(closeReason));
    }
};

int listenOn(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    ::unlink(path.c_str());
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0 || ::listen(fd, 4) < 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

BackendError openError(CorvexdTransport& transport, std::vector<std::string>* progress = nullptr) {
    try {
        transport.open([&](const std::string& text) {
            if (progress) progress->push_back(text);
        });
    } catch (const BackendError& error) {
        return error;
    }
    return BackendError("none", "open succeeded");
}

} // namespace

// ---------------------------------------------------------------- ByteStream

TEST(ByteStream, CarriesBytesBothWaysAndReportsAPeerCloseOnce) {
    SocketPair pair;
    auto stream = pair.stream();
    Reading reading;
    reading.start(*stream);

    ASSERT_EQ(::write(pair.remote, "ping", 4), 4);
    EXPECT_EQ(reading.receive(4), "ping");

    stream->write("pong");
    char buffer[8] = {};
    ASSERT_EQ(::read(pair.remote, buffer, sizeof buffer), 4);
    EXPECT_EQ(std::string(buffer, 4), "pong");

    pair.closeRemote();
    EXPECT_EQ(reading.waitReason(), "the connection closed");
    EXPECT_TRUE(stream->isClosed()) << "the reader shuts the stream down after its loop";
    EXPECT_EQ(reading.closeCalls.load(), 1);

    // A write after the end neither raises nor signals.
    stream->write(std::string(1 << 20, 'x'));
}

TEST(ByteStream, CloseReasonsByWhoEndedIt) {
    {   // This side: "reconnecting", even when a better reason is on offer.
        SocketPair pair;
        std::atomic<int> shutdowns{0};
        auto stream = pair.stream([&] { ++shutdowns; }, [] { return std::optional<std::string>("ignored"); });
        Reading reading;
        reading.start(*stream);
        stream->shutdown();
        stream->shutdown();
        EXPECT_EQ(reading.waitReason(), "reconnecting");
        EXPECT_EQ(shutdowns.load(), 1);
    }
    {   // The peer, with a closeReason: that reason wins over the reader's.
        SocketPair pair;
        auto stream = pair.stream({}, [] { return std::optional<std::string>("daemon exited"); });
        Reading reading;
        reading.start(*stream);
        pair.closeRemote();
        EXPECT_EQ(reading.waitReason(), "daemon exited");
    }
    {   // The data handler refusing: "protocol error", and the peer sees the end.
        SocketPair pair;
        auto stream = pair.stream({}, [] { return std::optional<std::string>(); });
        Reading reading;
        reading.start(*stream, [](std::string_view) { return false; });
        ASSERT_EQ(::write(pair.remote, "junk", 4), 4);
        EXPECT_EQ(reading.waitReason(), "protocol error");
        char byte;
        EXPECT_EQ(::read(pair.remote, &byte, 1), 0);
    }
}

TEST(ByteStream, ReadFailureNamesTheSystemError) {
    // A write-only descriptor can't be read: the loop ends at once with the system's text.
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    auto stream = ByteStream::make(fds[1], fds[1], [] {});
    Reading reading;
    reading.start(*stream);
    EXPECT_EQ(reading.waitReason(), "read failed: Bad file descriptor");
    ::close(fds[0]);
}

// ---------------------------------------------------------------- UnixSocketTransport

TEST(UnixSocketTransport, PathLengthLimit) {
    std::string base = "/tmp/corvex-no-such-dir/";
    std::string at103 = base + std::string(103 - base.size(), 's');
    std::string at104 = at103 + "s";

    UnixSocketTransport fits(at103);
    BackendError tried = openError(fits);
    EXPECT_EQ(tried.code(), "disconnected");
    EXPECT_EQ(tried.message(), "can't connect to " + at103 + ": No such file or directory");

    bool started = false;
    UnixSocketTransport tooLong(at104, [&] { started = true; });
    BackendError refused = openError(tooLong);
    EXPECT_EQ(refused.code(), "bad_request");
    EXPECT_EQ(refused.message(), "socket path too long: " + at104);
    EXPECT_FALSE(started) << "no daemon can help a path that can't be an address";
}

TEST(UnixSocketTransport, MissingDaemonIsStartedOnceThenConnected) {
    ScratchDirectory dir;
    std::string path = dir.file("corvexd.sock");
    int listener = -1;
    int starts = 0;
    UnixSocketTransport transport(path, [&] {
        ++starts;
        listener = listenOn(path);
    });
    std::vector<std::string> progress;
    auto stream = transport.open([&](const std::string& text) { progress.push_back(text); });
    ASSERT_TRUE(stream);
    EXPECT_EQ(starts, 1);
    EXPECT_EQ(progress, std::vector<std::string>{"Starting corvexd"});

    int peer = ::accept(listener, nullptr, nullptr);
    ASSERT_GE(peer, 0);
    Reading reading;
    reading.start(*stream);
    ASSERT_EQ(::write(peer, "yo", 2), 2);
    EXPECT_EQ(reading.receive(2), "yo");
    stream->shutdown();
    EXPECT_EQ(reading.waitReason(), "reconnecting");
    ::close(peer);
    ::close(listener);

    // Second open: the daemon is there, nothing is started.
    listener = listenOn(path);
    ASSERT_TRUE(transport.open({}));
    EXPECT_EQ(starts, 1);
    ::close(listener);
}

TEST(UnixSocketTransport, FailedStartsAndRetries) {
    ScratchDirectory dir;
    std::string path = dir.file("corvexd.sock");

    UnixSocketTransport plain(path);
    std::vector<std::string> progress;
    EXPECT_EQ(openError(plain, &progress).message(), "can't connect to " + path + ": No such file or directory");
    EXPECT_TRUE(progress.empty());

    UnixSocketTransport failingStart(path, [] { throw BackendError("failed", "corvexd didn't start"); });
    EXPECT_EQ(openError(failingStart), BackendError("failed", "corvexd didn't start"));

    int starts = 0;
    UnixSocketTransport uselessStart(path, [&] { ++starts; });
    EXPECT_EQ(openError(uselessStart).code(), "disconnected");
    EXPECT_EQ(starts, 1) << "one start, one retry";
}

TEST(UnixSocketTransport, DefaultSocketPath) {
    platform::testing::ScopedEnvironment environment;
    EXPECT_EQ(defaultCorvexdSocketPath("/run/x"), "/run/x/corvexd.sock");
    environment.set("CORVEXD_RUNTIME_DIR", "/var/run/c");
    EXPECT_EQ(defaultCorvexdSocketPath(), "/var/run/c/corvexd.sock");
    EXPECT_EQ(defaultCorvexdSocketPath("/given"), "/given/corvexd.sock");
    environment.set("CORVEXD_RUNTIME_DIR", nullptr);
    environment.set("TMPDIR", "/short/");
    std::string own = "/tmp/corvexd-" + std::to_string(::getuid()) + "/corvexd.sock";
#ifdef __APPLE__
    EXPECT_EQ(defaultCorvexdSocketPath(), "/short/corvexd/corvexd.sock");
#else
    EXPECT_EQ(defaultCorvexdSocketPath(), own) << "what the daemon itself uses, whatever TMPDIR says";
#endif
    environment.set("TMPDIR", ("/" + std::string(80, 'd')).c_str());
    EXPECT_EQ(defaultCorvexdSocketPath(), own);
}

// ---------------------------------------------------------------- StderrTail

TEST(StderrTail, KeepsTheLastBytesAndReportsWholeLines) {
    std::vector<std::string> lines;
    StderrTail tail([&](const std::string& line) { lines.push_back(line); });
    tail.append("Warning: Permanently added\r\nPermission ");
    EXPECT_EQ(lines, std::vector<std::string>{"Warning: Permanently added"});
    EXPECT_EQ(tail.partial(), "Permission ");
    tail.append("denied (publickey).\n  ");
    EXPECT_EQ(lines.back(), "Permission denied (publickey).");
    EXPECT_EQ(tail.partial(), "  ");
    EXPECT_EQ(tail.text(), "Warning: Permanently added\r\nPermission denied (publickey).");

    StderrTail big;
    big.append(std::string(904, 'a'));
    big.append(std::string(4096, 'b'));
    EXPECT_EQ(big.data(), std::string(4096, 'b'));
    EXPECT_EQ(big.partial().size(), 5000u) << "a line not yet ended is kept whole";

    // A cut through a multi-byte character leaves no stray continuation bytes.
    StderrTail cut({}, 4);
    cut.append("x\xe2\x82\xac" "ab");
    EXPECT_EQ(cut.text(), "ab");
}

// ---------------------------------------------------------------- SSHProcessTransport

namespace {

// Stands in for ssh: records its arguments, then behaves as the remote command asks. Asked
// for its configuration (-G), it has the same ciphers with or without a file.
const char* fakeSSH = R"(#!/bin/sh
if [ "$1" = -G ]; then echo "ciphers chacha20-poly1305@openssh.com,aes128-ctr"; exit 0; fi
printf '%s\n' "$@" > "$(dirname "$0")/args"
echo $$ > "$(dirname "$0")/pid"
for last; do :; done
case "$last" in
  echo) exec cat ;;
  unreachable) echo "Permission denied (publickey)." >&2; exit 255 ;;
  old) exit 3 ;;
  crash) echo "corvexd: holder lost" >&2; exit 7 ;;
  quiet) exit 0 ;;
  chatty) echo "all done" >&2; exit 0 ;;
  stubborn) trap '' TERM; echo ready; while :; do sleep 1; done ;;
esac
)";

struct FakeSSH {
    ScratchDirectory dir;
    SSHProcessTransport transport;

    explicit FakeSSH(std::string command) {
        transport.target = "host";
        transport.sshPath = dir.writeExecutable("ssh", fakeSSH);
        transport.remoteCommand = [command] { return command; };
    }
};

} // namespace

TEST(SSHProcessTransport, RunsSSHWithItsArgumentsInOrderAndRelaysBytes) {
    FakeSSH fake("echo");
    fake.transport.extraOptions = {"-o", "ControlPath=/tmp/cp"};
    std::vector<std::string> steps;
    fake.transport.prepare = [&](const ProgressHandler& progress) {
        steps.push_back("prepare");
        progress("Installing");
    };
    auto stream = fake.transport.open([&](const std::string& text) { steps.push_back(text); });
    EXPECT_EQ(steps, (std::vector<std::string>{"prepare", "Installing", "Connecting"}));

    Reading reading;
    reading.start(*stream);
    stream->write("round trip");
    EXPECT_EQ(reading.receive(10), "round trip");
    stream->shutdown();
    EXPECT_EQ(reading.waitReason(), "reconnecting");

    std::string ciphers;
    for (const std::string& option : SSHProcessTransport::cipherOptions()) ciphers += option + "\n";
    EXPECT_EQ(readFile(fake.dir.file("args")),
              "-T\n-o\nBatchMode=yes\n-o\nConnectTimeout=10\n-o\nServerAliveInterval=15\n-o\nServerAliveCountMax=3\n" +
                  ciphers + "-o\nControlPath=/tmp/cp\n--\nhost\necho\n");
}

// ssh's own reading of a configuration, without connecting anywhere.
TEST(SSHProcessTransport, PrefersItsCiphersOnlyWhereTheConfigurationLeavesSSHsDefaults) {
    if (SSHProcessTransport::cipherOptions().empty()) GTEST_SKIP() << "no AES instructions: nothing is preferred";
    if (::access("/usr/bin/ssh", X_OK) != 0) GTEST_SKIP() << "no ssh here";
    ScratchDirectory dir;
    struct Row {
        const char* name;
        const char* configuration;
        bool preferred;
    };
    for (const Row& row : {Row{"plain", "Host *\n  Compression no\n", true},
                           Row{"chosen", "Host other\n  Compression no\nHost *.example\n  Ciphers aes256-ctr\n", false},
                           Row{"unreadable", "NoSuchKeyword yes\n", false}}) {
        std::ofstream(dir.file(row.name)) << row.configuration;
        SSHProcessTransport transport;
        transport.target = "box.example";
        transport.extraOptions = {"-F", dir.file(row.name)};
        std::vector<std::string> expected;
        if (row.preferred) expected = SSHProcessTransport::cipherOptions();
        EXPECT_EQ(transport.cipherPreference(), expected) << row.name;
    }
}

TEST(SSHProcessTransport, ExitStatusBecomesTheCloseReason) {
    struct Case {
        const char* command;
        std::string reason;
    };
    for (const Case& c : {Case{"unreachable", "Can't reach host over SSH: Permission denied (publickey)."},
                          Case{"old", "The sessions on host use an older corvexd; restart them to finish upgrading"},
                          Case{"crash", "corvexd on host exited with 7: corvexd: holder lost"},
                          Case{"quiet", "the connection closed"},
                          Case{"chatty", "all done"}}) {
        FakeSSH fake(c.command);
        std::vector<std::string> lines;
        std::optional<std::pair<int, std::string>> exit;
        fake.transport.onStderrLine = [&](const std::string& line) { lines.push_back(line); };
        fake.transport.onExit = [&](int status, const std::string& text) { exit.emplace(status, text); };
        auto stream = fake.transport.open({});
        Reading reading;
        reading.start(*stream);
        EXPECT_EQ(reading.waitReason(), c.reason) << c.command;
        ASSERT_TRUE(exit) << c.command;
        if (std::string(c.command) == "crash") {
            EXPECT_EQ(*exit, (std::pair<int, std::string>{7, "corvexd: holder lost"}));
            EXPECT_EQ(lines, std::vector<std::string>{"corvexd: holder lost"});
        }
    }
    EXPECT_EQ(SSHProcessTransport::exitReason("h", 255, ""), "Can't reach h over SSH");
    EXPECT_EQ(SSHProcessTransport::exitReason("h", 1, ""), "corvexd on h exited with 1");
}

TEST(SSHProcessTransport, ShutdownEndsAChildThatIgnoresTerminate) {
    FakeSSH fake("stubborn");
    auto stream = fake.transport.open({});
    Reading reading;
    reading.start(*stream);
    EXPECT_EQ(reading.receive(6), "ready\n");
    pid_t pid = std::stoi(readFile(fake.dir.file("pid")));
    auto shutAt = std::chrono::steady_clock::now();
    stream->shutdown();
    EXPECT_EQ(reading.waitReason(), "reconnecting");
    // The shell ignores SIGTERM; SIGKILL follows after three seconds.
    while (::kill(pid, 0) == 0 && std::chrono::steady_clock::now() - shutAt < 10s) std::this_thread::sleep_for(50ms);
    EXPECT_NE(::kill(pid, 0), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - shutAt, 2900ms);
}

TEST(SSHProcessTransport, OpenFailures) {
    FakeSSH missing("echo");
    missing.transport.sshPath = missing.dir.file("no-ssh-here");
    BackendError error = openError(missing.transport);
    EXPECT_EQ(error.code(), "failed");

    FakeSSH refused("echo");
    refused.transport.prepare = [](const ProgressHandler&) { throw BackendError("failed", "install failed"); };
    std::vector<std::string> progress;
    EXPECT_EQ(openError(refused.transport, &progress), BackendError("failed", "install failed"));
    EXPECT_TRUE(progress.empty()) << "nothing is said about connecting when preparing failed";
}
