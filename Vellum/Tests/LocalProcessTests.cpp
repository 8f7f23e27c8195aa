#include "Platform/ProcessInfo.h"
#include "Platform/Tests/Support/Eventually.h"
#include "Platform/Tests/Support/ScopedEnvironment.h"
#include "Vellum/LocalProcess.h"
#include "Vellum/LocalProcessChildReaper.h"
#include "Vellum/PseudoTerminalHelpers.h"
#include "Support/ProcessLeakCheck.h"
#include "Support/ProcessRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <pthread.h>
#include <set>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

using namespace vellum;
using vellum::testing::anyChild;
using platform::testing::eventually;
using Recorder = vellum::testing::ProcessRecorder;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

std::vector<unsigned char> bytes(std::string_view text) { return {text.begin(), text.end()}; }

class LocalProcessTest : public vellum::testing::ProcessLeakCheck {
protected:
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

} // namespace

TEST_F(LocalProcessTest, CatEchoesWhatIsSentAndReportsItsEndOnce) {
    auto process = LocalProcess::create(recorder);
    ASSERT_EQ(process->startProcessChecked("/bin/cat"), std::nullopt);
    EXPECT_EQ(process->phase(), LocalProcessPhase::running);
    EXPECT_TRUE(process->running());
    EXPECT_GT(process->shellPid(), 0);
    EXPECT_GE(process->childfd(), 0);
    EXPECT_EQ(process->generation(), 1u);

    std::promise<LocalProcessSendResult> sent;
    process->send(bytes("hello\n"), [&](LocalProcessSendResult result) { sent.set_value(result); });
    auto result = sent.get_future().get();
    EXPECT_EQ(result.bytesWritten, 6);
    EXPECT_EQ(result.error, std::nullopt);
    EXPECT_TRUE(recorder->waitForOutput("hello\r\nhello\r\n")) << "the terminal's echo, then cat's copy";

    // Nothing to write completes at once and isn't counted.
    std::optional<LocalProcessSendResult> empty;
    process->send({}, [&](LocalProcessSendResult r) { empty = r; });
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->bytesWritten, 0);
    EXPECT_EQ(empty->error, std::nullopt);
    EXPECT_EQ(process->sendCount(), 1);
    EXPECT_EQ(process->totalWritten(), 6);
    EXPECT_TRUE(process->updateWindowSize({40, 120, 0, 0}));

    process->terminate();
    // cat can die and be reaped before we look, so the phase may already be idle.
    EXPECT_THAT(process->phase(), ::testing::AnyOf(LocalProcessPhase::terminating, LocalProcessPhase::idle));
    process->terminate(); // repeating is harmless
    ASSERT_TRUE(recorder->waitForExits(1));
    EXPECT_EQ(recorder->exits(), (std::vector<std::optional<int32_t>>{std::nullopt})) << "ended by a signal";
    EXPECT_EQ(process->phase(), LocalProcessPhase::idle);
    EXPECT_EQ(process->childfd(), -1);
    EXPECT_EQ(process->shellPid(), 0);

    // After the end nothing reaches a process any more.
    std::optional<LocalProcessSendResult> late;
    process->send(bytes("x"), [&](LocalProcessSendResult r) { late = r; });
    ASSERT_TRUE(late);
    EXPECT_EQ(late->error, LocalProcessError::notRunning());
    EXPECT_FALSE(process->updateWindowSize({40, 120, 0, 0}));
    EXPECT_EQ(process->terminalControlBytesForPaste(), std::nullopt);
    EXPECT_EQ(process->currentWorkingDirectory(), std::nullopt);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(recorder->exits().size(), 1u);
}

TEST_F(LocalProcessTest, ExitCodesAndRefusedStarts) {
    auto process = LocalProcess::create(recorder);
    ASSERT_EQ(process->startProcessChecked("/bin/sh", {"-c", "exit 3"}), std::nullopt);
    ASSERT_TRUE(recorder->waitForExits(1));

    // A missing program is a normal start whose child exits with 127.
    ASSERT_EQ(process->startProcessChecked("/no/such/program"), std::nullopt);
    ASSERT_TRUE(recorder->waitForExits(2));
    EXPECT_EQ(recorder->exits(), (std::vector<std::optional<int32_t>>{3, 127}));

    // A second start while one runs is refused and leaves the child alone.
    ASSERT_EQ(process->startProcessChecked("/bin/cat"), std::nullopt);
    pid_t pid = process->shellPid();
    EXPECT_EQ(process->startProcessChecked("/bin/sh", {"-c", "exit 9"}), LocalProcessError::alreadyRunning());
    EXPECT_EQ(process->shellPid(), pid);
    process->send(bytes("still here\n"));
    EXPECT_TRUE(recorder->waitForOutput("still here\r\nstill here\r\n"));
    EXPECT_EQ(process->generation(), 3u);
    process->terminate();
    ASSERT_TRUE(recorder->waitForExits(3));
}

