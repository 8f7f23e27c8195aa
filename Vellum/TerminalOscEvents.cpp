#include "Vellum/TerminalOscEvents.h"

#include <algorithm>
#include <thread>

#include "Platform/SerialQueue.h"

namespace vellum {

TerminalOscEventDispatcher::TerminalOscEventDispatcher() : state(std::make_shared<platform::Locked<State>>()) {}

TerminalOscEventDispatcher::~TerminalOscEventDispatcher() {
    // Observations may outlive the terminal; they only ever reach the shared state.
    std::shared_ptr<platform::SerialQueue> queue;
    state->withLock([&](State& s) {
        s.registrations.clear();
        queue = std::move(s.deliveryQueue);
    });
    // Destroyed by one of its own observers: the queue cannot join its own thread.
    if (queue && queue->isCurrent()) std::thread([held = std::move(queue)] {}).detach();
}

std::unique_ptr<TerminalOscObservation> TerminalOscEventDispatcher::observe(Handler handler) {
    uint64_t id = state->withLock([&](State& s) {
        if (!s.deliveryQueue) s.deliveryQueue = std::make_shared<platform::SerialQueue>("vellum.osc-events");
        uint64_t assigned = s.nextID++;
        s.registrations.push_back({assigned, std::make_shared<Handler>(std::move(handler))});
        return assigned;
    });
    std::weak_ptr<platform::Locked<State>> weakState = state;
    return std::make_unique<TerminalOscObservation>([weakState, id] {
        if (auto shared = weakState.lock())
            shared->withLock([&](State& s) {
                std::erase_if(s.registrations, [&](const Registration& r) { return r.id == id; });
            });
    });
}

void TerminalOscEventDispatcher::publish(int64_t code, std::span<const uint8_t> payload, Position cursor) {
    auto queue = state->withLock([&](State& s) {
        return s.registrations.empty() ? nullptr : s.deliveryQueue;
    });
    if (!queue) return;
    auto event = std::make_shared<TerminalOscEvent>(TerminalOscEvent{code, {payload.begin(), payload.end()}, cursor});
    std::weak_ptr<platform::Locked<State>> weakState = state;
    queue->async([weakState, event] {
        // Read the registrations at delivery, so a cancelled observer hears nothing more.
        auto shared = weakState.lock();
        if (!shared) return;
        auto handlers = shared->withLock([](State& s) {
            std::vector<std::shared_ptr<Handler>> current;
            for (const auto& registration : s.registrations) current.push_back(registration.handler);
            return current;
        });
        for (const auto& handler : handlers) (*handler)(*event);
    });
}

void TerminalOscEventDispatcher::drain() {
    auto queue = state->withLock([](State& s) { return s.deliveryQueue; });
    if (queue && !queue->isCurrent()) queue->sync([] {});
}

} // namespace vellum
