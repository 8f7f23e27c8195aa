#pragma once

#include <memory>

namespace corvex {
class SessionCore;
}

namespace corvexd {

class Server;

// Serves the session core over the server: its methods become requests, its events go to
// the clients that asked for them, and pane output to each pane's subscribers. The core's
// single stream of pane output is shared by every subscribed client; each client's own
// position is kept by the server.
void serveSession(Server& server, std::shared_ptr<corvex::SessionCore> core);

} // namespace corvexd
