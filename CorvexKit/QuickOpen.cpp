#include "CorvexKit/QuickOpen.h"

#include <algorithm>
#include <optional>

#include "CorvexKit/FuzzyMatch.h"
#include "Platform/Unicode.h"

namespace corvex {

namespace unicode = platform::unicode;

namespace {

constexpr int64_t subtitlePenalty = 20;

std::u32string_view trimmedBlanks(std::u32string_view text) {
    auto blank = [](char32_t scalar) { return scalar == U' ' || scalar == U'\t'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text;
}

std::optional<QuickOpen::Result> rankItem(const QuickOpenItem& item, std::u32string_view query) {
    auto title = unicode::decodeUtf8(item.title);
    if (auto match = FuzzyMatch::match(query, title)) {
        return QuickOpen::Result{item, match->score, std::move(match->indices)};
    }
    if (item.subtitle.empty()) return std::nullopt;
    auto subtitle = unicode::decodeUtf8(item.subtitle);
    auto match = FuzzyMatch::match(query, subtitle + U" " + title);
    if (!match) return std::nullopt;
    const int titleStart = int(unicode::graphemeClusters(subtitle).size()) + 1;
    QuickOpen::Result result{item, match->score - subtitlePenalty, {}};
    for (int index : match->indices) {
        if (index >= titleStart) result.titleIndices.push_back(index - titleStart);
    }
    return result;
}

} // namespace

std::vector<QuickOpen::Result> QuickOpen::rank(const std::vector<QuickOpenItem>& items, std::string_view query,
                                               size_t limit) {
    auto decoded = unicode::decodeUtf8(query);
    auto trimmed = trimmedBlanks(decoded);
    std::vector<Result> results;
    if (trimmed.empty()) {
        for (size_t i = 0; i < items.size() && i < limit; ++i) results.push_back(Result{items[i], 0, {}});
        return results;
    }
    for (const auto& item : items) {
        if (auto result = rankItem(item, trimmed)) results.push_back(std::move(*result));
    }
    // Stable, so at equal score and kind the given order stands.
    std::stable_sort(results.begin(), results.end(), [](const Result& a, const Result& b) {
        if (a.score != b.score) return a.score > b.score;
        return a.item.kind < b.item.kind;
    });
    if (results.size() > limit) results.resize(limit);
    return results;
}

} // namespace corvex

size_t std::hash<corvex::QuickOpenItem>::operator()(const corvex::QuickOpenItem& item) const noexcept {
    size_t seed = std::hash<int>()(int(item.kind));
    for (const auto* field : {&item.title, &item.subtitle, &item.id}) {
        seed ^= std::hash<std::string>()(*field) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
    }
    return seed;
}
