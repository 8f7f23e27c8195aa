#include "corvexd/Bridge.h"

#include <cerrno>
#include <csignal>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Descriptors.h"
#include "corvexd/CommandSupport.h"
#include "corvexd/Lifecycle.h"

namespace corvexd {

// Relays standard input to the daemon and the daemon to standard output, until the daemon
// closes; an end of standard input half-closes the socket so replies still come back.
int bridge() {
    auto directory = runtimeDirectory();
    ensureStarted(directory);
    int socket = connectTo(directory.socketPath());
    if (socket < 0) return fail("can't connect to " + directory.socketPath());
    ::signal(SIGPIPE, SIG_IGN);
    bool inputOpen = true;
    char buffer[65536];
    while (true) {
        pollfd fds[2] = {{socket, POLLIN, 0}, {inputOpen ? 0 : -1, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[0].revents) {
            ssize_t count = ::recv(socket, buffer, sizeof(buffer), 0);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0 || !platform::writeAll(1, std::string_view(buffer, static_cast<size_t>(count)))) break;
        }
        if (fds[1].revents) {
            ssize_t count = ::read(0, buffer, sizeof(buffer));
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) {
                inputOpen = false;
                ::shutdown(socket, SHUT_WR);
            } else if (!platform::writeAll(socket, std::string_view(buffer, static_cast<size_t>(count)))) {
                break;
            }
        }
    }
    ::close(socket);
    return 0;
}

} // namespace corvexd
