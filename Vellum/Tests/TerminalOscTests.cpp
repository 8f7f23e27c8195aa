#include <gtest/gtest.h>

#include <any>
#include <mutex>

#include "Support/CapturedDiagnostics.h"
#include "Support/TerminalHarness.h"
#include "Vellum/Base64.h"

using namespace vellum;
using vellum::testing::CapturedDiagnostics;
using vellum::testing::RecordingDelegate;

namespace {

// Records every OSC-driven call; what it answers is set per test.
class OscDelegate : public RecordingDelegate {
public:
    void setTerminalIconTitle(Terminal&, const std::string& title) override { iconTitles.push_back(title); }
    bool isProcessTrusted(Terminal&) override { return trusted; }
    void hostCurrentDirectoryUpdated(Terminal& source) override { directories.push_back(*source.hostCurrentDirectory); }
    void hostCurrentDocumentUpdated(Terminal& source) override { documents.push_back(*source.hostCurrentDocument); }
    void colorChanged(Terminal&, std::optional<int> index) override { changedColors.push_back(index.value_or(-1)); }
    void clipboardCopy(Terminal&, const std::vector<uint8_t>& content) override { copied.emplace_back(content.begin(), content.end()); }
    std::optional<std::vector<uint8_t>> clipboardRead(Terminal&) override { return clipboard; }
    bool clipboardReadRequest(Terminal&, const std::string& selection) override {
        readRequests.push_back(selection);
        return answersReadItself;
    }
    void notify(Terminal&, const std::string& title, const std::string& body) override { notifications.emplace_back(title, body); }
    void progressReport(Terminal&, const ProgressReport& report) override { progress.push_back(report); }
    void programStatusChanged(Terminal&, const std::vector<TerminalProgramStatus>& records) override { statuses.push_back(records); }
    void iTermContent(Terminal&, std::span<const uint8_t> content) override { iterm.emplace_back(content.begin(), content.end()); }
    void createImage(Terminal&, const std::vector<uint8_t>& data, ImageSizeRequest width, ImageSizeRequest height,
                     bool preserveAspectRatio) override {
        images.push_back({std::string(data.begin(), data.end()), width, height, preserveAspectRatio});
    }

    struct Image {
        std::string data;
        ImageSizeRequest width, height;
        bool preserveAspectRatio;
    };

    bool trusted = true, answersReadItself = false;
    std::optional<std::vector<uint8_t>> clipboard;
    std::vector<std::string> iconTitles, directories, documents, copied, readRequests, iterm;
    std::vector<int> changedColors;
    std::vector<std::pair<std::string, std::string>> notifications;
    std::vector<ProgressReport> progress;
    std::vector<std::vector<TerminalProgramStatus>> statuses;
    std::vector<Image> images;
};

// Logs what it doesn't know, so the tests can see which codes are taken.
struct OscHarness : vellum::testing::BasicTerminalHarness<OscDelegate> {
    explicit OscHarness(TerminalOptions options = small(4)) : BasicTerminalHarness(std::move(options)) {
        terminal.silentLogging = false;
    }
    static TerminalOptions small(int rows = 4) { return makeOptions(20, rows, 100); }
};

} // namespace

TEST(TerminalOsc, WindowAndIconTitlesAreSeparate) {
    OscHarness h;
    h.terminal.feed("\x1b]0;both\x07\x1b]1;icon\x1b\\\x1b]2;window\x07");
    EXPECT_EQ(h.delegate.titles, (std::vector<std::string>{"both", "window"}));
    EXPECT_EQ(h.delegate.iconTitles, (std::vector<std::string>{"icon"}));
    EXPECT_EQ(h.terminal.iconTitleText(), "icon");
    // Invalid UTF-8 gives an empty title rather than mojibake.
    h.terminal.feed("\x1b]2;bad \xc3\x28 text\x07");
    EXPECT_EQ(h.terminal.title(), "");
    h.terminal.feed("\x1b]2;caf\xc3\xa9\x07");
    EXPECT_EQ(h.terminal.title(), "caf\xc3\xa9");
    // CSI 22;1 t saves only the icon title; CSI 23;0 t restores both, but only the icon was saved.
    h.terminal.feed("\x1b[22;1t\x1b]1;other\x07\x1b]2;next\x07\x1b[23;0t");
    EXPECT_EQ(h.terminal.iconTitleText(), "icon");
    EXPECT_EQ(h.terminal.title(), "next");
}

