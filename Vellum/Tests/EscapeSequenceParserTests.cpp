#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "Support/CapturedDiagnostics.h"
#include "Support/ParserRecorder.h"
#include "Vellum/ByteRunScanner.h"
#include "Vellum/EscapeSequenceParser.h"

using namespace vellum;
using namespace vellum::testing;
using Events = std::vector<std::string>;

namespace {

class ParserTest : public ::testing::Test {
protected:
    EscapeSequenceParser parser;
    ParserRecorder recorder{&parser};

    Events parse(std::string_view input) {
        recorder.events.clear();
        parser.parseBorrowed(asBytes(input), recorder);
        return recorder.events;
    }

    // The record must not depend on where a read cut the input: every two-piece split and the
    // byte-by-byte feed are compared with the one-piece feed, on both scan paths.
    Events parseAtEverySplit(std::string_view input) {
        Events whole = parse(input);
        for (ScanPath path : {ScanPath::vector, ScanPath::scalar}) {
            for (size_t cut = 0; cut <= input.size(); ++cut) {
                EscapeSequenceParser fresh;
                fresh.scanPath = path;
                fresh.maximumOscBytes = parser.maximumOscBytes;
                ParserRecorder r(&fresh);
                fresh.parseBorrowed(asBytes(input.substr(0, cut)), r);
                fresh.parseBorrowed(asBytes(input.substr(cut)), r);
                EXPECT_EQ(r.events, whole) << "cut at " << cut << " of " << escaped(input);
            }
            EscapeSequenceParser fresh;
            fresh.scanPath = path;
            fresh.maximumOscBytes = parser.maximumOscBytes;
            ParserRecorder r(&fresh);
            size_t one[] = {1};
            EXPECT_EQ(parseInPieces(fresh, r, input, one), whole) << "byte by byte: " << escaped(input);
        }
        return whole;
    }
};

std::string csiWithParameters(int count) {
    std::string s = "\x1b[";
    for (int i = 1; i <= count; ++i) s += (i > 1 ? ";" : "") + std::to_string(i);
    return s + "m";
}

} // namespace

TEST_F(ParserTest, TextRunsAndControlsInGround) {
    EXPECT_EQ(parseAtEverySplit("ab\r\ncd\x7f"), (Events{"print ab", "exec \\x0d", "exec \\x0a", "print cd\\x7f"}));
    // In ground, C1 values are parts of UTF-8 characters: U+009B is text, never a CSI.
    EXPECT_EQ(parseAtEverySplit("\xc2\x9b" "1m\xe4\xb8\xad"), (Events{"print \\xc2\\x9b1m\\xe4\\xb8\\xad"}));
    // EM belongs to no set: a parse error that leaves the text around it alone.
    CapturedDiagnostics diagnostics;
    recorder.quiet = false;
    EXPECT_EQ(parse("a\x19" "b"), (Events{"print ab"}));
    ASSERT_EQ(diagnostics.lines.size(), 1u);
    EXPECT_TRUE(diagnostics.lines[0].starts_with("Info: Vellum: Parsing error, state: ")) << diagnostics.lines[0];
}

TEST_F(ParserTest, CsiParametersSaturateAndAreLimitedToTwentyFour) {
    EXPECT_EQ(parseAtEverySplit("\x1b[m\x1b[1;2H\x1b[;5H"), (Events{"CSI  0 m", "CSI  1;2 H", "CSI  0;5 H"}));
    EXPECT_EQ(parseAtEverySplit("\x1b[99999m\x1b[65535;65536;123456789012345678901234567890H"),
              (Events{"CSI  65535 m", "CSI  65535;65535;65535 H"}));
    EXPECT_EQ(parse(csiWithParameters(24)).size(), 1u);
    // One too many drops the whole sequence, and the next one is unaffected.
    EXPECT_EQ(parseAtEverySplit(csiWithParameters(25) + "\x1b[2J"), (Events{"CSI  2 J"}));
    EXPECT_EQ(parse(csiWithParameters(24) + "\x1b[3m").back(), "CSI  3 m");
}

