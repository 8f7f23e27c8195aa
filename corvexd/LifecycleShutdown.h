#pragma once

#include <chrono>
#include <map>
#include <sys/types.h>
#include <vector>

namespace corvexd {

// The sessions of running panes, each leader with its start time. A pid alone is not enough:
// once a leader and all its session are gone, the kernel may give its pid to a stranger.
using PaneSessions = std::map<pid_t, unsigned long long>;

// Takes the leaders that are alive now and lead a session; call it while the panes still run.
PaneSessions paneSessions(const std::vector<pid_t>& leaders);

// The live processes of those sessions: a pane's shell leads a session of its own, and its
// jobs may sit in other process groups of that session.
std::vector<pid_t> sessionMembers(const PaneSessions& sessions);

// Ends what is left of the panes' sessions after their hang-up: SIGTERM, then SIGKILL, each
// after `patience` without an end; returns once none is left.
void endPaneSessions(const PaneSessions& sessions, std::chrono::milliseconds patience = std::chrono::seconds(1));

} // namespace corvexd