TEST_F(LocalProcessTest, ChildSeesItsNameDirectorySizeAndEnvironment) {
    std::string folder = fs::canonical(fs::temp_directory_path()).string();
    platform::testing::ScopedEnvironment user("USER", "corvex-test");
    auto process = LocalProcess::create(recorder);
    // A login shell is told so by a "-" in front of its name.
    ASSERT_EQ(process->startProcessChecked("/bin/sh", {"-c", "echo \"name=$0\"; stty size; pwd"}, std::nullopt,
                                           "-sh", folder),
              std::nullopt);
    ASSERT_TRUE(recorder->waitForExits(1));
    std::string out = recorder->output();
    EXPECT_NE(out.find("name=-sh\r\n"), std::string::npos) << out;
    EXPECT_NE(out.find("24 80\r\n"), std::string::npos) << "the delegate's size from the start";
    EXPECT_NE(out.find("\r\n" + folder + "\r\n"), std::string::npos);

    // The default environment, straight from the program (a shell would merge duplicates).
    ASSERT_EQ(process->startProcessChecked("/usr/bin/env"), std::nullopt);
    ASSERT_TRUE(recorder->waitForExits(2));
    out = recorder->output();
    EXPECT_NE(out.find("TERM=xterm-256color\r\n"), std::string::npos);
    EXPECT_NE(out.find("COLORTERM=truecolor\r\n"), std::string::npos);
    EXPECT_NE(out.find("LANG=en_US.UTF-8\r\n"), std::string::npos);
    size_t users = 0;
    for (size_t at = out.find("USER=corvex-test"); at != std::string::npos; at = out.find("USER=corvex-test", at + 1)) {
        ++users;
    }
    EXPECT_EQ(users, 2u) << "the default environment names USER twice";

    // A given environment is used as it is, and the running child's directory can be read.
    ASSERT_EQ(process->startProcessChecked("/bin/sh", {"-c", "echo \"[$TERM][$HOME]\"; exec cat"},
                                           std::vector<std::string>{"TERM=dumb"}, std::nullopt, "/"),
              std::nullopt);
    EXPECT_TRUE(recorder->waitForOutput("[dumb][]"));
    EXPECT_EQ(process->currentWorkingDirectory(), "/");
    process->terminate();
    ASSERT_TRUE(recorder->waitForExits(3));
}

TEST_F(LocalProcessTest, WindowSizeChangesReachTheChild) {
    auto process = LocalProcess::create(recorder);
    ASSERT_EQ(process->startProcessChecked("/bin/sh", {"-c", "read line; stty size; read line; stty size"}), std::nullopt);
    EXPECT_TRUE(process->updateWindowSize({33, 99, 0, 0}));
    process->send(bytes("\n"));
    EXPECT_TRUE(recorder->waitForOutput("33 99\r\n"));
    EXPECT_TRUE(process->updateWindowSize({50, 200, 0, 0}));
    process->send(bytes("\n"));
    EXPECT_TRUE(recorder->waitForOutput("50 200\r\n"));
    ASSERT_TRUE(recorder->waitForExits(1));
    EXPECT_EQ(recorder->exits().front(), 0);
}

TEST_F(LocalProcessTest, LargeWritesArriveWholeAndInOrder) {
    auto process = LocalProcess::create(recorder);
    ASSERT_EQ(process->startProcessChecked("/bin/sh", {"-c", "stty raw -echo; echo ready; exec cat"}), std::nullopt);
    ASSERT_TRUE(recorder->waitForOutput("ready\n"));
    std::string data;
    for (int line = 0; data.size() < 256 * 1024; ++line) data += "line " + std::to_string(line) + " of a long paste\n";
    std::promise<LocalProcessSendResult> sent;
    process->send(bytes(data.substr(0, 1000)));
    process->send(bytes(data.substr(1000)), [&](LocalProcessSendResult r) { sent.set_value(r); });
    auto result = sent.get_future().get();
    EXPECT_EQ(result.error, std::nullopt);
    EXPECT_EQ(result.bytesWritten, static_cast<int64_t>(data.size() - 1000));
    EXPECT_TRUE(recorder->waitForOutputSize(data.size() + 6));
    EXPECT_TRUE(recorder->output() == "ready\n" + data) << "bytes lost or reordered";
    EXPECT_EQ(process->totalWritten(), static_cast<int64_t>(data.size()));
    EXPECT_EQ(process->sendCount(), 2);
    process->terminate();
    ASSERT_TRUE(recorder->waitForExits(1));
}

