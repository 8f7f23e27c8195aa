#include "CorvexSession/SessionCore.h"
#include "CorvexSession/SessionCoreBatch.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CorvexKit/KeyNames.h"
#include "CorvexKit/SessionModel.h"

extern char** environ;

namespace corvex {

namespace {

[[noreturn]] void notFound(const char* kind, uint64_t id) {
    throw BackendError("not_found", "no " + std::string(kind) + " " + std::to_string(id));
}

bool startsWith(const std::string& text, std::string_view prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::optional<size_t> indexOfPane(const ModelState& state, uint64_t pane) {
    for (size_t i = 0; i < state.panes.size(); ++i) {
        if (state.panes[i].id == pane) return i;
    }
    return std::nullopt;
}

struct TabIndex {
    size_t workspace = 0;
    size_t tab = 0;
};

std::optional<TabIndex> tabHolding(const ModelState& state, uint64_t pane) {
    for (size_t w = 0; w < state.workspaces.size(); ++w) {
        const auto& tabs = state.workspaces[w].tabs;
        for (size_t t = 0; t < tabs.size(); ++t) {
            if (tabs[t].layout.contains(pane)) return TabIndex{w, t};
        }
    }
    return std::nullopt;
}

std::optional<TabIndex> tabIndex(const ModelState& state, uint64_t tab) {
    for (size_t w = 0; w < state.workspaces.size(); ++w) {
        const auto& tabs = state.workspaces[w].tabs;
        for (size_t t = 0; t < tabs.size(); ++t) {
            if (tabs[t].id == tab) return TabIndex{w, t};
        }
    }
    return std::nullopt;
}

std::optional<size_t> workspaceIndex(const ModelState& state, uint64_t id) {
    for (size_t w = 0; w < state.workspaces.size(); ++w) {
        if (state.workspaces[w].id == id) return w;
    }
    return std::nullopt;
}

} // namespace

Environment paneEnvironment(const Environment& inherited, uint64_t pane, const std::optional<Environment>& overrides) {
    Environment env;
    for (const auto& [key, value] : inherited) {
        if (startsWith(key, "CORVEX_") || startsWith(key, "DROVER_")) continue;
        env[key] = value;
    }
    env["TERM"] = "xterm-256color";
    env["COLORTERM"] = "truecolor";
    env["TERM_PROGRAM"] = "corvex";
    env["CORVEX_PANE"] = std::to_string(pane);
    if (auto lang = inherited.find("LANG"); lang == inherited.end()) env["LANG"] = "en_US.UTF-8";
    if (overrides) {
        for (const auto& [key, value] : *overrides) env[key] = value;
    }
    return env;
}

std::optional<std::string> findProgram(const std::string& name, const std::string& searchPath,
                                       const std::function<bool(const std::string&)>& isExecutable) {
    if (name.empty()) return std::nullopt;
    if (name.find('/') != std::string::npos) return name;
    size_t start = 0;
    for (;;) {
        size_t end = searchPath.find(':', start);
        std::string folder = searchPath.substr(start, end == std::string::npos ? std::string::npos : end - start);
        std::string candidate = (folder.empty() ? std::string(".") : folder) + "/" + name;
        if (isExecutable(candidate)) return candidate;
        if (end == std::string::npos) return std::nullopt;
        start = end + 1;
    }
}

std::optional<LaunchCommand> launchCommand(const std::vector<std::string>& command) {
    if (command.empty()) return std::nullopt;
    if (command.size() == 2 && command[1] == "-l") {
        return LaunchCommand{command[0], {}, "-" + lastPathComponent(command[0])};
    }
    return LaunchCommand{command[0], {command.begin() + 1, command.end()}, std::nullopt};
}

Size checkedPaneSize(Size size) {
    auto fits = [](int side) { return side >= 1 && side <= maximumPaneSide; };
    if (!fits(size.cols) || !fits(size.rows)) {
        throw BackendError("bad_request", "a pane's size must lie in 1x1..." + std::to_string(maximumPaneSide) + "x" +
                                              std::to_string(maximumPaneSide));
    }
    return size;
}

Subscription::Mode subscriptionMode(std::optional<uint64_t> haveSeq, uint64_t seq, uint64_t retainedStart) {
    if (!haveSeq) return Subscription::Mode::snapshot;
    if (*haveSeq == seq) return Subscription::Mode::live;
    if (*haveSeq < seq && seq - *haveSeq <= OutputRetention::replayLimit && *haveSeq >= retainedStart) {
        return Subscription::Mode::replay;
    }
    return Subscription::Mode::snapshot;
}

namespace {
// What an idle pane's retention may grow to before it takes its full size.
constexpr size_t smallRing = 64u << 10;
} // namespace

uint64_t OutputRetention::append(ByteView bytes) {
    uint64_t before = seq_;
    seq_ += bytes.size();
    if (bytes.size() >= retainedBytes) bytes = bytes.subspan(bytes.size() - retainedBytes);
    if (ring_.size() < retainedBytes) {
        size_t filled = std::min(retainedBytes - ring_.size(), bytes.size());
        // A pane that goes past a little output gets the whole ring at once: growing it by
        // doubling would copy it again and again and leave each outgrown block behind.
        if (ring_.size() + filled > ring_.capacity() && ring_.size() + filled > smallRing) ring_.reserve(retainedBytes);
        ring_.insert(ring_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(filled));
        bytes = bytes.subspan(filled);
    }
    while (!bytes.empty()) {
        size_t run = std::min(retainedBytes - oldest_, bytes.size());
        std::copy_n(bytes.begin(), run, ring_.begin() + static_cast<std::ptrdiff_t>(oldest_));
        oldest_ = (oldest_ + run) % retainedBytes;
        bytes = bytes.subspan(run);
    }
    return before;
}

Bytes OutputRetention::bytesFrom(uint64_t position) const {
    position = std::clamp(position, start(), seq_);
    size_t count = static_cast<size_t>(seq_ - position);
    size_t first = (oldest_ + ring_.size() - count) % std::max<size_t>(ring_.size(), 1);
    Bytes out;
    out.reserve(count);
    size_t run = std::min(count, ring_.size() - first);
    out.insert(out.end(), ring_.begin() + static_cast<std::ptrdiff_t>(first),
               ring_.begin() + static_cast<std::ptrdiff_t>(first + run));
    out.insert(out.end(), ring_.begin(), ring_.begin() + static_cast<std::ptrdiff_t>(count - run));
    return out;
}

SessionCoreEnvironment currentSessionCoreEnvironment() {
    SessionCoreEnvironment out;
    for (char** entry = environ; entry && *entry; ++entry) {
        std::string text = *entry;
        auto equals = text.find('=');
        if (equals == std::string::npos) continue;
        out.variables.emplace(text.substr(0, equals), text.substr(equals + 1));
    }
    if (auto home = out.variables.find("HOME"); home != out.variables.end() && !home->second.empty()) {
        out.home = home->second;
    } else if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_dir) {
        out.home = entry->pw_dir;
    }
    if (auto shell = out.variables.find("SHELL"); shell != out.variables.end() && !shell->second.empty()) {
        out.defaultShell = shell->second;
    } else if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_shell && *entry->pw_shell) {
        out.defaultShell = entry->pw_shell;
    }
    out.isExecutable = [](const std::string& path) {
        struct stat info {};
        return ::access(path.c_str(), X_OK) == 0 && stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
    };
    out.isDirectory = [](const std::string& path) {
        struct stat info {};
        return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
    };
    return out;
}

