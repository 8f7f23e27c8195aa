#include <gtest/gtest.h>

#include "CorvexKit/CorvexdBackend.h"
#include "Support/DaemonHarness.h"

using namespace corvexd::testing;
using corvex::SessionEvent;

namespace {

template <typename T>
std::optional<T> nextOf(corvex::SessionEventStream& events, std::chrono::milliseconds timeout = 15s) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        auto left = deadline - std::chrono::steady_clock::now();
        if (left <= 0ms) return std::nullopt;
        auto event = events.next(left);
        if (!event) return std::nullopt;
        if (auto* found = event->as<T>()) return *found;
    }
}

} // namespace

// The client library against the real daemon: it starts the daemon on first contact, and
// after a deliberate stop waits to be asked before it starts a new instance.
TEST(CorvexdBackendAgainstDaemon, ConnectsStartsAndFollowsARestart) {
    DaemonHarness daemon;
    auto configuration = corvex::CorvexdBackend::Configuration::socket(daemon.socketPath(), "tests", {}, [&] {
        auto started = daemon.run({"start"});
        if (started.status != 0) throw corvex::BackendError("failed", started.err);
    });
    auto backend = corvex::CorvexdBackend::make(configuration);
    auto events = backend->events();
    backend->start();

    auto connected = nextOf<SessionEvent::Connected>(*events);
    ASSERT_TRUE(connected) << "the backend started the daemon and shook hands";

    // A deliberate stop is told to the client, which waits to be asked rather than start
    // another daemon in its place.
    ASSERT_EQ(daemon.run({"stop"}).status, 0);
    EXPECT_TRUE(nextOf<SessionEvent::Disconnected>(*events));
    auto paused = nextOf<SessionEvent::RetryPaused>(*events);
    ASSERT_TRUE(paused);
    EXPECT_EQ(paused->reason, "corvexd was shut down");
    EXPECT_TRUE(backend->daemonWasShutDown());
    EXPECT_FALSE(backend->isConnected());
    backend->reconnectNow();
    auto again = nextOf<SessionEvent::Connected>(*events);
    ASSERT_TRUE(again) << "asked, the backend reconnects, starting the daemon again";
    EXPECT_NE(again->hello.instance, connected->hello.instance);
    EXPECT_TRUE(nextOf<SessionEvent::State>(*events));
    backend->stop();
}
