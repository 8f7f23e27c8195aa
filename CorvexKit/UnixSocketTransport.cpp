#include "CorvexKit/UnixSocketTransport.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

#include "CorvexKit/SessionBackend.h"
#include "Platform/System.h"
#include "Platform/UnixSocket.h"

namespace corvex {

namespace {

std::string joinPath(std::string dir, const std::string& name) {
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    return dir == "/" ? dir + name : dir + "/" + name;
}

} // namespace

std::string defaultCorvexdSocketPath(const std::optional<std::string>& runtimeDir) {
    if (runtimeDir) return joinPath(*runtimeDir, "corvexd.sock");
    if (auto dir = platform::environmentValue("CORVEXD_RUNTIME_DIR"); !dir.empty()) return joinPath(dir, "corvexd.sock");
#ifdef __APPLE__
    // The temporary folder is the user's own there.
    std::string path = joinPath(joinPath(platform::temporaryDirectory(), "corvexd"), "corvexd.sock");
    if (path.size() < 100) return path;
#endif
    // /tmp is shared by every user here, so the folder carries the user's number.
    return "/tmp/corvexd-" + std::to_string(platform::userId()) + "/corvexd.sock";
}

UnixSocketTransport::UnixSocketTransport(std::string socketPath, std::function<void()> startDaemon)
    : socketPath_(std::move(socketPath)), startDaemon_(std::move(startDaemon)) {}

int UnixSocketTransport::connect(const std::string& path) {
    if (path.size() >= pathLimit) throw BackendError("bad_request", "socket path too long: " + path);
    auto connected = platform::connectUnixSocket(path);
    if (connected.fd < 0) {
        throw BackendError("disconnected", "can't connect to " + path + ": " + std::strerror(connected.error));
    }
    return connected.fd;
}

std::shared_ptr<ByteStream> UnixSocketTransport::open(const ProgressHandler& progress) {
    int fd;
    try {
        fd = connect(socketPath_);
    } catch (const BackendError& error) {
        // Only a daemon that isn't there yet is worth starting; a bad path stays bad.
        if (!startDaemon_ || error.code() != "disconnected") throw;
        if (progress) progress("Starting corvexd");
        startDaemon_();
        fd = connect(socketPath_);
    }
    // Sends use MSG_NOSIGNAL, so a dead daemon yields an error rather than SIGPIPE.
    return ByteStream::make(fd, fd, [fd] { ::shutdown(fd, SHUT_RDWR); });
}

} // namespace corvex
