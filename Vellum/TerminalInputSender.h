#pragma once

#include <functional>
#include <span>
#include <vector>

#include "Platform/Locked.h"

namespace vellum {

// A thread-safe front door for data out of a terminal, towards its program: input is
// registered (for attention and activity), the interface is told, and the bytes are
// delivered, from any thread or from the main thread. The view installs the functions and
// clears them at teardown; later calls fall on nothing.
class TerminalInputSender {
public:
    struct Functions {
        std::function<void()> registerInput;
        std::function<void()> notifyUI;
        std::function<void(std::span<const unsigned char>)> deliver;
        std::function<void(std::vector<unsigned char>)> deliverOnMain;
    };

    void configure(Functions functions);
    void clear();

    void registerInput() const;
    void notifyUI() const;
    // True when a function took the bytes.
    bool deliver(std::span<const unsigned char> bytes) const;
    bool deliverOnMain(std::vector<unsigned char> bytes) const;

private:
    platform::Locked<Functions> functions_;
};

} // namespace vellum
