#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace corvex {

// Scores how well a typed query fits a text by the best alignment of the query's characters
// as a subsequence of the text's, and says which characters matched. Positions count extended
// grapheme clusters; case never matters, and characters compare by canonical equivalence.
struct FuzzyMatch {
    struct Match {
        int64_t score = 0;
        std::vector<int> indices; // ascending, one per query character

        bool operator==(const Match&) const = default;
    };

    // "No alignment ends here" in the scoring table.
    static constexpr int64_t sentinel = -(int64_t(1) << 62);

    // Inner white space of the query is ignored: "foo bar" is "foobar". An empty query
    // matches anything with score 0.
    static std::optional<Match> match(std::string_view query, std::string_view text);
    static std::optional<Match> match(std::u32string_view query, std::u32string_view text);
};

} // namespace corvex
