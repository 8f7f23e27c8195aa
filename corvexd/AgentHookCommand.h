#pragma once

#include <string>
#include <vector>

namespace corvexd {

// The commands the status hooks run inside an agent: `corvex-agent-status KIND` reads Claude
// Code's event from standard input, `corvex-notify KIND [-- CHAINED...] JSON` takes Codex's
// from its last argument. Each reports to the daemon of the pane it runs in and always
// succeeds: the agent's own work never waits long on a daemon that has gone, nor fails.
int agentStatusCommand(const std::vector<std::string>& arguments);
int agentNotifyCommand(const std::vector<std::string>& arguments);

} // namespace corvexd
