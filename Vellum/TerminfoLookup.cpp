#include "Vellum/TerminfoReplies.h"

#include <algorithm>

namespace vellum {

std::optional<std::string> normalizedXtgettcapKey(std::string_view key) {
    if (key.empty() || key.size() % 2 != 0) return std::nullopt;
    std::string upper;
    upper.reserve(key.size());
    for (char c : key) {
        if (c >= 'a' && c <= 'f') c = static_cast<char>(c - 'a' + 'A');
        bool hex = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
        if (!hex) return std::nullopt;
        upper.push_back(c);
    }
    return upper;
}

std::optional<std::string_view> xtgettcapReply(std::string_view normalizedKey) {
    const auto& table = xtgettcapReplyTable();
    auto it = std::lower_bound(table.begin(), table.end(), normalizedKey,
                               [](const auto& entry, std::string_view key) { return entry.first < key; });
    if (it == table.end() || it->first != normalizedKey) return std::nullopt;
    return it->second;
}

} // namespace vellum