std::shared_ptr<SessionCore> SessionCore::create(std::shared_ptr<PaneHost> host, SessionCoreEnvironment environment) {
    return std::shared_ptr<SessionCore>(new SessionCore(std::move(host), std::move(environment)));
}

SessionCore::SessionCore(std::shared_ptr<PaneHost> host, SessionCoreEnvironment environment)
    : host_(std::move(host)), environment_(std::move(environment)) {}

void SessionCore::setListener(Listener listener) {
    std::lock_guard guard(outboxLock_);
    listener_ = std::move(listener);
}

// Whoever finds nobody delivering sends everything queued, in order and outside every lock,
// so a listener may even call back into the core; others leave their events to it.
void SessionCore::deliver() {
    std::unique_lock guard(outboxLock_);
    if (delivering_) return;
    delivering_ = true;
    while (!outbox_.empty() && listener_) {
        std::deque<SessionEvent> batch;
        batch.swap(outbox_);
        Listener listener = listener_;
        guard.unlock();
        for (const auto& event : batch) listener(event);
        guard.lock();
    }
    delivering_ = false;
}

void SessionCore::stop() {
    std::vector<std::shared_ptr<PaneProcess>> processes;
    {
        std::scoped_lock both(lock_, outboxLock_);
        listener_ = nullptr;
        outbox_.clear();
        for (auto& [id, pane] : panes_) processes.push_back(pane.process);
        panes_.clear();
    }
    {
        std::lock_guard guard(budgetLock_);
        budgetOpen_ = false;
        for (auto& [pane, process] : outputHeldBack_) process->holdOutput(false);
        outputHeldBack_.clear();
    }
    for (const auto& process : processes) {
        if (process) process->hangUp();
    }
}