TEST_F(ParserTest, CollectedPrivateMarkersAndIntermediates) {
    EXPECT_EQ(parseAtEverySplit("\x1b[?25h\x1b[>0;1c\x1b[2 q\x1b[!p\x1b(0\x1b#8\x1b%G"),
              (Events{"CSI ? 25 h", "CSI > 0;1 c", "CSI   2 q", "CSI ! 0 p", "ESC ( 0", "ESC # 8", "ESC % G"}));
    // A private marker after parameters, or a parameter after an intermediate, voids the sequence.
    EXPECT_EQ(parseAtEverySplit("\x1b[1?2h\x1b[ 1qx"), (Events{"print x"}));
    EXPECT_EQ(parse("\x1b\x7f" "7"), (Events{"ESC  7"}));
}

TEST_F(ParserTest, ColonsMakeSubParametersOnlyInsideParameters) {
    EXPECT_EQ(parseAtEverySplit("\x1b[38:2::1:2:3m"), (Events{"CSI  38:2:0:1:2:3 m"}));
    EXPECT_EQ(parser.parsColonMask(), 0x1Fu);
    parse("\x1b[4:3;1m");
    EXPECT_EQ(parser.parsColonMask(), 0x1u);
    // Only SGR publishes its mask.
    parse("\x1b[1:2H");
    EXPECT_EQ(parser.parsColonMask(), 0x1u);

    // A colon at once after CSI is an error: the sequence is gone and its final byte is text.
    CapturedDiagnostics diagnostics;
    recorder.quiet = false;
    EXPECT_EQ(parse("\x1b[:m"), (Events{"print m"}));
    EXPECT_EQ(diagnostics.lines.size(), 1u);
}

TEST_F(ParserTest, ControlsInsideSequencesAndAborts) {
    // C0 controls run in the middle of a sequence; CAN is one of them here, SUB cancels.
    EXPECT_EQ(parseAtEverySplit("\x1b[1\n2m\x1b[1\x18" "2m"), (Events{"exec \\x0a", "CSI  12 m", "exec \\x18", "CSI  12 m"}));
    EXPECT_EQ(parseAtEverySplit("\x1b[1\x1a" "2m"), (Events{"exec \\x1a", "print 2m"}));
    EXPECT_EQ(parseAtEverySplit("\x1b(\x1b[3m"), (Events{"CSI  3 m"}));
    // Outside ground, C1 bytes are controls: 8-bit CSI and NEL.
    EXPECT_EQ(parseAtEverySplit("\x1b[\x9b" "5m\x1b[\x85"), (Events{"CSI  5 m", "exec \\x85"}));
}

TEST_F(ParserTest, OscTerminators) {
    EXPECT_EQ(parseAtEverySplit("\x1b]0;title\x07"), (Events{"OSC 0 title \\x07"}));
    // ESC \ dispatches at the ESC; the backslash is then an ESC \ of its own.
    EXPECT_EQ(parseAtEverySplit("\x1b]2;a b\x1b\\x"), (Events{"OSC 2 a b \\x1b", "ESC  \\x5c", "print x"}));
    EXPECT_EQ(parseAtEverySplit("\x1b]8;;\x9c" "x"), (Events{"OSC 8 ; \\x9c", "print x"}));
    // 0x9C completing a character (U+201C) is text; a lone one ends the string.
    EXPECT_EQ(parseAtEverySplit("\x1b]0;\xe2\x80\x9cq\xe2\x80\x9d\x9c"),
              (Events{"OSC 0 \\xe2\\x80\\x9cq\\xe2\\x80\\x9d \\x9c"}));
    EXPECT_EQ(parseAtEverySplit("\x1b]0;\xc3\xa9\x9c" "a\x07"), (Events{"OSC 0 \\xc3\\xa9 \\x9c", "print a", "exec \\x07"}));
    // A string ended by ESC and something else dispatches, and the byte follows the ESC.
    EXPECT_EQ(parse("\x1b]0;t\x1b" "7"), (Events{"OSC 0 t \\x1b", "ESC  7"}));
}

