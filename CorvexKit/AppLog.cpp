#include "CorvexKit/AppLog.h"

#include <cstdio>
#include <ctime>
#include <filesystem>

namespace corvex {

std::string AppLog::defaultPath(const std::string& home, bool developmentBuild) {
    return home + "/.local/state/Corvex/" + (developmentBuild ? "Corvex Dev.log" : "Corvex.log");
}

std::string AppLog::line(std::chrono::system_clock::time_point when, const std::string& message) {
    std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return std::string(stamp) + " " + message + "\n";
}

void AppLog::write(const std::string& message) {
    std::string text = line(std::chrono::system_clock::now(), message);
    std::lock_guard guard(lock_);
    // Opened, appended and closed on every call, so the file can be moved or removed at will.
    FILE* file = std::fopen(path_.c_str(), "a");
    if (!file) {
        std::error_code ignored;
        std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ignored);
        file = std::fopen(path_.c_str(), "a");
    }
    if (!file) return;
    std::fwrite(text.data(), 1, text.size(), file);
    std::fclose(file);
}

} // namespace corvex
