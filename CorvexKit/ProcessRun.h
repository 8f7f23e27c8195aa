#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace corvex {

// One run of a program to its end, with what it printed.
struct ProcessResult {
    int status = -1; // the exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;

    bool operator==(const ProcessResult&) const = default;
};

struct ProcessRequest {
    std::string program; // a path, or a name looked up on PATH
    std::vector<std::string> arguments;
    // "NAME=value" entries; absent means this process's own environment.
    std::optional<std::vector<std::string>> environment;
    // Fed through a pipe; absent means the null device.
    std::optional<std::string> input;
    // Output through temporary files instead of pipes: a child that daemonises may hand a
    // pipe to a grandchild that keeps it open for ever, but a file never holds up the wait.
    bool outputThroughFiles = false;
};

// Runs the program and waits for it. Standard output and error are drained together, so a
// child that fills one while we wait on the other can't deadlock. Throws std::runtime_error
// when the program can't be started.
ProcessResult runProcess(const ProcessRequest& request);

// Starts `program` (a path, or a name looked up on PATH) on the given standard input, output
// and error (an input of -1 is the null device), with default signal handling and nothing
// blocked, whatever this process ignores or blocks. `environment` holds "NAME=value"
// entries; absent means this process's own. Throws std::runtime_error when it can't start.
pid_t spawnChild(const std::string& program, const std::vector<std::string>& arguments,
                 const std::optional<std::vector<std::string>>& environment, int in, int out, int err);

// This process's environment, without the variables whose names start with one of the prefixes.
std::vector<std::string> environmentWithout(const std::vector<std::string>& prefixes);

} // namespace corvex
