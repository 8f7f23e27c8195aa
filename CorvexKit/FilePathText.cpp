#include "CorvexKit/FilePathText.h"

#include <cstdint>

namespace corvex {

namespace {

// Length of the valid UTF-8 sequence at `at`, or 0 when none begins there.
size_t sequenceLength(std::string_view bytes, size_t at) {
    auto byte = [&](size_t index) { return static_cast<uint8_t>(bytes[index]); };
    uint8_t lead = byte(at);
    if (lead < 0x80) return 1;
    size_t length = 0;
    uint8_t low = 0x80, high = 0xBF; // the second byte's range, narrower after some leads
    if (lead >= 0xC2 && lead <= 0xDF) length = 2;
    else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;    // no overlong forms
        if (lead == 0xED) high = 0x9F;   // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;   // nothing past U+10FFFF
    } else {
        return 0;
    }
    if (at + length > bytes.size()) return 0;
    if (byte(at + 1) < low || byte(at + 1) > high) return 0;
    for (size_t index = at + 2; index < at + length; ++index) {
        if (byte(index) < 0x80 || byte(index) > 0xBF) return 0;
    }
    return length;
}

int hexValue(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    return -1;
}

} // namespace

bool isValidUTF8(std::string_view bytes) {
    for (size_t at = 0; at < bytes.size();) {
        size_t length = sequenceLength(bytes, at);
        if (length == 0) return false;
        at += length;
    }
    return true;
}

std::string readablePath(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size());
    for (size_t at = 0; at < bytes.size();) {
        size_t length = sequenceLength(bytes, at);
        if (length == 0) {
            text += "\xEF\xBF\xBD";
            at += 1;
        } else {
            text.append(bytes.substr(at, length));
            at += length;
        }
    }
    return text;
}

std::optional<std::string> rawPathText(std::string_view bytes) {
    if (isValidUTF8(bytes)) return std::nullopt;
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (size_t at = 0; at < bytes.size();) {
        size_t length = sequenceLength(bytes, at);
        if (length == 0 || bytes[at] == '%') {
            auto byte = static_cast<uint8_t>(bytes[at]);
            text += '%';
            text += digits[byte >> 4];
            text += digits[byte & 0xF];
            at += 1;
        } else {
            text.append(bytes.substr(at, length));
            at += length;
        }
    }
    return text;
}

std::optional<std::string> pathFromRawText(std::string_view text) {
    std::string bytes;
    bytes.reserve(text.size());
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '%') {
            bytes += text[at];
            continue;
        }
        if (at + 2 >= text.size()) return std::nullopt;
        int high = hexValue(text[at + 1]), low = hexValue(text[at + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes += static_cast<char>(high * 16 + low);
        at += 2;
    }
    return bytes;
}

} // namespace corvex