ModelState SessionCore::state() const {
    std::lock_guard guard(lock_);
    return state_;
}

void SessionCore::publishState(Batch& batch) {
    state_.settleActiveTabs();
    ++state_.rev;
    batch.push(SessionEvent::State{state_});
}

void SessionCore::publishPane(Batch& batch, uint64_t pane) {
    ++state_.rev;
    batch.push(SessionEvent::PaneChanged{statePane(pane), state_.rev});
}

Pane& SessionCore::statePane(uint64_t pane) {
    auto index = indexOfPane(state_, pane);
    if (!index) notFound("pane", pane);
    return state_.panes[*index];
}

SessionCore::PaneRecord& SessionCore::record(uint64_t pane) {
    auto found = panes_.find(pane);
    if (found == panes_.end()) notFound("pane", pane);
    return found->second;
}

void SessionCore::requirePane(uint64_t pane) const {
    std::lock_guard guard(lock_);
    if (!indexOfPane(state_, pane)) notFound("pane", pane);
}

namespace {

uint64_t highestID(const Layout& layout) {
    if (layout.isLeaf()) return layout.leafPane();
    const SplitNode& node = *layout.splitNode();
    return std::max({node.id, highestID(node.a), highestID(node.b)});
}

} // namespace

void SessionCore::restore(const ModelState& saved, double at) {
    restoreTree(saved, at);
    for (const auto& pane : state().panes) paint(pane.id);
}

void SessionCore::restoreTree(const ModelState& saved, double at) {
    Batch batch(*this);
    if (!state_.workspaces.empty() || !panes_.empty()) return;
    uint64_t highest = 0;
    for (const auto& workspace : saved.workspaces) {
        highest = std::max(highest, workspace.id);
        for (const auto& tab : workspace.tabs) highest = std::max({highest, tab.id, highestID(tab.layout)});
    }
    nextID_ = std::max(nextID_, highest + 1);
    state_.workspaces = saved.workspaces;
    state_.focus = saved.focus;
    std::vector<uint64_t> lost;
    for (const auto& workspace : saved.workspaces) {
        for (const auto& tab : workspace.tabs) {
            for (uint64_t id : tab.layout.panes()) {
                const Pane* pane = saved.pane(id);
                SpawnOptions options;
                if (pane) {
                    options.command = pane->command;
                    options.cwd = pane->cwd;
                    options.cols = pane->cols;
                    options.rows = pane->rows;
                }
                try {
                    spawnPane(options, id);
                    statePane(id).restored = PaneRestore{at, std::nullopt, std::nullopt, false};
                } catch (const BackendError&) {
                    lost.push_back(id);
                }
            }
        }
    }
    for (uint64_t id : lost) removeFromLayout(id);
    state_.repairFocus();
    publishState(batch);
}

PaneProcessEvents SessionCore::eventsFor(uint64_t id) {
    std::weak_ptr<SessionCore> weak = weak_from_this();
    return PaneProcessEvents{
        [weak, id](ByteView bytes) {
            if (auto core = weak.lock()) core->paneOutput(id, bytes);
        },
        [weak, id](std::optional<int32_t> code) {
            if (auto core = weak.lock()) core->paneTerminated(id, code);
        },
        [weak, id](const std::optional<std::string>& title, const std::optional<std::string>& cwd, bool bell) {
            if (auto core = weak.lock()) core->paneChanged(id, title, cwd, bell);
        },
        [weak, id](const std::vector<std::string>& texts) {
            if (auto core = weak.lock()) core->paneClipboard(id, texts);
        },
    };
}

