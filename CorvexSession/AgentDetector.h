#pragma once

#include <cstdint>
#include <memory>
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

struct ForegroundAgent {
    pid_t pid = 0; // the job's process group leader
    std::string kind;
};

// The agent in the foreground of the pane whose first program is `pid`.
std::optional<ForegroundAgent> foregroundAgent(pid_t pid);

// An agent's process, held so that its end can be read after the shell that started it has
// reaped it: the daemon isn't its parent and can't wait for it.
class AgentProcessWatch {
public:
    explicit AgentProcessWatch(pid_t pid);
    ~AgentProcessWatch();
    AgentProcessWatch(const AgentProcessWatch&) = delete;
    AgentProcessWatch& operator=(const AgentProcessWatch&) = delete;

    pid_t pid() const { return pid_; }
    bool ended() const;
    // The wait status of an ended process; absent while it runs, or where the system keeps
    // no exit status for processes other than one's children.
    std::optional<int> exitStatus() const;

private:
    pid_t pid_;
    int fd_ = -1;
};

// What the detector remembers of a pane whose agent it guessed, between two looks.
struct GuessedAgentLook {
    std::optional<uint64_t> screenSeq; // the output position of the last screen read
    std::shared_ptr<AgentProcessWatch> process;
};

} // namespace corvex
