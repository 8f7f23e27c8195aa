#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

// Which coding agent, if any, holds a pane's terminal: the program of the terminal's
// foreground process group, as /proc tells it.
namespace corvex {

// "claude" or "codex" for a command line that runs one: by its program's name, or by the
// script an interpreter (node, npx, a shell) was given, such as
// "node /usr/lib/node_modules/@anthropic-ai/claude-code/cli.js".
std::optional<std::string> agentKindOfCommandLine(const std::vector<std::string>& words);

// The foreground process group leader of the terminal that `pid` (the pane's first program)
// runs on, when that is another group than the program's own: the job the shell handed the
// terminal to.
std::optional<pid_t> foregroundJob(pid_t pid);

// The agent kind of the job in the foreground of the pane whose first program is `pid`.
std::optional<std::string> foregroundAgent(pid_t pid);

} // namespace corvex