uint64_t SessionCore::spawnPane(const SpawnOptions& options, std::optional<uint64_t> given) {
    uint64_t id = given ? *given : takeID();
    Size size = checkedPaneSize({options.cols.value_or(80), options.rows.value_or(24)});
    auto command = options.command.value_or(std::vector<std::string>{environment_.defaultShell, "-l"});
    std::string cwd = options.cwd.value_or(environment_.home);
    if (environment_.isDirectory && !environment_.isDirectory(cwd)) cwd = environment_.home;

    auto failed = [&] {
        std::string words;
        for (const auto& word : command) words += (words.empty() ? "" : " ") + word;
        return BackendError("failed", "couldn't start " + words);
    };
    auto launch = launchCommand(command);
    if (!launch) throw failed();
    auto environment = paneEnvironment(environment_.variables, id, options.env);
    if (environment_.isExecutable) {
        // Found here, so that a mistyped name is an answer to the request and not a pane
        // that dies at once with status 127.
        auto path = environment.find("PATH");
        auto found = findProgram(launch->executable, path == environment.end() ? "/usr/local/bin:/usr/bin:/bin" : path->second,
                                 environment_.isExecutable);
        bool relative = found && found->front() != '/';
        if (!found || !environment_.isExecutable(relative ? cwd + "/" + *found : *found)) {
            throw BackendError("not_found", launch->executable + ": no such program");
        }
        if (!launch->argv0) launch->argv0 = launch->executable;
        launch->executable = *found;
    }

    PaneLaunch request{id, command, *launch, std::move(environment), cwd, size,
                       scrollbackLines_};
    // Starting the program is a fork, not a wait; its first report blocks on this lock
    // until the pane is entered.
    auto process = host_->spawn(request, eventsFor(id));
    if (!process) throw failed();

    panes_[id] = PaneRecord{process, size, {}, false};
    Pane pane;
    pane.id = id;
    pane.cols = size.cols;
    pane.rows = size.rows;
    pane.pid = process->pid();
    pane.command = command;
    pane.cwd = cwd;
    state_.panes.push_back(std::move(pane));
    return id;
}

void SessionCore::requireFolder(const SpawnOptions& spawn) const {
    if (spawn.cwd && environment_.isDirectory && !environment_.isDirectory(*spawn.cwd)) {
        throw BackendError("not_found", "no folder " + *spawn.cwd);
    }
}

CreatedWorkspace SessionCore::createWorkspace(const std::optional<std::string>& name, const SpawnOptions& spawn) {
    requireFolder(spawn);
    CreatedWorkspace created;
    {
        Batch batch(*this);
        uint64_t workspaceID = takeID();
        uint64_t tabID = takeID();
        uint64_t pane = spawnPane(spawn);
        Workspace workspace;
        workspace.id = workspaceID;
        workspace.name = name.value_or("Session " + std::to_string(state_.workspaces.size() + 1));
        workspace.tabs.push_back(Tab{tabID, std::nullopt, pane, Layout::leaf(pane)});
        state_.workspaces.push_back(std::move(workspace));
        state_.focus = Focus{workspaceID, tabID, pane};
        publishState(batch);
        created = {workspaceID, tabID, pane};
    }
    paint(created.pane);
    return created;
}

void SessionCore::renameWorkspace(uint64_t id, const std::string& name) {
    Batch batch(*this);
    auto index = workspaceIndex(state_, id);
    if (!index) notFound("workspace", id);
    state_.workspaces[*index].name = name;
    publishState(batch);
}

void SessionCore::closeWorkspace(uint64_t id) {
    Batch batch(*this);
    auto index = workspaceIndex(state_, id);
    if (!index) notFound("workspace", id);
    std::vector<uint64_t> panes;
    for (const auto& tab : state_.workspaces[*index].tabs) {
        auto ids = tab.layout.panes();
        panes.insert(panes.end(), ids.begin(), ids.end());
    }
    state_.workspaces.erase(state_.workspaces.begin() + static_cast<std::ptrdiff_t>(*index));
    batch.hangUp(detach(panes));
    state_.repairFocus();
    publishState(batch);
}

CreatedTab SessionCore::createTab(uint64_t workspace, const SpawnOptions& spawn) {
    requireFolder(spawn);
    CreatedTab created;
    {
        Batch batch(*this);
        auto index = workspaceIndex(state_, workspace);
        if (!index) notFound("workspace", workspace);
        uint64_t tabID = takeID();
        uint64_t pane = spawnPane(spawn);
        state_.workspaces[*index].tabs.push_back(Tab{tabID, std::nullopt, pane, Layout::leaf(pane)});
        state_.focus = Focus{workspace, tabID, pane};
        publishState(batch);
        created = {tabID, pane};
    }
    paint(created.pane);
    return created;
}

