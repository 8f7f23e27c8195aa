#include "CorvexSession/AgentScreenRules.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <csignal>
#include <cstring>
#include <sys/wait.h>

namespace corvex {

namespace {

// How far above the last written line a question may stand: a menu of choices sits below it.
constexpr size_t questionReach = 8;

std::string trimmed(const std::string& text) {
    auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

// Box drawing and choice markers around a line's words.
std::string words(const std::string& line) {
    std::string text = trimmed(line);
    for (const char* frame : {"│", "┃", "|", "❯", ">", "›", "●", "*"}) {
        std::string mark(frame);
        while (text.starts_with(mark)) text = trimmed(text.substr(mark.size()));
        while (text.ends_with(mark)) text = trimmed(text.substr(0, text.size() - mark.size()));
    }
    return text;
}

bool asks(const std::string& line) {
    auto text = lowered(words(line));
    if (text.empty()) return false;
    if (text.back() == '?') return true;
    static const std::array<const char*, 7> phrases{"(y/n)", "[y/n]", "do you want", "allow ", "press enter",
                                                    "1. yes", "approve"};
    return std::any_of(phrases.begin(), phrases.end(), [&](const char* p) { return text.find(p) != std::string::npos; });
}

// How far above the shell's prompt an agent's last words may stand.
constexpr size_t lastWordsReach = 4;

bool reportsFailure(const std::string& line) {
    auto text = lowered(words(line));
    for (const char* opening : {"error", "fatal", "panic", "failed", "uncaught", "unhandled"}) {
        if (text.starts_with(opening)) return true;
    }
    return text.find(" error:") != std::string::npos;
}

std::string signalText(int signal) {
    const char* name = ::strsignal(signal);
    return "killed by signal " + std::to_string(signal) + (name ? std::string(" (") + name + ")" : std::string());
}

} // namespace

ScreenReading readAgentExit(std::optional<int> waitStatus, const std::vector<std::string>& lines) {
    using State = AgentInfo::State;
    if (waitStatus) {
        int status = *waitStatus;
        if (WIFSIGNALED(status)) return {State::error, true, signalText(WTERMSIG(status))};
        if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
            return {State::error, true, "exited with status " + std::to_string(WEXITSTATUS(status))};
        }
        return {State::done, true, std::nullopt};
    }
    size_t last = lines.size();
    while (last > 0 && trimmed(lines[last - 1]).empty()) --last;
    if (last > 0) --last; // the shell's prompt
    size_t first = last > lastWordsReach ? last - lastWordsReach : 0;
    for (size_t row = last; row > first; --row) {
        if (reportsFailure(lines[row - 1])) return {State::error, true, words(lines[row - 1])};
    }
    return {State::done, true, std::nullopt};
}

ScreenReading readAgentScreen(const std::vector<std::string>& lines, bool outputStreaming) {
    if (outputStreaming) return {AgentInfo::State::running, false, std::nullopt};
    size_t last = lines.size();
    while (last > 0 && trimmed(lines[last - 1]).empty()) --last;
    size_t first = last > questionReach ? last - questionReach : 0;
    // The topmost asking line is the question; the choices below it ask too.
    for (size_t row = first; row < last; ++row) {
        if (asks(lines[row])) return {AgentInfo::State::waiting, true, words(lines[row])};
    }
    return {AgentInfo::State::waiting, false, std::nullopt};
}

AgentInfo guessedAgent(const std::optional<AgentInfo>& current, const std::string& kind, const ScreenReading& reading,
                       double now) {
    AgentInfo agent = current.value_or(AgentInfo{});
    bool changed = !current || current->state != reading.state || current->message != reading.message;
    agent.kind = kind;
    agent.source = std::nullopt;
    if (changed) {
        agent.since = now;
        agent.attention = reading.attention;
    }
    agent.state = reading.state;
    agent.message = reading.message;
    return agent;
}

} // namespace corvex
