#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace corvexd {

// Each sub-command returns the process's exit status; failures print "corvexd: <message>"
// on standard error.
int runCommand(const std::vector<std::string>& arguments);

// True while the process exists and isn't a zombie waiting for its parent.
bool processLives(pid_t pid);

} // namespace corvexd
