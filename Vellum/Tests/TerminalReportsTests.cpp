#include <gtest/gtest.h>

#include "Support/CapturedDiagnostics.h"
#include "Support/TerminalHarness.h"
#include "Vellum/TerminalReports.h"
#include "Vellum/TerminfoReplies.h"

using namespace vellum;
using vellum::testing::CapturedDiagnostics;
using vellum::testing::RecordingDelegate;
using vellum::testing::TerminalHarness;

TEST(TerminalReports, DeviceAttributesDependOnTerminalType) {
    EXPECT_EQ(primaryDeviceAttributesReply("xterm", false, CC::sevenBit), "\x1b[?65;1;2;6;21;22;17;28c");
    EXPECT_EQ(primaryDeviceAttributesReply("screen-256color", true, CC::sevenBit), "\x1b[?1;2c");
    EXPECT_EQ(primaryDeviceAttributesReply("rxvt-unicode", true, CC::sevenBit), "\x1b[?1;2c");
    EXPECT_EQ(primaryDeviceAttributesReply("linux", true, CC::sevenBit), "\x1b[?6c");
    EXPECT_EQ(primaryDeviceAttributesReply("vt100", true, CC::sevenBit), std::nullopt);
    EXPECT_EQ(secondaryDeviceAttributesReply(CC::eightBit), "\x9b>65;20;1c");
}

TEST(TerminalReports, VersionIdentityIsFilteredAndBounded) {
    EXPECT_EQ(xtVersionIdentity("v1.99.1", std::nullopt, "v1.99.1"), "Vellum 1.99.1+v1.99.1:");
    EXPECT_EQ(xtVersionIdentity("v2.0", "main", "unknown"), "Vellum 2.0-main:");
    EXPECT_EQ(xtVersionIdentity("v1\x1b\x07.0", "fe\nat", "3"), "Vellum 1.0-feat+3:");
    std::string identity = xtVersionIdentity(std::string(400, 'x'), std::nullopt, "1");
    EXPECT_EQ(identity.size(), 255u);
}

