#include "Vellum/TerminalProgramStatus.h"

#include <algorithm>
#include <charconv>

namespace vellum {

namespace {

std::vector<std::string_view> splitFields(std::string_view text, char separator) {
    std::vector<std::string_view> fields;
    size_t start = 0;
    while (true) {
        size_t end = text.find(separator, start);
        fields.push_back(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
        if (end == std::string_view::npos) return fields;
        start = end + 1;
    }
}

std::optional<int> decimal(std::string_view text) {
    int value = 0;
    if (text.empty()) return std::nullopt;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

} // namespace

std::optional<ProgressReport> ProgressReport::parse(std::string_view data) {
    auto fields = splitFields(data, ';');
    if (fields.size() < 2 || fields[0] != "4") return std::nullopt;
    if (fields[1].size() != 1 || fields[1][0] < '0' || fields[1][0] > '4') return std::nullopt;
    ProgressReport report;
    report.state = static_cast<State>(fields[1][0] - '0');
    if (report.state == State::remove) return report;
    if (report.state == State::set) report.progress = 0;
    if (fields.size() >= 3 && !fields[2].empty()) {
        auto value = decimal(fields[2]);
        if (!value) return std::nullopt;
        report.progress = std::clamp(*value, 0, 100);
    }
    return report;
}

std::optional<TerminalProgramStatusState> programStatusStateNamed(std::string_view name) {
    if (name == "starting") return TerminalProgramStatusState::starting;
    if (name == "running") return TerminalProgramStatusState::running;
    if (name == "waiting") return TerminalProgramStatusState::waiting;
    if (name == "done") return TerminalProgramStatusState::done;
    if (name == "error") return TerminalProgramStatusState::error;
    return std::nullopt;
}

std::optional<TerminalProgramStatusKind> programStatusKindNamed(std::string_view name) {
    if (name == "agent") return TerminalProgramStatusKind::agent;
    if (name == "build") return TerminalProgramStatusKind::build;
    if (name == "test") return TerminalProgramStatusKind::test;
    if (name == "task") return TerminalProgramStatusKind::task;
    if (name == "other") return TerminalProgramStatusKind::other;
    return std::nullopt;
}

std::optional<ProgramStatusReport> ProgramStatusReport::parse(std::string_view data) {
    auto fields = splitFields(data, ';');
    ProgramStatusReport report;
    report.id = std::string(fields[0]);
    if (report.id.empty()) return std::nullopt;
    TerminalProgramStatus record;
    record.id = report.id;
    for (size_t i = 1; i < fields.size(); ++i) {
        std::string_view field = fields[i];
        if (field.empty()) continue;
        if (field == "clear") {
            report.clear = true;
            continue;
        }
        size_t equals = field.find('=');
        if (equals == std::string_view::npos) return std::nullopt;
        std::string_view key = field.substr(0, equals), value = field.substr(equals + 1);
        if (key == "state") {
            auto state = programStatusStateNamed(value);
            if (!state) return std::nullopt;
            record.state = *state;
        } else if (key == "kind") {
            auto kind = programStatusKindNamed(value);
            if (!kind) return std::nullopt;
            record.kind = kind;
        } else if (key == "progress") {
            auto progress = decimal(value);
            if (!progress) return std::nullopt;
            record.progress = std::clamp(*progress, 0, 100);
        } else if (key == "app") {
            record.app = std::string(value);
            record.effectiveApp = record.app;
        } else if (key == "title") {
            record.title = std::string(value);
        } else if (key == "message") {
            record.message = std::string(value);
        } else {
            return std::nullopt;
        }
    }
    if (!report.clear) report.record = std::move(record);
    return report;
}

bool TerminalProgramStatusStore::apply(const ProgramStatusReport& report) {
    auto position = std::find(updateOrder.begin(), updateOrder.end(), report.id);
    if (report.clear) {
        if (position == updateOrder.end()) return false;
        updateOrder.erase(position);
        records.erase(report.id);
        return true;
    }
    if (!report.record) return false;
    if (position != updateOrder.end()) updateOrder.erase(position);
    updateOrder.push_back(report.id);
    records[report.id] = *report.record;
    return true;
}

std::vector<TerminalProgramStatus> TerminalProgramStatusStore::orderedRecords() const {
    std::vector<TerminalProgramStatus> out;
    out.reserve(updateOrder.size());
    for (const auto& id : updateOrder) out.push_back(records.at(id));
    return out;
}

void TerminalProgramStatusStore::clearAll() {
    records.clear();
    updateOrder.clear();
}

} // namespace vellum
