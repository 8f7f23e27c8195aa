#include "corvexd/HolderProtocol.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/System.h"

namespace corvexd::holder {

namespace {

// Large enough for a program's whole environment; the holder's socket buffers are sized to match.
constexpr size_t packetLimit = 1u << 20;

} // namespace

std::string socketPath(const std::string& runtimeDirectory) { return runtimeDirectory + "/holder.sock"; }
std::string pidPath(const std::string& runtimeDirectory) { return runtimeDirectory + "/holder.pid"; }
std::string handOverPath(const std::string& runtimeDirectory) { return runtimeDirectory + "/corvexd.handover"; }

bool send(int socket, const std::vector<std::string>& fields, int descriptor) {
    std::string packet;
    for (size_t i = 0; i < fields.size(); ++i) {
        if (i > 0) packet.push_back('\0');
        packet += fields[i];
    }
    iovec data{packet.data(), packet.size()};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (descriptor >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &descriptor, sizeof(int));
    }
    for (;;) {
        ssize_t sent = ::sendmsg(socket, &message, MSG_NOSIGNAL);
        if (sent >= 0) return true;
        if (errno != EINTR) return false;
    }
}

std::optional<Message> receive(int socket) {
    std::string packet(packetLimit, '\0');
    iovec data{packet.data(), packet.size()};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t count;
    do {
        count = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    } while (count < 0 && errno == EINTR);
    if (count <= 0) return std::nullopt;
    Message out;
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            std::memcpy(&out.descriptor, CMSG_DATA(header), sizeof(int));
        }
    }
    if (message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) {
        if (out.descriptor >= 0) ::close(out.descriptor);
        return std::nullopt;
    }
    packet.resize(static_cast<size_t>(count));
    size_t start = 0;
    for (;;) {
        size_t end = packet.find('\0', start);
        out.fields.push_back(packet.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return out;
}

int reportedProtocol() {
    auto claimed = platform::environmentValue("CORVEXD_HOLDER_PROTOCOL");
    if (claimed.empty()) return protocol;
    try {
        return std::stoi(claimed);
    } catch (const std::exception&) {
        return protocol;
    }
}

} // namespace corvexd::holder