// Colour values and answers live with the colour-control tests; here only the host's notice.
TEST(TerminalOsc, PaletteChangesAreAnnouncedPerEntryOrWhole) {
    OscHarness h;
    h.terminal.feed("\x1b]4;1;rgb:ff/00/00;2;#00ff00\x07\x1b]104;1;zz\x07\x1b]104\x07");
    EXPECT_EQ(h.delegate.changedColors, (std::vector<int>{1, 2, 1, -1}));
}

TEST(TerminalOsc, DirectoryAndDocumentOnlyFromTrustedProcesses) {
    OscHarness h;
    h.terminal.feed("\x1b]7;file://host/home/me\x07\x1b]6;file://host/home/me/notes.txt\x1b\\");
    EXPECT_EQ(h.delegate.directories, (std::vector<std::string>{"file://host/home/me"}));
    EXPECT_EQ(h.delegate.documents, (std::vector<std::string>{"file://host/home/me/notes.txt"}));
    EXPECT_EQ(h.terminal.hostCurrentDirectory, "file://host/home/me");

    h.delegate.trusted = false;
    h.terminal.feed("\x1b]7;file://host/tmp\x07");
    EXPECT_EQ(h.terminal.hostCurrentDirectory, "file://host/home/me");
    EXPECT_EQ(h.delegate.directories.size(), 1u);
}

TEST(TerminalOsc, HyperlinkTargetIsAllocatedOnlyWhenUsed) {
    OscHarness h;
    h.terminal.feed("\x1b]8;id=7;https://example.com/a\x07");
    ASSERT_TRUE(h.terminal.pendingHyperlink);
    EXPECT_EQ(h.terminal.activeHyperlinkCode, 0);
    uint16_t code = h.terminal.hyperlinkPayloadCode();
    ASSERT_NE(code, 0);
    EXPECT_EQ(h.terminal.hyperlinkPayloadCode(), code); // the same code for the rest of the link
    auto target = TinyAtom{code}.target();
    ASSERT_TRUE(target);
    std::string stored = std::any_cast<std::string>(*target);
    EXPECT_EQ(stored, "id=7;https://example.com/a");
    EXPECT_EQ(Terminal::parseHyperlinkPayload(stored), "https://example.com/a");

    // OSC 8;; closes; a link with an empty URI is no link and costs no code.
    h.terminal.feed("\x1b]8;;\x07");
    EXPECT_FALSE(h.terminal.pendingHyperlink);
    EXPECT_EQ(h.terminal.hyperlinkPayloadCode(), 0);
    h.terminal.feed("\x1b]8;id=1;\x07");
    EXPECT_EQ(h.terminal.hyperlinkPayloadCode(), 0);
    EXPECT_EQ(Terminal::parseHyperlinkPayload("no-semicolon"), std::nullopt);
    // A new link replaces an open one; non-ASCII targets are dropped.
    h.terminal.feed("\x1b]8;;https://x/\xc3\xa9\x07");
    EXPECT_EQ(h.terminal.hyperlinkPayloadCode(), 0);
}

TEST(TerminalOsc, ProgressReports) {
    OscHarness h;
    CapturedDiagnostics diagnostics;
    h.terminal.feed("\x1b]9;4;1;42\x07\x1b]9;4;1\x07\x1b]9;4;3\x07\x1b]9;4;2;250\x07\x1b]9;4;0;17\x07");
    using State = ProgressReport::State;
    EXPECT_EQ(h.delegate.progress, (std::vector<ProgressReport>{{State::set, 42},
                                                                 {State::set, 0},
                                                                 {State::indeterminate, std::nullopt},
                                                                 {State::error, 100},
                                                                 {State::remove, std::nullopt}}));
    // Not progress reports: a plain OSC 9 message, a bad state, a bad number.
    h.terminal.feed("\x1b]9;hello\x07\x1b]9;4;7\x07\x1b]9;4;1;x\x07\x1b]9;4\x07");
    EXPECT_EQ(h.delegate.progress.size(), 5u);
    EXPECT_EQ(diagnostics.lines, std::vector<std::string>(4, "Info: Vellum: Unknown OSC code: 9"));
}

