#include "Tools/corvex/SessionTree.h"

#include <sstream>

#include "CorvexKit/AgentRules.h"

namespace corvex::cli {

namespace {

std::string joined(const std::vector<std::string>& words) {
    std::string out;
    for (const auto& word : words) out += (out.empty() ? "" : " ") + word;
    return out;
}

std::string shortFolder(const std::string& folder, const std::string& home) {
    if (!home.empty() && home != "/" && folder.rfind(home, 0) == 0 &&
        (folder.size() == home.size() || folder[home.size()] == '/')) {
        return "~" + folder.substr(home.size());
    }
    return folder;
}

std::string programOf(const Pane& pane) { return pane.command ? joined(*pane.command) : "login shell"; }

} // namespace

std::string agentBadge(const Pane& pane) {
    if (!pane.agent) return {};
    return AgentInfo::shortName(pane.agent->kind) + ": " + std::string(shownState(*pane.agent).label);
}

std::string tabLabel(const ModelState& state, const Tab& tab) {
    if (tab.title && !tab.title->empty()) return *tab.title;
    if (const Pane* active = state.pane(tab.activePane)) {
        if (auto title = Pane::displayTitle(active->title, active->cwd); title && !title->empty()) return *title;
        if (active->command && !active->command->empty()) return active->command->front();
    }
    return "tab " + std::to_string(tab.id);
}

std::string sessionTree(const ModelState& state, const std::string& machine, const std::string& home) {
    std::ostringstream out;
    if (state.workspaces.empty()) {
        out << machine << ": no workspaces\n";
        return out.str();
    }
    out << machine << "\n";
    auto mark = [](bool focused) { return focused ? " *" : ""; };
    for (const auto& workspace : state.workspaces) {
        out << "workspace " << workspace.id << " \"" << workspace.name << "\"" << mark(state.focus.workspace == workspace.id)
            << "\n";
        for (const auto& tab : workspace.tabs) {
            out << "  tab " << tab.id << " \"" << tabLabel(state, tab) << "\"" << mark(state.focus.tab == tab.id) << "\n";
            for (uint64_t id : tab.layout.panes()) {
                const Pane* pane = state.pane(id);
                out << "    pane " << id << mark(state.focus.pane == id);
                if (!pane) {
                    out << "\n";
                    continue;
                }
                out << "  " << programOf(*pane);
                if (pane->cwd) out << "  " << shortFolder(*pane->cwd, home);
                out << "  " << pane->cols << "x" << pane->rows;
                if (auto badge = agentBadge(*pane); !badge.empty()) out << "  [" << badge << "]";
                if (pane->exited) out << "  (exited)";
                out << "\n";
            }
        }
    }
    return out.str();
}

} // namespace corvex::cli
