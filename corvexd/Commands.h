#pragma once

#include <string>
#include <vector>

namespace corvexd {

// Each sub-command returns the process's exit status; failures print "corvexd: <message>"
// on standard error.
int runCommand(const std::vector<std::string>& arguments);

} // namespace corvexd
