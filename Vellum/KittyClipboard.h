#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vellum {

// What the host's clipboard can do for the Kitty clipboard protocol (OSC 5522).
struct KittyClipboardCapabilities {
    bool canRead = false;
    bool canWrite = false;
    bool canSendPasteEvents = false;

    bool operator==(const KittyClipboardCapabilities&) const = default;
};

enum class KittyClipboardLocation : uint8_t { clipboard, primary };

// Content by MIME type, as the protocol moves it.
using KittyClipboardContent = std::map<std::string, std::vector<uint8_t>>;

// A question for the user before a program reads or writes the clipboard.
struct KittyClipboardPermissionRequest {
    enum class Kind : uint8_t { read, write };
    Kind kind = Kind::read;
    KittyClipboardLocation location = KittyClipboardLocation::clipboard;
    std::vector<std::string> mimeTypes;
};

} // namespace vellum