TEST_F(ParserTest, OscPayloadsThatAreDropped) {
    // CAN and SUB end the string and are spent doing so.
    EXPECT_EQ(parseAtEverySplit("\x1b]0;a\x18" "b\x1b]0;c\x1a" "d\x1b]0;e\x18"), (Events{"print bd"}));
    EXPECT_EQ(parser.state(), ParserState::ground);
    // Empty, without a number, with a bad or overflowing number.
    EXPECT_EQ(parseAtEverySplit("\x1b]\x07\x1b]x;1\x07\x1b];1\x07\x1b]99999999999999999999;a\x07\x1b]1x;a\x07"), (Events{}));
    // A number without data, and control bytes dropped from an ordinary payload.
    EXPECT_EQ(parseAtEverySplit("\x1b]104\x07\x1b]0;a\x01" "b\x07"), (Events{"OSC 104  \\x07", "OSC 0 ab \\x07"}));
}

TEST_F(ParserTest, OscLimitDropsAtTheTerminator) {
    parser.maximumOscBytes = 8;
    EXPECT_EQ(parseAtEverySplit("\x1b]0;456789\x07"), (Events{"OSC 0 456789 \\x07"}));
    // Over the limit, even a lone 0x9C is payload: only a C0 terminator ends it.
    EXPECT_EQ(parseAtEverySplit("\x1b]0;4567890\x9c" "ab\x07x"), (Events{"print x"}));
    parser.maximumOscBytes = -5;
    EXPECT_EQ(parse("\x1b]0;a\x07"), (Events{}));
}

TEST_F(ParserTest, ProgramStatusOscLimitsAndTerminators) {
    std::string data(4092 - 5, 'x');
    EXPECT_EQ(parse("\x1b]7501;" + data + "\x07"), (Events{"OSC 7501 " + data + " \\x07"}));
    EXPECT_EQ(parse("\x1b]7501;" + data + "y\x07"), (Events{}));
    EXPECT_EQ(parse("\x1b]0;xxxx" + data + "\x07").size(), 1u);

    // Ended by ST: one dispatch with terminator ESC, and no ESC \ of its own.
    EXPECT_EQ(parseAtEverySplit("\x1b]7501;id;state=busy\x1b\\z"), (Events{"OSC 7501 id;state=busy \\x1b", "print z"}));
    // ESC followed by anything else abandons it; the byte is the one after a plain ESC.
    EXPECT_EQ(parseAtEverySplit("\x1b]7501;id\x1bX\x1b]7501;id\x1b" "7"), (Events{"ESC  7"}));
    // It may carry control bytes, unless one arrived before its prefix was complete.
    EXPECT_EQ(parseAtEverySplit("\x1b]7501;a\x01" "b\x9c"), (Events{"OSC 7501 a\\x01b \\x9c"}));
    EXPECT_EQ(parseAtEverySplit("\x1b]75\x01" "01;a\x07\x1b]07501;a\x07"), (Events{}));
    // Over its limit it still ends at a lone 0x9C, and not at one that completes a character.
    EXPECT_EQ(parseAtEverySplit("\x1b]7501;" + data + "\xe2\x80\x9c\x9c" "after"), (Events{"print after"}));
}

TEST_F(ParserTest, OscCharacterSplitByAReadContinuesInTheNextChunk) {
    std::string input = "\x1b]0;\xe2\x80\x9c\xf0\x9f\x98\x80\xe2\x82\xac\x07";
    EXPECT_EQ(parseAtEverySplit(input), (Events{"OSC 0 \\xe2\\x80\\x9c\\xf0\\x9f\\x98\\x80\\xe2\\x82\\xac \\x07"}));
}

