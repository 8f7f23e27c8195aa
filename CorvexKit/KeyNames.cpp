#include "CorvexKit/KeyNames.h"

#include <algorithm>
#include <cctype>
#include <string>

namespace corvex {

namespace {

struct NamedKey {
    std::string_view name; // lower case
    std::string_view bytes;
};

constexpr NamedKey namedKeys[] = {
    {"enter", "\r"},        {"return", "\r"},       {"escape", "\x1b"},     {"esc", "\x1b"},
    {"tab", "\t"},          {"backspace", "\x7f"},  {"space", " "},         {"up", "\x1b[A"},
    {"down", "\x1b[B"},     {"right", "\x1b[C"},    {"left", "\x1b[D"},     {"home", "\x1b[H"},
    {"end", "\x1b[F"},      {"pageup", "\x1b[5~"},  {"pagedown", "\x1b[6~"}, {"insert", "\x1b[2~"},
    {"delete", "\x1b[3~"},
};

std::string lowered(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return out;
}

// "C-c" and the like: the character with its top bits cleared, as the Control key makes it.
std::optional<uint8_t> controlCharacter(std::string_view name) {
    if (name.size() != 3 || (name[0] != 'C' && name[0] != 'c') || name[1] != '-') return std::nullopt;
    auto c = static_cast<unsigned char>(name[2]);
    if (std::isalpha(c)) return static_cast<uint8_t>(std::toupper(c) & 0x1f);
    if (std::string_view("@[\\]^_").find(char(c)) != std::string_view::npos) return static_cast<uint8_t>(c & 0x1f);
    return std::nullopt;
}

} // namespace

std::optional<Bytes> keyBytes(std::string_view name) {
    if (auto control = controlCharacter(name)) return Bytes{*control};
    std::string key = lowered(name);
    for (const auto& named : namedKeys) {
        if (named.name == key) return Bytes(named.bytes.begin(), named.bytes.end());
    }
    return std::nullopt;
}

} // namespace corvex
