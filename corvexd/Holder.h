#pragma once

#include <string>

namespace corvexd {

// `corvexd holder`: the long-lived process that is parent of every shell and keeps every
// pseudo-terminal master, so that the serving process can be replaced without ending them.
// It serves one serving process at a time on "<runtime>/holder.sock" and records itself in
// "<runtime>/holder.pid". When its server goes without announcing a hand-over, or none takes
// over in time, it ends the shells as a closing terminal would and leaves.
int holderCommand();

// Starts a detached holder for the runtime folder from `executable` unless one runs, and
// returns once it accepts; raises DaemonError.
void ensureHolder(const std::string& runtimeDirectory, const std::string& executable);

} // namespace corvexd
