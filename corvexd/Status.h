#pragma once

#include <string>
#include <vector>

namespace corvexd {

// `corvexd status`: whether a daemon runs, or with an option the socket's path or the builds
// that serve it.
int status(const std::vector<std::string>& options);

} // namespace corvexd
