#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "Platform/Locked.h"

namespace platform {
class SerialQueue;
}

namespace vellum {

struct Position {
    int col = 0;
    int row = 0;
    bool operator==(const Position&) const = default;
};

// One OSC as the terminal received it, for observers outside the parse.
struct TerminalOscEvent {
    int64_t code = 0;
    std::vector<uint8_t> payload;
    Position cursor;
};

// Keeps a registration alive; releasing it removes the handler.
class TerminalOscObservation {
public:
    explicit TerminalOscObservation(std::function<void()> cancellation) : cancellation(std::move(cancellation)) {}
    ~TerminalOscObservation() {
        if (cancellation) cancellation();
    }
    TerminalOscObservation(const TerminalOscObservation&) = delete;
    TerminalOscObservation& operator=(const TerminalOscObservation&) = delete;

private:
    std::function<void()> cancellation;
};

// Publishes every OSC to observers on a queue of its own ("vellum.osc-events"), with a copy of
// the payload, so that a slow observer never holds the parser. The queue starts with the first
// observer; a terminal nobody observes pays one lock per OSC.
class TerminalOscEventDispatcher {
public:
    using Handler = std::function<void(const TerminalOscEvent&)>;

    TerminalOscEventDispatcher();
    ~TerminalOscEventDispatcher();
    TerminalOscEventDispatcher(const TerminalOscEventDispatcher&) = delete;
    TerminalOscEventDispatcher& operator=(const TerminalOscEventDispatcher&) = delete;

    [[nodiscard]] std::unique_ptr<TerminalOscObservation> observe(Handler handler);
    void publish(int64_t code, std::span<const uint8_t> payload, Position cursor);
    // Waits until everything published so far has been delivered (tests, shutdown).
    void drain();

private:
    struct Registration {
        uint64_t id;
        std::shared_ptr<Handler> handler;
    };
    struct State {
        uint64_t nextID = 1;
        std::vector<Registration> registrations;
        std::shared_ptr<platform::SerialQueue> deliveryQueue;
    };
    std::shared_ptr<platform::Locked<State>> state;
};

} // namespace vellum
