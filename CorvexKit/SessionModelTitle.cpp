#include "CorvexKit/SessionModel.h"

#include "Platform/Unicode.h"

namespace corvex {

namespace {

using platform::unicode::GeneralCategory;

// Agents put spinners and marks before their titles; those never reach the display.
bool isStatusGlyph(char32_t c) {
    if ((c >= 0x2600 && c <= 0x26FF) || (c >= 0x2800 && c <= 0x28FF) || (c >= 0x2700 && c <= 0x27BF) ||
        (c >= 0x25A0 && c <= 0x25FF)) {
        return true;
    }
    if (c == 0x00B7 || c == U'*' || c == 0x2022) return true;
    if (c <= 0x7F) return false;
    auto category = platform::unicode::generalCategory(c);
    return category == GeneralCategory::Sm || category == GeneralCategory::So;
}

bool isWhiteSpace(char32_t c) {
    return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
           c == 0x3000;
}

std::u32string_view trimmed(std::u32string_view text) {
    while (!text.empty() && isWhiteSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isWhiteSpace(text.back())) text.remove_suffix(1);
    return text;
}

} // namespace

std::optional<std::string> Pane::displayTitle(const std::optional<std::string>& title,
                                              const std::optional<std::string>& cwd) {
    if (!title) return std::nullopt;
    std::string result = *title;
    auto scalars = platform::unicode::decodeUtf8(result);
    if (scalars.size() >= 2 && isStatusGlyph(scalars[0]) && isWhiteSpace(scalars[1])) {
        auto rest = trimmed(std::u32string_view(scalars).substr(2));
        if (rest.empty()) return std::nullopt;
        result = platform::unicode::encodeUtf8(rest);
    }
    // The agent's fixed product title tells nothing; the folder does.
    if (result == "Claude Code" && cwd && !cwd->empty() && *cwd != "/") return lastPathComponent(*cwd);
    return result;
}

} // namespace corvex
