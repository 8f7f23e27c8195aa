#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vellum {

// OSC 9;4: a progress bar in the host's tab or dock.
struct ProgressReport {
    enum class State : uint8_t { remove = 0, set = 1, error = 2, indeterminate = 3, pause = 4 };

    State state = State::remove;
    std::optional<int> progress; // 0 to 100

    // "4;state[;progress]"; nothing when the text is not a progress report.
    static std::optional<ProgressReport> parse(std::string_view data);

    bool operator==(const ProgressReport&) const = default;
};

enum class TerminalProgramStatusState : uint8_t { starting, running, waiting, done, error };
enum class TerminalProgramStatusKind : uint8_t { agent, build, test, task, other };

std::optional<TerminalProgramStatusState> programStatusStateNamed(std::string_view name);
std::optional<TerminalProgramStatusKind> programStatusKindNamed(std::string_view name);

// What a program running in the terminal says about itself through OSC 7501.
struct TerminalProgramStatus {
    std::string id;
    TerminalProgramStatusState state = TerminalProgramStatusState::running;
    std::optional<TerminalProgramStatusKind> kind;
    std::optional<int> progress;
    std::optional<std::string> app;
    std::optional<std::string> effectiveApp;
    std::optional<std::string> title;
    std::optional<std::string> message;

    bool operator==(const TerminalProgramStatus&) const = default;
};

// One OSC 7501 body: "id;key=value;..." sets a record, "id;clear" removes it.
struct ProgramStatusReport {
    std::string id;
    bool clear = false;
    std::optional<TerminalProgramStatus> record;

    // Nothing for an empty id, an unknown key or a value that does not read.
    static std::optional<ProgramStatusReport> parse(std::string_view data);
};

// The records of one terminal, in the order they were last updated.
class TerminalProgramStatusStore {
public:
    // Gives whether anything changed.
    bool apply(const ProgramStatusReport& report);
    std::vector<TerminalProgramStatus> orderedRecords() const;
    void clearAll();
    bool empty() const { return records.empty(); }

    std::map<std::string, TerminalProgramStatus> records;
    std::vector<std::string> updateOrder;
};

} // namespace vellum
