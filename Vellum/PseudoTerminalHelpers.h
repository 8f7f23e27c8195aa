#pragma once

#include <optional>
#include <set>
#include <string>
#include <sys/ioctl.h>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace vellum {

// A child on a new pseudo-terminal: its process number and the master descriptor.
struct PseudoTerminalChild {
    pid_t pid = 0;
    int master = -1;
};

// Stateless pseudo-terminal calls shared by the local process and its tests.
struct PseudoTerminalHelpers {
    // forkpty and execve with argv exactly as given (argv[0] included). Every string is
    // copied before the fork; the child only resets signals, changes directory and execs,
    // and exits 127 when the exec fails. The master is close-on-exec in this process.
    // Returns the errno of the failure instead when the fork could not be made.
    struct SpawnResult {
        std::optional<PseudoTerminalChild> child;
        int error = 0;
    };
    static SpawnResult spawn(const std::string& path, const std::vector<std::string>& argv,
                             const std::vector<std::string>& env, const std::optional<std::string>& currentDirectory,
                             const winsize& windowSize);

    // The same with the program path put in front of args as argv[0].
    static std::optional<PseudoTerminalChild> forkAndExec(const std::string& path, const std::vector<std::string>& args,
                                                          const std::vector<std::string>& env,
                                                          const std::optional<std::string>& currentDirectory,
                                                          const winsize& desiredWindowSize);

    static int setWinSize(int masterPtyDescriptor, const winsize& windowSize);
    // ioctl(FIONREAD): the status and the number of bytes waiting to be read.
    static std::pair<int, int> availableBytes(int fd);
    // The terminal's control characters below 32 or 127 that are in force, so that a
    // paste can keep them from acting; nothing when the terminal can't be asked.
    static std::optional<std::set<unsigned char>> terminalControlBytesForPaste(int masterPtyDescriptor);
    // Where a process is now, from /proc/PID/cwd.
    static std::optional<std::string> workingDirectory(pid_t pid);
};

} // namespace vellum
