#include "Tools/corvex/Cli.h"

#include <climits>
#include <csignal>
#include <cstring>
#include <iostream>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "CorvexKit/CorvexdBackend.h"
#include "CorvexKit/RemoteSetup.h"
#include "CorvexKit/SSHProcessTransport.h"
#include "CorvexKit/SessionCodec.h"
#include "CorvexKit/UnixSocketTransport.h"
#include "Platform/ProcessInfo.h"
#include "Tools/corvex/AttachKeys.h"
#include "Tools/corvex/Commands.h"
#include "Tools/corvex/RemotePrepare.h"
#include "Tools/corvex/Terminal.h"

extern char** environ;

namespace corvex::cli {

const char* const usageText =
    "usage: corvex [--socket PATH | --ssh TARGET [--remote-command CMD]] [--client NAME] COMMAND [ARGS]\n"
    "\n"
    "commands:\n"
    "  ls                                     workspaces, tabs and panes, as a tree to read\n"
    "  hello                                  the daemon's greeting, as JSON\n"
    "  state                                  every workspace, tab and pane, as JSON\n"
    "  new-workspace [--name N] [SPAWN]       a workspace with one pane\n"
    "  new-tab WORKSPACE [SPAWN]              a tab with one pane\n"
    "  split PANE [--direction right|down|left|up] [--ratio R] [SPAWN]\n"
    "  close pane|tab|workspace ID\n"
    "  rename workspace ID NAME | rename tab ID [TITLE]\n"
    "  focus pane|tab|workspace ID\n"
    "  move workspace ID INDEX | move tab ID INDEX [--workspace W] [--focus]\n"
    "  move pane|tab-join ID --beside PANE [--direction D] [--ratio R] [--focus]\n"
    "  send PANE [-e] [-n] [TEXT...]          input bytes (standard input without TEXT;\n"
    "                                         -e reads backslash escapes, -n adds a return)\n"
    "  keys PANE KEY... [--text T]            named keys, such as Enter or C-c\n"
    "  text PANE [--json]                     the visible text\n"
    "  search PANE QUERY [--regex] [--case-sensitive] [--limit N] [--before LINE:COL]\n"
    "  cat PANE [--no-snapshot]               the pane's output as it comes\n"
    "  attach PANE [--prefix KEY]             the pane in this terminal; Ctrl-\\ d detaches\n"
    "                                         (corvex attach --help lists the keys)\n"
    "  agents                                 the agents, those that need you first\n"
    "  decide PANE allow|deny [--message T]   answer the permission request of the pane's agent\n"
    "  run [--prefix KEY]                     attach to the focused pane, making one if none\n"
    "  watch [--count N]                      events as JSON lines\n"
    "  ls [-a] [-l] PATH                      a folder's entries (:PATH on the daemon's machine)\n"
    "  stat PATH                              one entry, as JSON\n"
    "  cp [--skip | --overwrite] [--streams N] SOURCE... DEST\n"
    "                                         copies files and folders; a rerun resumes\n"
    "\n"
    "SPAWN: [--cwd DIR] [--env NAME=VALUE]... [--size COLSxROWS] [-- PROGRAM ARGS...]\n"
    "       new shells start in this folder unless --cwd says otherwise\n"
    "\n"
    "Commands that only look (ls, hello, state, text, search, cat, watch, agents) never start\n"
    "a daemon; the others start one when none runs.\n";

const char* const shortUsage =
    "usage: corvex [--socket PATH | --ssh TARGET [--remote-command CMD]] [--client NAME] COMMAND [ARGS]\n"
    "       (corvex --help lists the commands)\n";

namespace {

std::string executableDirectory() {
    std::string exe = platform::executablePath();
    return exe.substr(0, exe.rfind('/'));
}

// `corvexd start`, from beside this program or else from PATH; returns once it has.
void startLocalDaemon() {
    std::string beside = executableDirectory() + "/corvexd";
    std::string program = ::access(beside.c_str(), X_OK) == 0 ? beside : "corvexd";
    const char* argv[] = {program.c_str(), "start", nullptr};
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    pid_t pid = -1;
    int error = ::posix_spawnp(&pid, program.c_str(), nullptr, &attributes, const_cast<char**>(argv), environ);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) throw BackendError("failed", "can't start " + program + ": " + std::strerror(error));
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw BackendError("failed", program + " start failed with status " +
                                         std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)));
    }
}

