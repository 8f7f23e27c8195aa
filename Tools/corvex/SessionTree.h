#pragma once

#include <string>

#include "CorvexKit/SessionModel.h"

namespace corvex::cli {

// What a tab is called: the user's title, else its active pane's, else its program.
std::string tabLabel(const ModelState& state, const Tab& tab);
// An agent as a short badge, such as "Claude: waiting"; empty without one.
std::string agentBadge(const Pane& pane);

// The tree of workspaces, tabs and panes, one line each, for people to read: identifiers,
// programs, folders (the home folder as "~"), sizes and agents. Focus is marked "*".
std::string sessionTree(const ModelState& state, const std::string& machine, const std::string& home);

} // namespace corvex::cli
