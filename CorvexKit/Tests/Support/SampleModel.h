#pragma once

#include "CorvexKit/SessionModel.h"

namespace corvex::testkit {

inline Pane samplePane(uint64_t id) {
    Pane pane;
    pane.id = id;
    pane.cols = 80;
    pane.rows = 24;
    return pane;
}

// Workspace 1 "One": tab 2 (pane 3) and tab 4 (panes 5 | 6 in split 7), tab 2 active.
// Workspace 8 "Two": tab 9 (pane 10). Workspace 11 "Empty": no tabs. Focus on 1/2/3.
inline ModelState sampleState(uint64_t rev = 1) {
    ModelState state;
    state.rev = rev;
    state.focus = Focus{1, 2, 3};
    state.workspaces = {
        Workspace{1, "One",
                  {Tab{2, std::nullopt, 3, Layout::leaf(3)},
                   Tab{4, std::nullopt, 5, Layout::split(7, Axis::horizontal, 0.5, Layout::leaf(5), Layout::leaf(6))}},
                  2},
        Workspace{8, "Two", {Tab{9, std::nullopt, 10, Layout::leaf(10)}}, 9},
        Workspace{11, "Empty", {}, std::nullopt},
    };
    state.panes = {samplePane(3), samplePane(5), samplePane(6), samplePane(10)};
    return state;
}

// A workspace's tabs by identifier, in their order.
inline std::vector<uint64_t> tabIDs(const Workspace& workspace) {
    std::vector<uint64_t> ids;
    for (const auto& tab : workspace.tabs) ids.push_back(tab.id);
    return ids;
}

} // namespace corvex::testkit
