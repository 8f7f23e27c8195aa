#include "Vellum/PseudoTerminalHelpers.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

namespace vellum {

namespace {

// C strings made before the fork: the child must not allocate.
struct CStrings {
    std::vector<std::string> storage;
    std::vector<char*> pointers;

    explicit CStrings(const std::vector<std::string>& strings) : storage(strings) {
        pointers.reserve(storage.size() + 1);
        for (auto& s : storage) pointers.push_back(s.data());
        pointers.push_back(nullptr);
    }
    char** data() { return pointers.data(); }
};

} // namespace

PseudoTerminalHelpers::SpawnResult PseudoTerminalHelpers::spawn(const std::string& path,
                                                                const std::vector<std::string>& argv,
                                                                const std::vector<std::string>& env,
                                                                const std::optional<std::string>& currentDirectory,
                                                                const winsize& windowSize) {
    SpawnResult result;
    std::optional<CStrings> args, envp;
    std::string programPath, directory;
    try {
        args.emplace(argv);
        envp.emplace(env);
        programPath = path;
        if (currentDirectory) directory = *currentDirectory;
    } catch (const std::bad_alloc&) {
        result.error = ENOMEM;
        return result;
    }
    const char* directoryPointer = currentDirectory ? directory.c_str() : nullptr;

    struct sigaction defaultAction {};
    defaultAction.sa_handler = SIG_DFL;
    sigemptyset(&defaultAction.sa_mask);
    defaultAction.sa_flags = 0;
    sigset_t emptySet;
    sigemptyset(&emptySet);

    winsize size = windowSize;
    int master = -1;
    pid_t pid = forkpty(&master, nullptr, nullptr, &size);
    if (pid < 0) {
        result.error = errno;
        return result;
    }
    if (pid == 0) {
        for (int signal = 1; signal < 32; ++signal) {
            if (signal == SIGKILL || signal == SIGSTOP) continue;
            sigaction(signal, &defaultAction, nullptr);
        }
        if (sigprocmask(SIG_SETMASK, &emptySet, nullptr) != 0) _exit(127);
        if (directoryPointer) (void)!chdir(directoryPointer);
        execve(programPath.c_str(), args->data(), envp->data());
        _exit(127);
    }
    fcntl(master, F_SETFD, FD_CLOEXEC);
    result.child = PseudoTerminalChild{pid, master};
    return result;
}

std::optional<PseudoTerminalChild> PseudoTerminalHelpers::forkAndExec(const std::string& path,
                                                                      const std::vector<std::string>& args,
                                                                      const std::vector<std::string>& env,
                                                                      const std::optional<std::string>& currentDirectory,
                                                                      const winsize& desiredWindowSize) {
    return spawn(path, args, env, currentDirectory, desiredWindowSize).child;
}

int PseudoTerminalHelpers::setWinSize(int masterPtyDescriptor, const winsize& windowSize) {
    return ioctl(masterPtyDescriptor, TIOCSWINSZ, &windowSize);
}

std::pair<int, int> PseudoTerminalHelpers::availableBytes(int fd) {
    int size = 0;
    int status = ioctl(fd, FIONREAD, &size);
    return {status, size};
}

std::optional<std::set<unsigned char>> PseudoTerminalHelpers::terminalControlBytesForPaste(int masterPtyDescriptor) {
    termios attributes{};
    if (masterPtyDescriptor < 0 || tcgetattr(masterPtyDescriptor, &attributes) != 0) return std::nullopt;
    const int indices[] = {
        VEOF, VEOL, VERASE, VINTR, VKILL, VQUIT, VSTART, VSTOP, VSUSP,
        VDISCARD,
#ifdef VDSUSP
        VDSUSP,
#endif
        VEOL2, VLNEXT, VREPRINT,
#ifdef VSTATUS
        VSTATUS,
#endif
        VWERASE,
    };
    long disabled = fpathconf(masterPtyDescriptor, _PC_VDISABLE);
    std::set<unsigned char> bytes;
    for (int index : indices) {
        if (index < 0 || index >= NCCS) continue;
        unsigned char value = attributes.c_cc[index];
        if (value == 0) continue;
        if (disabled >= 0 && disabled < 256 && value == disabled) continue;
        if (value < 32 || value == 127) bytes.insert(value);
    }
    return bytes;
}

std::optional<std::string> PseudoTerminalHelpers::workingDirectory(pid_t pid) {
    if (pid <= 0) return std::nullopt;
    std::string link = "/proc/" + std::to_string(pid) + "/cwd";
    char buffer[PATH_MAX];
    ssize_t length = readlink(link.c_str(), buffer, sizeof(buffer));
    if (length < 0 || static_cast<size_t>(length) >= sizeof(buffer)) return std::nullopt;
    return std::string(buffer, static_cast<size_t>(length));
}

} // namespace vellum