TEST(TerminalOsc, ClipboardCopyAndRead) {
    OscHarness h;
    h.terminal.feed("\x1b]52;c;aGVsbG8=\x07\x1b]52;;d29ybGQ\x07");
    EXPECT_EQ(h.delegate.copied, (std::vector<std::string>{"hello", "world"}));
    h.terminal.feed("\x1b]52;c;not*base64\x07\x1b]52;aGVsbG8=\x07");
    EXPECT_EQ(h.delegate.copied.size(), 2u);

    // A read with nothing to give answers nothing.
    EXPECT_EQ(h.reply("\x1b]52;c;?\x07"), "");
    h.delegate.clipboard = std::vector<uint8_t>{'h', 'i', '!'};
    EXPECT_EQ(h.reply("\x1b]52;;?\x1b\\"), "\x1b]52;c;aGkh\x1b\\");
    // A host that takes the request answers by itself, later.
    h.delegate.answersReadItself = true;
    EXPECT_EQ(h.reply("\x1b]52;p;?\x07"), "");
    EXPECT_EQ(h.delegate.readRequests, (std::vector<std::string>{"c", "c", "p"}));
}

TEST(TerminalOsc, NotificationsAndITermSequences) {
    OscHarness h;
    h.terminal.feed("\x1b]777;notify;Build;done; 3 warnings\x07\x1b]777;notify;Title only\x07\x1b]777;other;x;y\x07");
    EXPECT_EQ(h.delegate.notifications,
              (std::vector<std::pair<std::string, std::string>>{{"Build", "done; 3 warnings"}, {"Title only", ""}}));

    // Capabilities are answered only when the host configured a report.
    EXPECT_EQ(h.reply("\x1b]1337;Capabilities\x07"), "");
    TerminalOptions options = OscHarness::small();
    options.featureReport = "T3LrMSc7UUw9Ts3BFGsSyHNoSxF";
    OscHarness reporting(options);
    EXPECT_EQ(reporting.reply("\x1b]1337;Capabilities\x1b\\"), "\x1b]1337;Capabilities=T3LrMSc7UUw9Ts3BFGsSyHNoSxF\x1b\\");
    options.featureReport = "bad\x1b";
    OscHarness unprintable(options);
    EXPECT_EQ(unprintable.reply("\x1b]1337;Capabilities\x07"), "");

    std::string png = base64Encode(std::vector<uint8_t>{'P', 'N', 'G'});
    h.terminal.feed("\x1b]1337;File=name=eA==;width=10;height=50%;preserveAspectRatio=0;inline=1:" + png + "\x07");
    h.terminal.feed("\x1b]1337;File=inline=1;width=20px;height=auto:" + png + "\x07");
    h.terminal.feed("\x1b]1337;File=name=eA==:" + png + "\x07"); // a download, not shown
    ASSERT_EQ(h.delegate.images.size(), 2u);
    EXPECT_EQ(h.delegate.images[0].data, "PNG");
    EXPECT_EQ(h.delegate.images[0].width, (ImageSizeRequest{ImageSizeRequest::Unit::cells, 10}));
    EXPECT_EQ(h.delegate.images[0].height, (ImageSizeRequest{ImageSizeRequest::Unit::percent, 50}));
    EXPECT_FALSE(h.delegate.images[0].preserveAspectRatio);
    EXPECT_EQ(h.delegate.images[1].width, (ImageSizeRequest{ImageSizeRequest::Unit::pixels, 20}));
    EXPECT_EQ(h.delegate.images[1].height, ImageSizeRequest{});
    EXPECT_TRUE(h.delegate.images[1].preserveAspectRatio);

    h.terminal.feed("\x1b]1337;SetMark\x07\x1b]1337;CurrentDir=/tmp\x07");
    EXPECT_EQ(h.delegate.iterm, (std::vector<std::string>{"SetMark", "CurrentDir=/tmp"}));
}

