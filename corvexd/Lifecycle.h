#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

#include "corvexd/RuntimeDirectory.h"

namespace corvexd {

// `corvexd serve`: serves the runtime folder's socket in the foreground until told to stop.
int serve();
// Makes sure a daemon accepts on the runtime folder's socket, starting one if none does.
// `executable` is the program to start, this one when empty.
void ensureStarted(const RuntimeDirectory& directory, const std::string& executable = {});
// The runtime folder of this user, made when missing.
RuntimeDirectory runtimeDirectory();
// Starts `executable serve` detached from this process: its own session, no terminal, output
// to the log, and not our child once it returns. It doesn't wait for the socket.
void spawnServe(const RuntimeDirectory& directory, const std::string& executable);
// The process number of the daemon serving the runtime folder, when one runs.
std::optional<pid_t> runningServer(const RuntimeDirectory& directory);
// `corvexd start`.
int start();
// Signals the running daemon and waits until it has gone; with `forceAfterTimeout`, one that
// doesn't go in time is killed.
int terminate(bool forceAfterTimeout);

} // namespace corvexd
