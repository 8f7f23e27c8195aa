#pragma once

#include <array>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Vellum/Buffer.h"
#include "Vellum/EscapeSequenceParser.h"
#include "Vellum/Palette.h"
#include "Vellum/TerminalContentSnapshot.h"
#include "Vellum/TerminalDelegate.h"
#include "Vellum/TerminalOptions.h"
#include "Vellum/TerminalOscEvents.h"
#include "Vellum/TerminalProgramStatus.h"
#include "Vellum/TerminalReports.h"

namespace vellum {

struct TerminalRenderSnapshot;
struct RenderSnapshotCache;
struct RenderSnapshotRow;
enum class RenderSnapshotScope : uint8_t;

// The emulator proper: receives the parser's calls, keeps cursor, modes, colours and
// character sets, writes cells into the active buffer and replies through its delegate.
class Terminal final : private ParserTarget {
public:
    // The delegate may be null (replies are then dropped) and must outlive the terminal.
    explicit Terminal(TerminalDelegate* delegate, TerminalOptions options = {});
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    void feed(std::span<const uint8_t> bytes);
    void feed(std::string_view text);
    void resize(int cols, int rows);
    // Keeps this many rows of history from now on, a full reset included.
    void setScrollback(int rows);

    int cols() const { return cols_; }
    int rows() const { return rows_; }
    Buffer& buffer() { return *buffer_; }
    bool isAlternateBuffer() const { return buffer_ == altBuffer.get(); }
    // The normal screen, also while the alternate one is shown.
    Buffer& normalScreen() { return *normalBuffer; }
    // The rendition that printed characters take now.
    const Attribute& currentAttribute() const { return pen(); }
    // Whether cells printed now are protected from selective erase (DECSCA).
    bool protectsPrintedCells() const { return protectedPen; }
    const std::string& title() const { return terminalTitle; }
    bool cursorHidden = false;
    const TerminalOptions& options() const { return options_; }
    // Off, words and renditions go through the parser's general paths; tests compare the two.
    void setGroundLane(bool on) { parser.groundLane = on; }

    // The text of a screen row, right-trimmed, wide characters once.
    std::string lineText(int screenRow);
    CharData getCharData(int col, int row);

    Color foregroundColor = Color::fromBytes(0xe5, 0xe5, 0xe5);
    Color backgroundColor = Color::fromBytes(0, 0, 0);
    std::optional<Color> cursorColor;
    std::array<Color, 256> ansiColors{};
    void setForegroundColor(Color color);
    void setBackgroundColor(Color color);
    void setCursorColorValue(std::optional<Color> color);

    // Modes the input side reads.
    bool applicationCursor = false, applicationKeypad = false, bracketedPasteMode = false;
    bool originMode = false, reverseWraparound = false, lineFeedMode = false, reverseColors = false;
    bool sendFocus = false, cursorBlink = false;
    int mouseMode = 0, mouseProtocol = 0;
    CursorStyle cursorStyle = CursorStyle::blinkBlock;
    CC cc = CC::sevenBit;

    using ProgressReport = vellum::ProgressReport;
    using WindowManipulationCommand = vellum::WindowManipulationCommand;