TEST_F(LocalProcessTest, TerminateDuringTheStartEndsTheChildOnceItIsWatched) {
    auto holder = std::make_shared<std::weak_ptr<LocalProcess>>();
    std::atomic<int> phaseSeen{-1};
    // The duplication runs between the fork and the end of the start: the moment to ask.
    auto process = LocalProcess::create(recorder, nullptr, false, [holder, &phaseSeen](int fd) {
        if (auto self = holder->lock()) {
            phaseSeen = static_cast<int>(self->phase());
            self->terminate();
        }
        return fcntl(fd, F_DUPFD_CLOEXEC, 0);
    });
    *holder = process;
    ASSERT_EQ(process->startProcessChecked("/bin/cat"), std::nullopt);
    EXPECT_EQ(phaseSeen, static_cast<int>(LocalProcessPhase::starting));
    ASSERT_TRUE(recorder->waitForExits(1));
    EXPECT_EQ(recorder->exits(), (std::vector<std::optional<int32_t>>{std::nullopt}));
}

TEST_F(LocalProcessTest, AFailedLaunchKillsTheChildAndIsToldOnlyWhenAsked) {
    std::atomic<bool> failDuplicate{true};
    auto process = LocalProcess::create(recorder, nullptr, false, [&](int fd) {
        if (failDuplicate) {
            errno = EMFILE;
            return -1;
        }
        return fcntl(fd, F_DUPFD_CLOEXEC, 0);
    });
    EXPECT_EQ(process->startProcessChecked("/bin/cat"), LocalProcessError::writeChannelFailed(EMFILE));
    EXPECT_EQ(process->phase(), LocalProcessPhase::idle);
    EXPECT_EQ(process->generation(), 1u) << "a failed launch is a session of its own";

    // Told: by default the failure is written into the terminal itself.
    process->startProcess("/bin/cat");
    EXPECT_TRUE(recorder->waitForOutput("\r\nProcess launch failed: writeChannelFailed(errno: 24)\r\n"));
    EXPECT_TRUE(recorder->exits().empty());
    EXPECT_TRUE(eventually([&] { return process->phase() == LocalProcessPhase::idle; }));

    failDuplicate = false;
    ASSERT_EQ(process->startProcessChecked("/bin/sh", {"-c", "exit 5"}), std::nullopt);
    ASSERT_TRUE(recorder->waitForExits(1));
    EXPECT_EQ(recorder->exits().front(), 5);
}

TEST_F(LocalProcessTest, AChildIgnoringSIGTERMRunsOnUntilTheProcessGoes) {
    auto process = LocalProcess::create(recorder);
    process->setKillEscalationDelay(0.1);
    ASSERT_EQ(process->startProcessChecked("/bin/sh", {"-c", "trap '' TERM; echo ready; exec sleep 30"}), std::nullopt);
    ASSERT_TRUE(recorder->waitForOutput("ready"));
    pid_t pid = process->shellPid();
    process->terminate();
    process->terminate();
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(process->phase(), LocalProcessPhase::terminating);
    EXPECT_EQ(kill(pid, 0), 0) << "no escalation while the object lives";

    // Going away escalates to SIGKILL and reaps, telling nobody.
    process.reset();
    EXPECT_TRUE(eventually([] { return anyChild() == 0; }, 5s));
    EXPECT_TRUE(recorder->exits().empty());
}

TEST_F(LocalProcessTest, GoingAwayWhileRunningEndsAndReapsAPlainChild) {
    auto process = LocalProcess::create(recorder);
    ASSERT_EQ(process->startProcessChecked("/bin/cat"), std::nullopt);
    process->send(bytes("x\n"));
    ASSERT_TRUE(recorder->waitForOutput("x\r\nx\r\n"));
    process.reset(); // the fixture checks that cat, its threads and descriptors are gone
}

