#include "CorvexKit/FuzzyMatch.h"

#include <algorithm>
#include <string>

#include "CorvexKit/FuzzyMatchFolding.h"
#include "Platform/Unicode.h"

namespace corvex {

namespace unicode = platform::unicode;
using unicode::GeneralCategory;

namespace {

bool isSeparator(std::u32string_view character) {
    return character.size() == 1 && std::u32string_view(U" -_/.:@([").find(character[0]) != std::u32string_view::npos;
}

bool isLowercaseLetter(std::u32string_view character) {
    return unicode::generalCategory(character[0]) == GeneralCategory::Ll;
}

bool isUppercaseLetter(std::u32string_view character) {
    auto category = unicode::generalCategory(character[0]);
    return category == GeneralCategory::Lu || category == GeneralCategory::Lt;
}

std::vector<std::u32string> queryKeys(std::u32string_view query) {
    std::vector<std::u32string> keys;
    for (auto character : unicode::graphemeClusters(query)) {
        if (folding::isWhitespace(character[0])) continue;
        keys.push_back(folding::lowercasedKey(character));
    }
    return keys;
}

std::vector<bool> boundaries(const std::vector<std::u32string_view>& text) {
    std::vector<bool> boundary(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        boundary[i] = i == 0 || isSeparator(text[i - 1]) ||
                      (isLowercaseLetter(text[i - 1]) && isUppercaseLetter(text[i]));
    }
    return boundary;
}

} // namespace

std::optional<FuzzyMatch::Match> FuzzyMatch::match(std::string_view query, std::string_view text) {
    return match(unicode::decodeUtf8(query), unicode::decodeUtf8(text));
}

std::optional<FuzzyMatch::Match> FuzzyMatch::match(std::u32string_view query, std::u32string_view text) {
    auto q = queryKeys(query);
    auto t = unicode::graphemeClusters(text);
    const size_t m = q.size();
    const size_t n = t.size();
    if (m == 0) return Match{};
    if (m > n) return std::nullopt;

    std::vector<std::u32string> lower;
    lower.reserve(n);
    for (auto character : t) lower.push_back(folding::lowercasedKey(character));
    auto boundary = boundaries(t);

    // Row-major m x n tables: the best score of an alignment of q[0...qi] ending at text
    // position ti, and the text position of q[qi-1] in that alignment.
    std::vector<int64_t> best(m * n, sentinel);
    std::vector<int64_t> from(m * n, -1);
    auto at = [n](size_t qi, size_t ti) { return qi * n + ti; };

    for (size_t qi = 0; qi < m; ++qi) {
        for (size_t ti = 0; ti < n; ++ti) {
            if (lower[ti] != q[qi]) continue;
            int64_t own = (ti == 0 ? 13 : 1) + (boundary[ti] ? 8 : 0);
            if (qi == 0) {
                best[at(0, ti)] = own - std::min<int64_t>(int64_t(ti), 4);
                continue;
            }
            for (size_t p = ti; p-- > qi - 1;) {
                int64_t previous = best[at(qi - 1, p)];
                if (previous == sentinel) continue;
                // A jump to the start of a word doesn't pay for the separator that starts
                // it: "fb" in "foo_bar" skips the two "o"s, not the "_".
                int64_t gap = int64_t(ti - p - 1);
                int64_t skipped = gap > 0 && isSeparator(t[ti - 1]) ? gap - 1 : gap;
                int64_t step = gap == 0 ? 6 : -std::min<int64_t>(skipped, 4);
                int64_t candidate = previous + own + step;
                if (candidate > best[at(qi, ti)]) {
                    best[at(qi, ti)] = candidate;
                    from[at(qi, ti)] = int64_t(p);
                }
            }
        }
    }

    size_t end = 0;
    for (size_t ti = 1; ti < n; ++ti) {
        if (best[at(m - 1, ti)] > best[at(m - 1, end)]) end = ti;
    }
    int64_t top = best[at(m - 1, end)];
    if (top == sentinel) return std::nullopt;

    Match result;
    result.indices.resize(m);
    int64_t column = int64_t(end);
    for (size_t qi = m; qi-- > 0;) {
        result.indices[qi] = int(column);
        column = from[at(qi, size_t(column))];
    }
    result.score = top - int64_t(n / 8);
    return result;
}

} // namespace corvex
