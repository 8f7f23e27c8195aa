#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "Vellum/ByteRunScanner.h"
#include "Vellum/CsiParameters.h"
#include "Vellum/DcsHandler.h"
#include "Vellum/TransitionTable.h"

namespace vellum {

// What the parser drives: the terminal. One call per text run or per complete sequence, never
// per byte. Every span is borrowed and valid only during the call.
class ParserTarget {
public:
    // A run of bytes of 0x20 and more from the ground state, UTF-8 possibly cut at either end.
    virtual void handlePrintBorrowed(std::span<const uint8_t> run) = 0;
    // C0 controls, and the C1 controls that arrive outside the ground state.
    virtual void dispatchExecute(uint8_t code) = 0;
    virtual void dispatchCsi(uint8_t code, CsiParameters pars, std::span<const uint8_t> collect) = 0;
    // CSI ... m with neither marker nor intermediates, the most frequent sequence, handed over
    // past the general decoder. Bit i of `colonMask`: parameter i was followed by a colon.
    virtual void dispatchSgr(CsiParameters pars, uint64_t colonMask) {
        (void)colonMask;
        dispatchCsi('m', pars, {});
    }
    // From the ground state at `from`, with no text run pending: takes as much of the common
    // alternation of printable ASCII words and CSI ... m sequences (wholly inside the chunk, no
    // colons, markers or intermediates) as the target can without the parser, and returns where it
    // stopped; `from` when it took nothing. The parser stays in the ground state throughout. The
    // target may end with another CSI of that plain shape, dispatched as the parser would.
    virtual size_t consumeGroundLane(const uint8_t* bytes, size_t from, size_t size) {
        (void)bytes;
        (void)size;
        return from;
    }
    virtual void dispatchEsc(std::span<const uint8_t> collect, uint8_t code) = 0;
    // The built-in DCS handlers; the parser's dcsHandlerFactory is asked first.
    virtual std::unique_ptr<DcsHandler> dispatchDcs(std::span<const uint8_t> collect, uint8_t code,
                                                    CsiParameters pars) = 0;
    // `terminator` is 0x07, 0x1B (for ESC \) or 0x9C. Custom handlers (the parser's
    // oscHandlers) are the target's to consult, after whatever it does with every OSC.
    virtual void dispatchOsc(int64_t code, std::span<const uint8_t> data, uint8_t terminator) = 0;
    virtual void dispatchApc(uint8_t command, std::span<const uint8_t> content) = 0;
    // Drops a UTF-8 character that a chunk boundary left half read.
    virtual void clearReadingBuffer() = 0;
    virtual bool silentLog() const = 0;

protected:
    ~ParserTarget() = default;
};

// Filled only to report a parse error.
struct ParsingState {
    size_t position = 0;
    uint8_t code = 0;
    ParserState currentState = ParserState::ground;
    ptrdiff_t print = -1;
    ptrdiff_t dcs = -1;
    size_t osc = 0;
    size_t apc = 0;
    std::vector<uint8_t> collect;
    std::vector<int64_t> parameters;
    bool abort = false;

    std::string description() const;
};

// VT500-family state machine over raw UTF-8. Text runs in the ground state are skipped with a
// vector scan and handed over whole; OSC, APC and DCS payloads are bounded.
class EscapeSequenceParser {
public:
    using OscHandler = std::function<void(std::span<const uint8_t> data)>;
    using DcsHandlerFactory = std::function<std::unique_ptr<DcsHandler>(
        std::span<const uint8_t> collect, uint8_t code, CsiParameters pars)>;

    static constexpr int64_t defaultMaximumOscBytes = 0x4100000;
    static constexpr int64_t maximumApcBytes = 0x4100000;
    static constexpr size_t maximumProgramStatusBytes = 4092;
    static constexpr int64_t programStatusCode = 7501;
    // Arrays that grew past this are released rather than emptied at the end of a string.
    static constexpr size_t retainedCapacityLimit = 0x200001;

    EscapeSequenceParser() = default;
    EscapeSequenceParser(const EscapeSequenceParser&) = delete;
    EscapeSequenceParser& operator=(const EscapeSequenceParser&) = delete;

