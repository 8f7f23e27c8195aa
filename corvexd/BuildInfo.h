#pragma once

#include <string>

namespace corvexd {

// The version of this build, e.g. "0.1.0".
std::string buildVersion();
// "<version>-<hash>": the hash of the source tree it was built from, or "dev".
// CORVEXD_BUILD_ID_OVERRIDE replaces it, so that one executable can play two builds (an
// upgrade of a running daemon is tried that way).
std::string buildId();

} // namespace corvexd
