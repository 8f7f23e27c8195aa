#pragma once

#include <functional>
#include <span>
#include <string_view>

#include "Platform/Locked.h"

namespace vellum {

// A thread-safe front door for data into a terminal. The view installs the functions and
// clears them at teardown; calls after that fall on nothing.
class TerminalFeedSender {
public:
    using FeedBytes = std::function<void(std::span<const unsigned char>)>;
    using FeedText = std::function<void(std::string_view)>;

    void configure(FeedBytes feedBytes, FeedText feedText);
    void clear();
    // True when a function took the data.
    bool feed(std::span<const unsigned char> bytes) const;
    bool feed(std::string_view text) const;

private:
    platform::Locked<FeedBytes> feedBytes_;
    platform::Locked<FeedText> feedText_;
};

} // namespace vellum
