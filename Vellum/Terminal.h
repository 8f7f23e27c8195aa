#pragma once

#include <array>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Vellum/Buffer.h"
#include "Vellum/EscapeSequenceParser.h"
#include "Vellum/Palette.h"
#include "Vellum/TerminalDelegate.h"
#include "Vellum/TerminalOptions.h"
#include "Vellum/TerminalReports.h"

namespace vellum {

// The emulator proper: receives the parser's calls, keeps cursor, modes, colours and
// character sets, writes cells into the active buffer and replies through its delegate.
class Terminal final : private ParserTarget {
public:
    // The delegate may be null (replies are then dropped) and must outlive the terminal.
    explicit Terminal(TerminalDelegate* delegate, TerminalOptions options = {});
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    void feed(std::span<const uint8_t> bytes);
    void feed(std::string_view text);
    void resize(int cols, int rows);

    int cols() const { return cols_; }
    int rows() const { return rows_; }
    Buffer& buffer() { return *buffer_; }
    bool isAlternateBuffer() const { return buffer_ == altBuffer.get(); }
    // The normal screen, also while the alternate one is shown.
    Buffer& normalScreen() { return *normalBuffer; }
    // The rendition that printed characters take now.
    const Attribute& currentAttribute() const { return curAttr; }
    const std::string& title() const { return terminalTitle; }
    bool cursorHidden = false;
    const TerminalOptions& options() const { return options_; }

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

private:
    friend class TerminalDelegate;
    friend class DecrqssHandler;
    friend class XtgettcapHandler;

    // ParserTarget
    void handlePrintBorrowed(std::span<const uint8_t> run) override;
    void dispatchExecute(uint8_t code) override;
    void dispatchCsi(uint8_t code, CsiParameters pars, std::span<const uint8_t> collect) override;
    void dispatchEsc(std::span<const uint8_t> collect, uint8_t code) override;
    std::unique_ptr<DcsHandler> dispatchDcs(std::span<const uint8_t> collect, uint8_t code, CsiParameters pars) override;
    void dispatchOsc(int64_t code, std::span<const uint8_t> data, uint8_t terminator) override;
    void dispatchApc(uint8_t command, std::span<const uint8_t> content) override;
    void clearReadingBuffer() override { readingBuffer.clear(); }
    bool silentLog() const override { return true; }

    void setup(bool isReset);
    void sendResponse(std::string_view bytes);
    void handlePrintSlow(const uint8_t* bytes, size_t count);
    void printScalar(char32_t scalar);
    void combineWithPrevious(char32_t scalar);
    void updateEraseWords();
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
    void eraseInDisplay(int mode);
    void eraseInLine(int mode);
    void selectGraphicRendition(CsiParameters pars);
    void setModes(CsiParameters pars, bool privateMode, bool value);
    void setPrivateMode(int mode, bool value);
    void deviceStatus(CsiParameters pars, bool privateMode);
    void requestMode(CsiParameters pars, bool privateMode);
    std::optional<bool> privateModeValue(int mode) const;
    void windowOptions(CsiParameters pars);
    void activateAltBuffer();
    void activateNormalBuffer(bool clearAlt);
    void setgLevel(int level);
    void softReset();
    void setScrollRegion(CsiParameters pars);
    std::optional<std::string> statusStringPayload(std::string_view request) const;

    TerminalDelegate* delegate;
    TerminalOptions options_;
    int cols_, rows_;
    std::shared_ptr<CellArena> cellArena;
    std::unique_ptr<Buffer> normalBuffer, altBuffer;
    Buffer* buffer_ = nullptr;
    EscapeSequenceParser parser;

    Attribute curAttr;
    uint16_t curStyleID = 0;
    PackedCell currentEraseBlankCell, currentEraseSpaceCell;
    char32_t previousScalar = 0;
    std::vector<uint8_t> readingBuffer;
    std::array<const Charset*, 4> gCharsets{};
    const Charset* charset = nullptr;
    int gLevel = 0;
    std::string terminalTitle, iconTitle;
    std::vector<std::string> terminalTitleStack, iconTitleStack;
    bool settingFgColor = false, settingBgColor = false, settingCursorColor = false;
};

} // namespace vellum
