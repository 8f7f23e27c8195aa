#include "CorvexKit/SSHTarget.h"

namespace corvex {

namespace {

// Spaces and line breaks, Unicode's included, and every control character.
bool isSpaceOrControl(std::string_view text, size_t& at) {
    auto byte = static_cast<unsigned char>(text[at]);
    if (byte < 0x20 || byte == 0x7f || byte == ' ') return true;
    if (byte < 0x80) return false;
    // Decode one UTF-8 sequence; a malformed one counts as a control character.
    int length = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : byte >= 0xc0 ? 2 : 0;
    if (length == 0 || at + static_cast<size_t>(length) > text.size()) return true;
    char32_t code = byte & (0x3f >> (length - 1));
    for (int index = 1; index < length; ++index) {
        auto next = static_cast<unsigned char>(text[at + static_cast<size_t>(index)]);
        if ((next & 0xc0) != 0x80) return true;
        code = (code << 6) | (next & 0x3f);
    }
    at += static_cast<size_t>(length) - 1;
    return (code >= 0x80 && code <= 0x9f) || code == 0x85 || code == 0xa0 || code == 0x1680 ||
           (code >= 0x2000 && code <= 0x200a) || code == 0x2028 || code == 0x2029 || code == 0x202f ||
           code == 0x205f || code == 0x3000;
}

} // namespace

std::optional<std::string> SSHTarget::problem(std::string_view text) {
    if (text.empty()) return "Type an SSH target, such as you@host.";
    if (text.front() == '-') return "An SSH target can't start with \"-\".";
    for (size_t at = 0; at < text.size(); ++at) {
        if (isSpaceOrControl(text, at)) return "An SSH target can't contain spaces or control characters.";
    }
    return std::nullopt;
}

void SSHTarget::check(std::string_view text) {
    if (auto message = problem(text)) throw RemoteFailure(*message);
}

} // namespace corvex
