#include "CorvexKit/SessionCodecJSON.h"

#include <cinttypes>
#include <cstdio>
#include <limits>

namespace corvex {

using nlohmann::json;

namespace {

// A wrong JSON type, raised by the value readers and reworded with the key by the object readers.
struct WrongType {
    const char* expected;
};

std::string quoted(std::string_view key) { return "\"" + std::string(key) + "\""; }

// Value readers: one overload for each type that appears in a document.

void read(const json& j, bool& out) {
    if (!j.is_boolean()) throw WrongType{"a boolean"};
    out = j.get<bool>();
}

void read(const json& j, double& out) {
    if (!j.is_number()) throw WrongType{"a number"};
    out = j.get<double>();
}

void read(const json& j, uint64_t& out) {
    if (j.is_number_unsigned()) {
        out = j.get<uint64_t>();
    } else if (j.is_number_integer() && j.get<int64_t>() >= 0) {
        out = static_cast<uint64_t>(j.get<int64_t>());
    } else {
        throw WrongType{"an unsigned integer"};
    }
}

void read(const json& j, int64_t& out) {
    if (j.is_number_unsigned()) {
        if (j.get<uint64_t>() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
            throw WrongType{"an integer"};
        }
        out = static_cast<int64_t>(j.get<uint64_t>());
    } else if (j.is_number_integer()) {
        out = j.get<int64_t>();
    } else {
        throw WrongType{"an integer"};
    }
}

void read(const json& j, int& out) {
    int64_t wide = 0;
    read(j, wide);
    if (wide < std::numeric_limits<int>::min() || wide > std::numeric_limits<int>::max()) {
        throw WrongType{"a 32-bit integer"};
    }
    out = static_cast<int>(wide);
}

void read(const json& j, std::string& out) {
    if (!j.is_string()) throw WrongType{"a string"};
    out = j.get_ref<const std::string&>();
}

template <typename T>
void read(const json& j, std::vector<T>& out);
void read(const json& j, std::map<std::string, std::string>& out);

// A colour travels as "#rrggbb".
struct Color {
    RGB value = 0;
};

void read(const json& j, Focus& out);
void read(const json& j, Layout& out);
void read(const json& j, Tab& out);
void read(const json& j, Workspace& out);
void read(const json& j, PaneExit& out);
void read(const json& j, PaneRestore& out);
void read(const json& j, Worktree& out);
void read(const json& j, PullRequest& out);
void read(const json& j, PaneGit& out);
void read(const json& j, PermissionRequest& out);
void read(const json& j, AgentInfo& out);
void read(const json& j, Pane& out);
void read(const json& j, ModelState& out);
void read(const json& j, Hello::Machine& out);
void read(const json& j, Hello::Holder& out);
void read(const json& j, Hello& out);
void read(const json& j, Size& out);
void read(const json& j, SpawnOptions& out);
void read(const json& j, CreatedWorkspace& out);
void read(const json& j, CreatedTab& out);
void read(const json& j, CreatedSplit& out);
void read(const json& j, Subscription& out);
void read(const json& j, PaneText& out);
void read(const json& j, Color& out);
void read(const json& j, TerminalColors& out);
void read(const json& j, DaemonSettings::Range& out);
void read(const json& j, DaemonSettings::Limits& out);
void read(const json& j, DaemonSettings& out);
void read(const json& j, DaemonSettings::Change& out);
void read(const json& j, DaemonService& out);
void read(const json& j, CellPosition& out);
void read(const json& j, PaneSearchMatch& out);
void read(const json& j, PaneSearchResult& out);
void read(const json& j, AgentHistoryEntry& out);
void read(const json& j, AgentHistory& out);
void read(const json& j, PushRegistration& out);
void read(const json& j, PushDevice& out);
void read(const json& j, PushActivity& out);
void read(const json& j, CachedMachineState& out);

// Object readers: a required key must be there with the right type; an optional one may be
// absent or null. Unknown keys are never looked at.
class Fields {
public:
    Fields(const json& j, const char* what) : j_(j) {
        if (!j.is_object()) throw DecodingError(std::string("expected an object for ") + what);
    }

    template <typename T>
    T required(const char* key) const {
        auto it = j_.find(key);
        if (it == j_.end()) throw DecodingError("missing key " + quoted(key));
        return value<T>(*it, key);
    }

    template <typename T>
    std::optional<T> optional(const char* key) const {
        auto it = j_.find(key);
        if (it == j_.end() || it->is_null()) return std::nullopt;
        return value<T>(*it, key);
    }

