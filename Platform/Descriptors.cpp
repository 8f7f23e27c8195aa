#include "Platform/Descriptors.h"

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace platform {

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t count = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == ENOTSOCK) count = ::write(fd, bytes.data(), bytes.size());
        if (count < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (count == 0) return false;
        bytes.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

} // namespace platform