TEST_F(LocalProcessTest, ABackgroundJobHoldingTheTerminalDelaysTheReportOnlyUntilTheDrainTimeout) {
    auto process = LocalProcess::create(recorder);
    // The job ignores the hang-up that the shell's exit sends, so it keeps the terminal
    // open and goes on writing after the shell has gone.
    std::string script = "trap '' HUP; echo first; (while :; do echo old; sleep 0.1; done) & echo \"job=$!\"";
    std::string secondOutput;
    std::chrono::steady_clock::time_point reported;
    auto started = std::chrono::steady_clock::now();
    size_t outputAtRestart = 0;
    recorder->onTerminated = [&](LocalProcess& source) {
        reported = std::chrono::steady_clock::now();
        outputAtRestart = recorder->output().size();
        // The next session may start from inside the report.
        EXPECT_EQ(source.startProcessChecked("/bin/sh", {"-c", "sleep 0.3; echo second"}), std::nullopt);
    };
    // The report is given outside the recorder's lock, so reading output there is safe.
    ASSERT_EQ(process->startProcessChecked("/bin/sh", {"-c", script}), std::nullopt);
    ASSERT_TRUE(recorder->waitForExits(2));
    auto exits = recorder->exits();
    EXPECT_EQ(exits, (std::vector<std::optional<int32_t>>{0, 0}));
    auto waited = reported - started;
    EXPECT_GE(waited, 450ms) << "the drain waited for the terminal's other holder";
    EXPECT_LT(waited, 2500ms);

    std::string out = recorder->output();
    EXPECT_EQ(out.find("first\r\n"), 0u);
    std::string after = out.substr(outputAtRestart);
    EXPECT_EQ(after, "second\r\n") << "nothing of the first session comes after its report";
    size_t job = out.find("job=");
    ASSERT_NE(job, std::string::npos);
    kill(std::atoi(out.c_str() + job + 4), SIGKILL);
}

TEST_F(LocalProcessTest, PasteControlBytesFollowTheTerminalsSettings) {
    EXPECT_EQ(PseudoTerminalHelpers::terminalControlBytesForPaste(-1), std::nullopt);
    auto process = LocalProcess::create(recorder);
    ASSERT_EQ(process->startProcessChecked("/bin/cat"), std::nullopt);
    auto defaults = process->terminalControlBytesForPaste();
    ASSERT_TRUE(defaults);
    for (unsigned char c : {3, 4, 21, 26, 28, 127}) EXPECT_TRUE(defaults->count(c)) << int(c);

    int fd = process->childfd();
    termios attributes{};
    ASSERT_EQ(tcgetattr(fd, &attributes), 0);
    attributes.c_cc[VINTR] = static_cast<cc_t>(fpathconf(fd, _PC_VDISABLE));
    attributes.c_cc[VDISCARD] = 15;
    attributes.c_cc[VQUIT] = 'q'; // printable: never a control byte
    ASSERT_EQ(tcsetattr(fd, TCSANOW, &attributes), 0);
    auto changed = process->terminalControlBytesForPaste();
    ASSERT_TRUE(changed);
    EXPECT_FALSE(changed->count(3)) << "a disabled character is no control byte";
    EXPECT_TRUE(changed->count(15));
    EXPECT_FALSE(changed->count('q'));
    EXPECT_FALSE(changed->count(0));
    for (unsigned char c : *changed) EXPECT_TRUE(c < 32 || c == 127);
    process->terminate();
    ASSERT_TRUE(recorder->waitForExits(1));
}

namespace {

// Takes the bytes on the reading thread, without a copy.
class BorrowingRecorder : public Recorder, public LocalProcessBorrowedDataDelegate {
public:
    void dataReceivedBorrowed(std::span<const unsigned char> slice) override {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        std::lock_guard guard(mutex_);
        threadNames.insert(name);
        output_.append(slice.begin(), slice.end());
        changed_.notify_all();
    }
    std::set<std::string> threadNames;
};

} // namespace

TEST_F(LocalProcessTest, DirectDeliveryLendsTheBytesOnTheReadingThread) {
    auto borrowing = std::make_shared<BorrowingRecorder>();
    auto process = LocalProcess::create(borrowing, nullptr, true);
    ASSERT_EQ(process->startProcessChecked("/bin/sh", {"-c", "echo lent"}), std::nullopt);
    ASSERT_TRUE(borrowing->waitForExits(1));
    EXPECT_EQ(borrowing->output(), "lent\r\n");
    // Bytes are lent on the pipeline's parse thread, never on the thread that reads.
    EXPECT_EQ(borrowing->threadNames, (std::set<std::string>{"vellum-parse"}));

    // Once the delegate is gone, output and the end fall on nothing.
    ASSERT_EQ(process->startProcessChecked("/bin/sh", {"-c", "sleep 0.2; echo unseen"}), std::nullopt);
    borrowing.reset();
    EXPECT_TRUE(eventually([&] { return process->phase() == LocalProcessPhase::idle; }));
}