void SessionCore::renameTab(uint64_t id, const std::optional<std::string>& title) {
    Batch batch(*this);
    auto index = tabIndex(state_, id);
    if (!index) notFound("tab", id);
    state_.workspaces[index->workspace].tabs[index->tab].title = title;
    publishState(batch);
}

void SessionCore::closeTab(uint64_t id) {
    Batch batch(*this);
    auto index = tabIndex(state_, id);
    if (!index) notFound("tab", id);
    auto panes = state_.workspaces[index->workspace].tabs[index->tab].layout.panes();
    state_.removeTab(id);
    batch.hangUp(detach(panes));
    state_.repairFocus();
    publishState(batch);
}

Layout SessionCore::splitBeside(const Layout& leaf, uint64_t id, Direction direction, double ratio, Layout moved) {
    double r = Layout::clampRatio(ratio);
    if (newPaneIsSecond(direction)) return Layout::split(id, axisOf(direction), r, leaf, std::move(moved));
    return Layout::split(id, axisOf(direction), 1 - r, std::move(moved), leaf);
}

CreatedSplit SessionCore::split(uint64_t pane, Direction direction, std::optional<double> ratio,
                                const SpawnOptions& spawn) {
    requireFolder(spawn);
    CreatedSplit created;
    {
        Batch batch(*this);
        auto where = tabHolding(state_, pane);
        if (!where) notFound("pane", pane);
        SpawnOptions options = spawn;
        if (!options.cwd) {
            if (const Pane* old = state_.pane(pane)) options.cwd = old->cwd;
        }
        uint64_t newPane = spawnPane(options);
        uint64_t splitID = takeID();
        auto& workspace = state_.workspaces[where->workspace];
        auto& tab = workspace.tabs[where->tab];
        tab.layout = tab.layout.replacing(pane, [&](const Layout& leaf) {
            return splitBeside(leaf, splitID, direction, ratio.value_or(0.5), Layout::leaf(newPane));
        });
        tab.activePane = newPane;
        state_.focus = Focus{workspace.id, tab.id, newPane};
        publishState(batch);
        created = {newPane, splitID};
    }
    paint(created.pane);
    return created;
}

void SessionCore::closePane(uint64_t id) {
    Batch batch(*this);
    if (!indexOfPane(state_, id)) notFound("pane", id);
    batch.hangUp(detach({id}));
    removeFromLayout(id);
    publishState(batch);
}

std::vector<std::shared_ptr<PaneProcess>> SessionCore::detach(const std::vector<uint64_t>& panes) {
    std::vector<std::shared_ptr<PaneProcess>> out;
    for (uint64_t id : panes) {
        std::erase_if(state_.panes, [id](const Pane& pane) { return pane.id == id; });
        if (auto found = panes_.find(id); found != panes_.end()) {
            out.push_back(found->second.process);
            panes_.erase(found);
        }
    }
    return out;
}

void SessionCore::removeFromLayout(uint64_t pane) {
    std::erase_if(state_.panes, [pane](const Pane& p) { return p.id == pane; });
    state_.removePaneFromTabs(pane);
    state_.repairFocus();
}

void SessionCore::setRatio(uint64_t split, double ratio) {
    Batch batch(*this);
    double r = Layout::clampRatio(ratio);
    for (auto& workspace : state_.workspaces) {
        for (auto& tab : workspace.tabs) {
            if (auto changed = tab.layout.settingRatio(split, r)) {
                tab.layout = *changed;
                publishState(batch);
                return;
            }
        }
    }
    notFound("split", split);
}