TEST(TerminalOsc, SemanticPromptsMarkRowsAndContent) {
    OscHarness h(OscHarness::small(10));
    h.terminal.feed("old\x1b]133;A\x07$ ");
    // The prompt started on a fresh line, marked with its group.
    EXPECT_EQ(h.terminal.buffer().y, 1);
    auto marks = h.terminal.buffer().row(1).semanticMarks();
    ASSERT_EQ(marks.size(), 1u);
    EXPECT_EQ(marks[0].kind, SemanticPromptKind::initial);
    EXPECT_EQ(marks[0].column, 0);
    uint64_t group = marks[0].group;
    EXPECT_EQ(h.terminal.semanticContent, SemanticContent::prompt(SemanticPromptKind::initial));
    h.terminal.feed("\x1b]133;B\x07ls\r\n\x1b]133;C\x07");
    EXPECT_EQ(h.terminal.semanticContent, SemanticContent::output());
    h.terminal.feed("out\r\n\x1b]133;D;0\x07");
    EXPECT_EQ(h.terminal.semanticContent, SemanticContent::none());
    EXPECT_FALSE(h.terminal.activeSemanticGroupID);

    // A prompt at column 0 stays on its row; the next group has a new identifier; a right prompt.
    h.terminal.feed("\x1b]133;A;cl=m;click_events=1\x07\x1b]133;P;k=r\x07");
    EXPECT_EQ(h.terminal.semanticContent, SemanticContent::prompt(SemanticPromptKind::right));
    ASSERT_TRUE(h.terminal.activeSemanticGroupID);
    EXPECT_GT(*h.terminal.activeSemanticGroupID, group);

    // Invalid options void the whole command; the alternate screen takes none.
    h.terminal.feed("\x1b]133;C;k=x\x07");
    EXPECT_EQ(h.terminal.semanticContent, SemanticContent::prompt(SemanticPromptKind::right));
    h.terminal.feed("\x1b[?1049h\x1b]133;C\x07\x1b[?1049l");
    EXPECT_EQ(h.terminal.semanticContent, SemanticContent::prompt(SemanticPromptKind::right));

    // L asks for a fresh line: only when the cursor is not at the left edge.
    int row = h.terminal.buffer().y;
    h.terminal.feed("\x1b]133;L\x07");
    EXPECT_EQ(h.terminal.buffer().y, row);
    h.terminal.feed("x\x1b]133;L\x07");
    EXPECT_EQ(h.terminal.buffer().y, row + 1);
    EXPECT_EQ(h.terminal.buffer().x, 0);
}

TEST(TerminalOsc, ProgramStatusRecordsInUpdateOrder) {
    OscHarness h;
    h.terminal.feed("\x1b]7501;build;state=running;kind=build;progress=40;title=make\x1b\\");
    h.terminal.feed("\x1b]7501;agent;state=waiting;app=claude;message=Allow edit?\x07");
    h.terminal.feed("\x1b]7501;build;state=done;progress=400\x1b\\");
    ASSERT_EQ(h.delegate.statuses.size(), 3u);
    const auto& last = h.delegate.statuses.back();
    ASSERT_EQ(last.size(), 2u);
    EXPECT_EQ(last[0].id, "agent");
    EXPECT_EQ(last[0].state, TerminalProgramStatusState::waiting);
    EXPECT_EQ(last[0].app, "claude");
    EXPECT_EQ(last[0].message, "Allow edit?");
    EXPECT_EQ(last[1].id, "build");
    EXPECT_EQ(last[1].state, TerminalProgramStatusState::done);
    EXPECT_EQ(last[1].progress, 100);
    EXPECT_EQ(last[1].title, std::nullopt); // a report replaces the record whole

    // Rejected: an empty id, an unknown key, an unknown state. Clearing an unknown id changes nothing.
    h.terminal.feed("\x1b]7501;;state=done\x07\x1b]7501;x;colour=red\x07\x1b]7501;x;state=sleepy\x07\x1b]7501;nobody;clear\x07");
    EXPECT_EQ(h.delegate.statuses.size(), 3u);
    h.terminal.feed("\x1b]7501;agent;clear\x07");
    ASSERT_EQ(h.delegate.statuses.size(), 4u);
    ASSERT_EQ(h.delegate.statuses.back().size(), 1u);
    EXPECT_EQ(h.delegate.statuses.back()[0].id, "build");

    // A full reset forgets them.
    h.terminal.feed("\x1b" "c");
    EXPECT_TRUE(h.terminal.programStatus().empty());
}

