#include <gtest/gtest.h>

#include "corvexd/PlainScreen.h"

using corvexd::plainScreen;

TEST(PlainScreen, ReadsWhatAShellPrintedWithoutItsControls) {
    auto screen = plainScreen("\x1b]0;title\x07\x1b[1;31m$ \x1b[0mecho hi\r\nhi\r\n\x1b]7;file://h/x\x1b\\$ ", 80, 4);
    EXPECT_EQ(screen.lines, (std::vector<std::string>{"$ echo hi", "hi", "$", ""}));
    EXPECT_EQ(screen.cursorRow, 2);
    EXPECT_EQ(screen.cursorCol, 2);
}

TEST(PlainScreen, CarriageReturnBackspaceAndTabsMoveWithinTheLine) {
    EXPECT_EQ(plainScreen("12345\rab", 80, 1).lines[0], "ab345");
    EXPECT_EQ(plainScreen("abc\b\bX", 80, 1).lines[0], "aXc");
    EXPECT_EQ(plainScreen("a\tb", 80, 1).lines[0], "a       b");
    EXPECT_EQ(plainScreen("\x1b(B\xc3\xa9t\xc3\xa9\r\xe2\x82\xac", 80, 1).lines[0], "\xe2\x82\xact\xc3\xa9")
        << "characters, not bytes, are overwritten; a charset designation leaves nothing";
}

TEST(PlainScreen, LongLinesWrapAndOnlyTheLastRowsRemain) {
    auto screen = plainScreen("abcdefgh\n1\n2\n3", 4, 3);
    EXPECT_EQ(screen.lines, (std::vector<std::string>{"1", "2", "3"}));
    EXPECT_EQ(plainScreen("abcdefgh", 4, 2).lines, (std::vector<std::string>{"abcd", "efgh"}));
    EXPECT_EQ(plainScreen("", 4, 2).lines, (std::vector<std::string>{"", ""}));
    EXPECT_EQ(plainScreen("x\x1b[", 0, 0).lines, (std::vector<std::string>{"x"})) << "a cut sequence and no size are survived";
}