    // ---- OSC
    // Every OSC reaches the observers of `oscEvents` first; a registered handler then takes its
    // code in place of the built-in one.
    TerminalOscEventDispatcher oscEvents;
    void registerOscHandler(int64_t code, EscapeSequenceParser::OscHandler handler);
    const std::string& iconTitleText() const { return iconTitle; }
    // As the program sent them (OSC 7 and OSC 6); no URL parsing here.
    std::optional<std::string> hostCurrentDirectory, hostCurrentDocument;
    // The link that printed cells take: "params;uri" not yet given a code, or the code.
    struct PendingHyperlink {
        std::string target;
    };
    std::optional<PendingHyperlink> pendingHyperlink;
    uint16_t activeHyperlinkCode = 0;
    // The payload code for the next printed cell: a pending link gets its code here, once.
    // Called for every printed run, so the common case (no link waiting) is inline.
    uint16_t hyperlinkPayloadCode() { return pendingHyperlink ? allocatePendingHyperlink() : activeHyperlinkCode; }
    uint16_t allocatePendingHyperlink();
    // The URI of a stored link ("params;uri"); an empty URI is no link.
    static std::optional<std::string> parseHyperlinkPayload(std::string_view payload);
    const TerminalProgramStatusStore& programStatus() const { return programStatusStore; }
    // Semantic prompt state (OSC 133): what cells printed now belong to.
    SemanticContent semanticContent;
    std::optional<uint64_t> activeSemanticGroupID;
    // Clicking inside the input of a prompt moves the shell's cursor there when the shell
    // allowed it (OSC 133 "cl"); the host decides whether a modifier must be held.
    enum class SemanticPromptClickBehavior : uint8_t { disabled, enabled, requireModifier };
    enum class SemanticPromptCursorClickMode : uint8_t { line, multiple, conservativeVertical, smartVertical };
    SemanticPromptClickBehavior semanticPromptClickBehavior = SemanticPromptClickBehavior::enabled;
    // `target` in screen cells. True when the click was turned into input for the program.
    bool handleSemanticPromptClick(Position target, bool modifierHeld);
    uint64_t semanticGroupCounter = 0;
    // Diagnostic lines ("Info: ...") about dropped input are printed only when this is cleared.
    // Quiet by default: a terminal in a long-running host whose output goes to a log would
    // otherwise write a line for every stray byte of, say, a binary file sent to the screen.
    bool silentLogging = true;
    std::array<Color, 256> defaultAnsiColors{};
    void resetAllColors();
    void resetColor(int index);
    // Colours a program set with OSC 5 and OSC 10 to 19 (the foreground and background only
    // while a program's choice is in force), so that a snapshot can set them again.
    struct ProgramColors {
        std::optional<Color> foreground, background;
        std::array<std::optional<Color>, 7> dynamic; // OSC 13 to 19
        std::array<std::optional<Color>, 5> special; // OSC 5: bold, underline, blink, reverse, italic
    };
    const ProgramColors& programColors() const { return programColors_; }
    // G0 to G3 (null: no mapping) and the one invoked into GL.
    const std::array<const Charset*, 4>& designatedCharsets() const { return gCharsets; }
    int invokedCharset() const { return gLevel; }

    // ---- Window and pixel geometry
    // The size of one cell in pixels, for the reports that need it; 0 means unknown.
    void updatePixelGeometry(int cellWidth, int cellHeight);
    // Whether the view is visible, reported to programs that enabled mode 2033.
    void setTerminalVisibility(bool visible);
    // Focus as the view sees it, reported once mode 1004 is on.
    void setFocused(bool focused);

    // Private modes beyond the ones above.
    bool alternateScrollMode = true, allow80To132 = false, noClearOnColumnChange = false, smoothScroll = false;
    bool colorSchemeUpdatesEnabled = false, visibilityReportsEnabled = false, inBandSizeReportsEnabled = false;
    bool kittyPasteEventsEnabled = false, bidiArrowKeySwap = false, mouseShiftCapture = false;
    bool synchronizedOutputActive = false;
    // A batch (mode 2026) that the program never closes is ended from outside after this long.
    static constexpr uint32_t synchronizedOutputTimeoutMilliseconds = 1000;
    void beginSynchronizedOutput();
    void endSynchronizedOutput();
    // Counts batches, so that a late timeout cannot end a newer one.
    uint64_t synchronizedOutputGeneration() const { return synchronizedOutputGeneration_; }
    int conformance = 4;
    BidiPresentationState bidiState;
    // Kitty keyboard enhancement flags of each screen (index 0 normal, 1 alternate), top of stack.
    uint32_t keyboardEnhancementFlags() const;

    // Screen rows changed since the last call (inclusive), or nothing when the screen is as it
    // was. `scrolled` says that rows moved or were recycled, not only written. The first call,
    // and the first after a resize or a switch of buffers, gives the whole screen.
    struct UpdateRange {
        int startY = 0, endY = 0;
        bool scrolled = false;
        bool operator==(const UpdateRange&) const = default;
    };
    std::optional<UpdateRange> takeUpdateRange();

    // Copies for readers outside the lock.
    TerminalInputStateSnapshot inputStateSnapshot() const;
    // Rows of the normal buffer, or of the alternate one.
    TerminalContentSnapshot contentSnapshot(TerminalContentRegion region, bool alternate);
    // What a frame draws (TerminalRenderSnapshot.h): every shown row, or those changed since
    // the last call. Takes the update range, so one reader per terminal.
    TerminalRenderSnapshot makeRenderSnapshot(RenderSnapshotScope scope);
    // Storage of a consumed snapshot, reused by the next one.
    void recycleRenderSnapshotRows(std::vector<RenderSnapshotRow>&& rows);
    // Moves the shown rows by `rows` into the history (negative) or back towards the live
    // screen, within what the active buffer holds.
    void scrollDisplay(int rows);

private:
    friend class TerminalDelegate;
    friend class DecrqssHandler;
    friend class XtgettcapHandler;
    friend class KittyGraphicsSeam;

