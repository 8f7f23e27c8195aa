#pragma once

#include <optional>
#include <string>
#include <string_view>

// Paths are bytes; the wire is JSON text. A name that isn't valid UTF-8 travels twice: once
// readable, with each bad byte shown as U+FFFD, and once exact in a "_raw" key, with those
// bytes (and "%") written as %XX, so that it can be reached again.
namespace corvex {

bool isValidUTF8(std::string_view bytes);
// The bytes as valid text: each byte that begins no valid sequence becomes U+FFFD.
std::string readablePath(std::string_view bytes);
// Empty when the bytes are valid text and need no raw form.
std::optional<std::string> rawPathText(std::string_view bytes);
// The bytes back from their raw form; nothing for a malformed escape.
std::optional<std::string> pathFromRawText(std::string_view text);

} // namespace corvex