    const json* find(const char* key) const {
        auto it = j_.find(key);
        return it == j_.end() ? nullptr : &*it;
    }

private:
    template <typename T>
    static T value(const json& j, const char* key) {
        T out{};
        try {
            read(j, out);
        } catch (const WrongType& wrong) {
            throw DecodingError("key " + quoted(key) + " must be " + wrong.expected);
        }
        return out;
    }

    const json& j_;
};

template <typename Enum>
Enum requiredWord(const Fields& fields, const char* key, std::optional<Enum> (*parse)(std::string_view),
                  const char* what) {
    auto word = fields.required<std::string>(key);
    auto parsed = parse(word);
    if (!parsed) throw DecodingError(std::string("unknown ") + what + " " + word);
    return *parsed;
}

// Structure readers.

void read(const json& j, Focus& out) {
    Fields f(j, "focus");
    out.workspace = f.optional<uint64_t>("workspace");
    out.tab = f.optional<uint64_t>("tab");
    out.pane = f.optional<uint64_t>("pane");
}

// A tree deeper than any window can show is refused before its decoding exhausts the stack.
constexpr int maxLayoutDepth = 200;
thread_local int layoutDepth = 0;

struct LayoutDepth {
    LayoutDepth() {
        if (layoutDepth >= maxLayoutDepth) throw DecodingError("layout nested too deeply");
        ++layoutDepth;
    }
    ~LayoutDepth() { --layoutDepth; }
    LayoutDepth(const LayoutDepth&) = delete;
    LayoutDepth& operator=(const LayoutDepth&) = delete;
};

void read(const json& j, Layout& out) {
    LayoutDepth depth;
    Fields f(j, "layout");
    auto type = f.required<std::string>("type");
    if (type == "pane") {
        out = Layout::leaf(f.required<uint64_t>("pane"));
    } else if (type == "split") {
        auto id = f.required<uint64_t>("id");
        auto axis = requiredWord<Axis>(f, "axis", parseAxis, "axis");
        auto ratio = f.required<double>("ratio");
        auto a = f.required<Layout>("a");
        auto b = f.required<Layout>("b");
        out = Layout::split(id, axis, ratio, std::move(a), std::move(b));
    } else {
        throw DecodingError("unknown layout node " + type);
    }
}

void read(const json& j, Tab& out) {
    Fields f(j, "tab");
    out.id = f.required<uint64_t>("id");
    out.title = f.optional<std::string>("title");
    out.activePane = f.required<uint64_t>("active_pane");
    out.layout = f.required<Layout>("layout");
}

void read(const json& j, Workspace& out) {
    Fields f(j, "workspace");
    out.id = f.required<uint64_t>("id");
    out.name = f.required<std::string>("name");
    out.tabs = f.required<std::vector<Tab>>("tabs");
    out.activeTab = f.optional<uint64_t>("active_tab");
}

void read(const json& j, PaneExit& out) {
    Fields f(j, "exit");
    out.code = f.optional<int>("code");
    out.signal = f.optional<int>("signal");
}

void read(const json& j, PaneRestore& out) {
    Fields f(j, "restore");
    out.at = f.required<double>("at");
    out.agent = f.optional<std::string>("agent");
    out.session = f.optional<std::string>("session");
    out.continued = f.optional<bool>("continued").value_or(false);
}

void read(const json& j, Worktree& out) {
    Fields f(j, "worktree");
    out.name = f.required<std::string>("name");
    out.path = f.optional<std::string>("path");
}

void read(const json& j, PullRequest& out) {
    Fields f(j, "pull request");
    out.number = f.required<int>("number");
    // A state this client doesn't know must not cost the pull request.
    const json* state = f.find("state");
    out.state = state && state->is_string() ? parsePullRequestState(state->get_ref<const std::string&>())
                                            : std::nullopt;
    out.url = f.optional<std::string>("url");
    out.title = f.optional<std::string>("title");
}

void read(const json& j, PaneGit& out) {
    Fields f(j, "git");
    out.repo = f.required<std::string>("repo");
    out.root = f.optional<std::string>("root");
    out.remote = f.optional<std::string>("remote");
    out.branch = f.optional<std::string>("branch");
    out.head = f.optional<std::string>("head");
    out.worktree = f.optional<Worktree>("worktree");
    out.pr = f.optional<PullRequest>("pr");
    out.prReason = f.optional<std::string>("pr_reason");
}

void read(const json& j, PermissionRequest& out) {
    Fields f(j, "permission request");
    out.id = f.required<std::string>("id");
    out.tool = f.required<std::string>("tool");
    out.summary = f.optional<std::string>("summary");
}

void read(const json& j, AgentInfo& out) {
    Fields f(j, "agent");
    out.kind = f.required<std::string>("kind");
    out.state = parseAgentState(f.required<std::string>("state"));
    out.source = f.optional<std::string>("source");
    out.message = f.optional<std::string>("message");
    out.since = f.optional<double>("since");
    out.attention = f.optional<bool>("attention");
    out.session = f.optional<std::string>("session");
    out.muted = f.optional<bool>("muted");
    out.quietRise = f.optional<bool>("quiet");
    out.prompt = f.optional<std::string>("prompt");
    out.tool = f.optional<std::string>("tool");
    out.toolInput = f.optional<std::string>("tool_input");
    out.turnStarted = f.optional<double>("turn_started");
    out.requests = f.optional<std::vector<PermissionRequest>>("requests");
}

void read(const json& j, Pane& out) {
    Fields f(j, "pane");
    out.id = f.required<uint64_t>("id");
    out.cols = f.required<int>("cols");
    out.rows = f.required<int>("rows");
    out.pid = f.optional<int>("pid");
    out.command = f.optional<std::vector<std::string>>("command");
    out.title = f.optional<std::string>("title");
    out.cwd = f.optional<std::string>("cwd");
    out.seq = f.required<uint64_t>("seq");
    out.exited = f.optional<PaneExit>("exited");
    out.agent = f.optional<AgentInfo>("agent");
    out.restored = f.optional<PaneRestore>("restored");
    out.git = f.optional<PaneGit>("git");
}

void read(const json& j, ModelState& out) {
    Fields f(j, "state");
    out.rev = f.required<uint64_t>("rev");
    out.focus = f.required<Focus>("focus");
    out.workspaces = f.required<std::vector<Workspace>>("workspaces");
    out.panes = f.required<std::vector<Pane>>("panes");
}

void read(const json& j, Hello::Machine& out) {
    Fields f(j, "machine");
    out.hostname = f.required<std::string>("hostname");
    out.os = f.required<std::string>("os");
    out.arch = f.required<std::string>("arch");
    out.home = f.optional<std::string>("home");
}

void read(const json& j, Hello::Holder& out) {
    Fields f(j, "holder");
    out.pid = f.optional<int>("pid");
    out.version = f.optional<std::string>("version");
    out.protocol = f.optional<int>("protocol");
    out.exe = f.optional<std::string>("exe");
    out.build = f.optional<std::string>("build");
    out.canUpgrade = f.optional<bool>("can_upgrade");
    out.outdated = f.optional<bool>("outdated");
    out.nameSpace = f.optional<std::string>("namespace");
}

void read(const json& j, Hello& out) {
    Fields f(j, "hello");
    out.protocol = f.required<int>("protocol");
    out.protocolMin = f.optional<int>("protocol_min");
    out.protocolMax = f.optional<int>("protocol_max");
    out.daemon = f.required<std::string>("daemon");
    out.version = f.required<std::string>("version");
    out.instance = f.required<std::string>("instance");
    out.pid = f.optional<int>("pid");
    out.machine = f.optional<Hello::Machine>("machine");
    out.featureNames = f.optional<std::vector<std::string>>("features");
    out.exe = f.optional<std::string>("exe");
    out.build = f.optional<std::string>("build");
    out.holder = f.optional<Hello::Holder>("holder");
    out.holderOutdated = f.optional<bool>("holder_outdated");
    out.nameSpace = f.optional<std::string>("namespace");
}

void read(const json& j, Size& out) {
    Fields f(j, "size");
    out.cols = f.required<int>("cols");
    out.rows = f.required<int>("rows");
}

void read(const json& j, SpawnOptions& out) {
    Fields f(j, "spawn options");
    out.command = f.optional<std::vector<std::string>>("command");
    out.cwd = f.optional<std::string>("cwd");
    out.env = f.optional<std::map<std::string, std::string>>("env");
    out.cols = f.optional<int>("cols");
    out.rows = f.optional<int>("rows");
}

void read(const json& j, CreatedWorkspace& out) {
    Fields f(j, "created workspace");
    out.workspace = f.required<uint64_t>("workspace");
    out.tab = f.required<uint64_t>("tab");
    out.pane = f.required<uint64_t>("pane");
}

void read(const json& j, CreatedTab& out) {
    Fields f(j, "created tab");
    out.tab = f.required<uint64_t>("tab");
    out.pane = f.required<uint64_t>("pane");
}

void read(const json& j, CreatedSplit& out) {
    Fields f(j, "created split");
    out.pane = f.required<uint64_t>("pane");
    out.split = f.required<uint64_t>("split");
}

void read(const json& j, Subscription& out) {
    Fields f(j, "subscription");
    out.mode = requiredWord<Subscription::Mode>(f, "mode", parseSubscriptionMode, "subscription mode");
    out.seq = f.required<uint64_t>("seq");
    out.cols = f.required<int>("cols");
    out.rows = f.required<int>("rows");
}

void read(const json& j, PaneText& out) {
    Fields f(j, "pane text");
    out.lines = f.required<std::vector<std::string>>("lines");
    auto cursor = f.optional<std::vector<int>>("cursor").value_or(std::vector<int>{});
    out.cursorCol = cursor.size() > 0 ? cursor[0] : 0;
    out.cursorRow = cursor.size() > 1 ? cursor[1] : 0;
    out.cols = f.required<int>("cols");
    out.rows = f.required<int>("rows");
    out.seq = f.optional<uint64_t>("seq").value_or(0);
}

void read(const json& j, Color& out) {
    if (!j.is_string()) throw WrongType{"a colour \"#rrggbb\""};
    const auto& text = j.get_ref<const std::string&>();
    if (text.size() != 7 || text[0] != '#') throw WrongType{"a colour \"#rrggbb\""};
    RGB value = 0;
    for (size_t i = 1; i < text.size(); ++i) {
        char c = text[i];
        int digit = c >= '0' && c <= '9' ? c - '0'
                    : c >= 'a' && c <= 'f' ? c - 'a' + 10
                    : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                           : -1;
        if (digit < 0) throw WrongType{"a colour \"#rrggbb\""};
        value = value * 16 + static_cast<RGB>(digit);
    }
    out.value = value;
}

void read(const json& j, TerminalColors& out) {
    Fields f(j, "terminal colours");
    out.foreground = f.required<Color>("foreground").value;
    out.background = f.required<Color>("background").value;
    if (auto cursor = f.optional<Color>("cursor")) out.cursor = cursor->value;
    if (auto ansi = f.optional<std::vector<Color>>("ansi")) {
        out.ansi.emplace();
        for (const auto& color : *ansi) out.ansi->push_back(color.value);
    }
}

void read(const json& j, DaemonSettings::Range& out) {
    Fields f(j, "range");
    out.min = f.required<int>("min");
    out.max = f.required<int>("max");
    out.defaultValue = f.required<int>("default");
}

void read(const json& j, DaemonSettings::Limits& out) {
    Fields f(j, "limits");
    out.scrollbackLines = f.required<DaemonSettings::Range>("scrollback_lines");
}

void read(const json& j, DaemonSettings& out) {
    Fields f(j, "settings");
    out.scrollbackLines = f.required<int>("scrollback_lines");
    out.limits = f.required<DaemonSettings::Limits>("limits");
    out.config = f.optional<std::string>("config");
    out.appliedPanes = f.optional<std::vector<uint64_t>>("applied_panes");
}

void read(const json& j, DaemonSettings::Change& out) {
    Fields f(j, "settings change");
    out.scrollbackLines = f.optional<int>("scrollback_lines");
}

void read(const json& j, DaemonService& out) {
    Fields f(j, "service");
    out.supported = f.required<bool>("supported");
    out.manager = f.optional<std::string>("manager");
    out.label = f.optional<std::string>("label");
    out.file = f.optional<std::string>("file");
    out.installed = f.required<bool>("installed");
    out.loaded = f.required<bool>("loaded");
    out.upToDate = f.required<bool>("up_to_date");
    out.command = f.optional<std::vector<std::string>>("command");
    out.linger = f.optional<bool>("linger");
    out.needs = f.required<std::vector<std::string>>("needs");
    out.message = f.optional<std::string>("message");
}

void read(const json& j, CellPosition& out) {
    Fields f(j, "cell position");
    out.line = f.required<int>("line");
    out.col = f.required<int>("col");
}

void read(const json& j, PaneSearchMatch& out) {
    Fields f(j, "search match");
    out.start = f.required<CellPosition>("start");
    out.end = f.required<CellPosition>("end");
    out.text = f.required<std::string>("text");
    out.lineText = f.required<std::string>("line_text");
}

void read(const json& j, PaneSearchResult& out) {
    Fields f(j, "search result");
    out.seq = f.required<uint64_t>("seq");
    out.cols = f.required<int>("cols");
    out.rows = f.required<int>("rows");
    out.history = f.required<int>("history");
    out.matches = f.required<std::vector<PaneSearchMatch>>("matches");
    out.next = f.optional<CellPosition>("next");
}

void read(const json& j, AgentHistoryEntry& out) {
    Fields f(j, "history entry");
    out.at = f.required<double>("at");
    out.eventName = f.required<std::string>("event");
    out.kind = f.optional<std::string>("kind");
    out.stateName = f.optional<std::string>("state");
    out.fromName = f.optional<std::string>("from");
    out.message = f.optional<std::string>("message");
    out.session = f.optional<std::string>("session");
    out.pid = f.optional<int>("pid");
    out.source = f.optional<std::string>("source");
    out.guess = f.optional<bool>("guess").value_or(false);
    out.attention = f.optional<bool>("attention");
    out.muted = f.optional<bool>("muted");
}

void read(const json& j, AgentHistory& out) {
    Fields f(j, "agent history");
    out.pane = f.required<uint64_t>("pane");
    out.max = f.required<int64_t>("max");
    out.entries = f.required<std::vector<AgentHistoryEntry>>("entries");
}

void read(const json& j, PushRegistration& out) {
    Fields f(j, "push registration");
    out.device = f.required<std::string>("device");
    out.handle = f.required<std::string>("handle");
    out.key = f.required<std::string>("key");
    out.label = f.required<std::string>("label");
    out.relay = f.required<std::string>("relay");
    out.env = f.required<std::string>("env");
}

void read(const json& j, PushDevice& out) {
    Fields f(j, "push device");
    out.device = f.required<std::string>("device");
    out.label = f.required<std::string>("label");
    out.relay = f.required<std::string>("relay");
    out.env = f.required<std::string>("env");
    out.created = f.optional<double>("created");
    out.lastError = f.optional<std::string>("last_error");
}

void read(const json& j, PushActivity& out) {
    Fields f(j, "push activity");
    out.pane = f.required<uint64_t>("pane");
    out.device = f.required<std::string>("device");
    out.created = f.optional<double>("created");
    out.lastError = f.optional<std::string>("last_error");
}

void read(const json& j, CachedMachineState& out) {
    Fields f(j, "cached machine state");
    out.format = f.required<int>("format");
    out.state = f.required<ModelState>("state");
    out.lastSeen = f.required<double>("lastSeen");
    out.daemonVersion = f.optional<std::string>("daemonVersion");
    out.instance = f.optional<std::string>("instance");
    out.featureNames = f.required<std::vector<std::string>>("featureNames");
}

template <typename T>
void read(const json& j, std::vector<T>& out) {
    if (!j.is_array()) throw WrongType{"an array"};
    out.clear();
    out.reserve(j.size());
    for (const auto& element : j) {
        T value{};
        read(element, value);
        out.push_back(std::move(value));
    }
}

void read(const json& j, std::map<std::string, std::string>& out) {
    if (!j.is_object()) throw WrongType{"an object of strings"};
    out.clear();
    for (auto it = j.begin(); it != j.end(); ++it) {
        if (!it.value().is_string()) throw WrongType{"an object of strings"};
        out[it.key()] = it.value().get<std::string>();
    }
}

// Writers.

template <typename T>
json plain(const T& value) {
    return json(value);
}

template <typename T>
json plain(const std::vector<T>& values) {
    json out = json::array();
    for (const auto& value : values) {
        if constexpr (std::is_class_v<T> && !std::is_same_v<T, std::string>) {
            out.push_back(toJSON(value));
        } else {
            out.push_back(value);
        }
    }
    return out;
}

template <typename T>
void put(json& out, const char* key, const T& value) {
    if constexpr (std::is_class_v<T> && !std::is_same_v<T, std::string>) {
        out[key] = toJSON(value);
    } else {
        out[key] = value;
    }
}

template <typename T>
void put(json& out, const char* key, const std::vector<T>& values) {
    out[key] = plain(values);
}

void put(json& out, const char* key, const std::map<std::string, std::string>& values) { out[key] = values; }

template <typename T>
void put(json& out, const char* key, const std::optional<T>& value) {
    if (value) put(out, key, *value);
}

} // namespace

std::string colorText(RGB color) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "#%06" PRIx32, static_cast<uint32_t>(color & 0xFFFFFF));
    return buffer;
}

