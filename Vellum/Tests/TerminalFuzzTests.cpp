#include <gtest/gtest.h>

#include <random>

#include "Support/TerminalHarness.h"

using namespace vellum;
using vellum::testing::TerminalHarness;

namespace {

// Pieces that steer random input into the interesting states: sequences with extreme
// parameters, mode switches, wide and combining text.
const char* const fragments[] = {
    "\x1b[", "\x1b]", "\x1bP", "\x1b[?1049h", "\x1b[?1049l", "\x1b[?6h", "\x1b[?69h", "\x1b[2;99s", "\x1b[3;2r",
    "\x1b[99999;99999H", "\x1b[L", "\x1b[99M", "\x1b[4h", "\x1b[?7l", "\x1b[?7h", "\x1b[38:2::1:2:3m", "\x1b(0",
    "\xe4\xb8\xad", "\xcc\x81", "\xef\xb8\x8f", "\xf0\x9f\x87\xab", "\xe2\x80\x8d", "\r\n", "\t", "\x08", "\x1b" "c",
    "\x1b[3J", "\x1b[2J", "\x1b#8", "\x1bM", "\x1b[99@", "\x1b[99P", "\x1b[99X", "\x1b[5b", "\x1b[?45h", "\x1b[6n",
    "\x1b[?40h\x1b[?3h", "\x1b[?3l", "\x1b[1;1;99;99;2;2;1$v", "\x1b[42;2;2;99;99$x", "\x1b[1;1;1;99;99*y", "\x1b[1;1;9;9$z",
    "\x1b[3'}", "\x1b[99'~", "\x1b" "6", "\x1b" "9", "\x1b#3", "\x1b]8;;http://x/\x07", "\x1b]133;A\x07", "\x1b]133;L\x07",
    "\x1b]7501;a;state=running\x07", "\x1b]52;c;YQ==\x07", "\x1b]4;1;?\x07", "\x1b]104\x07", "\x1b[>1u", "\x1b[<9u",
    "\x1b_Ga=T;AAAA\x1b\\", "\x1b[?2048h", "\x1b[14t", "\x1b[22t", "\x1b[23t", "\x1b[?2004;1s", "\x1b[?2004r", "\x1b[63\"p",
    "\xef\xb8\x8e", "\xf0\x9f\x8f\xbd", "\xe2\x9d\xa4", "\xf0\x9f\x91\x8d", "\xe1\x84\x80", "\xe1\x85\xa1", "\x1b[2@",
    "\x1b[41m", "\x1b[4l", "\x1b[1;3H", "\x1b[?69l", "\x1b[2P", "\x1b[3G", "\x1b[?1047h", "\x1b[?1047l",
};

// A wide character is a head followed by its tail, whatever cut, shifted or resized the row.
void expectWideCharactersWhole(Terminal& terminal) {
    Buffer& b = terminal.buffer();
    for (int r = 0; r < terminal.rows(); ++r) {
        BufferLine& line = b.row(r);
        for (int c = 0; c < line.count(); ++c) {
            CellWidthState state = line.packedCell(c).widthState();
            if (state == CellWidthState::spacerTail) {
                ASSERT_TRUE(c > 0 && line.packedCell(c - 1).isWideHead()) << "row " << r << " col " << c;
            }
            if (state == CellWidthState::wide) {
                ASSERT_TRUE(c + 1 < line.count() && line.packedCell(c + 1).isSpacerTail()) << "row " << r << " col " << c;
            }
        }
    }
}

} // namespace

TEST(TerminalFuzz, RandomBytesAndResizesKeepTheCursorInside) {
    std::mt19937 random(20261122);
    for (int round = 0; round < 200; ++round) {
        TerminalHarness h(2 + static_cast<int>(random() % 30), 1 + static_cast<int>(random() % 12), static_cast<int>(random() % 20));
        h.terminal.silentLogging = true;
        for (int step = 0; step < 300; ++step) {
            std::string chunk;
            int pieces = 1 + static_cast<int>(random() % 8);
            for (int i = 0; i < pieces; ++i) {
                if (random() % 2) {
                    chunk += fragments[random() % std::size(fragments)];
                } else {
                    for (int n = static_cast<int>(random() % 12); n > 0; --n) chunk.push_back(static_cast<char>(random() % 256));
                }
            }
            h.terminal.feed(chunk);
            if (random() % 40 == 0) h.terminal.resize(static_cast<int>(random() % 40), static_cast<int>(random() % 15));
            Buffer& b = h.terminal.buffer();
            ASSERT_GE(b.x, 0);
            ASSERT_LE(b.x, h.terminal.cols());
            ASSERT_GE(b.y, 0);
            ASSERT_LT(b.y, h.terminal.rows());
            ASSERT_LE(b.yBase + h.terminal.rows(), b.lines.count());
            expectWideCharactersWhole(h.terminal);
            if (::testing::Test::HasFatalFailure()) return;
        }
        for (int r = 0; r < h.terminal.rows(); ++r) (void)h.terminal.lineText(r);
    }
}
