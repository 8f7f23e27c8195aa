#pragma once

#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

namespace vellum {

// Where a stream of log lines goes: standard error until a sink is installed (the
// application's log, or a test capturing them). The sink is called outside the lock.
class LineSink {
public:
    using Sink = std::function<void(std::string_view line)>;

    // Installs `sink` (an empty one restores standard error) and gives back the previous one.
    Sink replace(Sink sink) {
        std::lock_guard guard(mutex_);
        std::swap(sink_, sink);
        return sink;
    }

    void write(std::string_view line) {
        Sink sink;
        {
            std::lock_guard guard(mutex_);
            sink = sink_;
        }
        if (sink) {
            sink(line);
            return;
        }
        std::string text(line);
        text.push_back('\n');
        std::fwrite(text.data(), 1, text.size(), stderr);
    }

private:
    std::mutex mutex_;
    Sink sink_;
};

} // namespace vellum
