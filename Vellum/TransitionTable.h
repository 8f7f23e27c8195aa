#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vellum {

enum class ParserState : uint8_t {
    ground = 0,
    escape = 1,
    escapeIntermediate = 2,
    csiEntry = 3,
    csiParam = 4,
    csiIntermediate = 5,
    csiIgnore = 6,
    sosPmApcString = 7,
    oscString = 8,
    apcString = 9,
    dcsEntry = 10,
    dcsParam = 11,
    dcsIgnore = 12,
    dcsIntermediate = 13,
    dcsPassthrough = 14,
    // Waits for the byte after the ESC that ended a program-status OSC.
    programStatusEscape = 15,
};

// oscStart, oscPut and oscEnd serve the APC string as well; they look at the state they run in.
enum class ParserAction : uint8_t {
    ignore = 0,
    error = 1,
    print = 2,
    execute = 3,
    oscStart = 4,
    oscPut = 5,
    oscEnd = 6,
    csiDispatch = 7,
    param = 8,
    collect = 9,
    escDispatch = 10,
    clear = 11,
    dcsHook = 12,
    dcsPut = 13,
    dcsUnhook = 14,
};

// One byte per (state, byte) pair: the action in the high four bits, the next state in the low
// four. Bytes of 160 and more share the entry of 160.
struct TransitionTable {
    static constexpr int highByte = 0xA0;

    std::array<uint8_t, 4095> table{};

    void add(ParserState state, int byte, ParserAction action, ParserState next) {
        table[size_t(state) * 256 + size_t(byte)] = uint8_t(uint8_t(action) << 4 | uint8_t(next));
    }
    void addRange(ParserState state, int first, int last, ParserAction action, ParserState next) {
        for (int byte = first; byte <= last; ++byte) add(state, byte, action, next);
    }

    uint8_t entry(ParserState state, uint8_t byte) const {
        return table[size_t(state) * 256 + (byte < highByte ? byte : highByte)];
    }
    static ParserAction actionOf(uint8_t entry) { return ParserAction(entry >> 4); }
    static ParserState nextStateOf(uint8_t entry) { return ParserState(entry & 0x0F); }
};

const char* parserStateName(ParserState state);

TransitionTable buildVt500TransitionTable();

// Built on first use and shared, read-only, by every parser.
const TransitionTable& sharedVt500TransitionTable();

} // namespace vellum
