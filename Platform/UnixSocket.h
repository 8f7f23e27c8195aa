#pragma once

#include <string>

namespace platform {

// A Unix stream socket's outcome: the descriptor, or -1 with the errno that ended the attempt.
struct SocketResult {
    int fd = -1;
    int error = 0;
};

// Connects to the socket at `path`, close-on-exec; a path too long for an address fails
// with ENAMETOOLONG.
SocketResult connectUnixSocket(const std::string& path);

// Binds `path` (which must not exist) and listens, close-on-exec and non-blocking.
SocketResult listenUnixSocket(const std::string& path, int backlog = 64);

} // namespace platform
