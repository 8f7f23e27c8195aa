#pragma once

#include "corvexd/RuntimeDirectory.h"

namespace corvexd {

// `corvexd serve`: serves the runtime folder's socket in the foreground until told to stop.
int serve();
// Makes sure a daemon accepts on the runtime folder's socket, starting one if none does.
void ensureStarted(const RuntimeDirectory& directory);
// The runtime folder of this user, made when missing.
RuntimeDirectory runtimeDirectory();
// `corvexd start`.
int start();
// Signals the running daemon and waits until it has gone; with `forceAfterTimeout`, one that
// doesn't go in time is killed.
int terminate(bool forceAfterTimeout);

} // namespace corvexd
