#pragma once

#include <functional>
#include <map>
#include <string>

#include "Tools/corvex/Arguments.h"
#include "Tools/corvex/Cli.h"

namespace corvex::cli {

using CommandRun = std::function<int(CorvexdBackend& backend, Streams& io)>;

struct CommandSpec {
    // Reads the command's arguments (raising UsageError) and yields what runs it.
    std::function<CommandRun(Arguments& args)> parse;
    bool interactive = false;
};

// Every command by name.
const std::map<std::string, CommandSpec>& commands();

// Commands that stream: pane output, the whole terminal, events.
CommandRun parseCat(Arguments& args);
CommandRun parseAttach(Arguments& args);
CommandRun parseRun(Arguments& args);
CommandRun parseWatch(Arguments& args);
// The agents, those that need the user first, and the answer to one's permission request.
CommandRun parseAgents(Arguments& args);
CommandRun parseDecide(Arguments& args);
// Files here and on the daemon's machine (a path that begins with ":").
CommandRun parseLs(Arguments& args);
CommandRun parseStat(Arguments& args);
CommandRun parseCp(Arguments& args);

} // namespace corvex::cli