json toJSON(const Focus& v) {
    json out = json::object();
    put(out, "workspace", v.workspace);
    put(out, "tab", v.tab);
    put(out, "pane", v.pane);
    return out;
}

json toJSON(const Layout& v) {
    if (v.isLeaf()) return json{{"type", "pane"}, {"pane", v.leafPane()}};
    const auto& node = *v.splitNode();
    return json{{"type", "split"},         {"id", node.id},       {"axis", std::string(wireName(node.axis))},
                {"ratio", node.ratio},     {"a", toJSON(node.a)}, {"b", toJSON(node.b)}};
}

json toJSON(const Tab& v) {
    json out = json::object();
    put(out, "id", v.id);
    put(out, "title", v.title);
    put(out, "active_pane", v.activePane);
    put(out, "layout", v.layout);
    return out;
}

json toJSON(const Workspace& v) {
    json out = json::object();
    put(out, "id", v.id);
    put(out, "name", v.name);
    put(out, "tabs", v.tabs);
    put(out, "active_tab", v.activeTab);
    return out;
}

json toJSON(const PaneExit& v) {
    json out = json::object();
    put(out, "code", v.code);
    put(out, "signal", v.signal);
    return out;
}

json toJSON(const PaneRestore& v) {
    json out = json::object();
    put(out, "at", v.at);
    put(out, "agent", v.agent);
    put(out, "session", v.session);
    put(out, "continued", v.continued);
    return out;
}

