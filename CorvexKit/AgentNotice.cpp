#include "CorvexKit/AgentNotice.h"

#include <cmath>
#include <vector>

#include "CorvexKit/AgentRules.h"
#include "CorvexKit/FuzzyMatchFolding.h"
#include "Platform/Unicode.h"

namespace corvex {

namespace unicode = platform::unicode;
using State = AgentInfo::State;

namespace {

std::string_view verb(State state) {
    switch (state) {
    case State::starting: return "is starting";
    case State::running: return "is working";
    case State::waiting: return "is waiting";
    case State::done: return "finished";
    case State::error: return "hit an error";
    case State::unknown: break;
    }
    return "changed";
}

std::string joinedNonEmpty(std::initializer_list<std::optional<std::string>> parts) {
    std::string out;
    for (const auto& part : parts) {
        if (!part || part->empty()) continue;
        if (!out.empty()) out += " \u00B7 ";
        out += *part;
    }
    return out;
}

// Words separated by single blanks: inner runs of white space become one blank, and white
// space at either end goes.
std::u32string singleSpaced(std::u32string_view text) {
    std::u32string out;
    bool pendingBlank = false;
    for (char32_t scalar : text) {
        if (folding::isWhitespace(scalar)) {
            pendingBlank = !out.empty();
            continue;
        }
        if (pendingBlank) out.push_back(U' ');
        pendingBlank = false;
        out.push_back(scalar);
    }
    return out;
}

std::optional<std::string> nonEmpty(const std::optional<std::string>& text) {
    return text && !text->empty() ? text : std::nullopt;
}

} // namespace

AgentNotice AgentNotice::make(const Facts& facts) {
    AgentNotice notice;
    const std::string base = AgentInfo::shortName(facts.kind) + " " + std::string(verb(facts.state));
    const auto took = facts.duration ? duration(*facts.duration) : std::nullopt;
    if (!facts.workspace.empty()) {
        notice.title = facts.workspace + " \u00B7 " + base;
        notice.subtitle = joinedNonEmpty({facts.machine, facts.project, took});
    } else {
        notice.title = facts.machine.empty() ? base : base + " on " + facts.machine;
        notice.subtitle = joinedNonEmpty({facts.project, took});
    }
    auto body = result(facts.state, facts.message, facts.tool, facts.toolInput);
    if (!body) body = nonEmpty(facts.fallback);
    notice.body = clip(body.value_or(""), bodyLimit);
    return notice;
}

AgentNotice AgentNotice::make(const AgentInfo& info, std::string_view machine, std::string_view workspace,
                              const std::optional<std::string>& cwd) {
    Facts facts;
    facts.kind = info.kind;
    facts.state = info.state;
    facts.machine = machine;
    facts.workspace = workspace;
    if (cwd) facts.project = project(*cwd);
    facts.duration = turnDuration(info);
    facts.message = info.message;
    if (const auto& requests = pendingRequests(info); !requests.empty()) {
        facts.tool = requests.front().tool;
        facts.toolInput = requests.front().summary;
    } else {
        facts.tool = info.tool;
        facts.toolInput = info.toolInput;
    }
    facts.fallback = info.prompt;
    return make(facts);
}

std::optional<std::string> AgentNotice::project(std::string_view cwd) {
    std::optional<std::string_view> last;
    size_t start = 0;
    while (start <= cwd.size()) {
        size_t end = cwd.find('/', start);
        if (end == std::string_view::npos) end = cwd.size();
        if (end > start) last = cwd.substr(start, end - start);
        start = end + 1;
    }
    if (!last || *last == "~") return std::nullopt;
    return std::string(*last);
}

std::optional<std::string> AgentNotice::duration(double seconds) {
    if (!std::isfinite(seconds)) return std::nullopt;
    const double rounded = std::round(seconds);
    if (rounded < 1) return std::nullopt;
    if (rounded < 60) return std::to_string(int64_t(rounded)) + "s";
    if (rounded < 3600) return std::to_string(int64_t(rounded) / 60) + "m";
    const int64_t whole = int64_t(rounded);
    const int64_t hours = whole / 3600;
    const int64_t remainder = whole % 3600;
    if (remainder < 60) return std::to_string(hours) + "h";
    return std::to_string(hours) + "h " + std::to_string(remainder / 60) + "m";
}

std::optional<std::string> AgentNotice::result(State state, const std::optional<std::string>& message,
                                               const std::optional<std::string>& tool,
                                               const std::optional<std::string>& toolInput) {
    const auto m = nonEmpty(message);
    if (state == State::waiting && tool && !tool->empty()) {
        bool asksPermission = true;
        if (m) {
            auto lower = unicode::encodeUtf8(folding::lowercased(unicode::decodeUtf8(*m)));
            asksPermission = lower.find("permission") != std::string::npos;
        }
        if (asksPermission) {
            std::string input;
            if (toolInput) {
                input = unicode::encodeUtf8(singleSpaced(unicode::decodeUtf8(*toolInput)));
            }
            if (!input.empty()) return "Allow " + *tool + ": " + input + "?";
            return "Allow " + *tool + "?";
        }
    }
    return m;
}

std::string AgentNotice::clip(std::string_view text, size_t limit) {
    const auto collapsed = singleSpaced(unicode::decodeUtf8(text));
    const auto characters = unicode::graphemeClusters(collapsed);
    if (characters.size() <= limit) return unicode::encodeUtf8(collapsed);
    if (limit == 0) return {};

    std::u32string kept;
    std::optional<size_t> lastBlank;
    for (size_t i = 0; i + 1 < limit; ++i) {
        if (characters[i] == U" ") lastBlank = kept.size();
        kept += characters[i];
    }
    if (lastBlank) kept.resize(*lastBlank);
    auto trimmable = [](char32_t scalar) { return folding::isWhitespace(scalar) || folding::isPunctuation(scalar); };
    size_t begin = 0;
    while (begin < kept.size() && trimmable(kept[begin])) ++begin;
    size_t end = kept.size();
    while (end > begin && trimmable(kept[end - 1])) --end;
    return unicode::encodeUtf8(std::u32string_view(kept).substr(begin, end - begin)) + "\u2026";
}

} // namespace corvex