    // ParserTarget
    void handlePrintBorrowed(std::span<const uint8_t> run) override;
    void dispatchExecute(uint8_t code) override;
    void dispatchCsi(uint8_t code, CsiParameters pars, std::span<const uint8_t> collect) override;
    void dispatchSgr(CsiParameters pars, uint64_t colonMask) override { selectGraphicRendition(pars, colonMask); }
    size_t consumeGroundLane(const uint8_t* bytes, size_t from, size_t size) override;
    void dispatchEsc(std::span<const uint8_t> collect, uint8_t code) override;
    std::unique_ptr<DcsHandler> dispatchDcs(std::span<const uint8_t> collect, uint8_t code, CsiParameters pars) override;
    void dispatchOsc(int64_t code, std::span<const uint8_t> data, uint8_t terminator) override;
    void dispatchApc(uint8_t command, std::span<const uint8_t> content) override;
    void clearReadingBuffer() override { readingBuffer.clear(); }
    bool silentLog() const override { return silentLogging; }

    void setup(bool isReset);
    void sendResponse(std::string_view bytes);
    // The print path (TerminalPrint.cpp). `previous` is the scalar before the next one, 0 when
    // there is none, unknownScalar until it has been read from the cell left of the cursor.
    static constexpr char32_t unknownScalar = 0xFFFFFFFF;
    struct CellPosition {
        int line; // index into the buffer's ring
        int col;
    };
    void handlePrintSlow(const uint8_t* bytes, size_t count, char32_t previous);
    void printScalar(char32_t scalar);
    void printScalar(char32_t scalar, char32_t& previous);
    void printMapped(uint8_t byte, char32_t& previous);
    // Characters decoded but not yet written, all of one width: the tag and value bits of each
    // cell, so that a cluster formed in the batch is written like a single scalar.
    struct PrintBatch {
        static constexpr size_t capacity = 256;
        uint32_t contents[capacity];
        size_t count = 0;
        int width = 0;
    };
    enum class BatchJoin : uint8_t { separate, joined, unsettled };
    BatchJoin joinBatched(PrintBatch& batch, char32_t scalar);
    size_t takeWideRun(const uint8_t* p, size_t available, PrintBatch& batch, char32_t& previous, uint8_t& previousProperties);
    bool widenIntoBatch(PrintBatch& batch, char32_t scalar);
    void writeBatch(PrintBatch& batch);
    void writeContents(const uint32_t* contents, size_t count, int width);
    bool joinWithPrevious(char32_t scalar);
    // What joining a scalar to a cell's character gives: the new content and width bits, and
    // what happens to the width.
    struct JoinMemo {
        enum class Kind : uint8_t { separate, absorbed, extended, widened, narrowed };
        uint64_t cellContent = 0; // 0: an empty slot (no cell with content has these bits)
        char32_t scalar = 0;
        uint64_t joinedContent = 0;
        Kind kind = Kind::separate;
    };
    JoinMemo joinOutcome(PackedCell cell, char32_t scalar);
    JoinMemo::Kind decideJoin(PackedCell cell, char32_t scalar, uint64_t& joinedContent);
    std::array<JoinMemo, 64> joinMemos{};
    void widenCombinedCell(CellPosition at, PackedCell widened);
    std::optional<CellPosition> combiningTarget();
    char32_t resolvePreviousScalar();
    PackedCell printBase();
    int printWidth(char32_t scalar) const;
    void updateEraseWords();
    // The erase blank follows the pen's background, read from the key. Inline and without a
    // branch on the colour's kind, which coloured output switches at random: default, palette
    // and true-colour backgrounds are held in the empty cell's word itself; only the inverted
    // default is interned.
    void updateEraseBlank() {
        using Key = InternedAttributeKey;
        uint32_t code = uint32_t(curKey.word0 >> Key::backgroundShift & Key::codeMask);
        uint32_t kind = code >> 24; // 0 default, 1 inverted default, 2 palette, 3 true colour
        if (kind == 1) return updateEraseBlankInverted();
        // A true colour's code is red, green, blue from the top; the cell's value is the reverse.
        uint32_t value = kind == 3 ? __builtin_bswap32(code << 8) : code & 0xFF;
        uint8_t tag = kind == 3 ? PackedCell::trueColorBackgroundTag : PackedCell::paletteBackgroundTag;
        currentEraseBlankCell = kind != 0 ? PackedCell::make(tag, value, 0, 0, false, 0, 0) : PackedCell{};
    }
    void updateEraseBlankInverted();
    // The erase word with a space in it, for the operations that erase to spaces.
    PackedCell eraseSpaceCell();
    PackedCell blank() const { return currentEraseBlankCell; }

