#include <gtest/gtest.h>

#include "Vellum/TerminalReports.h"
#include "Vellum/TerminfoReplies.h"

using namespace vellum;

TEST(TerminalReports, DeviceAttributesDependOnTerminalType) {
    EXPECT_EQ(primaryDeviceAttributesReply("xterm-256color", true, CC::sevenBit), "\x1b[?65;4;1;2;6;21;22;17;28c");
    EXPECT_EQ(primaryDeviceAttributesReply("xterm", false, CC::sevenBit), "\x1b[?65;1;2;6;21;22;17;28c");
    EXPECT_EQ(primaryDeviceAttributesReply("screen-256color", true, CC::sevenBit), "\x1b[?1;2c");
    EXPECT_EQ(primaryDeviceAttributesReply("rxvt-unicode", true, CC::sevenBit), "\x1b[?1;2c");
    EXPECT_EQ(primaryDeviceAttributesReply("linux", true, CC::sevenBit), "\x1b[?6c");
    EXPECT_EQ(primaryDeviceAttributesReply("vt100", true, CC::sevenBit), std::nullopt);
    EXPECT_EQ(secondaryDeviceAttributesReply(CC::sevenBit), "\x1b[>65;20;1c");
    EXPECT_EQ(secondaryDeviceAttributesReply(CC::eightBit), "\x9b>65;20;1c");
}

TEST(TerminalReports, VersionIdentityIsFilteredAndBounded) {
    EXPECT_EQ(xtVersionIdentity("v1.99.1", std::nullopt, "v1.99.1"), "Vellum 1.99.1+v1.99.1:");
    EXPECT_EQ(xtVersionIdentity("v2.0", "main", "unknown"), "Vellum 2.0-main:");
    EXPECT_EQ(xtVersionIdentity("v1\x1b\x07.0", "fe\nat", "3"), "Vellum 1.0-feat+3:");
    std::string identity = xtVersionIdentity(std::string(400, 'x'), std::nullopt, "1");
    EXPECT_EQ(identity.size(), 255u);
    EXPECT_EQ(identity.back(), ':');
    EXPECT_EQ(xtVersionReply(CC::sevenBit), "\x1bP>|Vellum 1.99.1+v1.99.1:\x1b\\");
}

TEST(TerminalReports, PrivateStatusAndModeReports) {
    EXPECT_EQ(privateDeviceStatusReply(15, 0, CC::sevenBit), "\x1b[?10n");
    EXPECT_EQ(privateDeviceStatusReply(26, 0, CC::sevenBit), "\x1b[?27;1;0;0n");
    EXPECT_EQ(privateDeviceStatusReply(62, 0, CC::sevenBit), "\x1b[0*{");
    EXPECT_EQ(privateDeviceStatusReply(63, 7, CC::sevenBit), "\x1bP7!~0000\x1b\\");
    EXPECT_EQ(privateDeviceStatusReply(63, 0, CC::eightBit), "\x90" "0!~0000\x9c");
    EXPECT_EQ(privateDeviceStatusReply(999, 0, CC::sevenBit), std::nullopt);

    EXPECT_EQ(modeReport(true, 2004, ModeReportValue::set, CC::sevenBit), "\x1b[?2004;1$y");
    EXPECT_EQ(modeReport(false, 4, ModeReportValue::reset, CC::sevenBit), "\x1b[4;2$y");
    EXPECT_EQ(modeReport(true, 2027, ModeReportValue::permanentlySet, CC::eightBit), "\x9b?2027;3$y");
    EXPECT_EQ(modeReport(false, std::nullopt, ModeReportValue::notRecognized, CC::sevenBit), "\x1b[;0$y");

    EXPECT_EQ(statusStringReply(std::string("0;1m"), CC::sevenBit), "\x1bP1$r0;1m\x1b\\");
    EXPECT_EQ(statusStringReply(std::nullopt, CC::sevenBit), "\x1bP0$r\x1b\\");
}

TEST(TerminalReports, TerminfoCapabilitiesAnswerKnownNamesOnly) {
    // "TN" is built from the terminal name; "ab" is unknown and gets no reply at all.
    EXPECT_EQ(terminfoCapabilityReplies("544E;6162", "xterm-256color", CC::sevenBit),
              "\x1bP1+r544E=787465726D2D323536636F6C6F72\x1b\\");
    // Lower-case hex is accepted; "colors" answers 256 in decimal.
    EXPECT_EQ(terminfoCapabilityReplies("636f6c6f7273", "xterm", CC::sevenBit), "\x1bP1+r636F6C6F7273=323536\x1b\\");
    // A boolean capability ("am") has no value.
    EXPECT_EQ(terminfoCapabilityReplies("616D", "xterm", CC::sevenBit), "\x1bP1+r616D\x1b\\");
    // Odd lengths, bad digits and oversized names are dropped.
    EXPECT_EQ(terminfoCapabilityReplies("616;zz;", "xterm", CC::sevenBit), "");
    EXPECT_EQ(terminfoCapabilityReplies("544E", std::string(129, 'x'), CC::sevenBit), "");
    EXPECT_EQ(terminfoCapabilityReplies("544E", "", CC::sevenBit), "");

    // The table is sorted (lookups are binary searches), and string values carry decoded escapes.
    const auto& table = xtgettcapReplyTable();
    EXPECT_GT(table.size(), 250u);
    EXPECT_TRUE(std::is_sorted(table.begin(), table.end()));
    EXPECT_EQ(xtgettcapReply("6B63757531"), "6B63757531=1B4F41"); // kcuu1 = ESC O A
}

TEST(TerminalReports, ChecksumIsTheNegatedSixteenBitSum) {
    EXPECT_EQ(checksumReply(1, {}, CC::sevenBit), "\x1bP1!~0000\x1b\\");
    // 'A' (65) and a blank counted as 32: -(97) & 0xffff = FF9F.
    EXPECT_EQ(checksumReply(3, {U'A', 0}, CC::sevenBit), "\x1bP3!~FF9F\x1b\\");
    std::vector<char32_t> many(70000, U'\U0001F600');
    uint32_t sum = 0;
    for (char32_t c : many) sum += c;
    char expected[8];
    std::snprintf(expected, sizeof expected, "%04X", (0u - sum) & 0xFFFF);
    EXPECT_EQ(checksumReply(0, many, CC::sevenBit), std::string("\x1bP0!~") + expected + "\x1b\\");
}
