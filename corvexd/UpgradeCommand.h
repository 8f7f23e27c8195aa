#pragma once

#include <optional>
#include <string>
#include <vector>

#include "corvexd/HolderClient.h"

namespace corvexd {

// The exit status of an upgrade that the running holder is too old to take.
constexpr int holderTooOldExit = 3;

// `corvexd upgrade`, run from a new build: installs it, then has the running server hand its
// session over and starts this build's server on it. The shells and the holder stay; clients
// see their connection drop and come back at the positions they had. When the running
// shells are kept by a holder this build can't take over from, it changes nothing and exits
// with holderTooOldExit.
int upgradeCommand(const std::vector<std::string>& options);

// Why this build can't serve the shells that run now (kept by `holder`, or by a running
// server of its own when there is no holder), or nothing when it can.
std::optional<std::string> whyHolderTooOld(const std::optional<HolderInfo>& holder, bool serverRuns);
// Says so on standard error; returns holderTooOldExit.
int refuseOldHolder(const std::string& why);

} // namespace corvexd
