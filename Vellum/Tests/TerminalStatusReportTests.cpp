// The questions programs ask a terminal before they rely on a feature (mode requests, status
// strings, identification, window sizes) and the answers they expect, in xterm's form.
#include <gtest/gtest.h>

#include "Support/TerminalHarness.h"

using namespace vellum;
using vellum::testing::RecordingDelegate;
using vellum::testing::TerminalHarness;

namespace {

std::string statusString(TerminalHarness& h, std::string_view request) {
    return h.reply("\x1bP$q" + std::string(request) + "\x1b\\");
}

} // namespace

TEST(TerminalStatusReports, ModeRequestsKnowEveryModeTheTerminalTakes) {
    TerminalHarness h(10, 4);
    struct Case {
        const char* request;
        const char* answer;
    };
    for (Case c : std::initializer_list<Case>{
             {"\x1b[?1$p", "\x1b[?1;2$y"},       {"\x1b[?7$p", "\x1b[?7;1$y"},        {"\x1b[?25$p", "\x1b[?25;1$y"},
             {"\x1b[?2$p", "\x1b[?2;1$y"},       {"\x1b[?8$p", "\x1b[?8;1$y"},        {"\x1b[?67$p", "\x1b[?67;4$y"},
             {"\x1b[?1001$p", "\x1b[?1001;2$y"}, {"\x1b[?1034$p", "\x1b[?1034;4$y"},  {"\x1b[?1048$p", "\x1b[?1048;2$y"},
             {"\x1b[?1049$p", "\x1b[?1049;2$y"}, {"\x1b[?2026$p", "\x1b[?2026;2$y"},  {"\x1b[?2027$p", "\x1b[?2027;3$y"},
             {"\x1b[?9999$p", "\x1b[?9999;0$y"}, {"\x1b[4$p", "\x1b[4;2$y"},          {"\x1b[20$p", "\x1b[20;2$y"},
             {"\x1b[13$p", "\x1b[13;2$y"},       {"\x1b[10$p", "\x1b[10;4$y"},        {"\x1b[99$p", "\x1b[99;0$y"},
             // KAM: the keyboard can never be locked, while DECANM is always on.
             {"\x1b[2$p", "\x1b[2;4$y"},         {"\x1b[2h\x1b[2$p", "\x1b[2;4$y"},
         }) {
        EXPECT_EQ(h.reply(c.request), c.answer) << c.request + 1;
    }
    // Set and reset show in the answers.
    EXPECT_EQ(h.reply("\x1b[?1h\x1b[?7l\x1b[?25l\x1b[?1$p\x1b[?7$p\x1b[?25$p"), "\x1b[?1;1$y\x1b[?7;2$y\x1b[?25;2$y");
    EXPECT_EQ(h.reply("\x1b[4h\x1b[20h\x1b[4$p\x1b[20$p"), "\x1b[4;1$y\x1b[20;1$y");
    EXPECT_EQ(h.reply("\x1b[?1049h\x1b[?1049$p\x1b[?1049l"), "\x1b[?1049;1$y");
    EXPECT_EQ(h.reply("\x1b[?69h\x1b[?69$p\x1b[?6h\x1b[?6$p"), "\x1b[?69;1$y\x1b[?6;1$y");
}

