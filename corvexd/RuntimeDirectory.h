#pragma once

#include <stdexcept>
#include <string>

namespace corvexd {

// A refusal to use the runtime folder or its files; the message is shown as is.
struct DaemonError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The folder that holds one daemon's socket, pid file and log. Only its owner may use it:
// it is made 0700, and a folder owned by another user or reached through a symbolic link
// is refused, since whoever controls it controls where clients connect.
class RuntimeDirectory {
public:
    // CORVEXD_RUNTIME_DIR, else /tmp/corvexd-UID.
    static std::string defaultPath();

    // Creates the folder when missing and checks it; raises DaemonError.
    static RuntimeDirectory prepare(const std::string& path);
    // The same checks without creating anything; raises DaemonError.
    static RuntimeDirectory existing(const std::string& path);

    const std::string& path() const { return path_; }
    std::string socketPath() const { return path_ + "/corvexd.sock"; }
    std::string pidPath() const { return path_ + "/corvexd.pid"; }
    std::string startLockPath() const { return path_ + "/corvexd.start"; }
    std::string logPath() const { return path_ + "/corvexd.log"; }
    std::string treePath() const { return path_ + "/corvexd.tree"; }

private:
    explicit RuntimeDirectory(std::string path) : path_(std::move(path)) {}
    static RuntimeDirectory check(const std::string& path, bool create);

    std::string path_;
};

} // namespace corvexd
