#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "CorvexKit/SessionBackend.h"

namespace vellum {
class Terminal;
}

namespace corvex {

// Matches asked for when a search names no limit, and the most it may name.
inline constexpr int defaultSearchLimit = 200;
inline constexpr int maximumSearchLimit = 10000;
// A query is something typed: longer ones are refused rather than compiled.
inline constexpr size_t maximumQueryBytes = 4096;
// How large a compiled pattern may grow, in rough automaton states; counted repeats such as
// "(a{1,200}){1,200}" multiply.
inline constexpr uint64_t maximumPatternCost = 16384;

// Searches the shown screen of a terminal and all the history above it. Rows joined by
// wrapping are searched as one line, so a match may run from one row into the next.
// Positions count rows from the oldest history row (the screen's first row is `history`),
// and a match's end is the cell after its last. Matches come newest first; with `before`
// only those that start before it; when more than `limit` exist, `next` is where the next,
// older page starts (pass it as `before`). A regular expression is POSIX extended, read as
// UTF-8, and ignoring case folds every letter. A pattern that doesn't compile, one with
// back-references (whose matching is exponential) or too costly, a query that is empty or too
// long, raise "bad_request".
// The terminal is read through `access`, which runs a visit with the terminal's lock held; it
// is called once for each slice of rows, so output goes on being parsed during a long search.
// Positions are those of the terminal as the first slice found it, rows that have scrolled
// further up since counted back; what has left the history meanwhile is not searched.
using TerminalAccess = std::function<void(const std::function<void(vellum::Terminal&)>& visit)>;
corvex::PaneSearchResult searchTerminal(const TerminalAccess& access, const std::string& query,
                                        const corvex::PaneSearchOptions& options);

} // namespace corvex
