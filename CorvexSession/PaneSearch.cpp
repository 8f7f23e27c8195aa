#include "CorvexSession/PaneSearch.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <locale.h>
#include <regex.h>
#include <string_view>
#include <vector>

#include "Vellum/Terminal.h"

namespace corvex {

namespace {

using corvex::BackendError;
using corvex::CellPosition;
using corvex::PaneSearchMatch;

struct CellAt {
    size_t byte = 0; // where the cell's text begins in the line
    int row = 0;
    int col = 0;
    int width = 1;
};

// Rows joined by wrapping, as text, with where each cell's text lies.
struct LogicalLine {
    std::string text;
    std::vector<CellAt> cells;
};

LogicalLine logicalLine(vellum::Buffer& buffer, int firstRow, int endRow) {
    LogicalLine line;
    size_t contentEnd = 0;
    for (int row = firstRow; row < endRow; ++row) {
        const vellum::BufferLine& cells = buffer.lines[row];
        for (int col = 0; col < buffer.cols();) {
            vellum::CharData cell = cells[col];
            int width = cell.width == 2 ? 2 : 1;
            line.cells.push_back({line.text.size(), row, col, width});
            if (cell.code == 0 || cell.widthStateCode >= 2) {
                line.text += ' ';
            } else {
                line.text += cell.getText();
                contentEnd = line.text.size();
            }
            col += width;
        }
    }
    // Blanks after the last character are no text of the line.
    line.text.resize(contentEnd);
    while (!line.cells.empty() && line.cells.back().byte >= contentEnd) line.cells.pop_back();
    return line;
}

const CellAt& cellHolding(const LogicalLine& line, size_t byte) {
    auto after = std::upper_bound(line.cells.begin(), line.cells.end(), byte,
                                  [](size_t value, const CellAt& cell) { return value < cell.byte; });
    return *(after - 1);
}

// Patterns are read, and case is folded, as Unicode text whatever locale the daemon runs in.
class UTF8Locale {
public:
    UTF8Locale() : previous_(utf8() ? uselocale(utf8()) : nullptr) {}
    ~UTF8Locale() {
        if (previous_) uselocale(previous_);
    }
    UTF8Locale(const UTF8Locale&) = delete;
    UTF8Locale& operator=(const UTF8Locale&) = delete;

private:
    static locale_t utf8() {
        static locale_t locale = newlocale(LC_ALL_MASK, "C.UTF-8", locale_t(nullptr));
        return locale;
    }
    locale_t previous_;
};

// A literal as an extended regular expression.
std::string escaped(const std::string& literal) {
    std::string out;
    for (char c : literal) {
        if (std::string_view(".[]{}()\\*+?^$|").find(c) != std::string_view::npos) out += '\\';
        out += c;
    }
    return out;
}

// How many automaton states a pattern roughly compiles to: counted repeats multiply what
// they repeat, nested ones multiply again. Saturates rather than overflows.
class PatternCost {
public:
    explicit PatternCost(std::string_view pattern) : pattern_(pattern) {}

    uint64_t estimate() { return sequence(); }

private:
    static constexpr uint64_t ceiling = uint64_t(1) << 40;
    static uint64_t capped(uint64_t value) { return std::min(value, ceiling); }

    uint64_t sequence() {
        uint64_t total = 0, last = 0;
        while (at_ < pattern_.size()) {
            char c = pattern_[at_++];
            if (c == ')') break;
            if (c == '(') {
                last = sequence();
            } else if (c == '[') {
                skipBracket();
                last = 1;
            } else if (c == '\\') {
                if (at_ < pattern_.size() && pattern_[at_] >= '1' && pattern_[at_] <= '9') {
                    throw BackendError("bad_request", "back-references are not supported in a search");
                }
                ++at_;
                last = 1;
            } else if (c == '{') {
                uint64_t times = intervalTimes();
                total = capped(total + capped(last * (times - 1)));
                last = capped(last * times);
                continue;
            } else if (c == '|' || c == '*' || c == '+' || c == '?') {
                continue;
            } else {
                last = 1;
            }
            total = capped(total + last);
        }
        return total;
    }

