#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CorvexKit/SessionBackend.h"

// The words that turn the daemon's record of a pane's agent into lines for a person.
namespace corvex {

struct AgentHistoryLine {
    std::string title;
    std::string_view symbol;

    bool operator==(const AgentHistoryLine&) const = default;
};

// The event's title and symbol: "Needs you", "Running → Waiting for you", ...
AgentHistoryLine describe(const AgentHistoryEntry& entry);
// The message, with a note on who reported it ("from hook", "detected from output").
std::string detail(const AgentHistoryEntry& entry);

// Newest first.
std::vector<AgentHistoryEntry> displayOrder(const AgentHistory& history);
std::string historySummary(const AgentHistory& history);
std::string historyFailureSummary(std::string_view error);
// "<kind> · <machine> — History", with those of kind and machine that are known.
std::string historyWindowTitle(const std::optional<std::string>& kind, const std::optional<std::string>& machine);
// "HH:mm:ss" for a moment of today, "MMM d, HH:mm" for any other day, in local time.
std::string historyTime(double at, double now);
// The same with an explicit time zone offset from UTC, in seconds east.
std::string historyTime(double at, double now, long utcOffset);

} // namespace corvex