    void parseBorrowed(std::span<const uint8_t> bytes, ParserTarget& terminal);
    void reset(ParserTarget& terminal);

    // Runs the custom handler registered for `code`, if any; true when one took the call.
    bool handleCustomOsc(int64_t code, std::span<const uint8_t> data) const;

    // Bit i set: parameter i of the last SGR (CSI ... m) was followed by a colon.
    uint64_t parsColonMask() const { return _parsColonMask; }
    ParserState state() const { return currentState; }

    std::unordered_map<int64_t, OscHandler> oscHandlers;
    std::unique_ptr<DcsHandler> activeDcsHandler;
    DcsHandlerFactory dcsHandlerFactory;
    ParserState initialState = ParserState::ground;
    // From the terminal's options; a negative value counts as 0.
    int64_t maximumOscBytes = defaultMaximumOscBytes;
    bool didResetDuringParse = false;
    uint64_t resetSerial = 0;
    int parseDepth = 0;
    const TransitionTable& table = sharedVt500TransitionTable();
    // Tests run the same input through both to compare them.
    ScanPath scanPath = ScanPath::vector;
    // Off, every text run and sequence goes through the parser's own paths; tests compare the two.
    bool groundLane = true;

private:
    struct HotFields;
    struct Run;

    ParserState currentState = ParserState::ground;
    std::vector<uint8_t> _osc;
    bool _oscLimitExceeded = false;
    bool _oscIgnoredPrefixBytes = false;
    // The payload began "7501;": it stays known after an overlong payload lost its prefix.
    bool _oscProgramStatus = false;
    std::vector<uint8_t> _apc;
    bool _apcLimitExceeded = false;
    CsiParameterStorage _pars;
    uint64_t _parsColonMask = 0;
    std::vector<uint8_t> _collect;
    bool _parameterLimitExceeded = false;
    // The last text run handed over ended inside a multi-byte character, so the terminal may hold
    // part of it; saves a call at the end of every sequence otherwise.
    bool _readingBufferMayHoldBytes = false;

    HotFields takeHotFields();
    void restoreHotFields(HotFields&& hot);

    size_t oscContinuationPrologue(Run& run);
    void flushPrint(Run& run);
    void flushDcsPayload(Run& run);
    bool resetHappened(Run& run);
    void performAction(Run& run, ParserAction action, ParserState next, uint8_t byte);
    void dispatchCsiSequence(Run& run, uint8_t code);
    void dispatchSgrSequence(Run& run);
    void dispatchCsiFinal(Run& run, uint8_t code);
    void parseCsiDirectly(Run& run);
    [[gnu::noinline]] void parseCsiParametersByByte(Run& run, size_t i, ParserState state, int count, uint64_t colonMask);
    void accumulateDigits(Run& run);
    void addParameterSeparator(Run& run, uint8_t byte);
    void reportError(Run& run, uint8_t byte);

    void oscStart(Run& run, ParserState next);
    void consumeOscRun(Run& run);
    void consumeApcRun(Run& run);
    void oscEnd(Run& run, uint8_t byte);
    void apcEnd(Run& run, uint8_t byte);
    void appendOscBytes(Run& run, const uint8_t* bytes, size_t count);
    void appendIgnoredOscByte(Run& run, uint8_t byte);
    // True when a reset from the handler ended this string.
    bool dispatchAccumulatedOsc(Run& run, uint8_t terminator);
    void finishProgramStatusSt(Run& run, uint8_t byte);

    void dcsHook(Run& run, uint8_t code);
    void dcsUnhook(Run& run, uint8_t byte);

    void endStringSequence(Run& run);
    void clearReadingBuffer(ParserTarget& terminal);
};

// True when the last bytes of `payload` begin a UTF-8 character whose continuation bytes have
// not all arrived.
bool oscExpectsUTF8Continuation(std::span<const uint8_t> payload);

// Digits only, no sign, no overflow of a signed 64-bit integer; false otherwise.
bool parseDecimal(std::span<const uint8_t> digits, int64_t& value);

} // namespace vellum
