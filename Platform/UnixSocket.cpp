#include "Platform/UnixSocket.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace platform {

namespace {

bool addressFor(const std::string& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

SocketResult failed(int fd, int error) {
    if (fd >= 0) ::close(fd);
    return {-1, error};
}

} // namespace

SocketResult connectUnixSocket(const std::string& path) {
    sockaddr_un address;
    if (!addressFor(path, address)) return {-1, ENAMETOOLONG};
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return failed(-1, errno);
    int result;
    do {
        result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    } while (result < 0 && errno == EINTR);
    if (result < 0) return failed(fd, errno);
    return {fd, 0};
}

SocketResult listenUnixSocket(const std::string& path, int backlog) {
    sockaddr_un address;
    if (!addressFor(path, address)) return {-1, ENAMETOOLONG};
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return failed(-1, errno);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) return failed(fd, errno);
    if (::listen(fd, backlog) != 0) return failed(fd, errno);
    return {fd, 0};
}

} // namespace platform
