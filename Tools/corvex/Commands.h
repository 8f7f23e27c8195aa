#pragma once

#include <functional>
#include <map>
#include <string>

#include "Tools/corvex/Arguments.h"
#include "CorvexKit/SessionBackend.h"
#include "Tools/corvex/Cli.h"

namespace corvex::cli {

using CommandRun = std::function<int(CorvexdBackend& backend, Streams& io)>;

struct CommandSpec {
    // Reads the command's arguments (raising UsageError) and yields what runs it.
    std::function<CommandRun(Arguments& args)> parse;
    bool interactive = false;
    // Its arguments, as one line of usage after "corvex NAME".
    const char* usage = "";
    // It only looks: no daemon is started for it.
    bool readOnly = false;
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
// The session tree for people: workspaces, tabs and panes.
CommandRun parseTree(Arguments& args);

// The spawn options of the create commands. With `startHere`, the client's own folder when
// --cwd is absent; a split instead takes the folder of the pane it splits.
SpawnOptions parseSpawn(Arguments& args, bool startHere);
// The end of a stream-following command when the daemon went on purpose.
inline constexpr const char* shutDownNote = "[corvexd was shut down]";
// Files here and on the daemon's machine (a path that begins with ":").
// With a PATH; without one, `ls` is the session tree.
CommandRun parseLs(Arguments& args);
CommandRun parseStat(Arguments& args);
CommandRun parseCp(Arguments& args);

} // namespace corvex::cli
