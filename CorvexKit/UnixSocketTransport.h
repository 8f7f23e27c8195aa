#pragma once

#include <functional>
#include <optional>
#include <string>

#include "CorvexKit/CorvexdTransport.h"

namespace corvex {

// The local daemon's socket: the given runtime folder, else CORVEXD_RUNTIME_DIR, else
// TMPDIR/corvexd; a temporary folder too long for a socket address falls back to
// /tmp/corvexd-UID.
std::string defaultCorvexdSocketPath(const std::optional<std::string>& runtimeDir = std::nullopt);

class UnixSocketTransport final : public CorvexdTransport {
public:
    // Paths of this many bytes or more can't be a socket address on every system we serve.
    static constexpr size_t pathLimit = 104;

    // startDaemon, when given, is called once when the first connect fails; it may raise.
    explicit UnixSocketTransport(std::string socketPath, std::function<void()> startDaemon = {});

    std::string name() const override { return socketPath_; }
    double maxReconnectDelay() const override { return 2.0; }
    std::optional<double> heartbeatInterval() const override { return std::nullopt; }
    std::shared_ptr<ByteStream> open(const ProgressHandler& progress) override;

    const std::string& socketPath() const { return socketPath_; }

    // A connected socket descriptor, or BackendError.
    static int connect(const std::string& path);

private:
    std::string socketPath_;
    std::function<void()> startDaemon_;
};

} // namespace corvex