void SessionCore::focus(const FocusTarget& target) {
    Batch batch(*this);
    switch (target.kind) {
    case FocusTarget::Kind::pane: {
        auto where = tabHolding(state_, target.id);
        if (!where) notFound("pane", target.id);
        auto& workspace = state_.workspaces[where->workspace];
        auto& tab = workspace.tabs[where->tab];
        tab.activePane = target.id;
        state_.focus = Focus{workspace.id, tab.id, target.id};
        break;
    }
    case FocusTarget::Kind::tab: {
        auto where = tabIndex(state_, target.id);
        if (!where) notFound("tab", target.id);
        auto& workspace = state_.workspaces[where->workspace];
        state_.focus = Focus{workspace.id, target.id, workspace.tabs[where->tab].activePane};
        break;
    }
    case FocusTarget::Kind::workspace: {
        const Workspace* workspace = state_.workspace(target.id);
        if (!workspace) notFound("workspace", target.id);
        const Tab* tab = workspace->activeTab ? workspace->tab(*workspace->activeTab) : nullptr;
        if (!tab && !workspace->tabs.empty()) tab = &workspace->tabs.front();
        state_.focus = tab ? Focus{workspace->id, tab->id, tab->activePane} : Focus{workspace->id, {}, {}};
        break;
    }
    }
    publishState(batch);
}

void SessionCore::move(const MoveRequest& request) {
    if (request.kind == MoveRequest::Kind::pane || request.kind == MoveRequest::Kind::tabJoin) {
        graft(request);
        return;
    }
    Batch batch(*this);
    if (request.index < 0) throw BackendError("bad_request", "negative index");
    auto moved = state_.moving(request);
    if (!moved) {
        if (request.kind == MoveRequest::Kind::workspace) notFound("workspace", request.id);
        if (!state_.tab(request.id)) notFound("tab", request.id);
        notFound("workspace", request.workspace.value_or(0));
    }
    state_ = *moved;
    publishState(batch);
}

void SessionCore::graft(const MoveRequest& request) {
    Batch batch(*this);
    bool movingPane = request.kind == MoveRequest::Kind::pane;
    Layout moved;
    uint64_t movedActive = 0;
    if (movingPane) {
        if (request.id == request.beside) throw BackendError("bad_request", "pane " + std::to_string(request.id) + " can't be moved beside itself");
        if (!tabHolding(state_, request.id)) notFound("pane", request.id);
        moved = Layout::leaf(request.id);
        movedActive = request.id;
    } else {
        const Tab* tab = state_.tab(request.id);
        if (!tab) notFound("tab", request.id);
        if (tab->layout.contains(request.beside)) {
            throw BackendError("bad_request", "tab " + std::to_string(request.id) + " can't be joined beside its own pane " +
                                                  std::to_string(request.beside));
        }
        moved = tab->layout;
        movedActive = tab->activePane;
    }
    if (!tabHolding(state_, request.beside)) notFound("pane", request.beside);

    if (movingPane) {
        state_.removePaneFromTabs(request.id); // the pane itself lives on, where it was in the list
    } else {
        state_.removeTab(request.id);
    }
    state_.repairFocus();

    auto target = tabHolding(state_, request.beside);
    uint64_t splitID = takeID();
    auto& workspace = state_.workspaces[target->workspace];
    auto& tab = workspace.tabs[target->tab];
    tab.layout = tab.layout.replacing(request.beside, [&](const Layout& leaf) {
        return splitBeside(leaf, splitID, request.direction, request.ratio.value_or(0.5), moved);
    });
    if (request.focus) {
        tab.activePane = movedActive;
        state_.focus = Focus{workspace.id, tab.id, movedActive};
    }
    state_.repairFocus();
    publishState(batch);
}

