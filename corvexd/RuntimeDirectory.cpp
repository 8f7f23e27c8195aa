#include "corvexd/RuntimeDirectory.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/System.h"

namespace corvexd {

namespace {

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

} // namespace

std::string RuntimeDirectory::defaultPath() {
    if (auto dir = platform::environmentValue("CORVEXD_RUNTIME_DIR"); !dir.empty()) return withoutTrailingSlashes(dir);
    return "/tmp/corvexd-" + std::to_string(::getuid());
}

RuntimeDirectory RuntimeDirectory::prepare(const std::string& path) { return check(path, true); }

RuntimeDirectory RuntimeDirectory::existing(const std::string& path) { return check(path, false); }

RuntimeDirectory RuntimeDirectory::check(const std::string& rawPath, bool create) {
    std::string path = withoutTrailingSlashes(rawPath);
    if (path.empty()) throw DaemonError("the runtime directory is empty");
    struct stat info{};
    if (::lstat(path.c_str(), &info) != 0) {
        if (errno != ENOENT || !create) throw DaemonError(path + ": " + std::strerror(errno));
        if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) throw DaemonError("can't create " + path + ": " + std::strerror(errno));
        if (::lstat(path.c_str(), &info) != 0) throw DaemonError(path + ": " + std::strerror(errno));
    }
    if (S_ISLNK(info.st_mode)) throw DaemonError(path + " is a symbolic link");
    if (!S_ISDIR(info.st_mode)) throw DaemonError(path + " is not a directory");
    if (info.st_uid != ::getuid()) throw DaemonError(path + " is owned by another user");
    // Another user may already have planted files in a folder they could write to; making
    // it private now wouldn't take those out.
    if (info.st_mode & (S_IWGRP | S_IWOTH)) {
        throw DaemonError(path + " is writable by other users; remove it or make it 0700");
    }
    if ((info.st_mode & 0777) != 0700 && ::chmod(path.c_str(), 0700) != 0) {
        throw DaemonError("can't make " + path + " private: " + std::strerror(errno));
    }
    RuntimeDirectory directory(path);
    if (directory.socketPath().size() >= sizeof(sockaddr_un{}.sun_path)) {
        throw DaemonError("the runtime directory's path is too long for a socket: " + path);
    }
    return directory;
}

} // namespace corvexd
