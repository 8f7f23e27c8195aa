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
    "usage: corvexd serve | start | stop | shutdown | bridge | build-id | status --print-socket | status --print-builds | install | upgrade | service status|install|uninstall | hooks\n";

} // namespace

int runCommand(const std::vector<std::string>& arguments) {
    if (arguments.empty()) {
        std::cerr << usage;
        return 2;
    }
    const std::string& command = arguments[0];
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
