#include "Vellum/EscapeSequenceParser.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "Vellum/Diagnostics.h"

namespace vellum {

namespace {

using S = ParserState;
using A = ParserAction;

constexpr uint8_t BEL = 0x07, CAN = 0x18, SUB = 0x1A, ESC = 0x1B, ST = 0x9C;
constexpr uint8_t programStatusPrefix[] = {'7', '5', '0', '1', ';'};
constexpr size_t programStatusPrefixLength = sizeof(programStatusPrefix);
constexpr size_t retainedTailLength = 4;

bool isDigit(uint8_t b) { return b >= '0' && b <= '9'; }

// Saturates at 65,535 and stays there; the value never exceeds it, so the product cannot overflow.
int64_t appendDigit(int64_t value, uint8_t digit) {
    return std::min<int64_t>(value * 10 + (digit - '0'), maximumParameterValue);
}

bool hasProgramStatusPrefix(std::span<const uint8_t> payload) {
    return payload.size() >= programStatusPrefixLength &&
           std::memcmp(payload.data(), programStatusPrefix, programStatusPrefixLength) == 0;
}

// Empties a payload array; one that a huge payload grew is given back instead.
void releaseOrClear(std::vector<uint8_t>& array) {
    if (array.capacity() > EscapeSequenceParser::retainedCapacityLimit)
        std::vector<uint8_t>().swap(array);
    else
        array.clear();
}

// Keeps only the last four bytes of `payload` followed by `bytes`.
void retainTail(std::vector<uint8_t>& payload, const uint8_t* bytes, size_t count) {
    uint8_t tail[retainedTailLength];
    size_t fromBytes = std::min(count, retainedTailLength);
    size_t fromPayload = std::min(payload.size(), retainedTailLength - fromBytes);
    std::memcpy(tail, payload.data() + payload.size() - fromPayload, fromPayload);
    std::memcpy(tail + fromPayload, bytes + count - fromBytes, fromBytes);
    payload.assign(tail, tail + fromPayload + fromBytes);
}

std::string hexByte(uint8_t b) {
    static constexpr char digits[] = "0123456789abcdef";
    return {'0', 'x', digits[b >> 4], digits[b & 15]};
}

} // namespace

struct EscapeSequenceParser::HotFields {
    std::vector<uint8_t> osc;
    bool oscLimitExceeded = false;
    bool oscIgnoredPrefixBytes = false;
    bool oscProgramStatus = false;
    std::vector<uint8_t> apc;
    bool apcLimitExceeded = false;
    CsiParameterStorage pars;
    uint64_t colonMask = 0;
    std::vector<uint8_t> collect;
    bool parameterLimitExceeded = false;
};

struct EscapeSequenceParser::Run {
    const uint8_t* bytes;
    size_t size;
    ParserTarget& terminal;
    HotFields hot;
    ParserState state;
    uint64_t serial;
    size_t index = 0;
    ptrdiff_t printStart = -1;
    ptrdiff_t dcsStart = -1;