    // After "{": the most copies "{m}", "{m,}" or "{m,n}" makes of what it follows.
    uint64_t intervalTimes() {
        uint64_t low = number(), high = low;
        if (at_ < pattern_.size() && pattern_[at_] == ',') {
            ++at_;
            if (at_ < pattern_.size() && pattern_[at_] != '}') high = number();
            else high = low + 1;
        }
        if (at_ < pattern_.size() && pattern_[at_] == '}') ++at_;
        return std::max<uint64_t>(std::max(low, high), 1);
    }
    uint64_t number() {
        uint64_t value = 0;
        while (at_ < pattern_.size() && pattern_[at_] >= '0' && pattern_[at_] <= '9') {
            value = capped(value * 10 + uint64_t(pattern_[at_++] - '0'));
        }
        return value;
    }
    void skipBracket() {
        if (at_ < pattern_.size() && pattern_[at_] == '^') ++at_;
        if (at_ < pattern_.size() && pattern_[at_] == ']') ++at_;
        while (at_ < pattern_.size() && pattern_[at_] != ']') {
            if (pattern_[at_] == '[' && at_ + 1 < pattern_.size() && std::string_view(":.=").find(pattern_[at_ + 1]) != std::string_view::npos) {
                char kind = pattern_[at_ + 1];
                auto close = pattern_.find(std::string{kind, ']'}, at_ + 2);
                at_ = close == std::string_view::npos ? pattern_.size() : close + 2;
                continue;
            }
            ++at_;
        }
        if (at_ < pattern_.size()) ++at_;
    }

    std::string_view pattern_;
    size_t at_ = 0;
};

// Finds the byte ranges of the matches in a line, in order, none overlapping.
class Matcher {
public:
    // A literal that ignores case is matched as an expression, which folds all of Unicode.
    Matcher(const std::string& query, const corvex::PaneSearchOptions& options)
        : regex_(options.regex || !options.caseSensitive), needle_(query) {
        if (query.empty()) throw BackendError("bad_request", "empty query");
        if (query.size() > maximumQueryBytes) {
            throw BackendError("bad_request", "a query may hold at most " + std::to_string(maximumQueryBytes) + " bytes");
        }
        if (options.regex && PatternCost(query).estimate() > maximumPatternCost) {
            throw BackendError("bad_request", "the pattern repeats too much to search with");
        }
        if (!regex_) return;
        UTF8Locale locale;
        compiled_ = std::make_unique<regex_t>();
        int flags = REG_EXTENDED | (options.caseSensitive ? 0 : REG_ICASE);
        std::string pattern = options.regex ? query : escaped(query);
        int error = regcomp(compiled_.get(), pattern.c_str(), flags);
        if (error != 0) {
            char message[256];
            regerror(error, compiled_.get(), message, sizeof(message));
            compiled_.reset();
            throw BackendError("bad_request", std::string("bad pattern: ") + message);
        }
    }
    ~Matcher() {
        if (compiled_) regfree(compiled_.get());
    }
    Matcher(const Matcher&) = delete;
    Matcher& operator=(const Matcher&) = delete;

