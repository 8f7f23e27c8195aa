#include "corvexd/UpgradeCommand.h"

#include <chrono>
#include <csignal>
#include <iostream>
#include <optional>
#include <tuple>
#include <sys/stat.h>
#include <thread>

#include "Platform/ProcessInfo.h"
#include "corvexd/BuildInfo.h"
#include "corvexd/CommandSupport.h"
#include "corvexd/HolderClient.h"
#include "corvexd/InstallCommand.h"
#include "corvexd/Lifecycle.h"

namespace corvexd {

namespace {

using Clock = std::chrono::steady_clock;

// A hand-over settles every pane and writes their terminals out; generous for many panes.
constexpr auto handOverTimeout = std::chrono::seconds(30);

constexpr auto startTimeout = std::chrono::seconds(15);

// A freed inode number is soon given again, so the time of making tells two sockets apart.
std::optional<std::tuple<ino_t, time_t, long>> socketIdentity(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    return std::tuple{info.st_ino, info.st_ctim.tv_sec, info.st_ctim.tv_nsec};
}

} // namespace

std::optional<std::string> whyHolderTooOld(const std::optional<HolderInfo>& holder, bool serverRuns) {
    if (serverRuns && !holder) return "the running corvexd keeps its shells itself";
    if (holder && holder->protocol < holder::minimumProtocol) {
        return "the running shells are kept by corvexd " + holder->build + " (holder protocol " +
               std::to_string(holder->protocol) + ", this build needs " + std::to_string(holder::minimumProtocol) + ")";
    }
    return std::nullopt;
}

int refuseOldHolder(const std::string& why) {
    std::cerr << "corvexd: " << why
              << "; this build can't take its shells over. Restart corvexd to finish upgrading (that ends every shell). "
                 "Nothing was changed.\n";
    return holderTooOldExit;
}

int upgradeCommand(const std::vector<std::string>& options) {
    if (!options.empty()) {
        std::cerr << "usage: corvexd upgrade\n";
        return 2;
    }
    auto directory = runtimeDirectory();
    auto serving = runningServer(directory);
    auto holder = probeHolder(directory.path());
    // Checked before anything is touched, so that a refusal leaves all as it was.
    if (auto why = whyHolderTooOld(holder, serving.has_value())) return refuseOldHolder(*why);
    auto installed = installSelf();
    if (!installed) return 1;
    auto asked = Clock::now();
    if (!serving) {
        ensureStarted(directory, *installed);
    } else {
        // The old process's threads may still hold its socket a moment after it has let go
        // of the pid file, so the new server is known by a socket of its own.
        auto oldSocket = socketIdentity(directory.socketPath());
        ::kill(*serving, SIGUSR1);
        auto deadline = Clock::now() + handOverTimeout;
        while (runningServer(directory) == serving) {
            if (Clock::now() > deadline) return fail("the running daemon (pid " + std::to_string(*serving) + ") didn't hand over");
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        spawnServe(directory, *installed);
        deadline = Clock::now() + startTimeout;
        while (socketIdentity(directory.socketPath()) == oldSocket || !accepts(directory.socketPath())) {
            if (Clock::now() > deadline) return fail("the new daemon didn't start; see " + directory.logPath());
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    // From the old server's last answer to the new one's first accept: what clients wait.
    auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - asked).count();
    std::cout << "serving " << buildId() << " from " << *installed << " (clients waited " << waited << " ms)\n";
    return 0;
}

} // namespace corvexd
