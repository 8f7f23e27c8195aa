#include "CorvexKit/WindowModel.h"

#include "CorvexKit/AgentEntry.h"

namespace corvex {

std::vector<SidebarWorkspace> sidebarWorkspaces(const ModelStore& store, bool focusedMachine) {
    const ModelState& state = store.state();
    const Workspace* focusedWorkspace = focusedMachine ? store.focusedWorkspace() : nullptr;
    const Tab* focusedTab = focusedMachine ? store.focusedTab() : nullptr;
    std::vector<SidebarWorkspace> rows;
    for (const Workspace& workspace : state.workspaces) {
        SidebarWorkspace row{workspace.id, workspace.name, focusedWorkspace && focusedWorkspace->id == workspace.id,
                             std::nullopt, {}};
        std::vector<uint64_t> allPanes;
        for (const Tab& tab : workspace.tabs) {
            std::vector<uint64_t> panes = tab.layout.panes();
            allPanes.insert(allPanes.end(), panes.begin(), panes.end());
            row.tabs.push_back({tab.id, store.displayTitle(tab), row.focused && focusedTab && focusedTab->id == tab.id,
                                agentBadge(state, panes)});
        }
        row.badge = agentBadge(state, allPanes);
        rows.push_back(std::move(row));
    }
    return rows;
}

std::vector<TabBarItem> tabBarItems(const ModelStore& store, const std::optional<uint64_t>& maximizedTab) {
    std::vector<TabBarItem> items;
    const Workspace* workspace = store.focusedWorkspace();
    if (!workspace) return items;
    const Tab* focused = store.focusedTab();
    for (const Tab& tab : workspace->tabs) {
        items.push_back({tab.id, store.displayTitle(tab), tab.title && !tab.title->empty(),
                         focused && focused->id == tab.id, maximizedTab == tab.id,
                         agentBadge(store.state(), tab.layout.panes())});
    }
    return items;
}

EmptyState emptyState(const ModelStore& store, const std::string& machineName, const std::string& connectionTitle) {
    if (!store.isConnected() && !store.isSaved() && store.state().workspaces.empty())
        return {EmptyState::Kind::message, connectionTitle, "", ""};
    const Workspace* workspace = store.focusedWorkspace();
    if (!workspace)
        return {EmptyState::Kind::noWorkspaces, machineName, "No workspaces on this machine yet.",
                "New Workspace (Ctrl+Shift+N)"};
    if (workspace->tabs.empty())
        return {EmptyState::Kind::noTabs, workspace->name, "This workspace has no tabs open.",
                "New Tab (Ctrl+Shift+T)"};
    return {};
}

std::string windowTitle(const ModelStore& store, const std::optional<std::string>& remoteMachine,
                        const std::string& appName) {
    const Workspace* workspace = store.focusedWorkspace();
    if (!workspace) return appName;
    std::string place = workspace->name;
    if (remoteMachine) place += " on " + *remoteMachine;
    const Tab* tab = store.focusedTab();
    if (!tab) return place;
    return store.displayTitle(*tab) + " — " + place;
}

} // namespace corvex