    std::span<const uint8_t> span() const { return {bytes, size}; }
    CsiParameters pars() const { return CsiParameters(hot.pars); }
    std::span<const uint8_t> collect() const { return hot.collect; }
};

// The hot fields live in locals for the length of a parse, so a handler that re-enters the
// parser finds consistent (empty) values and the loop never reloads them after a call out.
EscapeSequenceParser::HotFields EscapeSequenceParser::takeHotFields() {
    HotFields hot;
    hot.osc = std::move(_osc);
    hot.oscLimitExceeded = std::exchange(_oscLimitExceeded, false);
    hot.oscIgnoredPrefixBytes = std::exchange(_oscIgnoredPrefixBytes, false);
    hot.oscProgramStatus = std::exchange(_oscProgramStatus, false);
    hot.apc = std::move(_apc);
    hot.apcLimitExceeded = std::exchange(_apcLimitExceeded, false);
    hot.pars = _pars;
    _pars.reset();
    hot.colonMask = std::exchange(_parsColonMask, 0);
    hot.collect = std::move(_collect);
    hot.parameterLimitExceeded = std::exchange(_parameterLimitExceeded, false);
    _osc.clear();
    _apc.clear();
    _collect.clear();
    return hot;
}

void EscapeSequenceParser::restoreHotFields(HotFields&& hot) {
    _osc = std::move(hot.osc);
    _oscLimitExceeded = hot.oscLimitExceeded;
    _oscIgnoredPrefixBytes = hot.oscIgnoredPrefixBytes;
    _oscProgramStatus = hot.oscProgramStatus;
    _apc = std::move(hot.apc);
    _apcLimitExceeded = hot.apcLimitExceeded;
    _pars = hot.pars;
    _parsColonMask = hot.colonMask;
    _collect = std::move(hot.collect);
    _parameterLimitExceeded = hot.parameterLimitExceeded;
}

void EscapeSequenceParser::parseBorrowed(std::span<const uint8_t> bytes, ParserTarget& terminal) {
    ++parseDepth;
    Run run{bytes.data(), bytes.size(), terminal, takeHotFields(), currentState, resetSerial};
    if (run.state == S::oscString) run.index = oscContinuationPrologue(run);

    const uint8_t* p = run.bytes;
    const size_t n = run.size;
    while (run.index < n) {
        uint8_t b = p[run.index];
        if (run.state == S::ground) {
            // Words and renditions alternating go to the target's lane, entered at a sequence:
            // plain text gains nothing there.
            if (b == ESC && groundLane && run.printStart < 0) {
                currentState = S::ground;
                size_t next = run.terminal.consumeGroundLane(p, run.index, n);
                if (next != run.index) {
                    // What the lane took leaves the state of a sequence just dispatched.
                    run.index = next;
                    run.hot.pars.reset();
                    run.hot.colonMask = 0;
                    if (resetHappened(run)) continue;
                    if (next == n) break;
                    b = p[next];
                }
            }
            if (b >= 0x20) {
                // Everything from 0x20 up is text here, C1 values included: they are parts of
                // UTF-8 characters.
                if (run.printStart < 0) run.printStart = ptrdiff_t(run.index);
                run.index = ByteRunScanner::firstC0Byte(bytes, run.index + 1, scanPath);
                // Handed over at once rather than when the loop meets the byte after it, and the
                // sequence that most often follows a word is read straight after it.
                flushPrint(run);
                if (run.state == S::ground && run.index + 1 < n && p[run.index] == ESC && p[run.index + 1] == '[' && !groundLane)
                    parseCsiDirectly(run);
                continue;
            }
            if (run.printStart >= 0) {
                flushPrint(run);
                continue; // a reset during the print call may have changed the state
            }
            if (b == ESC && run.index + 1 < n && p[run.index + 1] == '[') {
                parseCsiDirectly(run);
                continue;
            }
        } else if (run.state == S::csiParam && isDigit(b)) {
            accumulateDigits(run);
            continue;
        } else if (run.state == S::dcsPassthrough && b >= 0x20 && b < 0x7F) {
            if (run.dcsStart < 0) run.dcsStart = ptrdiff_t(run.index);
            do ++run.index;
            while (run.index < n && p[run.index] >= 0x20 && p[run.index] < 0x7F);
            continue;
        }

        uint8_t entry = table.entry(run.state, b);
        ParserAction action = TransitionTable::actionOf(entry);
        if (run.dcsStart >= 0 && action != A::dcsPut && !(action == A::error && b >= TransitionTable::highByte)) {
            flushDcsPayload(run);
            continue;
        }
        ++run.index;
        performAction(run, action, TransitionTable::nextStateOf(entry), b);
    }

    flushPrint(run);
    flushDcsPayload(run);
    currentState = run.state;
    restoreHotFields(std::move(run.hot));
    --parseDepth;
}

size_t EscapeSequenceParser::oscContinuationPrologue(Run& run) {
    // A read may split a UTF-8 character of the payload; its continuation bytes (0x80-0x9F would
    // otherwise be C1 controls) must join the payload.
    size_t i = 0;
    while (i < run.size) {
        uint8_t b = run.bytes[i];
        if (b < 0x80 || b > 0x9F || b == ST) break;
        bool skippingToTerminator = run.hot.oscLimitExceeded && !run.hot.oscProgramStatus;
        if (!skippingToTerminator && !oscExpectsUTF8Continuation(run.hot.osc)) break;
        appendOscBytes(run, &b, 1);
        ++i;
    }
    return i;
}

bool EscapeSequenceParser::resetHappened(Run& run) {
    if (resetSerial == run.serial) return false;
    // The handler reset the parser: what this parse held is stale; go on from the object.
    run.hot = takeHotFields();
    run.state = currentState;
    run.serial = resetSerial;
    run.printStart = -1;
    run.dcsStart = -1;
    if (parseDepth == 1) didResetDuringParse = false;
    return true;
}

[[gnu::always_inline]] inline void EscapeSequenceParser::flushPrint(Run& run) {
    if (run.printStart < 0) return;
    std::span<const uint8_t> text(run.bytes + run.printStart, run.index - size_t(run.printStart));
    run.printStart = -1;
    _readingBufferMayHoldBytes = text.back() >= 0x80;
    currentState = run.state;
    run.terminal.handlePrintBorrowed(text);
    resetHappened(run);
}

void EscapeSequenceParser::flushDcsPayload(Run& run) {
    if (run.dcsStart < 0) return;
    std::span<const uint8_t> payload(run.bytes + run.dcsStart, run.index - size_t(run.dcsStart));
    run.dcsStart = -1;
    if (!activeDcsHandler) return;
    // Held here during the call, so that a reset from inside the handler cannot destroy it
    // while it runs.
    auto handler = std::move(activeDcsHandler);
    currentState = run.state;
    handler->put(payload);
    if (resetHappened(run)) return;
    if (!activeDcsHandler) activeDcsHandler = std::move(handler);
}

void EscapeSequenceParser::performAction(Run& run, ParserAction action, ParserState next, uint8_t byte) {
    const ParserState from = run.state;
    switch (action) {
    case A::ignore:
        run.state = next;
        if (from == S::oscString) appendIgnoredOscByte(run, byte);
        return;
    case A::error:
        if (byte >= TransitionTable::highByte) {
            switch (from) {
            case S::ground:
                if (run.printStart < 0) run.printStart = ptrdiff_t(run.index - 1);
                return;
            case S::csiIgnore:
            case S::dcsIgnore:
                return;
            case S::dcsPassthrough:
                if (run.dcsStart < 0) run.dcsStart = ptrdiff_t(run.index - 1);
                return;
            default:
                break;
            }
        }
        reportError(run, byte);
        run.state = next;
        return;
    case A::print:
        if (run.printStart < 0) run.printStart = ptrdiff_t(run.index - 1);
        run.state = next;
        return;
    case A::execute:
        run.state = next;
        currentState = next;
        run.terminal.dispatchExecute(byte);
        resetHappened(run);
        return;
    case A::oscStart:
        run.state = next;
        oscStart(run, next);
        return;
    case A::oscPut:
        --run.index;
        if (from == S::oscString)
            consumeOscRun(run);
        else
            consumeApcRun(run);
        return;
    case A::oscEnd:
        if (from == S::oscString)
            oscEnd(run, byte);
        else
            apcEnd(run, byte);
        return;
    case A::csiDispatch:
        run.state = next;
        dispatchCsiSequence(run, byte);
        return;
    case A::param:
        run.state = next;
        if (isDigit(byte)) {
            if (!run.hot.parameterLimitExceeded) {
                int64_t& p = run.hot.pars.storage[run.hot.pars.count - 1];
                p = appendDigit(p, byte);
            }
        } else {
            addParameterSeparator(run, byte);
        }
        return;
    case A::collect:
        run.state = next;
        run.hot.collect.push_back(byte);
        return;
    case A::escDispatch:
        if (from == S::programStatusEscape) {
            finishProgramStatusSt(run, byte);
            return;
        }
        run.state = next;
        currentState = next;
        run.terminal.dispatchEsc(run.collect(), byte);
        if (resetHappened(run)) return;
        endStringSequence(run);
        return;
    case A::clear:
        run.state = next;
        run.hot.pars.reset();
        run.hot.colonMask = 0;
        run.hot.collect.clear();
        run.hot.parameterLimitExceeded = false;
        return;
    case A::dcsHook:
        run.state = next;
        dcsHook(run, byte);
        return;
    case A::dcsPut:
        run.state = next;
        if (run.dcsStart < 0) run.dcsStart = ptrdiff_t(run.index - 1);
        return;
    case A::dcsUnhook:
        dcsUnhook(run, byte);
        return;
    }
}

void EscapeSequenceParser::dispatchCsiSequence(Run& run, uint8_t code) {
    if (!run.hot.parameterLimitExceeded) {
        if (code == 'm') _parsColonMask = run.hot.colonMask;
        currentState = run.state;
        run.terminal.dispatchCsi(code, run.pars(), run.collect());
        if (resetHappened(run)) return;
    }
    endStringSequence(run);
}

[[gnu::always_inline]] inline void EscapeSequenceParser::dispatchSgrSequence(Run& run) {
    _parsColonMask = run.hot.colonMask;
    currentState = run.state;
    run.terminal.dispatchSgr(run.pars(), run.hot.colonMask);
    if (resetHappened(run)) return;
    // The direct path collected nothing, and string payloads are released when their strings
    // end; only one left by a string that never ended needs the full clean-up.
    if (!run.hot.osc.empty() || !run.hot.apc.empty()) {
        endStringSequence(run);
        return;
    }
    run.hot.pars.reset();
    clearReadingBuffer(run.terminal);
}

// A plain SGR, with no intermediates, takes the short way; every other final byte the general one.
[[gnu::always_inline]] inline void EscapeSequenceParser::dispatchCsiFinal(Run& run, uint8_t code) {
    if (code == 'm' && run.hot.collect.empty())
        dispatchSgrSequence(run);
    else
        dispatchCsiSequence(run, code);
}

// The common shape ESC [ marker? parameters final, read without table lookups. It takes the
// same steps the table would, and leaves anything unusual (intermediates, controls, the end of
// the chunk) to the table in the state reached so far.
void EscapeSequenceParser::parseCsiDirectly(Run& run) {
    const uint8_t* p = run.bytes;
    const size_t n = run.size;
    HotFields& hot = run.hot;
    hot.colonMask = 0;
    hot.collect.clear();
    hot.parameterLimitExceeded = false;
    size_t i = run.index + 2;
    ParserState state = S::csiEntry;
    if (i < n && p[i] >= 0x3C && p[i] <= 0x3F) {
        hot.collect.push_back(p[i++]);
        state = S::csiParam;
    }
    // The parameters are gathered in locals and stored once, where the sequence ends or leaves
    // the common shape.
    int64_t* pars = hot.pars.storage;
    int count = 1;
    uint64_t colonMask = 0;
    // The colour forms 38;5; 48;5; 38;2; and 48;2; open most colourful sequences: their first two
    // parameters are taken from one load.
    if (state == S::csiEntry && i + 8 <= n && csiShapes::readColourPrefix(p + i, pars)) {
        count = 3;
        i += 5;
        state = S::csiParam;
    }
    // Whole parameters of up to five digits, each with the byte after it, while the chunk
    // surely holds them: no bounds test and no saturation per digit. Anything else (a longer
    // number, the last bytes of the chunk, a byte out of the common shape) is left to the byte
    // loop below, from the start of the parameter at hand.
    while (i + 6 <= n && count < CsiParameterStorage::capacity) {
        size_t j = i;
        unsigned number = csiShapes::readWholeNumber(p, j);
        uint8_t c = p[j];
        if (c == ';' || (c == ':' && (j > i || state == S::csiParam))) {
            pars[count - 1] = std::min<int64_t>(number, maximumParameterValue);
            if (c == ':') colonMask |= uint64_t(1) << (count - 1);
            ++count;
            i = j + 1;
            state = S::csiParam;
            continue;
        }
        if (c < 0x40 || c > 0x7E) break;
        pars[count - 1] = std::min<int64_t>(number, maximumParameterValue);
        hot.pars.count = count;
        hot.colonMask = colonMask;
        run.index = j + 1;
        run.state = S::ground;
        dispatchCsiFinal(run, c);
        return;
    }
    parseCsiParametersByByte(run, i, state, count, colonMask);
}

// The rest of a CSI that the whole-number loop left, byte by byte from the start of a parameter.
void EscapeSequenceParser::parseCsiParametersByByte(Run& run, size_t i, ParserState state, int count, uint64_t colonMask) {
    const uint8_t* p = run.bytes;
    const size_t n = run.size;
    HotFields& hot = run.hot;
    int64_t* pars = hot.pars.storage;
    int64_t value = 0;
    auto store = [&] {
        pars[count - 1] = value;
        hot.pars.count = count;
        hot.colonMask = colonMask;
        run.index = i;
        run.state = state;
    };
    while (i < n) {
        uint8_t c = p[i];
        if (isDigit(c)) {
            state = S::csiParam;
            value = std::min<int64_t>(value * 10 + (c - '0'), maximumParameterValue);
            ++i;
        } else if (c == ';' || (c == ':' && state == S::csiParam)) {
            state = S::csiParam;
            if (count >= CsiParameterStorage::capacity) {
                store();
                addParameterSeparator(run, c);
                ++run.index;
                return;
            }
            pars[count - 1] = value;
            if (c == ':') colonMask |= uint64_t(1) << (count - 1);
            ++count;
            value = 0;
            ++i;
        } else {
            store();
            if (c >= 0x40 && c <= 0x7E) {
                ++run.index;
                run.state = S::ground;
                dispatchCsiFinal(run, c);
            }
            return;
        }
    }
    store();
}

void EscapeSequenceParser::accumulateDigits(Run& run) {
    const uint8_t* p = run.bytes;
    size_t i = run.index;
    if (run.hot.parameterLimitExceeded) {
        while (i < run.size && isDigit(p[i])) ++i;
    } else {
        int64_t& slot = run.hot.pars.storage[run.hot.pars.count - 1];
        int64_t value = slot;
        for (; i < run.size && isDigit(p[i]); ++i) value = appendDigit(value, p[i]);
        slot = value;
    }
    run.index = i;
}

void EscapeSequenceParser::addParameterSeparator(Run& run, uint8_t byte) {
    CsiParameterStorage& pars = run.hot.pars;
    if (pars.count >= CsiParameterStorage::capacity) {
        run.hot.parameterLimitExceeded = true;
        return;
    }
    if (byte == ':') run.hot.colonMask |= uint64_t(1) << (pars.count - 1);
    pars.storage[pars.count++] = 0;
}

void EscapeSequenceParser::reportError(Run& run, uint8_t byte) {
    if (run.terminal.silentLog()) return;
    ParsingState s;
    s.position = run.index - 1;
    s.code = byte;
    s.currentState = run.state;
    s.print = run.printStart;
    s.dcs = run.dcsStart;
    s.osc = run.hot.osc.size();
    s.apc = run.hot.apc.size();
    s.collect = run.hot.collect;
    s.parameters.assign(run.hot.pars.storage, run.hot.pars.storage + run.hot.pars.count);
    diagnostic("Vellum: Parsing error, state: " + s.description());
}

std::string ParsingState::description() const {
    std::string text = "ParsingState(position: " + std::to_string(position) + ", code: " + hexByte(code) +
                       ", currentState: " + parserStateName(currentState) + ", print: " + std::to_string(print) +
                       ", dcs: " + std::to_string(dcs) + ", osc: " + std::to_string(osc) +
                       ", apc: " + std::to_string(apc) + ", collect: [";
    for (size_t i = 0; i < collect.size(); ++i) text += (i ? ", " : "") + hexByte(collect[i]);
    text += "], parameters: [";
    for (size_t i = 0; i < parameters.size(); ++i) text += (i ? ", " : "") + std::to_string(parameters[i]);
    text += "], abort: ";
    text += abort ? "true)" : "false)";
    return text;
}

// OSC and APC strings.

void EscapeSequenceParser::oscStart(Run& run, ParserState next) {
    HotFields& hot = run.hot;
    if (next == S::oscString) {
        releaseOrClear(hot.osc);
        hot.oscLimitExceeded = false;
        hot.oscProgramStatus = false;
    } else {
        releaseOrClear(hot.apc);
        hot.apcLimitExceeded = false;
    }
    hot.oscIgnoredPrefixBytes = false;
}

void EscapeSequenceParser::consumeOscRun(Run& run) {
    const uint8_t* p = run.bytes;
    HotFields& hot = run.hot;
    for (;;) {
        if (hot.oscLimitExceeded && !hot.oscProgramStatus) {
            // Over its limit the payload is dropped anyway: only its end is sought.
            run.index = ByteRunScanner::firstC0Byte(run.span(), run.index, scanPath);
            return;
        }
        size_t stop = ByteRunScanner::firstOscStop(run.span(), run.index, scanPath);
        appendOscBytes(run, p + run.index, stop - run.index);
        run.index = stop;
        if (hot.oscLimitExceeded && !hot.oscProgramStatus) continue;
        if (stop == run.size || p[stop] != ST) return;
        run.index = stop + 1;
        if (oscExpectsUTF8Continuation(hot.osc)) {
            // 0x9C completes a character here (U+201C ends in it), it is no terminator.
            appendOscBytes(run, p + stop, 1);
            continue;
        }
        run.state = S::ground;
        if (dispatchAccumulatedOsc(run, ST)) return;
        endStringSequence(run);
        return;
    }
}

void EscapeSequenceParser::consumeApcRun(Run& run) {
    size_t stop = ByteRunScanner::firstC0Byte(run.span(), run.index, scanPath);
    size_t count = stop - run.index;
    std::vector<uint8_t>& apc = run.hot.apc;
    size_t room = size_t(maximumApcBytes) - std::min(apc.size(), size_t(maximumApcBytes));
    if (count > room) run.hot.apcLimitExceeded = true;
    apc.insert(apc.end(), run.bytes + run.index, run.bytes + run.index + std::min(count, room));
    run.index = stop;
}

void EscapeSequenceParser::appendOscBytes(Run& run, const uint8_t* bytes, size_t count) {
    if (count == 0) return;
    HotFields& hot = run.hot;
    std::vector<uint8_t>& osc = hot.osc;
    if (!hot.oscProgramStatus && !hot.oscLimitExceeded && osc.size() < programStatusPrefixLength &&
        osc.size() + count >= programStatusPrefixLength) {
        // The prefix may straddle what is stored and what arrives now.
        size_t stored = osc.size();
        hot.oscProgramStatus =
            (stored == 0 || std::memcmp(osc.data(), programStatusPrefix, stored) == 0) &&
            std::memcmp(bytes, programStatusPrefix + stored, programStatusPrefixLength - stored) == 0;
    }
    size_t limit = size_t(std::max<int64_t>(maximumOscBytes, 0));
    if (hot.oscProgramStatus) limit = std::min(limit, maximumProgramStatusBytes);

    if (!hot.oscLimitExceeded) {
        if (osc.size() + count <= limit) {
            osc.insert(osc.end(), bytes, bytes + count);
            return;
        }
        size_t fits = limit > osc.size() ? limit - osc.size() : 0;
        osc.insert(osc.end(), bytes, bytes + fits);
        hot.oscLimitExceeded = true;
    }
    // An overlong program-status payload keeps only its tail: enough to tell whether a 0x9C
    // continues a character or ends the string.
    if (hot.oscProgramStatus) retainTail(osc, bytes, count);
}

void EscapeSequenceParser::appendIgnoredOscByte(Run& run, uint8_t byte) {
    // A program-status payload may carry control bytes. Anywhere else they are dropped, and a
    // dropped byte in the first five disqualifies the string from being a program status.
    if (run.hot.oscProgramStatus)
        appendOscBytes(run, &byte, 1);
    else
        run.hot.oscIgnoredPrefixBytes = true;
}

void EscapeSequenceParser::oscEnd(Run& run, uint8_t byte) {
    HotFields& hot = run.hot;
    if (byte == CAN || byte == SUB) {
        run.state = S::ground;
        endStringSequence(run);
        return;
    }
    if (byte == ESC) {
        if (!hot.oscLimitExceeded && !hot.oscIgnoredPrefixBytes && hasProgramStatusPrefix(hot.osc)) {
            // Held until the byte after ESC shows whether this is an ST.
            run.state = S::programStatusEscape;
            return;
        }
        run.state = S::escape; // the "\" of an ST is then eaten as ESC \ .
    } else {
        run.state = S::ground;
    }
    if (dispatchAccumulatedOsc(run, byte)) return;
    endStringSequence(run);
}

void EscapeSequenceParser::finishProgramStatusSt(Run& run, uint8_t byte) {
    if (byte == '\\') {
        run.state = S::ground;
        if (dispatchAccumulatedOsc(run, ESC)) return;
        endStringSequence(run);
        return;
    }
    // Not an ST: the string is abandoned and the byte is the one after a plain ESC.
    endStringSequence(run);
    run.hot.colonMask = 0;
    run.hot.parameterLimitExceeded = false;
    run.state = S::escape;
    uint8_t entry = table.entry(S::escape, byte);
    performAction(run, TransitionTable::actionOf(entry), TransitionTable::nextStateOf(entry), byte);
}

bool EscapeSequenceParser::dispatchAccumulatedOsc(Run& run, uint8_t terminator) {
    const HotFields& hot = run.hot;
    const std::vector<uint8_t>& osc = hot.osc;
    if (hot.oscLimitExceeded || osc.empty()) return false;
    auto semicolon = std::find(osc.begin(), osc.end(), uint8_t(';'));
    std::span<const uint8_t> number(osc.data(), size_t(semicolon - osc.begin()));
    std::span<const uint8_t> data;
    if (semicolon != osc.end()) data = std::span<const uint8_t>(osc).subspan(number.size() + 1);
    int64_t code = 0;
    if (!parseDecimal(number, code)) return false;
    if (code == programStatusCode &&
        (!hasProgramStatusPrefix(osc) || hot.oscIgnoredPrefixBytes || osc.size() > maximumProgramStatusBytes))
        return false;
    currentState = run.state;
    run.terminal.dispatchOsc(code, data, terminator);
    return resetHappened(run);
}

void EscapeSequenceParser::apcEnd(Run& run, uint8_t byte) {
    HotFields& hot = run.hot;
    run.state = byte == ESC ? S::escape : S::ground;
    if (byte != CAN && byte != SUB && !hot.apcLimitExceeded && !hot.apc.empty()) {
        currentState = run.state;
        std::span<const uint8_t> apc = hot.apc;
        run.terminal.dispatchApc(apc[0], apc.subspan(1));
        if (resetHappened(run)) return;
    }
    endStringSequence(run);
}

// DCS.

void EscapeSequenceParser::dcsHook(Run& run, uint8_t code) {
    activeDcsHandler.reset();
    if (run.hot.parameterLimitExceeded) return;
    currentState = run.state;
    std::unique_ptr<DcsHandler> handler;
    if (dcsHandlerFactory) {
        handler = dcsHandlerFactory(run.collect(), code, run.pars());
        if (resetHappened(run)) return;
    }
    if (!handler) {
        handler = run.terminal.dispatchDcs(run.collect(), code, run.pars());
        if (resetHappened(run)) return;
    }
    if (!handler) return;
    handler->hook(run.collect(), run.pars(), code);
    if (resetHappened(run)) return;
    activeDcsHandler = std::move(handler);
}

void EscapeSequenceParser::dcsUnhook(Run& run, uint8_t byte) {
    // Like the strings, a DCS ended by ESC leaves the "\" of the ST to the escape state.
    run.state = byte == ESC ? S::escape : S::ground;
    if (auto handler = std::move(activeDcsHandler)) {
        currentState = run.state;
        handler->unhook();
        if (resetHappened(run)) return;
    }
    endStringSequence(run);
}

void EscapeSequenceParser::endStringSequence(Run& run) {
    releaseOrClear(run.hot.osc);
    releaseOrClear(run.hot.apc);
    run.hot.pars.reset();
    run.hot.collect.clear();
    clearReadingBuffer(run.terminal);
}

void EscapeSequenceParser::clearReadingBuffer(ParserTarget& terminal) {
    if (!_readingBufferMayHoldBytes) return;
    _readingBufferMayHoldBytes = false;
    terminal.clearReadingBuffer();
}

void EscapeSequenceParser::reset(ParserTarget& terminal) {
    currentState = initialState;
    releaseOrClear(_osc);
    releaseOrClear(_apc);
    _collect.clear();
    _oscLimitExceeded = _oscIgnoredPrefixBytes = _oscProgramStatus = false;
    _apcLimitExceeded = _parameterLimitExceeded = false;
    _pars.reset();
    _parsColonMask = 0;
    activeDcsHandler.reset();
    _readingBufferMayHoldBytes = false;
    terminal.clearReadingBuffer();
    if (parseDepth > 0) {
        didResetDuringParse = true;
        ++resetSerial;
    }
}

bool EscapeSequenceParser::handleCustomOsc(int64_t code, std::span<const uint8_t> data) const {
    auto found = oscHandlers.find(code);
    if (found == oscHandlers.end() || !found->second) return false;
    found->second(data);
    return true;
}

bool oscExpectsUTF8Continuation(std::span<const uint8_t> payload) {
    size_t n = payload.size();
    size_t continuations = 0;
    while (continuations < 3 && continuations < n && (payload[n - 1 - continuations] & 0xC0) == 0x80)
        ++continuations;
    if (continuations == n) return false;
    uint8_t lead = payload[n - 1 - continuations];
    size_t expected = lead >= 0xF0 && lead <= 0xF4 ? 3 : lead >= 0xE0 && lead <= 0xEF ? 2 : lead >= 0xC2 && lead <= 0xDF ? 1 : 0;
    return continuations < expected;
}

bool parseDecimal(std::span<const uint8_t> digits, int64_t& value) {
    if (digits.empty()) return false;
    int64_t result = 0;
    for (uint8_t b : digits) {
        if (!isDigit(b)) return false;
        int64_t d = b - '0';
        if (result > (INT64_MAX - d) / 10) return false;
        result = result * 10 + d;
    }
    value = result;
    return true;
}

} // namespace vellum