Subscription SessionCore::subscribe(uint64_t pane, std::optional<uint64_t> haveSeq, std::optional<Size> viewport,
                                    int scrollback, const Listener& first) {
    std::shared_ptr<PaneProcess> resizeProcess;
    std::optional<Size> resizeTo;
    Subscription subscription;
    bool fromTerminal = false;
    std::vector<SessionEvent> opening;
    if (viewport) checkedPaneSize(*viewport);
    {
        Batch batch(*this);
        if (viewport) {
            auto& entry = record(pane);
            if (entry.size != *viewport) {
                entry.size = *viewport;
                auto& statePaneRef = statePane(pane);
                statePaneRef.cols = viewport->cols;
                statePaneRef.rows = viewport->rows;
                publishPane(batch, pane);
                resizeProcess = entry.process;
                resizeTo = *viewport;
            }
        }
        auto& entry = record(pane);
        const auto& output = entry.output;
        auto mode = subscriptionMode(haveSeq, output.seq(), output.start());
        uint64_t from = mode == Subscription::Mode::replay ? *haveSeq : output.seq();
        subscription = Subscription{mode, from, entry.size.cols, entry.size.rows};
        fromTerminal = mode == Subscription::Mode::snapshot && entry.process && entry.process->hasTerminal();
        if (!fromTerminal) {
            entry.subscribed = true;
            opening.push_back(SessionEvent::Subscribed{pane, subscription});
            if (mode == Subscription::Mode::snapshot) {
                opening.push_back(SessionEvent::Snapshot{pane, output.seq(), entry.size.cols, entry.size.rows, output.bytes()});
            } else if (mode == Subscription::Mode::replay) {
                opening.push_back(SessionEvent::Output{pane, *haveSeq, output.bytesFrom(*haveSeq)});
            }
            // Under the lock, so that nothing the pane prints later can come before them.
            for (auto& event : opening) {
                if (first) first(event);
                else batch.push(std::move(event));
            }
        }
    }
    if (resizeProcess) resizeProcess->resize(*resizeTo);
    if (fromTerminal) subscription = subscribeFromTerminal(pane, scrollback, first);
    return subscription;
}

void SessionCore::unsubscribe(uint64_t pane) {
    std::lock_guard guard(lock_);
    record(pane).subscribed = false;
}

void SessionCore::setViewport(uint64_t pane, Size size) { applySize(pane, size, true); }
void SessionCore::resize(uint64_t pane, Size size) { applySize(pane, size, true); }

void SessionCore::applySize(uint64_t pane, Size size, bool notifySubscriber) {
    checkedPaneSize(size);
    std::shared_ptr<PaneProcess> process;
    {
        Batch batch(*this);
        auto& entry = record(pane);
        if (entry.size == size) return;
        entry.size = size;
        auto& state = statePane(pane);
        state.cols = size.cols;
        state.rows = size.rows;
        if (notifySubscriber && entry.subscribed) {
            batch.push(SessionEvent::Resized{pane, size.cols, size.rows, entry.output.seq()});
        }
        publishPane(batch, pane);
        process = entry.process;
    }
    // Last, so that the published size and the event precede the terminal's own change.
    if (process) process->resize(size);
}

bool SessionCore::isReport(ByteView bytes) {
    if (bytes.size() < 3 || bytes[0] != 0x1b || bytes[1] != '[') return false;
    uint8_t third = bytes[2];
    return third == '<' || third == 'I' || third == 'M' || third == 'O';
}

void SessionCore::sendInput(uint64_t pane, ByteView bytes) {
    std::shared_ptr<PaneProcess> process;
    {
        Batch batch(*this);
        auto found = panes_.find(pane);
        if (found == panes_.end()) return; // a write to a pane that has gone is dropped
        process = found->second.process;
        if (!isReport(bytes)) {
            // Typing into the pane is an answer to its agent.
            auto agent = statePane(pane).agent;
            if (agent && agent->attention.value_or(false)) {
                agent->attention = false;
                changeAgent(batch, pane, agent);
            }
        }
    }
    if (process) process->write(bytes);
}

void SessionCore::sendKeys(uint64_t pane, const std::optional<std::string>& text, const std::vector<std::string>& keys) {
    requirePane(pane);
    // Every key is checked before anything is typed: half a request is worse than none.
    Bytes keyBytes;
    for (const auto& key : keys) {
        auto bytes = corvex::keyBytes(key);
        if (!bytes) throw BackendError("bad_request", "unknown key " + key);
        keyBytes.insert(keyBytes.end(), bytes->begin(), bytes->end());
    }
    if (text) sendInput(pane, asBytes(*text));
    if (!keyBytes.empty()) sendInput(pane, keyBytes);
}

void SessionCore::dismissRestored(uint64_t pane) {
    Batch batch(*this);
    statePane(pane).restored = std::nullopt;
    publishPane(batch, pane);
}

void SessionCore::setRestored(uint64_t pane, const std::optional<PaneRestore>& restored) {
    Batch batch(*this);
    statePane(pane).restored = restored;
    publishPane(batch, pane);
}

void SessionCore::setGit(uint64_t pane, const std::optional<PaneGit>& git) {
    Batch batch(*this);
    statePane(pane).git = git;
    publishPane(batch, pane);
}

void SessionCore::boundOutput(size_t bytes) {
    std::lock_guard guard(budgetLock_);
    outputBound_ = bytes;
}

