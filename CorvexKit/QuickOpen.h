#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace corvex {

struct QuickOpenItem {
    // At equal score the smaller kind ranks first.
    enum class Kind : int { agent = 0, workspace = 1, tab = 2, machine = 3 };

    Kind kind = Kind::agent;
    std::string title;
    std::string subtitle; // may be empty
    std::string id;

    bool operator==(const QuickOpenItem&) const = default;
};

struct QuickOpen {
    struct Result {
        QuickOpenItem item;
        int64_t score = 0;
        std::vector<int> titleIndices; // character positions in item.title

        bool operator==(const Result&) const = default;
    };

    // Matches the query against each title, else against "<subtitle> <title>" at a cost of 20;
    // unmatched items are dropped. Highest score first, then by kind, then in the given order.
    static std::vector<Result> rank(const std::vector<QuickOpenItem>& items, std::string_view query, size_t limit);
};

} // namespace corvex

template <>
struct std::hash<corvex::QuickOpenItem> {
    size_t operator()(const corvex::QuickOpenItem& item) const noexcept;
};