json toJSON(const Worktree& v) {
    json out = json::object();
    put(out, "name", v.name);
    put(out, "path", v.path);
    return out;
}

json toJSON(const PullRequest& v) {
    json out = json::object();
    put(out, "number", v.number);
    if (v.state) out["state"] = std::string(wireName(*v.state));
    put(out, "url", v.url);
    put(out, "title", v.title);
    return out;
}

json toJSON(const PaneGit& v) {
    json out = json::object();
    put(out, "repo", v.repo);
    put(out, "root", v.root);
    put(out, "remote", v.remote);
    put(out, "branch", v.branch);
    put(out, "head", v.head);
    put(out, "worktree", v.worktree);
    put(out, "pr", v.pr);
    put(out, "pr_reason", v.prReason);
    return out;
}

json toJSON(const PermissionRequest& v) {
    json out = json::object();
    put(out, "id", v.id);
    put(out, "tool", v.tool);
    put(out, "summary", v.summary);
    return out;
}

json toJSON(const AgentInfo& v) {
    json out = json::object();
    put(out, "kind", v.kind);
    out["state"] = std::string(wireName(v.state));
    put(out, "source", v.source);
    put(out, "message", v.message);
    put(out, "since", v.since);
    put(out, "attention", v.attention);
    put(out, "session", v.session);
    put(out, "muted", v.muted);
    put(out, "quiet", v.quietRise);
    put(out, "prompt", v.prompt);
    put(out, "tool", v.tool);
    put(out, "tool_input", v.toolInput);
    put(out, "turn_started", v.turnStarted);
    put(out, "requests", v.requests);
    return out;
}

