#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace corvex {

// How this computer's daemon is run, and its sub-commands. Every operation blocks and runs
// the executable once; callers keep them off the main thread.
class LocalDaemon {
public:
    // A start or upgrade that failed. `holderTooOld`: the process keeping the shells is older
    // than this build and can't be updated without ending them.
    struct Failure : std::runtime_error {
        enum class Kind { holderTooOld, failed };
        Failure(Kind kind, const std::string& message) : std::runtime_error(message), kind(kind) {}
        Kind kind;
    };

    struct Result {
        int status = -1;
        std::string out;
        std::string err;
    };

    std::string source;
    bool runInPlace = false;
    std::optional<std::string> runtimeDir;
    std::optional<std::string> installDir;
    std::function<void(const std::string&)> log;

    // The environment a daemon command gets: ours without the variables the app itself was
    // given for its daemon, plus the runtime and install folders. A runtime folder of its own
    // means an isolated daemon that leaves with its last client.
    static std::vector<std::string> environment(const std::vector<std::string>& inherited,
                                                const std::optional<std::string>& runtimeDir,
                                                const std::optional<std::string>& installDir);

    Result run(const std::string& executable, const std::vector<std::string>& arguments) const;
    // The executable to run. An in-place daemon is its source.
    std::string installedPath() const;
    // Empty when the daemon can't tell.
    std::string socketPath() const;
    void start() const;
    void shutdownAndRemove() const;
};

} // namespace corvex
