#pragma once

#include <chrono>
#include <mutex>
#include <string>

namespace corvex {

// The application log: one plain text file, a line per message, "<ISO 8601 UTC> <message>".
// No levels and no rotation; a write that fails is dropped. Thread-safe.
class AppLog {
public:
    explicit AppLog(std::string path) : path_(std::move(path)) {}

    // ~/.local/state/Corvex/Corvex.log, or "Corvex Dev.log" in a development build.
    static std::string defaultPath(const std::string& home, bool developmentBuild);
    static std::string line(std::chrono::system_clock::time_point when, const std::string& message);

    const std::string& path() const { return path_; }
    void write(const std::string& message);

private:
    std::string path_;
    std::mutex lock_;
};

} // namespace corvex
