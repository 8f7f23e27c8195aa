#pragma once

#include <string>
#include <vector>

namespace corvexd {

// `corvexd hooks status | print AGENT | install AGENT | uninstall AGENT`: the agents' status
// hooks in the user's home.
int hooksCommand(const std::vector<std::string>& arguments);

} // namespace corvexd