TEST(TerminalStatusReports, StatusStringsReportEverySettingTheyCanRestore) {
    TerminalHarness h(20, 10);
    EXPECT_EQ(statusString(h, "m"), "\x1bP1$r0m\x1b\\");
    EXPECT_EQ(statusString(h, "r"), "\x1bP1$r1;10r\x1b\\");
    EXPECT_EQ(statusString(h, "s"), "\x1bP1$r1;20s\x1b\\");
    EXPECT_EQ(statusString(h, " q"), "\x1bP1$r1 q\x1b\\");
    EXPECT_EQ(statusString(h, "\"p"), "\x1bP1$r65;1\"p\x1b\\");
    EXPECT_EQ(statusString(h, "*x"), "\x1bP1$r1*x\x1b\\");
    EXPECT_EQ(statusString(h, "t"), "\x1bP1$r24t\x1b\\");
    EXPECT_EQ(statusString(h, "$|"), "\x1bP1$r20$|\x1b\\");
    EXPECT_EQ(statusString(h, "*|"), "\x1bP1$r10*|\x1b\\");

    h.terminal.feed("\x1b[3;7r\x1b[?69h\x1b[4;12s\x1b[6 q\x1b[2*x\x1b[1;4;38;2;1;2;3m");
    EXPECT_EQ(statusString(h, "r"), "\x1bP1$r3;7r\x1b\\");
    EXPECT_EQ(statusString(h, "s"), "\x1bP1$r4;12s\x1b\\");
    EXPECT_EQ(statusString(h, " q"), "\x1bP1$r6 q\x1b\\");
    EXPECT_EQ(statusString(h, "*x"), "\x1bP1$r2*x\x1b\\");
    EXPECT_EQ(statusString(h, "m"), "\x1bP1$r0;1;4;38;2;1;2;3m\x1b\\");
    EXPECT_EQ(statusString(h, "%q"), "\x1bP0$r\x1b\\") << "unknown requests are refused";
}

TEST(TerminalStatusReports, WindowReportsInCharactersAndPixels) {
    TerminalHarness h(30, 8);
    EXPECT_EQ(h.reply("\x1b[18t"), "\x1b[8;8;30t");
    EXPECT_EQ(h.reply("\x1b[19t"), "\x1b[9;8;30t");
    EXPECT_EQ(h.reply("\x1b[11t"), "\x1b[1t");
    EXPECT_EQ(h.reply("\x1b[13t"), "\x1b[3;0;0t");
    EXPECT_EQ(h.reply("\x1b[14t\x1b[16t"), "") << "no pixel answer before the cell size is known";
    h.terminal.updatePixelGeometry(9, 18);
    EXPECT_EQ(h.reply("\x1b[14t"), "\x1b[4;144;270t");
    EXPECT_EQ(h.reply("\x1b[14;2t"), "\x1b[4;144;270t");
    EXPECT_EQ(h.reply("\x1b[15t"), "\x1b[5;144;270t");
    EXPECT_EQ(h.reply("\x1b[16t"), "\x1b[6;18;9t");
    // Moves and resizes are the host's business: no answer and no change.
    EXPECT_EQ(h.reply("\x1b[3;10;10t\x1b[4;100;100t\x1b[8;5;5t\x1b[9;1t\x1b[30t"), "");
    EXPECT_EQ(std::pair(h.terminal.cols(), h.terminal.rows()), std::pair(30, 8));
}

TEST(TerminalStatusReports, TitleStacksPushPopAndReport) {
    TerminalHarness h(30, 4);
    h.terminal.feed("\x1b]2;editor\x07\x1b]1;ed\x07");
    EXPECT_EQ(h.reply("\x1b[21t"), "\x1b]leditor\x1b\\");
    EXPECT_EQ(h.reply("\x1b[20t"), "\x1b]Led\x1b\\");
    h.terminal.feed("\x1b[22;0t\x1b]2;pager\x07\x1b]1;pg\x07\x1b[22;2t\x1b]2;help\x07");
    EXPECT_EQ(h.reply("\x1b[21t"), "\x1b]lhelp\x1b\\");
    h.terminal.feed("\x1b[23;2t");
    EXPECT_EQ(h.terminal.title(), "pager");
    h.terminal.feed("\x1b[23;0t");
    EXPECT_EQ(h.terminal.title(), "editor");
    EXPECT_EQ(h.terminal.iconTitleText(), "ed");
    h.terminal.feed("\x1b[23;0t");
    EXPECT_EQ(h.terminal.title(), "editor") << "popping an empty stack changes nothing";
    // A title never carries control characters back into the program's input.
    h.terminal.feed("\x1b]2;a\x7f\xc2\x9b" "31mb\x07");
    EXPECT_EQ(h.reply("\x1b[21t"), "\x1b]la31mb\x1b\\");
    // Titles in hexadecimal when asked for (CSI > 1 t).
    h.terminal.feed("\x1b]2;ok\x07\x1b[>1t");
    EXPECT_EQ(h.reply("\x1b[21t"), "\x1b]l6F6B\x1b\\");
}
