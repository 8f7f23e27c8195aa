#pragma once

#include <string>

namespace corvexd {

// The version of this build, e.g. "0.1.0".
std::string buildVersion();
// "<version>-<hash>": the hash of the source tree it was built from, or "dev".
std::string buildId();

} // namespace corvexd
