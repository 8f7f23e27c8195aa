#include "corvexd/Hooks.h"

#include <nlohmann/json.hpp>

#include "CorvexKit/RemoteSetup.h"

namespace corvexd::hooks {

using Json = nlohmann::ordered_json;

namespace {

bool isOurs(const std::string& command) {
    return command.find(statusMarker) != std::string::npos || command.find(notifyMarker) != std::string::npos;
}

bool takesMatcher(const std::string& event) {
    return event == "PreToolUse" || event == "PostToolUse" || event == "PermissionRequest";
}

// A permission request waits for a person; every other event returns at once.
int timeoutFor(const std::string& event) { return event == "PermissionRequest" ? 600 : 10; }

Json parseSettings(const std::optional<std::string>& settings) {
    if (!settings || settings->find_first_not_of(" \t\r\n") == std::string::npos) return Json::object();
    Json parsed;
    try {
        parsed = Json::parse(*settings);
    } catch (const Json::parse_error& error) {
        throw HookError("~/.claude/settings.json is not valid JSON (" + std::string(error.what()) +
                        "); fix it first, nothing was changed");
    }
    if (!parsed.is_object()) throw HookError("~/.claude/settings.json is not a JSON object; nothing was changed");
    if (parsed.contains("hooks") && !parsed["hooks"].is_object()) {
        throw HookError("\"hooks\" in ~/.claude/settings.json is not an object; nothing was changed");
    }
    return parsed;
}

std::string render(const Json& settings) { return settings.dump(2) + "\n"; }

// Drops our commands from every event; entries and events left empty go too.
void removeOurs(Json& settings) {
    if (!settings.contains("hooks")) return;
    auto& hooks = settings["hooks"];
    std::vector<std::string> emptied;
    for (auto& [event, entries] : hooks.items()) {
        if (!entries.is_array()) continue;
        Json kept = Json::array();
        bool changed = false;
        for (auto& entry : entries) {
            if (entry.is_object() && entry.contains("hooks") && entry["hooks"].is_array()) {
                Json commands = Json::array();
                for (auto& item : entry["hooks"]) {
                    bool ours = item.is_object() && item.contains("command") && item["command"].is_string() &&
                                isOurs(item["command"].get<std::string>());
                    if (ours) changed = true;
                    else commands.push_back(item);
                }
                if (commands.empty() && changed) continue;
                entry["hooks"] = commands;
            }
            kept.push_back(entry);
        }
        if (!changed) continue;
        entries = kept;
        if (entries.empty()) emptied.push_back(event);
    }
    for (const auto& event : emptied) hooks.erase(event);
    if (hooks.empty()) settings.erase("hooks");
}

Json ourEntry(const std::string& event, const std::string& corvexd) {
    Json entry = Json::object();
    if (takesMatcher(event)) entry["matcher"] = "*";
    Json command = {{"type", "command"}, {"command", claudeHookCommand(corvexd)}, {"timeout", timeoutFor(event)}};
    entry["hooks"] = Json::array({command});
    return entry;
}

} // namespace

const char* wireName(HookState state) {
    switch (state) {
    case HookState::installed: return "installed";
    case HookState::outdated: return "outdated";
    case HookState::missing: return "missing";
    }
    return "missing";
}

const std::vector<std::string>& claudeEvents() {
    static const std::vector<std::string> events{"SessionStart", "UserPromptSubmit", "PreToolUse",  "PostToolUse",
                                                 "Notification", "PermissionRequest", "Stop",       "SessionEnd"};
    return events;
}

std::string claudeHookCommand(const std::string& corvexd) {
    // Whatever happens to corvexd, the agent's own step goes on.
    return corvex::RemoteSetup::quote(corvexd) + " " + statusMarker + " claude 2>/dev/null || true";
}

std::string withClaudeHooks(const std::optional<std::string>& settings, const std::string& corvexd) {
    Json parsed = parseSettings(settings);
    removeOurs(parsed);
    if (!parsed.contains("hooks")) parsed["hooks"] = Json::object();
    auto& hooks = parsed["hooks"];
    for (const auto& event : claudeEvents()) {
        if (!hooks.contains(event) || !hooks[event].is_array()) hooks[event] = Json::array();
        hooks[event].push_back(ourEntry(event, corvexd));
    }
    return render(parsed);
}

std::string withoutClaudeHooks(const std::string& settings) {
    Json parsed = parseSettings(settings);
    removeOurs(parsed);
    return render(parsed);
}

HookState claudeHookState(const std::optional<std::string>& settings, const std::string& corvexd) {
    Json parsed;
    try {
        parsed = parseSettings(settings);
    } catch (const HookError&) {
        return HookState::missing;
    }
    Json without = parsed;
    removeOurs(without);
    if (without == parsed) return HookState::missing;
    return Json::parse(withClaudeHooks(settings, corvexd)) == parsed ? HookState::installed : HookState::outdated;
}

std::vector<std::string> claudeHookPreview(const std::optional<std::string>& settings, const std::string& corvexd) {
    if (claudeHookState(settings, corvexd) == HookState::installed) return {};
    parseSettings(settings); // refuses a file it couldn't edit
    std::vector<std::string> lines;
    for (const auto& event : claudeEvents()) lines.push_back(event + ": " + claudeHookCommand(corvexd));
    return lines;
}

} // namespace corvexd::hooks
