// The parts of the session engine that read or set a pane's terminal. The terminal's lock and
// the core's are never held together: the process is taken out under the core's lock and
// visited after it is let go.

#include <algorithm>

#include "CorvexKit/Frame.h"
#include "CorvexSession/PaneSearch.h"
#include "CorvexSession/SessionCore.h"
#include "CorvexSession/SessionCoreBatch.h"
#include "Vellum/Terminal.h"
#include "Vellum/TerminalSnapshotStream.h"

namespace corvex {

namespace {

// Room for a snapshot's bytes in one frame, after its header.
constexpr size_t snapshotLimit = maxFramePayload - 20;

vellum::Color color(RGB rgb) { return vellum::Color::fromBytes(uint8_t(rgb >> 16), uint8_t(rgb >> 8), uint8_t(rgb)); }

void applyColors(vellum::Terminal& terminal, const TerminalColors& colors) {
    terminal.setForegroundColor(color(colors.foreground));
    terminal.setBackgroundColor(color(colors.background));
    if (colors.cursor) terminal.setCursorColorValue(color(*colors.cursor));
    if (colors.ansi) {
        for (size_t i = 0; i < colors.ansi->size() && i < terminal.ansiColors.size(); ++i) {
            terminal.ansiColors[i] = color((*colors.ansi)[i]);
        }
    }
}

} // namespace

std::shared_ptr<PaneProcess> SessionCore::process(uint64_t pane) const {
    std::lock_guard guard(lock_);
    auto found = panes_.find(pane);
    return found == panes_.end() ? nullptr : found->second.process;
}

void SessionCore::withPaneTerminal(uint64_t pane,
                                   const std::function<void(vellum::Terminal&, uint64_t parsed)>& visit) {
    auto held = process(pane);
    if (!held) throw BackendError("not_found", "no pane " + std::to_string(pane));
    if (!held->hasTerminal()) throw BackendError("unknown_method", "pane " + std::to_string(pane) + " has no terminal");
    held->withTerminal([&](vellum::Terminal& terminal) { visit(terminal, held->parsedBytes()); });
}

PaneText SessionCore::paneText(uint64_t pane) {
    PaneText text;
    withPaneTerminal(pane, [&](vellum::Terminal& terminal, uint64_t parsed) {
        for (int row = 0; row < terminal.rows(); ++row) text.lines.push_back(terminal.lineText(row));
        text.cursorCol = std::min(terminal.buffer().x, terminal.cols() - 1);
        text.cursorRow = terminal.buffer().y;
        text.cols = terminal.cols();
        text.rows = terminal.rows();
        text.seq = parsed;
    });
    return text;
}

PaneSearchResult SessionCore::searchPane(uint64_t pane, const std::string& query, const PaneSearchOptions& options) {
    std::optional<uint64_t> begun; // the position of the first slice's screen
    auto access = [&](const std::function<void(vellum::Terminal&)>& visit) {
        withPaneTerminal(pane, [&](vellum::Terminal& terminal, uint64_t parsed) {
            if (!begun) begun = parsed;
            visit(terminal);
        });
    };
    PaneSearchResult result = searchTerminal(access, query, options);
    result.seq = begun.value_or(0);
    return result;
}

void SessionCore::setTerminalColors(const std::optional<TerminalColors>& colors) {
    std::vector<uint64_t> panes;
    {
        std::lock_guard guard(lock_);
        if (!colors) return;
        colors_ = colors;
        for (const auto& [id, entry] : panes_) panes.push_back(id);
    }
    for (uint64_t pane : panes) paint(pane);
}

void SessionCore::paint(uint64_t pane) {
    std::optional<TerminalColors> colors;
    {
        std::lock_guard guard(lock_);
        colors = colors_;
    }
    auto held = process(pane);
    if (!colors || !held || !held->hasTerminal()) return;
    held->withTerminal([&](vellum::Terminal& terminal) { applyColors(terminal, *colors); });
}

std::vector<uint64_t> SessionCore::setScrollbackLines(int lines) {
    std::vector<std::pair<uint64_t, std::shared_ptr<PaneProcess>>> processes;
    {
        std::lock_guard guard(lock_);
        scrollbackLines_ = lines;
        for (const auto& [id, entry] : panes_) processes.emplace_back(id, entry.process);
    }
    std::vector<uint64_t> applied;
    for (const auto& [id, held] : processes) {
        if (!held || !held->hasTerminal()) continue;
        held->withTerminal([&](vellum::Terminal& terminal) { terminal.setScrollback(lines); });
        applied.push_back(id);
    }
    return applied;
}

Subscription SessionCore::subscribeFromTerminal(uint64_t pane, int scrollback, const Listener& first) {
    auto held = process(pane);
    if (!held) throw BackendError("not_found", "no pane " + std::to_string(pane));
    std::string bytes;
    uint64_t parsed = 0;
    int cols = 0, rows = 0;
    held->withTerminal([&](vellum::Terminal& terminal) {
        bytes = vellum::snapshotStream(terminal, {std::max(scrollback, 0), snapshotLimit});
        parsed = held->parsedBytes();
        cols = terminal.cols();
        rows = terminal.rows();
    });
    Subscription subscription{Subscription::Mode::snapshot, parsed, cols, rows};
    std::vector<SessionEvent> opening;
    {
        Batch batch(*this);
        auto& entry = record(pane);
        entry.subscribed = true;
        opening.push_back(SessionEvent::Subscribed{pane, subscription});
        opening.push_back(SessionEvent::Snapshot{pane, parsed, cols, rows, Bytes(bytes.begin(), bytes.end())});
        // Output the core counted after the snapshot was taken, which a consumer that only
        // now subscribed hasn't seen.
        if (entry.output.seq() > parsed) opening.push_back(SessionEvent::Output{pane, parsed, entry.output.bytesFrom(parsed)});
        // Under the lock, so that nothing the pane prints later can come before them.
        for (auto& event : opening) {
            if (first) first(event);
            else batch.push(std::move(event));
        }
    }
    return subscription;
}

} // namespace corvex
