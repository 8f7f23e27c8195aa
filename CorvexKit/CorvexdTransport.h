#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "CorvexKit/ByteStream.h"

namespace corvex {

using ProgressHandler = std::function<void(const std::string& text)>;

// A way to reach one daemon. open() blocks (it may start a daemon or an ssh child) and
// raises BackendError, or what the transport's own hooks raise, when it can't.
class CorvexdTransport {
public:
    virtual ~CorvexdTransport() = default;

    // For messages: the socket path or the ssh target.
    virtual std::string name() const = 0;
    // Seconds; the longest wait between reconnect attempts under the default retry policy.
    virtual double maxReconnectDelay() const = 0;
    // Seconds of silence before the link is probed; absent for links that can't go quiet
    // without the kernel noticing.
    virtual std::optional<double> heartbeatInterval() const = 0;
    virtual std::shared_ptr<ByteStream> open(const ProgressHandler& progress) = 0;
};

} // namespace corvex
