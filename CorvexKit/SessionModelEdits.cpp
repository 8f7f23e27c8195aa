#include <algorithm>

#include "CorvexKit/SessionModel.h"

namespace corvex {

namespace {

struct TabPlace {
    size_t workspace = 0;
    size_t tab = 0;
};

std::optional<TabPlace> placeOf(const ModelState& state, const auto& holds) {
    for (size_t w = 0; w < state.workspaces.size(); ++w) {
        const auto& tabs = state.workspaces[w].tabs;
        for (size_t t = 0; t < tabs.size(); ++t) {
            if (holds(tabs[t])) return TabPlace{w, t};
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<uint64_t> successorTab(const std::vector<Tab>& tabs, size_t leaving) {
    if (tabs.size() <= 1 || leaving >= tabs.size()) return std::nullopt;
    return tabs[leaving > 0 ? leaving - 1 : 1].id;
}

bool ModelState::removeTab(uint64_t tab) {
    auto place = placeOf(*this, [tab](const Tab& t) { return t.id == tab; });
    if (!place) return false;
    auto& workspace = workspaces[place->workspace];
    if (workspace.activeTab == tab) workspace.activeTab = successorTab(workspace.tabs, place->tab);
    workspace.tabs.erase(workspace.tabs.begin() + static_cast<std::ptrdiff_t>(place->tab));
    return true;
}

void ModelState::removePaneFromTabs(uint64_t pane) {
    auto place = placeOf(*this, [pane](const Tab& t) { return t.layout.contains(pane); });
    if (!place) return;
    auto& tab = workspaces[place->workspace].tabs[place->tab];
    auto remaining = tab.layout.removing(pane);
    if (!remaining) {
        // A focused tab that empties hands the focus on as a closed one does.
        if (focus.tab == tab.id) workspaces[place->workspace].activeTab = tab.id;
        removeTab(tab.id);
        return;
    }
    if (tab.activePane == pane) {
        auto sibling = tab.layout.sibling(pane);
        auto next = sibling ? sibling->firstPane() : std::nullopt;
        tab.activePane = next ? *next : remaining->firstPane().value_or(0);
    }
    tab.layout = *remaining;
}

void ModelState::repairFocus() {
    const Workspace* held = workspace(focus.workspace);
    if (!held && !workspaces.empty()) held = &workspaces.front();
    if (!held) {
        focus = Focus{};
        return;
    }
    const Tab* tab = focus.tab ? held->tab(*focus.tab) : nullptr;
    if (!tab && held->activeTab) tab = held->tab(*held->activeTab);
    if (!tab && !held->tabs.empty()) tab = &held->tabs.front();
    if (!tab) {
        focus = Focus{held->id, std::nullopt, std::nullopt};
        return;
    }
    uint64_t pane = focus.pane && tab->layout.contains(*focus.pane) ? *focus.pane : tab->activePane;
    focus = Focus{held->id, tab->id, pane};
}

void ModelState::settleActiveTabs() {
    for (auto& each : workspaces) {
        if (focus.workspace == each.id) {
            each.activeTab = focus.tab;
        } else if (!each.activeTab || !each.tab(*each.activeTab)) {
            each.activeTab = each.tabs.empty() ? std::nullopt : std::optional<uint64_t>(each.tabs.front().id);
        }
    }
}

} // namespace corvex