    void lineFeed();
    void carriageReturn();
    void backspace();
    void tab(int count);
    void index();
    void reverseIndex();
    void setCursor(int col, int row);
    void restrictCursor(bool noPendingWrap = true);
    void saveCursor();
    void restoreCursor();
    // `selective`: DECSED and DECSEL, which spare protected cells.
    void eraseInDisplay(int mode, bool selective = false);
    void eraseInLine(int mode, bool selective = false);
    void eraseRow(BufferLine& line, int start, int end, bool selective);
    void selectGraphicRendition(CsiParameters pars, uint64_t colonMask);
    // True when the pen's identifier is left for the caller to look up with `resolveStyleID`.
    // Inlined into the ground lane, its one caller: as a call it cost the lane its registers,
    // the byte scanner's constants included, at every rendition.
    [[gnu::always_inline]] inline bool applyPlainRendition(const int64_t* pars, int count);
    void resolveStyleID() { curStyleID = uint16_t(std::max(cellArena->internedIdentifier(curKey), 0)); }
    void setModes(CsiParameters pars, bool privateMode, bool value);
    void setPrivateMode(int mode, bool value);
    void deviceStatus(CsiParameters pars, bool privateMode);
    void requestMode(CsiParameters pars, bool privateMode);
    ModeReportValue privateModeReport(int mode);
    ModeReportValue ansiModeReport(int mode) const;
    std::optional<bool> privateModeValue(int mode) const;
    void windowOptions(CsiParameters pars);
    void windowReport(WindowManipulationCommand::Kind kind);
    std::string reportableTitle(const std::string& title) const;
    void activateAltBuffer();
    void activateNormalBuffer(bool clearAlt);
    void setgLevel(int level);
    void softReset();
    void setScrollRegion(CsiParameters pars);
    std::optional<std::string> statusStringPayload(std::string_view request) const;
    void log(std::string_view message) const;
    void unknownEsc(std::span<const uint8_t> collect, uint8_t code);
    void setTitleModes(CsiParameters pars, bool value);

    // Operations of the CSI decoder (TerminalCsi.cpp)
    void cursorUp(int count);
    void cursorDown(int count);
    void cursorForward(int count);
    void cursorBackward(int count);
    void cursorCharAbsolute(int col);
    void cursorForwardRelative(int count);
    void linePositionAbsolute(int row);
    void linePositionRelative(int count);
    void tabBackward(int count);
    void tabClear(int mode);
    void setMargins(CsiParameters pars);
    bool cursorInsideMargins() const;
    bool cursorInsideRegion() const;
    void insertChars(int count);
    void deleteChars(int count);
    void eraseChars(int count);
    void insertLines(int count);
    void deleteLines(int count);
    void scrollUp(int count);
    void scrollDown(int count);
    void repeatPrecedingCharacter(int count);
    void setCursorStyle(int style);
    void selectCharacterProtection(int mode);
    void selectPresentationDirection(int direction);
    void selectCharacterPath(int path);

    // OSC (TerminalOsc.cpp)
    void oscTitle(int64_t code, std::string_view text);
    void oscChangeOrQueryColorIndex(std::string_view text, std::string_view terminator);
    void oscSetColors(std::string_view text, int startAt, std::string_view terminator);
    void oscResetColor(std::string_view text);
    void oscChangeOrQuerySpecialColor(std::string_view text, std::string_view terminator);
    void oscResetSpecialColor(std::string_view text);
    // `which` counts from OSC 10: 0 foreground, 1 background, 2 cursor, 3 to 9 the others.
    Color dynamicColor(int which) const;
    void setDynamicColor(int which, Color color);
    void resetDynamicColor(int which);
    void oscSetCurrentDirectory(std::string_view text, bool document);
    void oscHyperlink(std::string_view text);
    void oscProgressReport(std::string_view text);
    void oscClipboard(std::string_view text, std::string_view terminator);
    void oscNotification(std::string_view text);
    void osciTerm2(std::span<const uint8_t> data, std::string_view terminator);
    void oscSemanticPrompt(std::string_view text);
    void oscProgramStatus(std::string_view text);
    void beginSemanticPromptGroup();
    void freshLine();
    void resetSemanticPromptState();
    void semanticNoteAlternateScreenSwitch(bool toAlternate);
    std::string oscTerminatorFor(uint8_t terminator) const;

