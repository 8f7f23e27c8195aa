#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace corvex {

struct CommandListItem {
    enum class ID {
        newTab,
        newWorkspace,
        closeTab,
        closeWorkspace,
        splitRight,
        splitDown,
        claudeHere,
        codexHere,
        resumeClaude,
        rename,
        moveTab,
        openBeside,
        files,
        settings,
        machines,
        toggleSidebar,
        appearanceSystem,
        appearanceLight,
        appearanceDark,
        machineOn,
        machineOff,
        reconnect,
    };
    // After choosing the command the bar asks for a workspace.
    enum class Target { workspace };

    static const std::array<ID, 22> allIDs;
    // The case name, e.g. "newTab".
    static std::string_view rawValue(ID id);
    static std::optional<ID> parseID(std::string_view raw);

    ID id = ID::newTab;
    std::string title;
    std::vector<std::string> keywords;
    std::optional<Target> target;

    bool operator==(const CommandListItem&) const = default;
};

// The selection that commands apply to.
struct CommandContext {
    std::optional<std::string> machine;
    std::optional<std::string> machineName;
    std::optional<uint64_t> workspace;
    std::optional<std::string> workspaceName;
    std::optional<uint64_t> tab;
    std::optional<std::string> tabName;
    bool connected = true;
    bool enabled = true;
    bool isLocal = true;
    bool unreachable = false;
    bool canOpenBeside = false;

    bool operator==(const CommandContext&) const = default;
};

// The commands the bar offers after ">".
struct CommandList {
    // In display order, with titles spelled out for the context.
    static std::vector<CommandListItem> items(const CommandContext& context);
    static std::vector<CommandListItem> items(const CommandContext& context,
                                              const std::set<CommandListItem::ID>& supported);
    // Every query word must prefix a title or keyword word; title-only matches come first.
    static std::vector<CommandListItem> matching(const std::vector<CommandListItem>& items, std::string_view query);
    // The text after a leading ">" (blanks before it allowed), else nothing.
    static std::optional<std::string> commandQuery(std::string_view text);
    // Case- and diacritic-folded words: runs of letters and numbers.
    static std::vector<std::string> words(std::string_view text);
};

} // namespace corvex
