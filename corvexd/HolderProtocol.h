#pragma once

#include <optional>
#include <string>
#include <vector>

// The private conversation between the serving process and the holder, over a local
// SOCK_SEQPACKET socket: each message is one packet of fields separated by NUL bytes, and a
// pseudo-terminal master travels beside it (SCM_RIGHTS). The holder's protocol number says
// which messages it knows; a server refuses to take over from a holder older than it needs.
namespace corvexd::holder {

// What this build's holder speaks, and the oldest holder this build's server can work with.
constexpr int protocol = 1;
constexpr int minimumProtocol = 1;

struct Message {
    std::vector<std::string> fields;
    int descriptor = -1; // received: ours to close
};

std::string socketPath(const std::string& runtimeDirectory);
std::string pidPath(const std::string& runtimeDirectory);
std::string handOverPath(const std::string& runtimeDirectory);

// Sends one message, with a copy of `descriptor` when it isn't -1. False when the peer has gone.
bool send(int socket, const std::vector<std::string>& fields, int descriptor = -1);
// The next message; absent at the end of the connection or on an error. Blocks unless the
// socket is non-blocking.
std::optional<Message> receive(int socket);

// The protocol the holder of this build reports: CORVEXD_HOLDER_PROTOCOL may make it claim an
// older one, so that the refusal of an upgrade can be tried without an old build at hand.
int reportedProtocol();

} // namespace corvexd::holder
