#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "Vellum/KittyClipboard.h"
#include "Vellum/Palette.h"
#include "Vellum/TerminalOptions.h"
#include "Vellum/TerminalProgramStatus.h"
#include "Vellum/TerminalWindowCommand.h"

namespace vellum {

class Terminal;

// How big an inline image asks to be drawn, along one axis.
struct ImageSizeRequest {
    enum class Unit : uint8_t { automatic, cells, pixels, percent };
    Unit unit = Unit::automatic;
    int value = 0;

    bool operator==(const ImageSizeRequest&) const = default;
};

// Everything that leaves the terminal. All calls are made on the thread that feeds the
// terminal, under its lock; only `send` and `sizeChanged` must be provided.
class TerminalDelegate {
public:
    virtual ~TerminalDelegate() = default;

    virtual void showCursor(Terminal&) {}
    virtual void hideCursor(Terminal&) {}
    virtual void setTerminalTitle(Terminal&, const std::string&) {}
    virtual void setTerminalIconTitle(Terminal&, const std::string&) {}
    // Bytes given back are sent to the program as the answer.
    virtual std::optional<std::string> windowCommand(Terminal&, const WindowManipulationCommand&) { return std::nullopt; }
    virtual void sizeChanged(Terminal&) = 0;
    virtual void send(Terminal&, std::span<const uint8_t> data) = 0;
    virtual void bufferActivated(Terminal&) {}
    virtual void synchronizedOutputChanged(Terminal&, bool /*active*/) {}
    virtual void scheduleSynchronizedOutputTimeout(Terminal&, uint32_t /*afterMilliseconds*/) {}
    virtual void bell(Terminal&) {}
    virtual void selectionChanged(Terminal&) {}
    // OSC 6 and 7 are believed only from a trusted process.
    virtual bool isProcessTrusted(Terminal&) { return true; }
    // Width and height of one cell in pixels, when known.
    virtual std::optional<std::pair<int, int>> cellSizeInPixels(Terminal&) { return std::nullopt; }
    virtual void mouseModeChanged(Terminal&) {}
    virtual void cursorStyleChanged(Terminal&, CursorStyle) {}
    virtual void hostCurrentDirectoryUpdated(Terminal&) {}
    virtual void hostCurrentDocumentUpdated(Terminal&) {}
    // A palette entry changed; nothing means the whole palette.
    virtual void colorChanged(Terminal&, std::optional<int>) {}
    // The defaults store the colour in the terminal; the terminal guards against re-entry.
    virtual void setForegroundColor(Terminal& source, Color color);
    virtual void setBackgroundColor(Terminal& source, Color color);
    virtual void setCursorColor(Terminal& source, std::optional<Color> color);
    virtual std::pair<Color, Color> getColors(Terminal& source);
    // An OSC 1337 that the terminal does not act on itself, unparsed.
    virtual void iTermContent(Terminal&, std::span<const uint8_t>) {}
    virtual void clipboardCopy(Terminal&, const std::vector<uint8_t>&) {}
    virtual std::optional<std::vector<uint8_t>> clipboardRead(Terminal&) { return std::nullopt; }
    // True when the host takes the read request and answers it by itself, later.
    virtual bool clipboardReadRequest(Terminal&, const std::string& /*selection*/) { return false; }
    // Bytes that make pasted text unsafe to send as it is.
    virtual std::set<uint8_t> terminalControlBytesForPaste(Terminal&) { return standardPasteControlBytes(); }
    static std::set<uint8_t> standardPasteControlBytes();
    // The Kitty clipboard protocol. An operation that gives true calls its completion later,
    // exactly once; false means the host does not do it.
    virtual KittyClipboardCapabilities kittyClipboardCapabilities(Terminal&) { return {}; }
    virtual bool kittyClipboardSendPasteEvent(Terminal& source, std::span<const uint8_t> data);
    virtual bool kittyClipboardAvailableMimeTypes(Terminal&, KittyClipboardLocation,
                                                  std::function<void(std::optional<std::vector<std::string>>)>) {
        return false;
    }
    virtual bool kittyClipboardRead(Terminal&, KittyClipboardLocation, const std::string& /*mimeType*/,
                                    std::function<void(std::optional<std::vector<uint8_t>>)>) {
        return false;
    }
    virtual bool kittyClipboardWrite(Terminal&, KittyClipboardLocation, const KittyClipboardContent&,
                                     std::function<void(bool)>) {
        return false;
    }
    virtual bool kittyClipboardRequestPermission(Terminal&, const KittyClipboardPermissionRequest&,
                                                 std::function<void(bool)>) {
        return false;
    }
    virtual void notify(Terminal&, const std::string& /*title*/, const std::string& /*body*/) {}
    virtual void progressReport(Terminal&, const ProgressReport&) {}
    virtual void programStatusChanged(Terminal&, const std::vector<TerminalProgramStatus>&) {}
    virtual void createImageFromBitmap(Terminal&, std::vector<uint8_t>& /*rgba*/, int /*width*/, int /*height*/) {}
    virtual void createImage(Terminal&, const std::vector<uint8_t>& /*data*/, ImageSizeRequest /*width*/,
                             ImageSizeRequest /*height*/, bool /*preserveAspectRatio*/) {}
};

} // namespace vellum