TEST_F(ParserTest, ApcStrings) {
    EXPECT_EQ(parseAtEverySplit("\x1b_Ga=T;QUJD\x1b\\"), (Events{"APC G a=T;QUJD", "ESC  \\x5c"}));
    EXPECT_EQ(parseAtEverySplit("\x1b_G\x9c\xc3\xa9\x07"), (Events{"APC G \\x9c\\xc3\\xa9"}));
    EXPECT_EQ(parseAtEverySplit("\x1b_\x07\x1b_Gx\x18\x1b_Gx\x1a"), (Events{}));
    // SOS and PM strings are swallowed whole.
    EXPECT_EQ(parseAtEverySplit("\x1bXsos\x18text\x9c\x1b^pm\x1b\\k"), (Events{"ESC  \\x5c", "print k"}));
}

TEST_F(ParserTest, DcsHookPutUnhook) {
    EXPECT_EQ(parseAtEverySplit("\x1bP1;2$qm\x7f\x18r\x1b\\"),
              (Events{"DCS hook $ 1;2 q", "DCS put m\\x18r", "DCS unhook", "ESC  \\x5c"}));
    EXPECT_EQ(parseAtEverySplit("\x1bPq#0;2\xc3\xa9\x9c"), (Events{"DCS hook  0 q", "DCS put #0;2\\xc3\\xa9", "DCS unhook"}));
    // A colon in the parameters voids it; SUB cancels it without an unhook.
    EXPECT_EQ(parseAtEverySplit("\x1bP1:2qdata\x1b\\"), (Events{"ESC  \\x5c"}));
    EXPECT_EQ(parseAtEverySplit("\x1bPqab\x1a" "c"), (Events{"DCS hook  0 q", "DCS put ab", "exec \\x1a", "print c"}));
    EXPECT_EQ(parse(csiWithParameters(25).replace(1, 1, "P").replace(csiWithParameters(25).size() - 1, 1, "q") + "x\x1b\\"),
              (Events{"ESC  \\x5c"}));
}

TEST_F(ParserTest, DcsPayloadArrivesOneSlicePerChunkAndFactoryComesFirst) {
    struct Counting : DcsHandler {
        int* puts;
        explicit Counting(int* p) : puts(p) {}
        void hook(std::span<const uint8_t>, CsiParameters, uint8_t) override {}
        void put(std::span<const uint8_t>) override { ++*puts; }
        void unhook() override {}
    };
    int puts = 0;
    parser.dcsHandlerFactory = [&](std::span<const uint8_t> collect, uint8_t code, CsiParameters) -> std::unique_ptr<DcsHandler> {
        if (code == 'q' && collect.empty()) return std::make_unique<Counting>(&puts);
        return nullptr;
    };
    parse("\x1bPq" + std::string(1000, '~'));
    parse(std::string(1000, '?'));
    parse(std::string(10, '-') + "\x1b\\");
    EXPECT_EQ(puts, 3);
    EXPECT_EQ(recorder.events, (Events{"ESC  \\x5c"}));
    // A DCS the factory declines goes to the target.
    EXPECT_EQ(parse("\x1bP$qm\x1b\\").front(), "DCS hook $ 0 q");
}

TEST_F(ParserTest, ResetInsideAChunkDiscardsTheSequenceInProgress) {
    recorder.afterEvent = [&](const std::string& line) {
        if (line == "ESC  c" || line == "exec \\x0a") parser.reset(recorder);
    };
    EXPECT_EQ(parse("\x1b" "c\x1b]0;t\x07"), (Events{"ESC  c", "OSC 0 t \\x07"}));
    // A reset from the LF inside a CSI: the rest of the chunk starts from ground.
    EXPECT_EQ(parse("\x1b[12\n3m\x1b[4m"), (Events{"exec \\x0a", "print 3m", "CSI  4 m"}));
    EXPECT_FALSE(parser.didResetDuringParse);
    EXPECT_EQ(parser.resetSerial, 2u);

    // A reset between chunks forgets a half-read string.
    recorder.afterEvent = nullptr;
    parse("\x1b]0;abc");
    parser.reset(recorder);
    EXPECT_EQ(parse("def\x07"), (Events{"print def", "exec \\x07"}));
    EXPECT_EQ(parser.resetSerial, 2u);
}

