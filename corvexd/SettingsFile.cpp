#include "corvexd/SettingsFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <sstream>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "corvexd/RuntimeDirectory.h"

namespace corvexd {

void writeFileWhole(const std::string& path, const std::string& text) {
    std::string temporary = path + ".part-" + std::to_string(::getpid());
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) throw DaemonError("can't write " + temporary + ": " + std::strerror(errno));
    const char* data = text.data();
    size_t left = text.size();
    bool ok = true;
    while (left > 0) {
        ssize_t count = ::write(fd, data, left);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) {
            ok = false;
            break;
        }
        data += count;
        left -= size_t(count);
    }
    int error = errno;
    ok = ok && ::fsync(fd) == 0;
    ::close(fd);
    if (!ok || ::rename(temporary.c_str(), path.c_str()) != 0) {
        if (ok) error = errno;
        ::unlink(temporary.c_str());
        throw DaemonError("can't write " + path + ": " + std::strerror(error));
    }
}

SettingsFile::SettingsFile(std::string path, std::optional<std::string> configName)
    : path_(std::move(path)), configName_(std::move(configName)) {
    if (path_.empty()) return;
    std::ifstream in(path_);
    if (!in) return;
    std::stringstream text;
    text << in.rdbuf();
    auto saved = nlohmann::json::parse(text.str(), nullptr, false);
    if (saved.is_object() && saved.contains("scrollback_lines") && saved["scrollback_lines"].is_number_integer()) {
        scrollbackLines_ = std::clamp(saved["scrollback_lines"].get<int>(), minimumScrollbackLines, maximumScrollbackLines);
    }
}

corvex::DaemonSettings SettingsFile::current() const {
    corvex::DaemonSettings settings;
    settings.scrollbackLines = scrollbackLines();
    settings.limits.scrollbackLines = {minimumScrollbackLines, maximumScrollbackLines, defaultScrollbackLines};
    settings.config = configName_;
    return settings;
}

int SettingsFile::scrollbackLines() const {
    std::lock_guard guard(lock_);
    return scrollbackLines_;
}

void SettingsFile::setScrollbackLines(int lines) {
    {
        std::lock_guard guard(lock_);
        scrollbackLines_ = lines;
    }
    if (path_.empty()) return;
    try {
        writeFileWhole(path_, nlohmann::json{{"scrollback_lines", lines}}.dump() + "\n");
    } catch (const DaemonError& error) {
        std::cerr << "corvexd: settings: " << error.what() << "\n";
    }
}

} // namespace corvexd
