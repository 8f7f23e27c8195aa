#pragma once

// Only codec translation units include this header: it brings in the JSON library.

#include <nlohmann/json.hpp>

#include "CorvexKit/ModelStoreCache.h"
#include "CorvexKit/SessionBackend.h"
#include "CorvexKit/SessionCodec.h"
#include "CorvexKit/SessionModel.h"

namespace corvex {

nlohmann::json toJSON(const ModelState& value);
nlohmann::json toJSON(const Focus& value);
nlohmann::json toJSON(const Workspace& value);
nlohmann::json toJSON(const Tab& value);
nlohmann::json toJSON(const Layout& value);
nlohmann::json toJSON(const Pane& value);
nlohmann::json toJSON(const PaneExit& value);
nlohmann::json toJSON(const PaneRestore& value);
nlohmann::json toJSON(const PaneGit& value);
nlohmann::json toJSON(const Worktree& value);
nlohmann::json toJSON(const PullRequest& value);
nlohmann::json toJSON(const AgentInfo& value);
nlohmann::json toJSON(const PermissionRequest& value);
nlohmann::json toJSON(const Hello& value);
nlohmann::json toJSON(const Hello::Machine& value);
nlohmann::json toJSON(const Hello::Holder& value);
nlohmann::json toJSON(const Size& value);
nlohmann::json toJSON(const SpawnOptions& value);
nlohmann::json toJSON(const CreatedWorkspace& value);
nlohmann::json toJSON(const CreatedTab& value);
nlohmann::json toJSON(const CreatedSplit& value);
nlohmann::json toJSON(const Subscription& value);
nlohmann::json toJSON(const PaneText& value);
nlohmann::json toJSON(const TerminalColors& value);
nlohmann::json toJSON(const DaemonSettings& value);
nlohmann::json toJSON(const DaemonSettings::Limits& value);
nlohmann::json toJSON(const DaemonSettings::Range& value);
// The params of a settings change: `scrollback_lines` only when it is present.
nlohmann::json toJSON(const DaemonSettings::Change& value);
nlohmann::json toJSON(const DaemonService& value);
nlohmann::json toJSON(const CellPosition& value);
nlohmann::json toJSON(const PaneSearchMatch& value);
nlohmann::json toJSON(const PaneSearchResult& value);
nlohmann::json toJSON(const AgentHistoryEntry& value);
nlohmann::json toJSON(const AgentHistory& value);
nlohmann::json toJSON(const PushRegistration& value);
nlohmann::json toJSON(const PushDevice& value);
nlohmann::json toJSON(const PushActivity& value);
nlohmann::json toJSON(const CachedMachineState& value);

// "#rrggbb" in lower case.
std::string colorText(RGB color);

// Decodes one value of the types above from a parsed document; raises DecodingError.
// The nested types decode through this too, e.g. decodeJSON<Pane>.
template <typename T>
T decodeJSON(const nlohmann::json& json);

inline ModelState decodeModelState(const nlohmann::json& json) { return decodeJSON<ModelState>(json); }

} // namespace corvex
