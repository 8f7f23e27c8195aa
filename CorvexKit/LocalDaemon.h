#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "CorvexKit/ProcessRun.h"

namespace corvex {

// How this computer's daemon is run, and its sub-commands. The app ships a corvexd beside
// its own executable, but the shells must outlive updates of the app, so the daemon installs
// itself into a stable per-user place and the app talks to that copy. Every call runs the
// executable to its end: call them off the main thread.
class LocalDaemon {
public:
    struct Failure : std::runtime_error {
        enum class Kind { holderTooOld, failed };
        Failure(Kind kind, const std::string& message) : std::runtime_error(message), kind(kind) {}
        Kind kind;
    };
    using Log = std::function<void(const std::string& line)>;

    std::string source;      // the bundled or overridden executable
    bool runInPlace = false; // use `source` itself: never install, copy or upgrade
    std::optional<std::string> runtimeDir;
    std::optional<std::string> installDir;
    Log log;

    // The environment a daemon run gets: ours without "DROVER_" and "CORVEX_" variables,
    // plus the directories; a run with its own runtime directory is isolated and ephemeral.
    std::vector<std::string> environment() const;
    // Runs the executable with stdin on the null device, output through temporary files.
    // Output comes back trimmed.
    ProcessResult run(const std::string& executable, const std::vector<std::string>& arguments) const;

    // "<base>/<id>/corvexd": where the bundled build installs to.
    std::string bundledInstallPath() const;
    // The executable to start: the source when run in place, else the installed current build,
    // installing it first when it is missing. Throws Failure.
    std::string installedPath() const;
    std::optional<std::string> socketPath() const;
    void start() const;
    void upgrade() const;
    // Ends the daemon and its shells, and removes what the given directories hold.
    void shutdownAndRemove() const;

private:
    [[noreturn]] void fail(const ProcessResult& result, const std::string& fallback) const;
    void report(const std::string& line) const;
};

} // namespace corvex
