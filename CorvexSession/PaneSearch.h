#pragma once

#include <string>

#include "CorvexKit/SessionBackend.h"

namespace vellum {
class Terminal;
}

namespace corvex {

// Matches asked for when a search names no limit, and the most it may name.
inline constexpr int defaultSearchLimit = 200;
inline constexpr int maximumSearchLimit = 10000;

// Searches the shown screen of a terminal and all the history above it. Rows joined by
// wrapping are searched as one line, so a match may run from one row into the next.
// Positions count rows from the oldest history row (the screen's first row is `history`),
// and a match's end is the cell after its last. Matches come newest first; with `before`
// only those that start before it; when more than `limit` exist, `next` is where the next,
// older page starts (pass it as `before`). A regular expression is POSIX extended, read as
// UTF-8, and ignoring case folds every letter. A pattern that doesn't compile, or an empty
// query, raises "bad_request". Call it while nothing feeds the terminal.
corvex::PaneSearchResult searchTerminal(vellum::Terminal& terminal, const std::string& query,
                                        const corvex::PaneSearchOptions& options);

} // namespace corvex