json toJSON(const Pane& v) {
    json out = json::object();
    put(out, "id", v.id);
    put(out, "cols", v.cols);
    put(out, "rows", v.rows);
    put(out, "pid", v.pid);
    put(out, "command", v.command);
    put(out, "title", v.title);
    put(out, "cwd", v.cwd);
    put(out, "seq", v.seq);
    put(out, "exited", v.exited);
    put(out, "agent", v.agent);
    put(out, "restored", v.restored);
    put(out, "git", v.git);
    return out;
}

json toJSON(const ModelState& v) {
    json out = json::object();
    put(out, "rev", v.rev);
    put(out, "focus", v.focus);
    put(out, "workspaces", v.workspaces);
    put(out, "panes", v.panes);
    return out;
}

json toJSON(const Hello::Machine& v) {
    json out = json::object();
    put(out, "hostname", v.hostname);
    put(out, "os", v.os);
    put(out, "arch", v.arch);
    put(out, "home", v.home);
    return out;
}

json toJSON(const Hello::Holder& v) {
    json out = json::object();
    put(out, "pid", v.pid);
    put(out, "version", v.version);
    put(out, "protocol", v.protocol);
    put(out, "exe", v.exe);
    put(out, "build", v.build);
    put(out, "can_upgrade", v.canUpgrade);
    put(out, "outdated", v.outdated);
    put(out, "namespace", v.nameSpace);
    return out;
}