TEST(TerminalOsc, ObserversSeeEveryOscAndCustomHandlersTakePrecedence) {
    OscHarness h;
    std::mutex mutex;
    std::vector<std::pair<int64_t, std::string>> seen;
    std::vector<Position> cursors;
    auto observation = h.terminal.oscEvents.observe([&](const TerminalOscEvent& event) {
        std::lock_guard lock(mutex);
        seen.emplace_back(event.code, std::string(event.payload.begin(), event.payload.end()));
        cursors.push_back(event.cursor);
    });
    std::vector<std::string> custom;
    h.terminal.registerOscHandler(2, [&](std::span<const uint8_t> data) { custom.emplace_back(data.begin(), data.end()); });

    h.terminal.feed("ab\x1b]2;mine\x07\x1b]9999;x\x07");
    h.terminal.oscEvents.drain();
    EXPECT_EQ(custom, (std::vector<std::string>{"mine"}));
    EXPECT_TRUE(h.delegate.titles.empty());
    {
        std::lock_guard lock(mutex);
        EXPECT_EQ(seen, (std::vector<std::pair<int64_t, std::string>>{{2, "mine"}, {9999, "x"}}));
        EXPECT_EQ(cursors[0], (Position{2, 0}));
    }

    // Once the observation is released nothing more arrives.
    observation.reset();
    h.terminal.feed("\x1b]0;later\x07");
    h.terminal.oscEvents.drain();
    std::lock_guard lock(mutex);
    EXPECT_EQ(seen.size(), 2u);
}

TEST(TerminalOsc, UnknownCodesAreLoggedUnlessSilenced) {
    OscHarness h;
    CapturedDiagnostics diagnostics;
    h.terminal.feed("\x1b]31337;x\x07\x1b]5522;type=read\x07");
    h.terminal.silentLogging = true;
    h.terminal.feed("\x1b]31338;x\x07");
    // A terminal is quiet until its host asks for the lines.
    RecordingDelegate quietDelegate;
    Terminal quiet(&quietDelegate);
    quiet.feed("\x1b]31339;x\x07");
    EXPECT_EQ(diagnostics.lines, (std::vector<std::string>{"Info: Vellum: Unknown OSC code: 31337"}));
    for (int r = 0; r < h.terminal.rows(); ++r) EXPECT_EQ(h.terminal.lineText(r), "");
}

