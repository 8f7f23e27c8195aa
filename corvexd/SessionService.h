#pragma once

#include <memory>
#include <optional>
#include <string>

namespace corvex {
class SessionCore;
}

namespace corvexd {

class Server;

// Serves the session core over the server: its methods become requests, its events go to
// the clients that asked for them, and pane output to each pane's subscribers. The core's
// single stream of pane output is shared by every subscribed client; each client's own
// position is kept by the server.
struct SessionServiceOptions {
    // Where the daemon's settings are kept; empty keeps them for this run only.
    std::string settingsPath;
    // Shown to clients as where the settings come from.
    std::optional<std::string> configName;
    // Where the tree is kept for the next run, which brings it back; empty keeps nothing.
    std::string treePath;
};

void serveSession(Server& server, std::shared_ptr<corvex::SessionCore> core, const SessionServiceOptions& options = {});

} // namespace corvexd
