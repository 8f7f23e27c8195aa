#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

namespace platform {

// The path of this program's executable, or empty when it can't be told.
std::string executablePath();

// Whether the process runs: it exists and isn't a zombie waiting for its parent.
bool processLives(pid_t pid);

// The process's working directory, when it can be read.
std::optional<std::string> processWorkingDirectory(pid_t pid);

} // namespace platform
