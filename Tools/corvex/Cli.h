#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace corvex {
class CorvexdBackend;
}

namespace corvex::cli {

// A command line that can't be used; exits with status 2 and the one line of usage of the
// command it was meant for.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    UsageError(const std::string& message, std::string usage) : std::runtime_error(message), usage_(std::move(usage)) {}
    const std::string& usage() const { return usage_; }

private:
    std::string usage_;
};

struct Streams {
    std::istream& in;
    std::ostream& out;
    std::ostream& err;
};

// Where to reach the daemon, and the command to run there.
struct Invocation {
    std::optional<std::string> socketPath;
    std::optional<std::string> sshTarget;
    std::optional<std::string> remoteCommand;
    std::string clientName = "corvex";
    std::string name;
    // Runs the command on a started backend; yields the exit status.
    std::function<int(CorvexdBackend& backend, Streams& io)> run;
    // Long-running commands keep a terminal: signals are taken by a thread of their own.
    bool interactive = false;
    // Commands that only look never start a daemon; they say that none runs.
    bool readOnly = false;
    // Needs no daemon at all, as `ls` of a local path: none is reached, started or installed.
    bool hereAlone = false;
};

// Raises UsageError; every argument is checked before anything is connected.
Invocation parse(const std::vector<std::string>& args);

extern const char* const usageText;
// The line printed under a usage error that belongs to no one command.
extern const char* const shortUsage;

// The whole program: 0 on success, 1 with "corvex: CODE: MESSAGE" on a failure, 2 on a
// usage error.
int run(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err);

} // namespace corvex::cli
