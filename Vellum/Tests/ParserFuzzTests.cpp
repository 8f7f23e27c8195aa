#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "Support/ParserRecorder.h"
#include "Vellum/EscapeSequenceParser.h"

using namespace vellum;
using namespace vellum::testing;
using Events = std::vector<std::string>;

namespace {

// Bytes that steer the state machine, so random input reaches every state often.
std::string randomBytes(std::mt19937& random, size_t length) {
    static const std::string steering = "\x1b\x1b\x1b[]P_X^\\;:0123456789?$ qm\x07\x18\x1a\x19\x7f"
                                        "\x90\x9b\x9c\x9c\x9d\x9f\x85\xc3\xe2\x80\xf0\x9f\xa0\xff";
    std::string out(length, '\0');
    for (auto& c : out) {
        unsigned pick = random() % 8;
        c = pick < 4 ? steering[random() % steering.size()] : pick < 6 ? char(0x20 + random() % 0x5F) : char(random() % 256);
    }
    return out;
}

std::vector<size_t> randomPieces(std::mt19937& random) {
    std::vector<size_t> pieces(64);
    for (auto& p : pieces) p = random() % 3 ? 1 + random() % 8 : 1 + random() % 300;
    return pieces;
}

const std::string knownGood = "a\x1b[1;2H\x1b]0;t\x07" "b";
const Events knownGoodEvents = {"print a", "CSI  1;2 H", "OSC 0 t \\x07", "print b"};

} // namespace

TEST(ParserFuzzTest, RandomBytesLeaveBothScanPathsAgreeingAndTheParserSane) {
    std::mt19937 random(20241122);
    for (int round = 0; round < 4000; ++round) {
        std::string input = randomBytes(random, 64 + random() % 1500);
        std::vector<size_t> pieces = randomPieces(random);
        EscapeSequenceParser vector, scalar;
        vector.maximumOscBytes = scalar.maximumOscBytes = random() % 2 ? 64 : EscapeSequenceParser::defaultMaximumOscBytes;
        scalar.scanPath = ScanPath::scalar;
        ParserRecorder vectorRecord(&vector), scalarRecord(&scalar);
        ASSERT_EQ(parseInPieces(vector, vectorRecord, input, pieces), parseInPieces(scalar, scalarRecord, input, pieces))
            << "round " << round << ": " << escaped(input);
        EXPECT_EQ(vector.parseDepth, 0);

        vector.reset(vectorRecord);
        vectorRecord.events.clear();
        vector.parseBorrowed(asBytes(knownGood), vectorRecord);
        ASSERT_EQ(vectorRecord.events, knownGoodEvents) << "round " << round << ": " << escaped(input);
    }
}