TEST_F(ParserTest, HandlerMayFeedTheParserAgain) {
    recorder.afterEvent = [&](const std::string& line) {
        if (line == "OSC 1 inject \\x07") parser.parseBorrowed(asBytes("[\x1b[7m]"), recorder);
    };
    EXPECT_EQ(parse("a\x1b]1;inject\x07" "b\x1b[1m"),
              (Events{"print a", "OSC 1 inject \\x07", "print [", "CSI  7 m", "print ]b", "CSI  1 m"}));
    EXPECT_EQ(parser.parseDepth, 0);
}

TEST(ByteRunScannerTest, VectorAndScalarPathsAgree) {
    std::mt19937 random(7);
    const uint8_t interesting[] = {0x00, 0x07, 0x1B, 0x1F, 0x20, 0x41, 0x7F, 0x80, 0x9B, 0x9C, 0x9D, 0xC3, 0xFF};
    for (int round = 0; round < 2000; ++round) {
        std::vector<uint8_t> bytes(random() % 80);
        for (auto& b : bytes) b = random() % 4 ? uint8_t(0x20 + random() % 0x5F) : interesting[random() % std::size(interesting)];
        std::span<const uint8_t> span(bytes);
        for (size_t from = 0; from <= bytes.size(); from += 1 + random() % 5) {
            EXPECT_EQ(ByteRunScanner::firstC0Byte(span, from, ScanPath::vector), ByteRunScanner::firstC0Byte(span, from, ScanPath::scalar));
            EXPECT_EQ(ByteRunScanner::firstNonAsciiByte(span, from, ScanPath::vector), ByteRunScanner::firstNonAsciiByte(span, from, ScanPath::scalar));
            EXPECT_EQ(ByteRunScanner::firstOscStop(span, from, ScanPath::vector), ByteRunScanner::firstOscStop(span, from, ScanPath::scalar));
            EXPECT_EQ(ByteRunScanner::firstNonPrintableByte(span, from, ScanPath::vector), ByteRunScanner::firstNonPrintableByte(span, from, ScanPath::scalar));
        }
    }
    std::vector<uint8_t> text(100, 'a');
    text[70] = 0x9C;
    text[90] = '\n';
    EXPECT_EQ(ByteRunScanner::firstC0Byte(text, 3), 90u);
    EXPECT_EQ(ByteRunScanner::firstNonAsciiByte(text, 3), 70u);
    EXPECT_EQ(ByteRunScanner::firstOscStop(text, 71), 90u);
    EXPECT_EQ(ByteRunScanner::firstNonPrintableByte(text, 3), 70u);
}

TEST(OscHelpersTest, Utf8ContinuationAndDecimalNumbers) {
    auto open = [](std::string_view s) { return oscExpectsUTF8Continuation(asBytes(s)); };
    EXPECT_TRUE(open("a\xe2"));
    EXPECT_TRUE(open("a\xe2\x80"));
    EXPECT_FALSE(open("a\xe2\x80\x9c"));
    EXPECT_TRUE(open("\xf0\x9f\x98"));
    EXPECT_FALSE(open("\x80\x80"));
    EXPECT_FALSE(open("\xc0"));
    EXPECT_FALSE(open(""));
    int64_t value = 0;
    EXPECT_TRUE(parseDecimal(asBytes("9223372036854775807"), value));
    EXPECT_EQ(value, INT64_MAX);
    EXPECT_FALSE(parseDecimal(asBytes("9223372036854775808"), value));
    EXPECT_FALSE(parseDecimal(asBytes("-1"), value));
    EXPECT_FALSE(parseDecimal(asBytes(""), value));
}