    std::vector<std::pair<size_t, size_t>> find(const std::string& text) const {
        std::vector<std::pair<size_t, size_t>> out;
        if (!regex_) {
            for (size_t at = text.find(needle_); at != std::string::npos; at = text.find(needle_, at + needle_.size())) {
                out.emplace_back(at, at + needle_.size());
            }
            return out;
        }
        UTF8Locale locale;
        size_t at = 0;
        while (at <= text.size()) {
            regmatch_t match{};
            if (regexec(compiled_.get(), text.c_str() + at, 1, &match, at > 0 ? REG_NOTBOL : 0) != 0) break;
            size_t start = at + size_t(match.rm_so);
            size_t end = at + size_t(match.rm_eo);
            if (end > start) out.emplace_back(start, end);
            // An empty match moves on by one character.
            if (end > start) {
                at = end;
            } else {
                at = start + 1;
                while (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80) ++at;
            }
        }
        return out;
    }

private:
    bool regex_;
    std::string needle_;
    std::unique_ptr<regex_t> compiled_;
};

bool before(const CellPosition& a, const CellPosition& b) { return a.line < b.line || (a.line == b.line && a.col < b.col); }

// Rows are read under the terminal's lock a slice at a time, so the pane's output goes on
// between slices; the lock is held for about this many rows.
constexpr int sliceRows = 512;

// Logical lines read under the lock, newest first, each row's text with them.
struct Slice {
    struct Line {
        LogicalLine line;
        int firstRow = 0;
        std::vector<std::string> rowTexts; // from firstRow down
    };
    std::vector<Line> lines;
};

// Follows the rows already searched while the terminal moves on between slices: the oldest
// of them, found again by its identity, says how far the history has scrolled meanwhile.
class RowAnchor {
public:
    void set(vellum::Buffer& buffer, int row) {
        vellum::BufferLine& line = buffer.lines[row];
        identity_ = line.renderIdentity;
        generation_ = line.recycleGeneration;
        row_ = row;
    }
    // Where the anchor row is now, or absent when it has gone (cleared, recycled, another
    // screen shown): nothing older than it is left to search then.
    std::optional<int> find(vellum::Buffer& buffer) const {
        for (int row = std::min(row_, buffer.lines.count() - 1); row >= 0; --row) {
            vellum::BufferLine& line = buffer.lines[row];
            if (line.renderIdentity == identity_ && line.recycleGeneration == generation_) return row;
        }
        return std::nullopt;
    }
    int row() const { return row_; }

private:
    vellum::BufferLine::RenderIdentity identity_;
    uint64_t generation_ = 0;
    int row_ = 0;
};

// Reads logical lines upwards from `end` until about a slice of rows is taken.
Slice readSlice(vellum::Buffer& buffer, int end) {
    Slice slice;
    int taken = 0;
    while (end > 0 && taken < sliceRows) {
        int first = end - 1;
        while (first > 0 && buffer.lines[first].isWrapped()) --first;
        Slice::Line line{logicalLine(buffer, first, end), first, {}};
        for (int row = first; row < end; ++row) line.rowTexts.push_back(buffer.lines[row].translateToString(true, 0, -1, true));
        slice.lines.push_back(std::move(line));
        taken += end - first;
        end = first;
    }
    return slice;
}

} // namespace

corvex::PaneSearchResult searchTerminal(const TerminalAccess& access, const std::string& query,
                                        const corvex::PaneSearchOptions& options) {
    Matcher matcher(query, options);
    int limit = std::clamp(options.limit.value_or(defaultSearchLimit), 1, maximumSearchLimit);
    corvex::PaneSearchResult result;
    // Positions are those of the first slice's moment: rows the history has scrolled up by
    // since then are counted back down by `shift`.
    int end = 0, shift = 0;
    bool first = true, finished = false;
    RowAnchor anchor;
    while (!finished) {
        Slice slice;
        access([&](vellum::Terminal& terminal) {
            vellum::Buffer& buffer = terminal.buffer();
            if (first) {
                result.cols = terminal.cols();
                result.rows = terminal.rows();
                result.history = buffer.yBase;
                end = buffer.lines.count();
                first = false;
            } else {
                auto found = anchor.find(buffer);
                if (!found) {
                    finished = true;
                    return;
                }
                shift += anchor.row() - *found;
                end = *found;
            }
            slice = readSlice(buffer, end);
            if (!slice.lines.empty()) {
                end = slice.lines.back().firstRow;
                anchor.set(buffer, end);
            }
            finished = end == 0;
        });
        // Newest first: lines from the bottom up, and each line's matches from its end.
        for (const auto& [line, firstRow, rowTexts] : slice.lines) {
            auto found = matcher.find(line.text);
            for (auto match = found.rbegin(); match != found.rend(); ++match) {
                const CellAt& start = cellHolding(line, match->first);
                const CellAt& last = cellHolding(line, match->second - 1);
                CellPosition startAt{start.row + shift, start.col};
                if (options.before && !before(startAt, *options.before)) continue;
                if (int(result.matches.size()) == limit) {
                    result.next = result.matches.back().start;
                    return result;
                }
                PaneSearchMatch out;
                out.start = startAt;
                out.end = CellPosition{last.row + shift, last.col + last.width};
                out.text = line.text.substr(match->first, match->second - match->first);
                out.lineText = rowTexts[size_t(start.row - firstRow)];
                result.matches.push_back(std::move(out));
            }
        }
    }
    return result;
}

} // namespace corvex
