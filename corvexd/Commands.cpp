#include "corvexd/Commands.h"

#include <iostream>

#include "corvexd/AgentHookCommand.h"
#include "corvexd/BuildInfo.h"
#include "corvexd/Bridge.h"
#include "corvexd/CommandSupport.h"
#include "corvexd/Holder.h"
#include "corvexd/HooksCommand.h"
#include "corvexd/InstallCommand.h"
#include "corvexd/Lifecycle.h"
#include "corvexd/RuntimeDirectory.h"
#include "corvexd/SavedTree.h"
#include "corvexd/Service.h"
#include "corvexd/Status.h"
#include "corvexd/UpgradeCommand.h"

namespace corvexd {

namespace {

const char* usage =
    "usage: corvexd serve | start | stop | shutdown | bridge | build-id | status [--print-socket | --print-builds] | install | upgrade | service status|install|uninstall | hooks\n"
    "\n"
    "  serve      serve in the foreground\n"
    "  start      start a daemon for the runtime folder unless one runs\n"
    "  stop       end the daemon; its workspaces, tabs and panes come back, with new shells, at the next start\n"
    "  shutdown   end the daemon and everything in it; the next start begins empty\n"
    "  bridge     relay standard input and output to the daemon, starting it if needed\n"
    "  status     whether a daemon runs\n"
    "  install    copy this build to the per-user install folder\n"
    "  upgrade    install this build and replace the running server; the shells keep running\n"
    "  service    start at login through a systemd user unit\n"
    "\n"
    "Clients are told of a stop or shutdown and don't start another daemon in its place.\n";

} // namespace

int runCommand(const std::vector<std::string>& arguments) {
    if (arguments.empty()) {
        std::cerr << usage;
        return 2;
    }
    const std::string& command = arguments[0];
    if (command == "--help" || command == "-h" || command == "help") {
        std::cout << usage;
        return 0;
    }
    if (command == "--version") {
        std::cout << "corvexd " << buildVersion() << "\n";
        return 0;
    }
    std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
    try {
        if (command == "serve") return serve();
        if (command == "start") return start();
        if (command == "stop") return terminate(false);
        if (command == "shutdown") {
            // The shells end for good: the next start begins empty.
            int status = terminate(true);
            if (status == 0) SavedTree::remove(RuntimeDirectory::existing(RuntimeDirectory::defaultPath()).treePath());
            return status;
        }
        if (command == "bridge") return bridge();
        if (command == "build-id") {
            std::cout << buildId() << "\n";
            return 0;
        }
        if (command == "status") return status(rest);
        if (command == "install") return installCommand(rest);
        if (command == "upgrade") return upgradeCommand(rest);
        if (command == "holder") return holderCommand();
        if (command == "service") return serviceCommand(rest);
        if (command == "hooks") return hooksCommand(rest);
        if (command == "corvex-agent-status") return agentStatusCommand(rest);
        if (command == "corvex-notify") return agentNotifyCommand(rest);
    } catch (const DaemonError& error) {
        return fail(error.what());
    }
    std::cerr << usage;
    return 2;
}

} // namespace corvexd