TEST_F(LocalProcessTest, TheReaperNeverSignalsAReapedChild) {
    pid_t pid = fork();
    if (pid == 0) {
        pause();
        _exit(0);
    }
    auto reaper = std::make_shared<LocalProcessChildReaper>(pid);
    EXPECT_TRUE(reaper->signal(0));
    EXPECT_FALSE(reaper->awaitExit(0.05));

    // A waiter blocks without the lock, so a signal still gets through while it waits.
    std::promise<std::optional<int>> status;
    std::thread waiter([&] { status.set_value(reaper->wait()); });
    std::this_thread::sleep_for(50ms);
    EXPECT_TRUE(reaper->signal(SIGUSR1));
    auto reaped = status.get_future().get();
    waiter.join();
    ASSERT_TRUE(reaped);
    EXPECT_TRUE(WIFSIGNALED(*reaped));
    EXPECT_EQ(WTERMSIG(*reaped), SIGUSR1);

    EXPECT_FALSE(reaper->signalAllowed());
    EXPECT_FALSE(reaper->signal(SIGKILL));
    EXPECT_EQ(reaper->wait(), std::nullopt) << "a second wait reaps nothing";
    EXPECT_TRUE(reaper->awaitExit(0));
    EXPECT_EQ(reaper->whileAlive([](pid_t) { return 1; }), std::nullopt);
}

TEST_F(LocalProcessTest, ExitsRacingTeardownsAndRestartsLeaveNothingBehind) {
    // Objects going away at every moment of a short child's life.
    for (int round = 0; round < 30; ++round) {
        auto process = LocalProcess::create(recorder);
        ASSERT_EQ(process->startProcessChecked("/bin/sh", {"-c", "echo x"}), std::nullopt);
        if (round % 3 == 1) process->terminate();
        if (round % 3 == 2) std::this_thread::sleep_for(std::chrono::milliseconds(round % 7));
    }

    // A chain of sessions, each started from the previous one's report.
    auto chained = std::make_shared<Recorder>();
    auto process = LocalProcess::create(chained);
    std::atomic<int> left{20};
    std::function<void(LocalProcess&)> next = [&](LocalProcess& source) {
        if (--left > 0) {
            chained->onTerminated = next;
            source.startProcess("/bin/sh", {"-c", "echo link"});
        }
    };
    chained->onTerminated = next;
    process->startProcess("/bin/sh", {"-c", "echo link"});
    ASSERT_TRUE(chained->waitForExits(20));
    EXPECT_EQ(process->generation(), 20u);
    EXPECT_EQ(chained->exits(), std::vector<std::optional<int32_t>>(20, 0));
}

TEST_F(LocalProcessTest, HangUpEndsAShellIgnoringSIGTERMAndTheJobsOfItsGroup) {
    auto process = LocalProcess::create(recorder);
    // Without job control a background job stays in the shell's process group.
    ASSERT_EQ(process->startProcessChecked("/bin/sh", {"-c", "trap '' TERM; sleep 30 & echo \"job=$!\"; wait"}),
              std::nullopt);
    ASSERT_TRUE(recorder->waitForOutput("\r\n"));
    std::string out = recorder->output();
    pid_t job = std::atoi(out.c_str() + out.find("job=") + 4);
    ASSERT_GT(job, 0);

    process->terminate();
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(recorder->exits().empty()) << "the shell ignores SIGTERM";

    process->hangUp();
    ASSERT_TRUE(recorder->waitForExits(1));
    EXPECT_EQ(recorder->exits().front(), std::nullopt) << "ended by the signal";
    EXPECT_TRUE(eventually([&] { return !platform::processLives(job); })) << "the job got the hang-up too";
    process->hangUp(); // after the end: nothing to signal, nothing happens
}

TEST_F(LocalProcessTest, AChildThatLetsGoOfItsTerminalIsNoLongerResizedThroughIt) {
    auto process = LocalProcess::create(recorder);
    ASSERT_EQ(process->startProcessChecked("/bin/sh", {"-c", "echo bye; exec sleep 30 </dev/null >/dev/null 2>&1"}),
              std::nullopt);
    ASSERT_TRUE(recorder->waitForOutput("bye"));
    // End of file on the master: the child runs on, but the descriptor is no longer used.
    EXPECT_TRUE(eventually([&] { return process->childfd() == -1; }));
    EXPECT_EQ(process->phase(), LocalProcessPhase::running);
    EXPECT_FALSE(process->updateWindowSize({30, 90, 0, 0}));
    EXPECT_EQ(process->terminalControlBytesForPaste(), std::nullopt);
    process->terminate();
    ASSERT_TRUE(recorder->waitForExits(1));
}
