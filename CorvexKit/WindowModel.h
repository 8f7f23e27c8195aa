#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "CorvexKit/AgentRules.h"
#include "CorvexKit/MachineConnection.h"
#include "CorvexKit/ModelStore.h"

namespace corvex {

// What the window shows, decided from the stores alone so the views only draw it.

struct SidebarTab {
    uint64_t id = 0;
    std::string title;
    bool focused = false;
    std::optional<AgentColor> badge;

    bool operator==(const SidebarTab&) const = default;
};

struct SidebarWorkspace {
    uint64_t id = 0;
    std::string name;
    bool focused = false;
    std::optional<AgentColor> badge;
    std::vector<SidebarTab> tabs;

    bool operator==(const SidebarWorkspace&) const = default;
};

struct SidebarGroup {
    std::string machine; // key: "local" or the machine's id
    std::string label;
    bool isLocal = true;
    bool focused = false;
    SidebarStatus status;
    std::vector<SidebarWorkspace> workspaces;

    bool operator==(const SidebarGroup&) const = default;
};

// One machine's workspaces as the sidebar lists them; `focused` marks the shown machine,
// whose focused workspace and tab are marked in turn.
std::vector<SidebarWorkspace> sidebarWorkspaces(const ModelStore& store, bool focusedMachine);

struct TabBarItem {
    uint64_t id = 0;
    std::string title;
    bool custom = false; // the user named it
    bool focused = false;
    bool maximized = false;
    std::optional<AgentColor> badge;

    bool operator==(const TabBarItem&) const = default;
};

std::vector<TabBarItem> tabBarItems(const ModelStore& store, const std::optional<uint64_t>& maximizedTab);

// What fills the pane area when no pane does.
struct EmptyState {
    enum class Kind { none, message, noWorkspaces, noTabs };
    Kind kind = Kind::none;
    std::string title;   // the message, the machine's or the workspace's name
    std::string detail;  // for the two empty kinds
    std::string button;

    bool operator==(const EmptyState&) const = default;
};

EmptyState emptyState(const ModelStore& store, const std::string& machineName, const std::string& connectionTitle);

// "Corvex" with no workspace; otherwise "<tab> — <workspace>", with " on <machine>" after a
// remote machine's workspace.
std::string windowTitle(const ModelStore& store, const std::optional<std::string>& remoteMachine,
                        const std::string& appName = "Corvex");

} // namespace corvex