TEST(TerminalOsc, ClickingInAPromptMovesTheShellCursor) {
    OscHarness h;
    h.terminal.feed("\x1b]133;A;cl=line\x07$ \x1b]133;B\x07hello world");
    // From column 13 back to column 4, on the same row: nine arrows left.
    std::string left;
    for (int i = 0; i < 9; ++i) left += "\x1b[D";
    h.delegate.replies.clear();
    EXPECT_TRUE(h.terminal.handleSemanticPromptClick({4, 0}, false));
    EXPECT_EQ(h.delegate.replies, left);
    // Not before the input, and not on another row for a line editor.
    EXPECT_FALSE(h.terminal.handleSemanticPromptClick({1, 0}, false));
    EXPECT_FALSE(h.terminal.handleSemanticPromptClick({4, 2}, false));
    // The host may ask for a modifier.
    h.terminal.semanticPromptClickBehavior = Terminal::SemanticPromptClickBehavior::requireModifier;
    EXPECT_FALSE(h.terminal.handleSemanticPromptClick({5, 0}, false));
    h.delegate.replies.clear();
    EXPECT_TRUE(h.terminal.handleSemanticPromptClick({15, 0}, true));
    EXPECT_EQ(h.delegate.replies, "\x1b[C\x1b[C");
    // Once the command runs, clicks are the output's again.
    h.terminal.feed("\r\n\x1b]133;C\x07");
    EXPECT_FALSE(h.terminal.handleSemanticPromptClick({4, 0}, true));

    // A multi-line editor counts cells across rows; with click events the click itself is sent.
    OscHarness m;
    m.terminal.feed("\x1b]133;A;cl=m\x07> \x1b]133;B\x07" + std::string(25, 'x'));
    m.delegate.replies.clear();
    EXPECT_TRUE(m.terminal.handleSemanticPromptClick({3, 0}, false));
    EXPECT_EQ(m.delegate.replies.size(), 3 * 24u); // from column 7 of row 1 to column 3 of row 0
    OscHarness e;
    e.terminal.feed("\x1b]133;A;click_events=1\x07> \x1b]133;B\x07" "abc");
    e.delegate.replies.clear();
    EXPECT_TRUE(e.terminal.handleSemanticPromptClick({3, 0}, false));
    EXPECT_EQ(e.delegate.replies, "\x1b[<0;4;1M\x1b[<0;4;1m");
    // A prompt that did not opt in takes no clicks.
    OscHarness plain;
    plain.terminal.feed("\x1b]133;A\x07> \x1b]133;B\x07" "abc");
    EXPECT_FALSE(plain.terminal.handleSemanticPromptClick({2, 0}, false));
}

TEST(TerminalOsc, PrintedCellsCarryTheLinkAndThePromptState) {
    OscHarness h(OscHarness::small(6));
    h.terminal.feed("a\x1b]8;;https://example.com\x07link\x1b]8;;\x07z");
    auto payloadAt = [&](int col, int row) { return h.terminal.buffer().row(row).packedCell(col).payloadCode(); };
    uint16_t code = payloadAt(1, 0);
    ASSERT_NE(code, 0);
    for (int col = 1; col <= 4; ++col) EXPECT_EQ(payloadAt(col, 0), code); // one code for the whole link
    EXPECT_EQ(payloadAt(0, 0), 0);
    EXPECT_EQ(payloadAt(5, 0), 0);
    EXPECT_EQ(std::any_cast<std::string>(*TinyAtom{code}.target()), ";https://example.com");
    EXPECT_EQ(h.terminal.getCharData(2, 0).payload, TinyAtom{code});
    // The same link again keeps its code; another link gets another.
    h.terminal.feed("\x1b]8;;https://example.com\x07" "again\x1b]8;;https://example.org\x07" "other\x1b]8;;\x07");
    EXPECT_EQ(payloadAt(6, 0), code);
    EXPECT_NE(payloadAt(11, 0), code);
    EXPECT_NE(payloadAt(11, 0), 0);

    auto semanticAt = [&](int col, int row) { return h.terminal.getCharData(col, row).semanticContent(); };
    h.terminal.feed("\r\n\x1b]133;A\x07$\x1b]133;B\x07ls\r\n\x1b]133;C\x07out\r\n\x1b]133;D\x07.");
    EXPECT_EQ(semanticAt(0, 1), SemanticContent::prompt(SemanticPromptKind::initial));
    EXPECT_EQ(semanticAt(1, 1), SemanticContent::input());
    EXPECT_EQ(semanticAt(0, 2), SemanticContent::output());
    EXPECT_EQ(semanticAt(0, 3), SemanticContent::none());

    // A full-screen program run from the command is not its output; the state returns after it.
    h.terminal.feed("\x1b]133;C\x07\x1b[?1049hvim\x1b[?1049lback");
    EXPECT_EQ(h.terminal.semanticContent, SemanticContent::output());
    EXPECT_EQ(semanticAt(1, 3), SemanticContent::output());
    h.terminal.feed("\x1b[?1049hx");
    EXPECT_EQ(semanticAt(0, 0), SemanticContent::none());
}