bool SessionCore::outputRoomLocked(uint64_t pane) const {
    if (!budgetOpen_ || outputBound_ == 0 || outputHeld_ < outputBound_) return true;
    auto own = paneOutputHeld_.find(pane);
    return own == paneOutputHeld_.end() || own->second < paneOutputReserve;
}

// The hold is changed under the budget's lock, so that a hold and its end can't pass each
// other; holding never blocks, so no reader waits on a consumer.
void SessionCore::releaseOutput(uint64_t pane, size_t bytes) {
    std::lock_guard guard(budgetLock_);
    bytes = std::min(bytes, outputHeld_);
    outputHeld_ -= bytes;
    if (auto own = paneOutputHeld_.find(pane); own != paneOutputHeld_.end()) {
        own->second -= std::min(bytes, own->second);
        if (own->second == 0) paneOutputHeld_.erase(own);
    }
    for (auto held = outputHeldBack_.begin(); held != outputHeldBack_.end();) {
        if (!outputRoomLocked(held->first)) {
            ++held;
            continue;
        }
        held->second->holdOutput(false);
        held = outputHeldBack_.erase(held);
    }
}

void SessionCore::paneOutput(uint64_t pane, ByteView bytes) {
    Batch batch(*this);
    auto found = panes_.find(pane);
    if (found == panes_.end()) return;
    auto& entry = found->second;
    uint64_t before = entry.output.append(bytes);
    if (entry.subscribed) {
        batch.push(SessionEvent::Output{pane, before, Bytes(bytes.begin(), bytes.end())});
        std::lock_guard guard(budgetLock_);
        if (outputBound_ > 0) {
            outputHeld_ += bytes.size();
            paneOutputHeld_[pane] += bytes.size();
            if (entry.process && !outputRoomLocked(pane) && outputHeldBack_.emplace(pane, entry.process).second) {
                entry.process->holdOutput(true);
            }
        }
    }
    // The position moves silently: a busy pane causes no state traffic.
    if (auto index = indexOfPane(state_, pane)) state_.panes[*index].seq = entry.output.seq();
}

void SessionCore::paneTerminated(uint64_t pane, std::optional<int32_t> exitCode) {
    Batch batch(*this);
    if (!panes_.count(pane) || !indexOfPane(state_, pane)) return;
    statePane(pane).exited = PaneExit{exitCode, std::nullopt};
    publishPane(batch, pane);
    batch.release(panes_.at(pane).process);
    panes_.erase(pane);
    removeFromLayout(pane);
    publishState(batch);
}

void SessionCore::paneChanged(uint64_t pane, const std::optional<std::string>& title,
                              const std::optional<std::string>& cwd, bool bell) {
    Batch batch(*this);
    if (!panes_.count(pane)) return;
    auto index = indexOfPane(state_, pane);
    if (!index) return;
    auto& state = state_.panes[*index];
    bool changed = false;
    if (title && state.title != title) {
        state.title = title;
        changed = true;
    }
    if (cwd && state.cwd != cwd) {
        state.cwd = cwd;
        changed = true;
    }
    if (changed) publishPane(batch, pane);
    if (bell) batch.push(SessionEvent::Bell{pane});
}

void SessionCore::paneClipboard(uint64_t pane, const std::vector<std::string>& texts) {
    Batch batch(*this);
    auto found = panes_.find(pane);
    if (found == panes_.end() || !found->second.subscribed) return;
    for (const auto& text : texts) {
        if (!text.empty()) batch.push(SessionEvent::Clipboard{pane, text, false});
    }
}

void SessionCore::pollWorkingDirectories() {
    std::vector<std::pair<uint64_t, std::shared_ptr<PaneProcess>>> processes;
    {
        std::lock_guard guard(lock_);
        for (const auto& [id, entry] : panes_) processes.emplace_back(id, entry.process);
    }
    for (const auto& [id, process] : processes) {
        auto cwd = process->workingDirectory();
        if (!cwd) continue;
        Batch batch(*this);
        auto found = panes_.find(id);
        if (found == panes_.end() || found->second.process != process) continue;
        auto index = indexOfPane(state_, id);
        if (!index || state_.panes[*index].cwd == cwd) continue;
        state_.panes[*index].cwd = cwd;
        publishPane(batch, id);
    }
}

} // namespace corvex