    // Modes and reports (TerminalModes.cpp)
    bool applyDECPrivateMode(int mode, bool value);
    std::optional<bool> readDECPrivateMode(int mode) const;
    void savePrivateModes(CsiParameters pars);
    void restorePrivateModes(CsiParameters pars);
    void changeColumnMode(int columns);
    void reportInBandSizeIfAvailable();
    void reportTerminalVisibility();
    void reportColorScheme();
    // Light text on a dark background.
    bool isDarkColorScheme() const;
    void sendDeviceAttributes(CsiParameters pars, std::span<const uint8_t> collect);
    void setConformanceLevel(CsiParameters pars);
    void unknownCsi(uint8_t code, CsiParameters pars, std::span<const uint8_t> collect);

    // Rectangular areas (TerminalRectangles.cpp)
    struct Rectangle {
        int top, left, bottom, right; // screen cells, inclusive
    };
    std::optional<Rectangle> rectangleFromRequest(CsiParameters pars, int start, bool stream = false) const;
    void copyRectangularArea(CsiParameters pars);
    void fillRectangularArea(CsiParameters pars);
    void eraseRectangularArea(CsiParameters pars, bool selective);
    void requestChecksumRectangularArea(CsiParameters pars);
    // DECCARA and DECRARA: renditions changed or reversed over a rectangle, or over the stream of
    // text between its corners when DECSACE asks for that.
    void changeAreaAttributes(CsiParameters pars, bool reverse);
    static void changeAreaRendition(Attribute& attribute, CsiParameters renditions, bool reverse);
    void insertColumns(int count);
    void deleteColumns(int count);
    void columnScroll(bool back);

    // Extensions that are not built yet: they take their sequences so nothing prints.
    bool handleKittyKeyboardProtocol(CsiParameters pars, std::span<const uint8_t> collect);
    void handleKittyGraphics(std::span<const uint8_t> content);
    void handleKittyClipboard(std::string_view text, std::string_view terminator);

    TerminalDelegate* delegate;
    TerminalOptions options_;
    int cols_, rows_;
    std::shared_ptr<CellArena> cellArena;
    std::unique_ptr<Buffer> normalBuffer, altBuffer;
    Buffer* buffer_ = nullptr;
    EscapeSequenceParser parser;

    // The pen is its interning key; the attribute is made from it when something reads it, as
    // coloured output changes the pen far more often than anything reads it. Writers of the
    // attribute read it first and keep the key with it (updateEraseWords).
    const Attribute& pen() const {
        if (penAttributeStale) {
            curKey.writeAttribute(curAttr);
            penAttributeStale = false;
        }
        return curAttr;
    }
    Attribute& writablePen() { return const_cast<Attribute&>(pen()); }
    mutable Attribute curAttr;
    mutable bool penAttributeStale = false;
    InternedAttributeKey curKey;
    uint16_t curStyleID = 0;
    bool protectedPen = false;               // DECSCA
    bool rectangularAttributeChange = false; // DECSACE
    PackedCell currentEraseBlankCell;
    char32_t previousScalar = 0;
    std::vector<uint8_t> readingBuffer;
    std::u32string clusterScratch;
    std::array<const Charset*, 4> gCharsets{};
    const Charset* charset = nullptr;
    int gLevel = 0;
    std::string terminalTitle, iconTitle;
    std::vector<std::string> terminalTitleStack, iconTitleStack;
    bool settingFgColor = false, settingBgColor = false, settingCursorColor = false;
    ProgramColors programColors_;
    std::optional<Color> hostForeground, hostBackground;
    TerminalProgramStatusStore programStatusStore;
    std::vector<uint16_t> payloadCodes;
    static constexpr size_t maximumRememberedHyperlinks = 4096;
    std::unordered_map<std::string, uint16_t> hyperlinkCodes;
    std::map<int, bool> savedPrivateModes;
    std::array<std::vector<uint32_t>, 2> keyboardFlagStacks;
    int cellPixelWidth = 0, cellPixelHeight = 0;
    uint64_t synchronizedOutputGeneration_ = 0;
    std::vector<uint64_t> updateStamps; // identity, recycle count and generation of each screen row
    std::vector<uint64_t> updateStampsScratch;
    const Buffer* updateStampsBuffer = nullptr;
    int updateStampsCols = 0, updateCursorRow = -1, updateCursorCol = -1;
    std::optional<SemanticPromptCursorClickMode> semanticClickMode;
    int semanticClickEvents = 0;
    SemanticContent suspendedSemanticContent;
    std::optional<std::pair<int, int>> semanticInputStart; // absolute row, column
    bool terminalVisible = true, focused = true;
    std::shared_ptr<RenderSnapshotCache> renderSnapshotCache; // made at the first snapshot
    bool titleModeSetHex = false, titleModeQueryHex = false, titleModeSetUtf8 = false, titleModeQueryUtf8 = false;
};

} // namespace vellum
