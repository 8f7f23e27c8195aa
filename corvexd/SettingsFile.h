#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "CorvexKit/SessionBackend.h"

namespace corvexd {

// Writes `text` to `path` through a temporary file beside it and a rename, so a reader sees
// the old file or the new one, never a part. Raises DaemonError.
void writeFileWhole(const std::string& path, const std::string& text);

// The daemon's settings, kept in a small JSON file. A missing or unreadable file gives the
// defaults; a value out of its limits is brought into them.
class SettingsFile {
public:
    static constexpr int minimumScrollbackLines = 100;
    static constexpr int maximumScrollbackLines = 100000;
    static constexpr int defaultScrollbackLines = 5000;

    // An empty path keeps the settings for this run only.
    SettingsFile(std::string path, std::optional<std::string> configName);

    corvex::DaemonSettings current() const;
    int scrollbackLines() const;
    // Stores and saves; a failure to save is reported on standard error and the value kept.
    void setScrollbackLines(int lines);

private:
    std::string path_;
    std::optional<std::string> configName_;
    mutable std::mutex lock_;
    int scrollbackLines_ = defaultScrollbackLines;
};

} // namespace corvexd
