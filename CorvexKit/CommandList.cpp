#include "CorvexKit/CommandList.h"

#include <algorithm>

#include "CorvexKit/FuzzyMatchFolding.h"
#include "Platform/Unicode.h"

namespace corvex {

namespace unicode = platform::unicode;
using ID = CommandListItem::ID;

namespace {

constexpr std::array<std::string_view, 22> rawValues{
    "newTab",        "newWorkspace",     "closeTab",        "closeWorkspace", "splitRight",    "splitDown",
    "claudeHere",    "codexHere",        "resumeClaude",    "rename",         "moveTab",       "openBeside",
    "files",         "settings",         "machines",        "toggleSidebar",  "appearanceSystem",
    "appearanceLight", "appearanceDark", "machineOn",       "machineOff",     "reconnect",
};

std::string quoted(const std::string& name) { return "\u201C" + name + "\u201D"; }

class Builder {
public:
    explicit Builder(const std::set<ID>* supported) : supported_(supported) {}

    void add(ID id, std::string title, std::vector<std::string> keywords,
             std::optional<CommandListItem::Target> target = std::nullopt) {
        if (supported_ && !supported_->contains(id)) return;
        items_.push_back(CommandListItem{id, std::move(title), std::move(keywords), target});
    }

    std::vector<CommandListItem> take() { return std::move(items_); }

private:
    const std::set<ID>* supported_;
    std::vector<CommandListItem> items_;
};

void addSubjectCommands(Builder& list, const CommandContext& context) {
    if (context.machine) {
        list.add(ID::newTab, "New Tab" + (context.workspaceName ? " in " + *context.workspaceName : std::string()),
                 {"terminal", "shell", "open"});
        list.add(ID::newWorkspace,
                 "New Workspace" + (context.machineName ? " on " + *context.machineName : std::string()),
                 {"create", "project"});
    }
    if (context.tab) {
        list.add(ID::splitRight, "Split Right", {"pane", "vertical", "side"});
        list.add(ID::splitDown, "Split Down", {"pane", "horizontal", "below"});
    }
    if (context.workspace) {
        list.add(ID::claudeHere, "Claude Here", {"agent", "claude code", "ai"});
        list.add(ID::codexHere, "Codex Here", {"agent", "openai", "ai"});
        list.add(ID::resumeClaude, "Resume Last Claude in This Folder",
                 {"agent", "continue", "claude code", "session"});
    }
    if (context.tab && context.tabName) {
        const auto name = quoted(*context.tabName);
        list.add(ID::rename, "Rename Tab " + name, {"title", "name"});
        list.add(ID::moveTab, "Move Tab " + name + " to\u2026", {"workspace", "send"},
                 CommandListItem::Target::workspace);
        if (context.canOpenBeside) {
            list.add(ID::openBeside, "Open " + name + " Beside This Pane", {"split", "join", "side by side"});
        }
        list.add(ID::closeTab, "Close Tab " + name, {"quit", "kill", "remove"});
    } else if (context.workspace && context.workspaceName) {
        const auto name = quoted(*context.workspaceName);
        list.add(ID::rename, "Rename Workspace " + name, {"title", "name"});
        list.add(ID::closeWorkspace, "Close Workspace " + name, {"quit", "kill", "remove"});
    }
}

void addAppCommands(Builder& list) {
    list.add(ID::files, "Open Files", {"browser", "transfer", "upload", "download", "finder"});
    list.add(ID::settings, "Open Settings", {"preferences", "options"});
    list.add(ID::machines, "Open Machines", {"hosts", "ssh", "servers", "settings"});
    list.add(ID::toggleSidebar, "Toggle Sidebar", {"hide", "show", "panel"});
    list.add(ID::appearanceSystem, "Appearance: Match System", {"theme", "auto", "mode"});
    list.add(ID::appearanceLight, "Appearance: Light", {"theme", "day", "mode"});
    list.add(ID::appearanceDark, "Appearance: Dark", {"theme", "night", "mode"});
}

void addMachineCommands(Builder& list, const CommandContext& context) {
    if (!context.machineName || context.isLocal) return;
    const auto& name = *context.machineName;
    if (!context.enabled) {
        list.add(ID::machineOn, "Turn " + name + " On", {"enable", "connect", "machine"});
        return;
    }
    list.add(ID::machineOff, "Turn " + name + " Off", {"disable", "disconnect", "machine"});
    if (!context.connected || context.unreachable) {
        list.add(ID::reconnect, "Reconnect to " + name, {"connect", "retry", "ssh"});
    }
}

std::vector<CommandListItem> build(const CommandContext& context, const std::set<ID>* supported) {
    Builder list(supported);
    if (context.connected && context.enabled) addSubjectCommands(list, context);
    addAppCommands(list);
    addMachineCommands(list, context);
    return list.take();
}

bool anyHasPrefix(const std::vector<std::string>& words, const std::string& prefix) {
    return std::any_of(words.begin(), words.end(), [&](const std::string& word) { return word.starts_with(prefix); });
}

} // namespace

const std::array<ID, 22> CommandListItem::allIDs = [] {
    std::array<ID, 22> ids{};
    for (size_t i = 0; i < ids.size(); ++i) ids[i] = ID(i);
    return ids;
}();

std::string_view CommandListItem::rawValue(ID id) { return rawValues[size_t(id)]; }

std::optional<ID> CommandListItem::parseID(std::string_view raw) {
    auto found = std::find(rawValues.begin(), rawValues.end(), raw);
    if (found == rawValues.end()) return std::nullopt;
    return ID(found - rawValues.begin());
}

std::vector<CommandListItem> CommandList::items(const CommandContext& context) { return build(context, nullptr); }

std::vector<CommandListItem> CommandList::items(const CommandContext& context, const std::set<ID>& supported) {
    return build(context, &supported);
}

std::vector<CommandListItem> CommandList::matching(const std::vector<CommandListItem>& items, std::string_view query) {
    const auto queryWords = words(query);
    if (queryWords.empty()) return items;
    struct Kept {
        int keywordOnly;
        const CommandListItem* item;
    };
    std::vector<Kept> kept;
    for (const auto& item : items) {
        const auto titleWords = words(item.title);
        std::vector<std::string> keywordWords;
        for (const auto& keyword : item.keywords) {
            auto more = words(keyword);
            keywordWords.insert(keywordWords.end(), more.begin(), more.end());
        }
        int keywordOnly = 0;
        bool allHit = std::all_of(queryWords.begin(), queryWords.end(), [&](const std::string& word) {
            if (anyHasPrefix(titleWords, word)) return true;
            if (!anyHasPrefix(keywordWords, word)) return false;
            ++keywordOnly;
            return true;
        });
        if (allHit) kept.push_back({keywordOnly, &item});
    }
    std::stable_sort(kept.begin(), kept.end(), [](const Kept& a, const Kept& b) { return a.keywordOnly < b.keywordOnly; });
    std::vector<CommandListItem> result;
    for (const auto& entry : kept) result.push_back(*entry.item);
    return result;
}

std::optional<std::string> CommandList::commandQuery(std::string_view text) {
    size_t start = text.find_first_not_of(' ');
    if (start == std::string_view::npos || text[start] != '>') return std::nullopt;
    return std::string(text.substr(start + 1));
}

std::vector<std::string> CommandList::words(std::string_view text) {
    auto folded = folding::withoutDiacritics(folding::caseFolded(unicode::decodeUtf8(text)));
    std::vector<std::string> result;
    std::u32string current;
    for (auto character : unicode::graphemeClusters(folded)) {
        if (folding::isLetterOrNumber(character[0])) {
            current += character;
        } else if (!current.empty()) {
            result.push_back(unicode::encodeUtf8(current));
            current.clear();
        }
    }
    if (!current.empty()) result.push_back(unicode::encodeUtf8(current));
    return result;
}

} // namespace corvex
