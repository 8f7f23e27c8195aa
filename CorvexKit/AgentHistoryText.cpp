#include "CorvexKit/AgentHistoryText.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "CorvexKit/AgentRules.h"

namespace corvex {

using Event = AgentHistoryEntry::Event;

AgentHistoryLine describe(const AgentHistoryEntry& entry) {
    switch (entry.event()) {
    case Event::gone: return {"Ended", "xmark.circle"};
    case Event::unmute: return {"Unmuted", "bell"};
    case Event::mute: return {"Muted", "bell.slash"};
    case Event::update: return {"Updated", "text.bubble"};
    case Event::attention:
        if (entry.attention == true) return {"Needs you", "bell.fill"};
        return {"Resolved", "checkmark"};
    case Event::state: {
        auto now = stateAppearance(entry.state().value_or(AgentInfo::State::unknown));
        std::string title(now.label);
        if (auto from = entry.from()) title = std::string(stateAppearance(*from).label) + " \u2192 " + title;
        return {title, now.symbol};
    }
    case Event::unknown: break;
    }
    return {entry.eventName, "questionmark.circle"};
}

std::string detail(const AgentHistoryEntry& entry) {
    std::optional<std::string> note;
    if (entry.guess) {
        note = "detected from output";
    } else if (entry.source) {
        note = "from " + *entry.source;
    }
    const std::string message = entry.message.value_or("");
    if (!note) return message;
    if (!message.empty()) return message + " (" + *note + ")";
    (*note)[0] = char(std::toupper(static_cast<unsigned char>((*note)[0])));
    return *note;
}

std::vector<AgentHistoryEntry> displayOrder(const AgentHistory& history) {
    return {history.entries.rbegin(), history.entries.rend()};
}

std::string historySummary(const AgentHistory& history) {
    if (history.entries.empty()) return "Nothing recorded for this pane's agent yet.";
    return std::to_string(history.entries.size()) + " events, newest first. corvexd keeps the last " +
           std::to_string(history.max) + " per pane.";
}

std::string historyFailureSummary(std::string_view error) {
    return "Couldn't load the history: " + std::string(error);
}

std::string historyWindowTitle(const std::optional<std::string>& kind, const std::optional<std::string>& machine) {
    std::string prefix;
    for (const auto* part : {&kind, &machine}) {
        if (!*part || (*part)->empty()) continue;
        if (!prefix.empty()) prefix += " \u00B7 ";
        prefix += **part;
    }
    return prefix.empty() ? "History" : prefix + " \u2014 History";
}

namespace {

std::tm civil(double at, long utcOffset) {
    std::time_t shifted = std::time_t(std::floor(at)) + utcOffset;
    std::tm out{};
    gmtime_r(&shifted, &out);
    return out;
}

long localOffset(double at) {
    std::time_t moment = std::time_t(std::floor(at));
    std::tm local{};
    localtime_r(&moment, &local);
    return local.tm_gmtoff;
}

std::string formatted(const std::tm& moment, const std::tm& today) {
    static const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    char text[32];
    if (moment.tm_year == today.tm_year && moment.tm_yday == today.tm_yday) {
        std::snprintf(text, sizeof text, "%02d:%02d:%02d", moment.tm_hour, moment.tm_min, moment.tm_sec);
    } else {
        std::snprintf(text, sizeof text, "%s %d, %02d:%02d", months[moment.tm_mon], moment.tm_mday, moment.tm_hour,
                      moment.tm_min);
    }
    return text;
}

} // namespace

std::string historyTime(double at, double now, long utcOffset) {
    return formatted(civil(at, utcOffset), civil(now, utcOffset));
}

std::string historyTime(double at, double now) {
    // Each moment in its own offset, so that days compare by the calendar the user sees even
    // across a daylight-saving change.
    return formatted(civil(at, localOffset(at)), civil(now, localOffset(now)));
}

} // namespace corvex