json toJSON(const Hello& v) {
    json out = json::object();
    put(out, "protocol", v.protocol);
    put(out, "protocol_min", v.protocolMin);
    put(out, "protocol_max", v.protocolMax);
    put(out, "daemon", v.daemon);
    put(out, "version", v.version);
    put(out, "instance", v.instance);
    put(out, "pid", v.pid);
    put(out, "machine", v.machine);
    put(out, "features", v.featureNames);
    put(out, "exe", v.exe);
    put(out, "build", v.build);
    put(out, "holder", v.holder);
    put(out, "holder_outdated", v.holderOutdated);
    put(out, "namespace", v.nameSpace);
    return out;
}

json toJSON(const Size& v) { return json{{"cols", v.cols}, {"rows", v.rows}}; }

json toJSON(const SpawnOptions& v) {
    json out = json::object();
    put(out, "command", v.command);
    put(out, "cwd", v.cwd);
    put(out, "env", v.env);
    put(out, "cols", v.cols);
    put(out, "rows", v.rows);
    return out;
}

json toJSON(const CreatedWorkspace& v) {
    return json{{"workspace", v.workspace}, {"tab", v.tab}, {"pane", v.pane}};
}

json toJSON(const CreatedTab& v) { return json{{"tab", v.tab}, {"pane", v.pane}}; }

