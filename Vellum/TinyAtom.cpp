#include "Vellum/TinyAtom.h"

#include <unordered_map>

#include "Platform/Locked.h"

namespace vellum {

namespace {
struct State {
    std::unordered_map<uint16_t, TinyAtom::Value> map;
    uint16_t lastUsed = 0;
};

platform::Locked<State>& state() {
    static platform::Locked<State> shared;
    return shared;
}
} // namespace

std::optional<TinyAtom> TinyAtom::lookup(Value value) {
    return state().withLock([&](State& s) -> std::optional<TinyAtom> {
        if (s.lastUsed >= lastCode) return std::nullopt;
        ++s.lastUsed;
        s.map.emplace(s.lastUsed, std::move(value));
        return TinyAtom{s.lastUsed};
    });
}

std::optional<TinyAtom::Value> TinyAtom::target() const {
    if (code == 0) return std::nullopt;
    return state().withLock([&](State& s) -> std::optional<Value> {
        auto it = s.map.find(code);
        if (it == s.map.end()) return std::nullopt;
        return it->second;
    });
}

void TinyAtom::release(uint16_t code) {
    release(std::span<const uint16_t>(&code, 1));
}

void TinyAtom::release(std::span<const uint16_t> codes) {
    state().withLock([&](State& s) {
        for (uint16_t code : codes) s.map.erase(code);
    });
}

} // namespace vellum