std::shared_ptr<CorvexdBackend> makeBackend(const Invocation& invocation, std::shared_ptr<CorvexdTransport> remote) {
    CorvexdBackend::Configuration configuration;
    configuration.clientName = invocation.clientName;
    if (remote) {
        configuration.transport = std::move(remote);
        configuration.retry = RetryPolicy::remote();
    } else if (invocation.sshTarget) {
        auto ssh = std::make_shared<SSHProcessTransport>();
        ssh->target = *invocation.sshTarget;
        ssh->sshPath = "ssh"; // the user's own, found on PATH
        std::string command = invocation.remoteCommand.value_or(RemoteSetup::bridgeCommand("corvexd", ""));
        ssh->remoteCommand = [command] { return command; };
        configuration.transport = ssh;
        configuration.retry = RetryPolicy::remote();
    } else if (invocation.socketPath) {
        configuration.transport = std::make_shared<UnixSocketTransport>(*invocation.socketPath);
    } else if (invocation.readOnly) {
        configuration.transport = std::make_shared<UnixSocketTransport>(CorvexdBackend::defaultSocketPath());
    } else {
        // The default daemon is started when it isn't running, as the app would.
        configuration.transport =
            std::make_shared<UnixSocketTransport>(CorvexdBackend::defaultSocketPath(), startLocalDaemon);
    }
    return CorvexdBackend::make(std::move(configuration));
}

// A command that only looks finds no daemon as `tmux ls` finds no server: said plainly.
void startBackend(CorvexdBackend& backend, const Invocation& invocation) {
    try {
        backend.start();
    } catch (const BackendError& error) {
        if (!invocation.readOnly || invocation.sshTarget || error.code() != "disconnected") throw;
        std::string path = invocation.socketPath.value_or(CorvexdBackend::defaultSocketPath());
        throw BackendError("disconnected", "no corvexd is running on " + path);
    }
}

} // namespace

Invocation parse(const std::vector<std::string>& args) {
    Invocation invocation;
    size_t at = 0;
    auto value = [&](const std::string& option) {
        if (at + 1 >= args.size()) throw UsageError(option + " needs a value");
        return args[++at];
    };
    for (; at < args.size(); ++at) {
        const std::string& item = args[at];
        if (item == "--socket") invocation.socketPath = value(item);
        else if (item == "--ssh") invocation.sshTarget = value(item);
        else if (item == "--remote-command") invocation.remoteCommand = value(item);
        else if (item == "--client") invocation.clientName = value(item);
        else if (item.size() > 1 && item[0] == '-') throw UsageError("unknown option " + item);
        else break;
    }
    if (invocation.socketPath && invocation.sshTarget) throw UsageError("--socket and --ssh exclude each other");
    if (invocation.remoteCommand && !invocation.sshTarget) throw UsageError("--remote-command needs --ssh");
    if (at >= args.size()) throw UsageError("missing command");
    invocation.name = args[at];
    auto spec = commands().find(invocation.name);
    if (spec == commands().end()) throw UsageError("unknown command: " + invocation.name);
    Arguments rest(std::vector<std::string>(args.begin() + static_cast<long>(at) + 1, args.end()), !invocation.sshTarget);
    try {
        invocation.run = spec->second.parse(rest);
    } catch (const UsageError& error) {
        std::string usage = "usage: corvex " + invocation.name;
        if (*spec->second.usage) usage += std::string(" ") + spec->second.usage;
        throw UsageError(error.what(), usage + "\n");
    }
    invocation.interactive = spec->second.interactive;
    invocation.readOnly = spec->second.readOnly;
    invocation.hereAlone = rest.runsHereAlone();
    return invocation;
}

int run(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err) {
    if (!args.empty() && (args[0] == "help" || args[0] == "--help" || args[0] == "-h")) {
        out << usageText;
        return 0;
    }
    if (!args.empty() && args[0] == "--version") {
        out << "corvex " << CORVEX_VERSION << "\n";
        return 0;
    }
    if (args.size() == 2 && args[1] == "--help") {
        if (auto help = commandHelp(args[0])) {
            out << *help;
            return 0;
        }
    }
    Invocation invocation;
    try {
        invocation = parse(args);
    } catch (const UsageError& error) {
        err << "corvex: " << error.what() << "\n" << (error.usage().empty() ? shortUsage : error.usage());
        return 2;
    }
    if (invocation.interactive) {
        // Every thread started from here on inherits the mask; one of them waits for these.
        sigset_t set = interactiveSignals();
        ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    }
    ::signal(SIGPIPE, SIG_IGN);
    Streams io{in, out, err};
    // A machine reached over ssh gets its daemon installed first, as the app does it.
    std::shared_ptr<CorvexdTransport> remote;
    if (invocation.sshTarget && !invocation.remoteCommand && !invocation.hereAlone) {
        remote = prepareRemote(*invocation.sshTarget, err);
        if (!remote) return 1;
    }
    auto backend = makeBackend(invocation, std::move(remote));
    int status = 1;
    try {
        if (!invocation.hereAlone) startBackend(*backend, invocation);
        status = invocation.run(*backend, io);
    } catch (const BackendError& error) {
        if (backend->daemonWasShutDown()) err << shutDownNote << "\n";
        else err << "corvex: " << error.code() << ": " << error.message() << "\n";
    } catch (const DecodingError& error) {
        err << "corvex: internal: " << error.what() << "\n";
    } catch (const std::exception& error) {
        err << "corvex: internal: " << error.what() << "\n";
    }
    backend->stop();
    out.flush();
    return status;
}

} // namespace corvex::cli
