#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace platform::testing {

// Sets (or, given null, unsets) variables for a test's duration; what was there before comes
// back when this goes.
class ScopedEnvironment {
public:
    ScopedEnvironment() = default;
    ScopedEnvironment(const char* name, const char* value) { set(name, value); }
    ~ScopedEnvironment() {
        for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
            if (it->second) ::setenv(it->first.c_str(), it->second->c_str(), 1);
            else ::unsetenv(it->first.c_str());
        }
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

    void set(const char* name, const char* value) {
        const char* old = std::getenv(name);
        saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
        if (value) ::setenv(name, value, 1);
        else ::unsetenv(name);
    }

private:
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

} // namespace platform::testing
