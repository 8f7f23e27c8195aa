#pragma once

#include <chrono>
#include <sys/types.h>
#include <vector>

namespace corvexd {

// The live processes of the sessions that `leaders` lead: a pane's shell leads a session
// of its own, and its jobs may sit in other process groups of that session.
std::vector<pid_t> sessionMembers(const std::vector<pid_t>& leaders);

// Ends what is left of the panes' sessions after their hang-up: SIGTERM, then SIGKILL, each
// after `patience` without an end; returns once none is left.
void endPaneSessions(const std::vector<pid_t>& leaders, std::chrono::milliseconds patience = std::chrono::seconds(1));

} // namespace corvexd
