#include "corvexd/InstallCommand.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/ProcessInfo.h"
#include "Platform/System.h"
#include "corvexd/BuildInfo.h"

namespace corvexd {

namespace {

struct InstallError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string systemError(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

std::string parentOf(const std::string& path) {
    auto cut = path.rfind('/');
    return cut == std::string::npos || cut == 0 ? std::string("/") : path.substr(0, cut);
}

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string installBase() {
    if (auto dir = platform::environmentValue("CORVEXD_INSTALL_DIR"); !dir.empty()) return dir;
    // A build already installed somewhere (the temporary fallback of a read-only home, say)
    // makes that place current rather than copying itself elsewhere.
    std::string exe = platform::executablePath();
    if (nameOf(exe) == "corvexd" && nameOf(parentOf(exe)) == buildId()) return parentOf(parentOf(exe));
    auto data = platform::environmentValue("XDG_DATA_HOME");
    if (data.empty()) data = platform::homeDirectory() + "/.local/share";
    return data + "/corvexd/bin";
}

void makeDirectories(const std::string& path) {
    for (size_t at = 1; at <= path.size(); ++at) {
        if (at != path.size() && path[at] != '/') continue;
        std::string prefix = path.substr(0, at);
        if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) throw InstallError(systemError("can't create", prefix));
    }
}

bool sameFile(const std::string& a, const std::string& b) {
    struct stat first{}, second{};
    return ::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

// Copies through a temporary file in the target's folder and renames it into place, so a
// half-written build is never found under its final name.
void copyExecutable(const std::string& source, const std::string& target) {
    std::string temporary = parentOf(target) + "/.corvexd." + std::to_string(::getpid()) + ".tmp";
    int in = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) throw InstallError(systemError("can't read", source));
    int out = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755);
    if (out < 0) {
        ::close(in);
        throw InstallError(systemError("can't write", temporary));
    }
    bool ok = true;
    char buffer[1 << 16];
    for (;;) {
        ssize_t count = ::read(in, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) ok = false;
        if (count <= 0) break;
        for (ssize_t done = 0; ok && done < count;) {
            ssize_t wrote = ::write(out, buffer + done, static_cast<size_t>(count - done));
            if (wrote < 0 && errno == EINTR) continue;
            if (wrote <= 0) ok = false;
            else done += wrote;
        }
        if (!ok) break;
    }
    int error = errno;
    ok = ok && ::fchmod(out, 0755) == 0 && ::fsync(out) == 0;
    if (!ok) error = errno;
    ::close(in);
    ok = ::close(out) == 0 && ok;
    if (ok && ::rename(temporary.c_str(), target.c_str()) == 0) return;
    if (ok) error = errno;
    ::unlink(temporary.c_str());
    errno = error;
    throw InstallError(systemError("can't write", target));
}

// A relative link, replaced in one rename so that a reader always finds a build.
void pointCurrentAt(const std::string& base, const std::string& id) {
    std::string temporary = base + "/.current." + std::to_string(::getpid()) + ".tmp";
    ::unlink(temporary.c_str());
    if (::symlink(id.c_str(), temporary.c_str()) != 0) throw InstallError(systemError("can't link", temporary));
    if (::rename(temporary.c_str(), (base + "/current").c_str()) != 0) {
        int error = errno;
        ::unlink(temporary.c_str());
        errno = error;
        throw InstallError(systemError("can't replace", base + "/current"));
    }
}

} // namespace

std::string installTargetPath() { return installBase() + "/" + buildId() + "/corvexd"; }

int installCommand(const std::vector<std::string>& options) {
    if (options.size() == 1 && options[0] == "--print-path") {
        std::cout << installTargetPath() << "\n";
        return 0;
    }
    if (!options.empty()) {
        std::cerr << "usage: corvexd install [--print-path]\n";
        return 2;
    }
    auto target = installSelf();
    if (!target) return 1;
    std::cout << *target << "\n";
    return 0;
}

std::optional<std::string> installSelf() {
    try {
        std::string base = installBase();
        std::string target = installTargetPath();
        makeDirectories(parentOf(target));
        std::string source = platform::executablePath();
        if (!sameFile(source, target)) copyExecutable("/proc/self/exe", target);
        pointCurrentAt(base, buildId());
        return target;
    } catch (const InstallError& error) {
        std::cerr << "corvexd: " << error.what() << "\n";
        return std::nullopt;
    }
}

} // namespace corvexd
