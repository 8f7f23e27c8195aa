#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

// The status hooks that make coding agents report to the daemon of the pane they run in: the
// edits of Claude Code's settings and Codex's config, as pure functions of the files' text.
namespace corvexd::hooks {

// A file the edits refuse to touch, with the reason.
struct HookError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class HookState { installed, outdated, missing };
const char* wireName(HookState state);

// What every hook command holds, so that ours are found again among other software's.
inline constexpr const char* statusMarker = "corvex-agent-status";
inline constexpr const char* notifyMarker = "corvex-notify";

// Claude Code: hooks in ~/.claude/settings.json, one command for each event it reports.
const std::vector<std::string>& claudeEvents();
std::string claudeHookCommand(const std::string& corvexd);
// The settings with our hooks in place of any older ones of ours; other keys keep their
// order and values. Absent settings mean a missing file. Raises HookError on a file that
// isn't a JSON object.
std::string withClaudeHooks(const std::optional<std::string>& settings, const std::string& corvexd);
std::string withoutClaudeHooks(const std::string& settings);
HookState claudeHookState(const std::optional<std::string>& settings, const std::string& corvexd);
// One line per event that installing would add or change: "<Event>: <command>".
std::vector<std::string> claudeHookPreview(const std::optional<std::string>& settings, const std::string& corvexd);

// Codex: the top-level `notify` of ~/.codex/config.toml, which runs ours and then the one
// that was there before.
std::vector<std::string> codexNotifyCommand(const std::string& corvexd, const std::vector<std::string>& chained);
std::string codexNotifyLine(const std::vector<std::string>& command);
// The words of the top-level `notify` array, absent when there is none. Raises HookError
// when it can't be read.
std::optional<std::vector<std::string>> codexNotify(const std::string& config);
std::string withCodexNotify(const std::optional<std::string>& config, const std::string& corvexd);
std::string withoutCodexNotify(const std::string& config);
HookState codexHookState(const std::optional<std::string>& config, const std::string& corvexd);

} // namespace corvexd::hooks
