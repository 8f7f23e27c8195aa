#include <gtest/gtest.h>

#include "CorvexKit/AgentHistoryText.h"

using namespace corvex;

namespace {

AgentHistoryEntry event(std::string name) {
    AgentHistoryEntry entry;
    entry.at = 1;
    entry.eventName = std::move(name);
    return entry;
}

AgentHistoryEntry stateChange(std::optional<std::string> from, std::optional<std::string> to) {
    auto entry = event("state");
    entry.fromName = std::move(from);
    entry.stateName = std::move(to);
    return entry;
}

} // namespace

TEST(AgentHistoryText, EventsReadAsTitlesAndSymbols) {
    EXPECT_EQ(describe(event("gone")), (AgentHistoryLine{"Ended", "xmark.circle"}));
    EXPECT_EQ(describe(event("mute")), (AgentHistoryLine{"Muted", "bell.slash"}));
    auto attention = event("attention");
    EXPECT_EQ(describe(attention), (AgentHistoryLine{"Resolved", "checkmark"}));
    attention.attention = true;
    EXPECT_EQ(describe(attention), (AgentHistoryLine{"Needs you", "bell.fill"}));
    // A newer daemon's event shows under its own name.
    EXPECT_EQ(describe(event("foo")), (AgentHistoryLine{"foo", "questionmark.circle"}));
    EXPECT_EQ(describe(event("State")), (AgentHistoryLine{"State", "questionmark.circle"}));
}

TEST(AgentHistoryText, StateEventsNameTheStatesOnBothSides) {
    EXPECT_EQ(describe(stateChange("running", "waiting")),
              (AgentHistoryLine{"Running \u2192 Waiting for you", "hand.raised.fill"}));
    EXPECT_EQ(describe(stateChange(std::nullopt, "starting")), (AgentHistoryLine{"Starting", "hourglass"}));
    EXPECT_EQ(describe(stateChange("waiting", "done")),
              (AgentHistoryLine{"Waiting for you \u2192 Done", "checkmark.circle.fill"}));
    EXPECT_EQ(describe(stateChange("dreaming", "running")), (AgentHistoryLine{"Unknown \u2192 Running", "circle.dashed"}));
    EXPECT_EQ(describe(stateChange(std::nullopt, "dreaming")), (AgentHistoryLine{"Unknown", "questionmark.circle"}));
    EXPECT_EQ(describe(stateChange(std::nullopt, std::nullopt)), (AgentHistoryLine{"Unknown", "questionmark.circle"}));
}

TEST(AgentHistoryText, DetailNotesWhoReported) {
    auto entry = event("state");
    EXPECT_EQ(detail(entry), "");
    entry.message = "Thinking";
    entry.source = "hook";
    EXPECT_EQ(detail(entry), "Thinking (from hook)");
    entry.message.reset();
    EXPECT_EQ(detail(entry), "From hook");
    entry.message = "";
    EXPECT_EQ(detail(entry), "From hook");
    // A guess is a guess whoever passed it on.
    entry.guess = true;
    EXPECT_EQ(detail(entry), "Detected from output");
    entry.message = "Press enter";
    EXPECT_EQ(detail(entry), "Press enter (detected from output)");
}

TEST(AgentHistoryText, SummaryOrderAndWindowTitle) {
    AgentHistory history{4, 200, {event("state"), event("attention"), event("gone")}};
    EXPECT_EQ(historySummary(history), "3 events, newest first. corvexd keeps the last 200 per pane.");
    auto shown = displayOrder(history);
    ASSERT_EQ(shown.size(), 3u);
    EXPECT_EQ(shown.front().eventName, "gone");
    EXPECT_EQ(historySummary(AgentHistory{4, 200, {}}), "Nothing recorded for this pane's agent yet.");
    EXPECT_EQ(historyFailureSummary("disconnected"), "Couldn't load the history: disconnected");

    EXPECT_EQ(historyWindowTitle("Claude Code", "Build Box"), "Claude Code \u00B7 Build Box \u2014 History");
    EXPECT_EQ(historyWindowTitle(std::nullopt, "Build Box"), "Build Box \u2014 History");
}

TEST(AgentHistoryText, TimesShowTheClockTodayAndTheDateOtherwise) {
    const double morning = 1795341903;  // 2026-11-22 10:05:03 UTC
    const double lateNight = 1795390200; // 2026-11-22 23:30:00 UTC
    EXPECT_EQ(historyTime(morning, morning + 3600, 0), "10:05:03");
    EXPECT_EQ(historyTime(morning, morning + 86400, 0), "Nov 22, 10:05");
    EXPECT_EQ(historyTime(morning, morning, 3600), "11:05:03");
    // Whether it is today depends on the zone: an hour east, both moments fall on the 23rd.
    EXPECT_EQ(historyTime(lateNight, lateNight + 3600, 0), "Nov 22, 23:30");
    EXPECT_EQ(historyTime(lateNight, lateNight + 3600, 3600), "00:30:00");
    EXPECT_EQ(historyTime(morning - 86400 * 300.0, morning, 0), "Jan 26, 10:05");
}