json toJSON(const CreatedSplit& v) { return json{{"pane", v.pane}, {"split", v.split}}; }

json toJSON(const Subscription& v) {
    return json{{"mode", std::string(wireName(v.mode))}, {"seq", v.seq}, {"cols", v.cols}, {"rows", v.rows}};
}

json toJSON(const PaneText& v) {
    json out = json::object();
    put(out, "lines", v.lines);
    out["cursor"] = json::array({v.cursorCol, v.cursorRow});
    put(out, "cols", v.cols);
    put(out, "rows", v.rows);
    put(out, "seq", v.seq);
    return out;
}

json toJSON(const TerminalColors& v) {
    json out = json::object();
    out["foreground"] = colorText(v.foreground);
    out["background"] = colorText(v.background);
    if (v.cursor) out["cursor"] = colorText(*v.cursor);
    if (v.ansi) {
        json ansi = json::array();
        for (auto color : *v.ansi) ansi.push_back(colorText(color));
        out["ansi"] = std::move(ansi);
    }
    return out;
}

json toJSON(const DaemonSettings::Range& v) {
    return json{{"min", v.min}, {"max", v.max}, {"default", v.defaultValue}};
}

json toJSON(const DaemonSettings::Limits& v) { return json{{"scrollback_lines", toJSON(v.scrollbackLines)}}; }

json toJSON(const DaemonSettings& v) {
    json out = json::object();
    put(out, "scrollback_lines", v.scrollbackLines);
    put(out, "limits", v.limits);
    put(out, "config", v.config);
    put(out, "applied_panes", v.appliedPanes);
    return out;
}

json toJSON(const DaemonSettings::Change& v) {
    json out = json::object();
    put(out, "scrollback_lines", v.scrollbackLines);
    return out;
}

json toJSON(const DaemonService& v) {
    json out = json::object();
    put(out, "supported", v.supported);
    put(out, "manager", v.manager);
    put(out, "label", v.label);
    put(out, "file", v.file);
    put(out, "installed", v.installed);
    put(out, "loaded", v.loaded);
    put(out, "up_to_date", v.upToDate);
    put(out, "command", v.command);
    put(out, "linger", v.linger);
    put(out, "needs", v.needs);
    put(out, "message", v.message);
    return out;
}

json toJSON(const CellPosition& v) { return json{{"line", v.line}, {"col", v.col}}; }

json toJSON(const PaneSearchMatch& v) {
    return json{{"start", toJSON(v.start)}, {"end", toJSON(v.end)}, {"text", v.text}, {"line_text", v.lineText}};
}

json toJSON(const PaneSearchResult& v) {
    json out = json::object();
    put(out, "seq", v.seq);
    put(out, "cols", v.cols);
    put(out, "rows", v.rows);
    put(out, "history", v.history);
    put(out, "matches", v.matches);
    put(out, "next", v.next);
    return out;
}

json toJSON(const AgentHistoryEntry& v) {
    json out = json::object();
    put(out, "at", v.at);
    put(out, "event", v.eventName);
    put(out, "kind", v.kind);
    put(out, "state", v.stateName);
    put(out, "from", v.fromName);
    put(out, "message", v.message);
    put(out, "session", v.session);
    put(out, "pid", v.pid);
    put(out, "source", v.source);
    put(out, "guess", v.guess);
    put(out, "attention", v.attention);
    put(out, "muted", v.muted);
    return out;
}

