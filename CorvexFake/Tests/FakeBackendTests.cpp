#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "CorvexFake/FakeBackend.h"
#include "Vellum/Tests/Support/ProcessLeakCheck.h"

using namespace corvex;
using namespace std::chrono_literals;

namespace {

SpawnOptions shell() { return SpawnOptions{.command = std::vector<std::string>{"/bin/sh"}, .cwd = "/tmp"}; }

// Reads events until one satisfies the predicate; fails after a generous wait.
template <typename Predicate>
std::vector<SessionEvent> readUntil(SessionEventStream& events, Predicate done) {
    std::vector<SessionEvent> seen;
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < deadline) {
        auto event = events.next(100ms);
        if (!event) continue;
        seen.push_back(*event);
        if (done(*event)) return seen;
    }
    ADD_FAILURE() << "event never came";
    return seen;
}

// No test leaves a shell, thread or descriptor behind.
using FakeBackendTest = vellum::testing::ProcessLeakCheck;

} // namespace

// A shell's echo through the engine and the pane host is the contract suite's, over the daemon
// that runs the same two; here the real process's end.
TEST_F(FakeBackendTest, AProgramsEndIsReportedOnceWithItsStatus) {
    auto backend = FakeBackend::create();
    auto events = backend->events();
    backend->start();
    auto created = backend->createWorkspace("w", shell());

    // A second pane, then the first one's program ends: reported once, the pane is gone and
    // focus falls to the survivor.
    auto split = backend->split(created.pane, Direction::right, shell());
    backend->sendInput(created.pane, asBytes("exit 3\n"));
    auto seen = readUntil(*events, [&](const SessionEvent& event) {
        auto state = event.as<SessionEvent::State>();
        return state && state->state.pane(split.pane) && !state->state.pane(created.pane);
    });
    int exits = 0;
    for (const auto& event : seen) {
        if (auto changed = event.as<SessionEvent::PaneChanged>(); changed && changed->pane.exited) {
            ++exits;
            EXPECT_EQ(changed->pane.exited->code, 3);
        }
    }
    EXPECT_EQ(exits, 1);
    auto state = backend->getState();
    EXPECT_EQ(state.focus.pane, split.pane);
    EXPECT_EQ(state.panes.size(), 1u);

    backend->stop();
    while (events->next(1s)) {
    }
    EXPECT_TRUE(events->isFinished());
}

TEST_F(FakeBackendTest, AFloodArrivesContiguously) {
    auto backend = FakeBackend::create();
    auto events = backend->events();
    backend->start();
    // Quiet once the flood is over, so the position stays put for the check at the end.
    auto created = backend->createWorkspace(
        std::nullopt, SpawnOptions{.command = std::vector<std::string>{
                                       "/bin/sh", "-c", "head -c 3000000 /dev/zero | tr '\\0' x; echo END; sleep 30"}});
    auto first = backend->subscribe(created.pane);
    uint64_t next = first.seq;
    std::string tail;
    readUntil(*events, [&](const SessionEvent& event) {
        auto output = event.as<SessionEvent::Output>();
        if (!output) return false;
        EXPECT_EQ(output->seq, next); // no gap, no overlap, in order
        next = output->seq + output->bytes.size();
        tail.append(output->bytes.begin(), output->bytes.end());
        if (tail.size() > 64) tail.erase(0, tail.size() - 64);
        return tail.find("END") != std::string::npos;
    });
    EXPECT_GT(next, 3000000u);
    EXPECT_EQ(backend->getState().pane(created.pane)->seq, next);
    backend->stop();
}
