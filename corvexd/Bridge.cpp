#include "corvexd/Bridge.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Descriptors.h"
#include "corvexd/CommandSupport.h"
#include "corvexd/Lifecycle.h"

namespace corvexd {

namespace {

// Bulk copies go through the bridge: a file over ssh crosses it byte for byte. Larger pipe
// and socket buffers mean fewer wake-ups of sshd, the bridge and the daemon per megabyte.
constexpr int relayBuffer = 1 << 20;

void enlargeBuffers(int socket) {
#ifdef F_SETPIPE_SZ
    // Not a pipe, or more than the system allows: the default stays, which only costs speed.
    (void)::fcntl(0, F_SETPIPE_SZ, relayBuffer);
    (void)::fcntl(1, F_SETPIPE_SZ, relayBuffer);
#endif
    int size = relayBuffer;
    (void)::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    (void)::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

// One direction of the relay. Moves what is ready now: through the kernel alone while one end
// is a pipe, else through a buffer. Gives the bytes moved, 0 at the end, -1 on failure.
class Relay {
public:
    Relay(int from, int to) : from_(from), to_(to) {}

    ssize_t step(char* buffer, size_t size) {
#ifdef SPLICE_F_MOVE
        if (splicing_) {
            ssize_t moved = ::splice(from_, nullptr, to_, nullptr, relayBuffer, SPLICE_F_MOVE);
            if (moved >= 0 || errno == EINTR || errno == EAGAIN) return moved < 0 ? 1 : moved;
            if (errno != EINVAL) return -1;
            splicing_ = false; // neither end is a pipe: copy instead
        }
#endif
        ssize_t count = ::read(from_, buffer, size);
        if (count < 0) return errno == EINTR || errno == EAGAIN ? 1 : -1;
        if (count == 0) return 0;
        return platform::writeAll(to_, std::string_view(buffer, static_cast<size_t>(count))) ? count : -1;
    }

private:
    int from_;
    int to_;
    bool splicing_ = true;
};

} // namespace

// Relays standard input to the daemon and the daemon to standard output, until the daemon
// closes; an end of standard input half-closes the socket so replies still come back.
int bridge() {
    auto directory = runtimeDirectory();
    ensureStarted(directory);
    int socket = connectTo(directory.socketPath());
    if (socket < 0) return fail("can't connect to " + directory.socketPath());
    ::signal(SIGPIPE, SIG_IGN);
    enlargeBuffers(socket);
    Relay up(0, socket), down(socket, 1);
    bool inputOpen = true;
    static char buffer[65536];
    while (true) {
        pollfd fds[2] = {{socket, POLLIN, 0}, {inputOpen ? 0 : -1, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[0].revents && down.step(buffer, sizeof buffer) <= 0) break;
        if (fds[1].revents) {
            ssize_t moved = up.step(buffer, sizeof buffer);
            if (moved < 0) break;
            if (moved == 0) {
                inputOpen = false;
                ::shutdown(socket, SHUT_WR);
            }
        }
    }
    ::close(socket);
    return 0;
}

} // namespace corvexd