json toJSON(const AgentHistory& v) {
    json out = json::object();
    put(out, "pane", v.pane);
    put(out, "max", v.max);
    put(out, "entries", v.entries);
    return out;
}

json toJSON(const PushRegistration& v) {
    return json{{"device", v.device}, {"handle", v.handle}, {"key", v.key},
                {"label", v.label},   {"relay", v.relay},   {"env", v.env}};
}

json toJSON(const PushDevice& v) {
    json out = json::object();
    put(out, "device", v.device);
    put(out, "label", v.label);
    put(out, "relay", v.relay);
    put(out, "env", v.env);
    put(out, "created", v.created);
    put(out, "last_error", v.lastError);
    return out;
}

json toJSON(const PushActivity& v) {
    json out = json::object();
    put(out, "pane", v.pane);
    put(out, "device", v.device);
    put(out, "created", v.created);
    put(out, "last_error", v.lastError);
    return out;
}

json toJSON(const CachedMachineState& v) {
    json out = json::object();
    put(out, "format", v.format);
    put(out, "state", v.state);
    put(out, "lastSeen", v.lastSeen);
    put(out, "daemonVersion", v.daemonVersion);
    put(out, "instance", v.instance);
    put(out, "featureNames", v.featureNames);
    return out;
}

template <typename T>
T decodeJSON(const json& j) {
    T out{};
    try {
        read(j, out);
    } catch (const WrongType& wrong) {
        throw DecodingError(std::string("the document must be ") + wrong.expected);
    }
    return out;
}

template <typename T>
std::string encodeText(const T& value) {
    // Text that isn't UTF-8 is written with replacement characters rather than refused.
    return toJSON(value).dump(-1, ' ', false, json::error_handler_t::replace);
}

template <typename T>
T decodeText(std::string_view text) {
    json parsed = json::parse(text.begin(), text.end(), nullptr, false);
    if (parsed.is_discarded()) throw DecodingError("malformed JSON");
    return decodeJSON<T>(parsed);
}

#define CORVEX_SESSION_CODEC(T)                                                                                      \
    template T decodeJSON<T>(const json&);                                                                           \
    template std::string encodeText<T>(const T&);                                                                    \
    template T decodeText<T>(std::string_view);

CORVEX_SESSION_CODEC(ModelState)
CORVEX_SESSION_CODEC(Focus)
CORVEX_SESSION_CODEC(Workspace)
CORVEX_SESSION_CODEC(Tab)
CORVEX_SESSION_CODEC(Layout)
CORVEX_SESSION_CODEC(Pane)
CORVEX_SESSION_CODEC(PaneExit)
CORVEX_SESSION_CODEC(PaneRestore)
CORVEX_SESSION_CODEC(PaneGit)
CORVEX_SESSION_CODEC(Worktree)
CORVEX_SESSION_CODEC(PullRequest)
CORVEX_SESSION_CODEC(AgentInfo)
CORVEX_SESSION_CODEC(PermissionRequest)
CORVEX_SESSION_CODEC(Hello)
CORVEX_SESSION_CODEC(Hello::Machine)
CORVEX_SESSION_CODEC(Hello::Holder)
CORVEX_SESSION_CODEC(Size)
CORVEX_SESSION_CODEC(SpawnOptions)
CORVEX_SESSION_CODEC(CreatedWorkspace)
CORVEX_SESSION_CODEC(CreatedTab)
CORVEX_SESSION_CODEC(CreatedSplit)
CORVEX_SESSION_CODEC(Subscription)
CORVEX_SESSION_CODEC(PaneText)
CORVEX_SESSION_CODEC(TerminalColors)
CORVEX_SESSION_CODEC(DaemonSettings)
CORVEX_SESSION_CODEC(DaemonSettings::Change)
CORVEX_SESSION_CODEC(DaemonService)
CORVEX_SESSION_CODEC(CellPosition)
CORVEX_SESSION_CODEC(PaneSearchMatch)
CORVEX_SESSION_CODEC(PaneSearchResult)
CORVEX_SESSION_CODEC(AgentHistoryEntry)
CORVEX_SESSION_CODEC(AgentHistory)
CORVEX_SESSION_CODEC(PushRegistration)
CORVEX_SESSION_CODEC(PushDevice)
CORVEX_SESSION_CODEC(PushActivity)
CORVEX_SESSION_CODEC(CachedMachineState)

#undef CORVEX_SESSION_CODEC

} // namespace corvex