TEST(TerminalReports, PrivateStatusReports) {
    EXPECT_EQ(privateDeviceStatusReply(15, 0, CC::sevenBit), "\x1b[?10n");
    EXPECT_EQ(privateDeviceStatusReply(26, 0, CC::sevenBit), "\x1b[?27;1;0;0n");
    EXPECT_EQ(privateDeviceStatusReply(62, 0, CC::sevenBit), "\x1b[0*{");
    EXPECT_EQ(privateDeviceStatusReply(63, 7, CC::sevenBit), "\x1bP7!~0000\x1b\\");
    EXPECT_EQ(privateDeviceStatusReply(63, 0, CC::eightBit), "\x90" "0!~0000\x9c");
    EXPECT_EQ(privateDeviceStatusReply(999, 0, CC::sevenBit), std::nullopt);

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
    EXPECT_TRUE(std::is_sorted(table.begin(), table.end()));
    EXPECT_EQ(xtgettcapReply("6B63757531"), "6B63757531=1B4F41"); // kcuu1 = ESC O A
    // The extensions programs look for: program status, synchronized output, true colour.
    // Pst, the program-status string: ESC ] 7501 ; %p1%s ST.
    EXPECT_EQ(xtgettcapReply("507374"), "507374=1B5D373530313B25703125731B5C");
    EXPECT_EQ(xtgettcapReply("524742"), "524742=38");                        // RGB#8
    EXPECT_EQ(xtgettcapReply("6C696E6573"), "6C696E6573=3235");               // lines#25, the default height
    EXPECT_EQ(xtgettcapReply("6E656C"), std::nullopt);                       // nel is not offered
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

namespace {

// Answers some window operations itself and knows its cell size.
class WindowDelegate : public RecordingDelegate {
public:
    std::optional<std::string> windowCommand(Terminal&, const WindowManipulationCommand& command) override {
        commands.push_back(command);
        if (command.kind == WindowManipulationCommand::Kind::reportWindowTitle) return std::string("\x1b]lhost\x1b\\");
        return std::nullopt;
    }
    std::optional<std::pair<int, int>> cellSizeInPixels(Terminal&) override { return cellSize; }

    std::vector<WindowManipulationCommand> commands;
    std::optional<std::pair<int, int>> cellSize;
};

} // namespace

TEST(TerminalReports, WindowOperationsReachTheDelegateFirst) {
    WindowDelegate delegate;
    TerminalOptions options;
    options.cols = 30;
    options.rows = 10;
    Terminal terminal(&delegate, options);
    terminal.silentLogging = true;
    auto reply = [&](std::string_view bytes) {
        delegate.replies.clear();
        terminal.feed(bytes);
        return delegate.replies;
    };
    using Kind = WindowManipulationCommand::Kind;

    EXPECT_EQ(reply("\x1b[21t"), "\x1b]lhost\x1b\\");
    // The host's cell size answers pixel questions until the view measures its own.
    delegate.cellSize = std::pair{8, 16};
    EXPECT_EQ(reply("\x1b[14t\x1b[16t"), "\x1b[4;160;240t\x1b[6;16;8t");
    terminal.updatePixelGeometry(10, 20);
    EXPECT_EQ(reply("\x1b[16t"), "\x1b[6;20;10t");

    delegate.commands.clear();
    terminal.feed("\x1b[3;40;50t\x1b[4;300;200t\x1b[8;24;80t\x1b[9;2t\x1b[10;1t\x1b[13;2t\x1b[14;2t\x1b[40t\x1b[9;7t");
    std::vector<WindowManipulationCommand> expected{
        {.kind = Kind::moveWindowTo, .x = 40, .y = 50},
        {.kind = Kind::resizeWindowTo, .width = 200, .height = 300},
        {.kind = Kind::resizeTo, .cols = 80, .rows = 24},
        {.kind = Kind::maximizeWindowVertically},
        {.kind = Kind::switchToFullScreen},
        {.kind = Kind::reportTextAreaPosition},
        {.kind = Kind::reportTerminalWindowPixelDimension},
        {.kind = Kind::resizeToLines, .lines = 40},
    };
    EXPECT_EQ(delegate.commands, expected);
}

TEST(TerminalReports, ModesSaveRestoreAndReport) {
    TerminalHarness h(10, 5);
    h.terminal.silentLogging = true;
    // Only the restorable modes come back with CSI ? r.
    h.terminal.feed("\x1b[?2004h\x1b[?1h\x1b[?2004;1s\x1b[?2004l\x1b[?1l\x1b[?2004;1r");
    EXPECT_TRUE(h.terminal.bracketedPasteMode);
    EXPECT_FALSE(h.terminal.applicationCursor);

    EXPECT_EQ(h.reply("\x1b[?1007$p\x1b[?1007l\x1b[?1007$p"), "\x1b[?1007;1$y\x1b[?1007;2$y");
    EXPECT_EQ(h.reply("\x1b[?40h\x1b[?40$p\x1b[?117$p\x1b[?5522$p"), "\x1b[?40;1$y\x1b[?117;4$y\x1b[?5522;0$y");
    EXPECT_EQ(h.reply("\x1b[?2026h\x1b[?2026$p\x1b[?2026l"), "\x1b[?2026;1$y");
    EXPECT_EQ(h.reply("\x1b[$p"), "\x1b[0;0$y");

    // Column mode needs mode 40; it clears the screen and homes the cursor.
    h.terminal.feed("\x1b[3;3Hx\x1b[?3h");
    EXPECT_EQ(h.terminal.cols(), 132);
    EXPECT_EQ(h.terminal.lineText(2), "");
    EXPECT_EQ(h.x(), 0);
    EXPECT_EQ(h.reply("\x1b[?3$p"), "\x1b[?3;1$y");
    h.terminal.feed("\x1b[?95h\x1b[Hx\x1b[?3l");
    EXPECT_EQ(h.terminal.cols(), 80);
    EXPECT_EQ(h.terminal.lineText(0), "x"); // mode 95 keeps the screen

    // A soft reset forgets the saved cursor as well as the modes.
    h.terminal.feed("\x1b[3;4H\x1b" "7\x1b[?2004h\x1b[!p\x1b" "8");
    EXPECT_EQ(h.x(), 0);
    EXPECT_EQ(h.y(), 0);
    EXPECT_TRUE(h.terminal.bracketedPasteMode); // not a mode DECSTR resets
}

TEST(TerminalReports, ReportsThatFollowTheView) {
    TerminalHarness h(10, 5);
    // Focus is reported at once when enabled, and then on each change.
    EXPECT_EQ(h.reply("\x1b[?1004h"), "\x1b[I");
    h.delegate.replies.clear();
    h.terminal.setFocused(false);
    h.terminal.setFocused(false);
    EXPECT_EQ(h.delegate.replies, "\x1b[O");

    // The in-band size report needs the pixel geometry.
    EXPECT_EQ(h.reply("\x1b[?2048h"), "");
    h.terminal.updatePixelGeometry(7, 14);
    EXPECT_EQ(h.delegate.replies, "\x1b[48;5;10;70;70t");
    EXPECT_EQ(h.reply("\x1b[?2048l\x1b[?2048h"), "\x1b[48;5;10;70;70t");
    // Programs that asked hear of every resize.
    h.delegate.replies.clear();
    h.terminal.resize(12, 3);
    EXPECT_EQ(h.delegate.replies, "\x1b[48;3;12;42;84t");

    // Visibility and colour scheme.
    EXPECT_EQ(h.reply("\x1b[?2033h"), "\x1b[?999;1n");
    h.delegate.replies.clear();
    h.terminal.setTerminalVisibility(false);
    EXPECT_EQ(h.delegate.replies, "\x1b[?999;2n");
    EXPECT_EQ(h.reply("\x1b[?996n"), "\x1b[?997;1n");
    h.terminal.feed("\x1b]11;rgb:ff/ff/ff\x07\x1b]10;rgb:0/0/0\x07");
    EXPECT_EQ(h.reply("\x1b[?996n"), "\x1b[?997;2n");
    // With mode 2031 a change of scheme is reported unasked, once per change.
    EXPECT_EQ(h.reply("\x1b[?2031h\x1b]11;rgb:0/0/0\x07\x1b]11;rgb:10/10/10\x07\x1b]10;rgb:ff/ff/ff\x07"), "\x1b[?997;1n");
}

TEST(TerminalReports, DeviceAttributesFormsAndConformance) {
    TerminalHarness h(10, 5);
    CapturedDiagnostics diagnostics;
    h.terminal.silentLogging = false;
    EXPECT_EQ(h.reply("\x1b[1c"), "");
    EXPECT_EQ(h.reply("\x1b[>1c"), "\x1b[>65;20;1c"); // the secondary form always answers
    EXPECT_EQ(diagnostics.lines, (std::vector<std::string>{"Info: SendDeviceAttributes got [1] and ",
                                                            "Info: Got a CSI > c with an unknown set of argument"}));
    EXPECT_EQ(h.reply("\x1bZ"), "\x1b[?65;4;1;2;6;21;22;17;28c") << "DECID answers as DA does";
    // DECSCL 62;1 keeps 7-bit replies; 63 alone selects 8-bit ones; 61 goes back to 7-bit.
    EXPECT_EQ(h.reply("\x1b[62;1\"p\x1b[5n"), "\x1b[0n");
    EXPECT_EQ(h.reply("\x1b[63\"p\x1b[5n"), "\x9b" "0n");
    EXPECT_EQ(h.reply("\x1b[61\"p\x1b[5n"), "\x1b[0n");
    EXPECT_EQ(h.reply("\x1bP$q\"p\x1b\\"), "\x1bP1$r65;1\"p\x1b\\");
}

TEST(TerminalReports, UnknownSequencesAreLoggedAndSkipped) {
    TerminalHarness h(10, 5);
    CapturedDiagnostics diagnostics;
    h.terminal.silentLogging = false;
    h.terminal.feed("\x1b[?9999h\x1b[77l\x1b[1;2%j\x1b" "Q\x1b_Xpayload\x1b\\\x1bP$qw\x1b\\");
    EXPECT_EQ(diagnostics.lines, (std::vector<std::string>{
                                     "Info: Unhandled DEC Private Mode Set (DECSET) with 9999",
                                     "Info: Unhandled verbatim resetMode with 77 and ",
                                     "Info: Vellum: Unknown CSI Code (collect=[%] code=j pars=[1, 2])",
                                     "Info: Vellum: Unknown ESC Code: ESC + Q txt=[]",
                                     "Info: Vellum: Unknown APC code: X",
                                     "Info: Unknown DCS + w",
                                 }));
    EXPECT_EQ(h.screen(), (std::vector<std::string>{"", "", "", "", ""}));
}

TEST(TerminalReports, ExtensionSequencesAreTakenQuietly) {
    TerminalHarness h(10, 5);
    CapturedDiagnostics diagnostics;
    h.terminal.silentLogging = false;
    // Kitty graphics, sixel and the Kitty keyboard protocol: consumed, no text, no answer.
    std::string replies = h.reply("\x1b_Ga=T,f=100;iVBORw0KGgo=\x1b\\\x1bPq#0;2;0;0;0~~@@-\x1b\\"
                                  "\x1b[>1u\x1b[?u\x1b[=5;1u\x1b[<u\x1b]5522;type=read;mime=text/plain\x1b\\");
    EXPECT_EQ(replies, "");
    EXPECT_TRUE(diagnostics.lines.empty());
    EXPECT_EQ(h.screen(), (std::vector<std::string>{"", "", "", "", ""}));
    // The flags are kept per screen for the input side.
    h.terminal.feed("\x1b[>3u");
    EXPECT_EQ(h.terminal.keyboardEnhancementFlags(), 3u);
    h.terminal.feed("\x1b[?1049h");
    EXPECT_EQ(h.terminal.keyboardEnhancementFlags(), 0u);
    h.terminal.feed("\x1b[?1049l\x1b[<5u");
    EXPECT_EQ(h.terminal.keyboardEnhancementFlags(), 0u);
    // CSI u without a collect still restores the cursor.
    h.terminal.feed("\x1b[2;3H\x1b[s\x1b[H\x1b[u");
    EXPECT_EQ(h.x(), 2);
    EXPECT_EQ(h.y(), 1);
}

namespace {

class BatchDelegate : public RecordingDelegate {
public:
    void synchronizedOutputChanged(Terminal&, bool active) override { events.push_back(active ? "begin" : "end"); }
    void scheduleSynchronizedOutputTimeout(Terminal&, uint32_t milliseconds) override {
        events.push_back("timeout " + std::to_string(milliseconds));
    }
    std::vector<std::string> events;
};

} // namespace

TEST(TerminalReports, SynchronizedOutputBatchesAreAnnouncedOnce) {
    BatchDelegate delegate;
    Terminal terminal(&delegate);
    terminal.feed("\x1b[?2026h\x1b[?2026h");
    EXPECT_TRUE(terminal.synchronizedOutputActive);
    EXPECT_EQ(terminal.synchronizedOutputGeneration(), 1u);
    terminal.feed("\x1b[?2026l\x1b[?2026l\x1b[?2026h");
    EXPECT_EQ(terminal.synchronizedOutputGeneration(), 2u);
    // A full reset, or the host's timeout, ends a batch left open.
    terminal.feed("\x1b" "c");
    EXPECT_FALSE(terminal.synchronizedOutputActive);
    terminal.feed("\x1b[?2026h");
    terminal.endSynchronizedOutput();
    EXPECT_EQ(delegate.events, (std::vector<std::string>{"begin", "timeout 1000", "end", "begin", "timeout 1000", "end",
                                                         "begin", "timeout 1000", "end"}));
}

namespace {

class PasteEventsDelegate : public RecordingDelegate {
public:
    KittyClipboardCapabilities kittyClipboardCapabilities(Terminal&) override { return {.canSendPasteEvents = true}; }
};

} // namespace

TEST(TerminalDelegate, DefaultsForTheClipboardProtocol) {
    RecordingDelegate plain;
    Terminal terminal(&plain);
    // Paste events are reported as unknown unless both the policy and the host allow them.
    terminal.feed("\x1b[?5522h\x1b[?5522$p");
    EXPECT_EQ(plain.replies, "\x1b[?5522;0$y");
    PasteEventsDelegate able;
    TerminalOptions options;
    options.kittyClipboardPolicy.allowPasteEvents = true;
    Terminal allowed(&able, options);
    allowed.feed("\x1b[?5522$p\x1b[?5522h\x1b[?5522$p");
    EXPECT_EQ(able.replies, "\x1b[?5522;2$y\x1b[?5522;1$y");

    // The default paste event goes straight to the program.
    plain.replies.clear();
    std::string event = "\x1b[200~x\x1b[201~";
    EXPECT_TRUE(plain.kittyClipboardSendPasteEvent(terminal, std::span(reinterpret_cast<const uint8_t*>(event.data()), event.size())));
    EXPECT_EQ(plain.replies, event);
    EXPECT_FALSE(plain.kittyClipboardRead(terminal, KittyClipboardLocation::clipboard, "text/plain", {}));

    // Unsafe paste bytes: controls but tab, newline and return; UTF-8 bytes are fine.
    auto unsafe = plain.terminalControlBytesForPaste(terminal);
    EXPECT_TRUE(unsafe.contains(0x1b));
    EXPECT_TRUE(unsafe.contains(0x03));
    EXPECT_TRUE(unsafe.contains(0x7f));
    EXPECT_FALSE(unsafe.contains('\t') || unsafe.contains('\n') || unsafe.contains('\r'));
    EXPECT_FALSE(unsafe.contains(0x9b));
    // The default colour reader gives the terminal's own.
    EXPECT_EQ(plain.getColors(terminal), std::pair(terminal.foregroundColor, terminal.backgroundColor));
}

TEST(TerminalReports, LineSizesAndTextDirection) {
    TerminalHarness h(10, 3);
    using Mode = BufferLine::RenderLineMode;
    h.terminal.feed("\x1b#6\r\n\x1b#3\r\n\x1b#4\x1b#5");
    EXPECT_EQ(h.terminal.buffer().row(0).renderMode(), Mode::doubleWidth);
    EXPECT_EQ(h.terminal.buffer().row(1).renderMode(), Mode::doubledTop);
    EXPECT_EQ(h.terminal.buffer().row(2).renderMode(), Mode::single);

    // SPD takes 0 and 3 only; SCP 0 goes back to the configured direction.
    h.terminal.feed("\x1b[3 S");
    EXPECT_EQ(h.terminal.bidiState.fallbackDirection, BidiDirection::rightToLeft);
    h.terminal.feed("\x1b[1 S");
    EXPECT_EQ(h.terminal.bidiState.fallbackDirection, BidiDirection::rightToLeft);
    h.terminal.feed("\x1b[0 k");
    EXPECT_EQ(h.terminal.bidiState.fallbackDirection, BidiDirection::leftToRight);
    h.terminal.feed("\x1b[2 k\x1b[?2500h\x1b[?2501l");
    EXPECT_EQ(h.terminal.bidiState.fallbackDirection, BidiDirection::rightToLeft);
    EXPECT_TRUE(h.terminal.bidiState.boxMirroring);
    EXPECT_FALSE(h.terminal.bidiState.autodetectDirection);
    // DECSTR brings back the configured state.
    h.terminal.feed("\x1b[!p");
    EXPECT_EQ(h.terminal.bidiState, BidiPresentationState{});
    // CSI > 1 s asks for shift to reach the program with the mouse.
    h.terminal.feed("\x1b[>1s");
    EXPECT_TRUE(h.terminal.mouseShiftCapture);
    h.terminal.feed("\x1b[>s");
    EXPECT_FALSE(h.terminal.mouseShiftCapture);
}
