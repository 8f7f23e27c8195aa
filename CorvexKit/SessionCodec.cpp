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

void read(const json& j, Color& out);
void read(const json& j, Layout& out);
void read(const json& j, PullRequest& out);
void read(const json& j, PaneText& out);
void read(const json& j, TerminalColors& out);
void read(const json& j, AgentInfo::State& out);
void read(const json& j, Subscription::Mode& out);

// Most documents are plain records: a key per member, required unless the member is
// optional. One table per record serves both directions.

template <typename S, typename M>
struct Field {
    const char* key;
    M S::*member;
    // Absent or null reads as the member's default; always written.
    bool defaulted = false;
};

template <typename S, typename M>
constexpr Field<S, M> field(const char* key, M S::*member) {
    return {key, member, false};
}

template <typename S, typename M>
constexpr Field<S, M> defaulted(const char* key, M S::*member) {
    return {key, member, true};
}

template <typename T>
struct IsOptional : std::false_type {};
template <typename T>
struct IsOptional<std::optional<T>> : std::true_type {};

template <typename T>
struct Record;

#define CORVEX_RECORD(T, what, ...)                                                                                  \
    template <>                                                                                                      \
    struct Record<T> {                                                                                               \
        static constexpr const char* name = what;                                                                    \
        static constexpr auto fields = std::make_tuple(__VA_ARGS__);                                                 \
    };

CORVEX_RECORD(Focus, "focus", field("workspace", &Focus::workspace), field("tab", &Focus::tab),
              field("pane", &Focus::pane))
CORVEX_RECORD(Tab, "tab", field("id", &Tab::id), field("title", &Tab::title), field("active_pane", &Tab::activePane),
              field("layout", &Tab::layout))
CORVEX_RECORD(Workspace, "workspace", field("id", &Workspace::id), field("name", &Workspace::name),
              field("tabs", &Workspace::tabs), field("active_tab", &Workspace::activeTab))
CORVEX_RECORD(PaneExit, "exit", field("code", &PaneExit::code), field("signal", &PaneExit::signal))
CORVEX_RECORD(PaneRestore, "restore", field("at", &PaneRestore::at), field("agent", &PaneRestore::agent),
              field("session", &PaneRestore::session), defaulted("continued", &PaneRestore::continued))
CORVEX_RECORD(Worktree, "worktree", field("name", &Worktree::name), field("path", &Worktree::path))
CORVEX_RECORD(PaneGit, "git", field("repo", &PaneGit::repo), field("root", &PaneGit::root),
              field("remote", &PaneGit::remote), field("branch", &PaneGit::branch), field("head", &PaneGit::head),
              field("worktree", &PaneGit::worktree), field("pr", &PaneGit::pr),
              field("pr_reason", &PaneGit::prReason))
CORVEX_RECORD(PermissionRequest, "permission request", field("id", &PermissionRequest::id),
              field("tool", &PermissionRequest::tool), field("summary", &PermissionRequest::summary))
CORVEX_RECORD(AgentInfo, "agent", field("kind", &AgentInfo::kind), field("state", &AgentInfo::state),
              field("source", &AgentInfo::source), field("message", &AgentInfo::message),
              field("since", &AgentInfo::since), field("attention", &AgentInfo::attention),
              field("session", &AgentInfo::session), field("muted", &AgentInfo::muted),
              field("quiet", &AgentInfo::quietRise), field("prompt", &AgentInfo::prompt),
              field("tool", &AgentInfo::tool), field("tool_input", &AgentInfo::toolInput),
              field("turn_started", &AgentInfo::turnStarted), field("requests", &AgentInfo::requests))
CORVEX_RECORD(Pane, "pane", field("id", &Pane::id), field("cols", &Pane::cols), field("rows", &Pane::rows),
              field("pid", &Pane::pid), field("command", &Pane::command), field("title", &Pane::title),
              field("cwd", &Pane::cwd), field("seq", &Pane::seq), field("exited", &Pane::exited),
              field("agent", &Pane::agent), field("restored", &Pane::restored), field("git", &Pane::git))
CORVEX_RECORD(ModelState, "state", field("rev", &ModelState::rev), field("focus", &ModelState::focus),
              field("workspaces", &ModelState::workspaces), field("panes", &ModelState::panes))
CORVEX_RECORD(Hello::Machine, "machine", field("hostname", &Hello::Machine::hostname),
              field("os", &Hello::Machine::os), field("arch", &Hello::Machine::arch),
              field("home", &Hello::Machine::home))
CORVEX_RECORD(Hello::Holder, "holder", field("pid", &Hello::Holder::pid), field("version", &Hello::Holder::version),
              field("protocol", &Hello::Holder::protocol), field("exe", &Hello::Holder::exe),
              field("build", &Hello::Holder::build), field("can_upgrade", &Hello::Holder::canUpgrade),
              field("outdated", &Hello::Holder::outdated), field("namespace", &Hello::Holder::nameSpace))
CORVEX_RECORD(Hello, "hello", field("protocol", &Hello::protocol), field("protocol_min", &Hello::protocolMin),
              field("protocol_max", &Hello::protocolMax), field("daemon", &Hello::daemon),
              field("version", &Hello::version), field("instance", &Hello::instance), field("pid", &Hello::pid),
              field("machine", &Hello::machine), field("features", &Hello::featureNames),
              field("exe", &Hello::exe), field("build", &Hello::build), field("holder", &Hello::holder),
              field("holder_outdated", &Hello::holderOutdated), field("namespace", &Hello::nameSpace))
CORVEX_RECORD(Size, "size", field("cols", &Size::cols), field("rows", &Size::rows))
CORVEX_RECORD(SpawnOptions, "spawn options", field("command", &SpawnOptions::command),
              field("cwd", &SpawnOptions::cwd), field("env", &SpawnOptions::env), field("cols", &SpawnOptions::cols),
              field("rows", &SpawnOptions::rows))
CORVEX_RECORD(CreatedWorkspace, "created workspace", field("workspace", &CreatedWorkspace::workspace),
              field("tab", &CreatedWorkspace::tab), field("pane", &CreatedWorkspace::pane))
CORVEX_RECORD(CreatedTab, "created tab", field("tab", &CreatedTab::tab), field("pane", &CreatedTab::pane))
CORVEX_RECORD(CreatedSplit, "created split", field("pane", &CreatedSplit::pane), field("split", &CreatedSplit::split))
CORVEX_RECORD(Subscription, "subscription", field("mode", &Subscription::mode), field("seq", &Subscription::seq),
              field("cols", &Subscription::cols), field("rows", &Subscription::rows))
CORVEX_RECORD(DaemonSettings::Range, "range", field("min", &DaemonSettings::Range::min),
              field("max", &DaemonSettings::Range::max), field("default", &DaemonSettings::Range::defaultValue))
CORVEX_RECORD(DaemonSettings::Limits, "limits", field("scrollback_lines", &DaemonSettings::Limits::scrollbackLines))
CORVEX_RECORD(DaemonSettings, "settings", field("scrollback_lines", &DaemonSettings::scrollbackLines),
              field("limits", &DaemonSettings::limits), field("config", &DaemonSettings::config),
              field("applied_panes", &DaemonSettings::appliedPanes))
CORVEX_RECORD(DaemonSettings::Change, "settings change",
              field("scrollback_lines", &DaemonSettings::Change::scrollbackLines))
CORVEX_RECORD(DaemonService, "service", field("supported", &DaemonService::supported),
              field("manager", &DaemonService::manager), field("label", &DaemonService::label),
              field("file", &DaemonService::file), field("installed", &DaemonService::installed),
              field("loaded", &DaemonService::loaded), field("up_to_date", &DaemonService::upToDate),
              field("command", &DaemonService::command), field("linger", &DaemonService::linger),
              field("needs", &DaemonService::needs), field("message", &DaemonService::message))
CORVEX_RECORD(CellPosition, "cell position", field("line", &CellPosition::line), field("col", &CellPosition::col))
CORVEX_RECORD(PaneSearchMatch, "search match", field("start", &PaneSearchMatch::start),
              field("end", &PaneSearchMatch::end), field("text", &PaneSearchMatch::text),
              field("line_text", &PaneSearchMatch::lineText))
CORVEX_RECORD(PaneSearchResult, "search result", field("seq", &PaneSearchResult::seq),
              field("cols", &PaneSearchResult::cols), field("rows", &PaneSearchResult::rows),
              field("history", &PaneSearchResult::history), field("matches", &PaneSearchResult::matches),
              field("next", &PaneSearchResult::next))
CORVEX_RECORD(AgentHistoryEntry, "history entry", field("at", &AgentHistoryEntry::at),
              field("event", &AgentHistoryEntry::eventName), field("kind", &AgentHistoryEntry::kind),
              field("state", &AgentHistoryEntry::stateName), field("from", &AgentHistoryEntry::fromName),
              field("message", &AgentHistoryEntry::message), field("session", &AgentHistoryEntry::session),
              field("pid", &AgentHistoryEntry::pid), field("source", &AgentHistoryEntry::source),
              defaulted("guess", &AgentHistoryEntry::guess), field("attention", &AgentHistoryEntry::attention),
              field("muted", &AgentHistoryEntry::muted))
CORVEX_RECORD(AgentHistory, "agent history", field("pane", &AgentHistory::pane), field("max", &AgentHistory::max),
              field("entries", &AgentHistory::entries))
CORVEX_RECORD(PushRegistration, "push registration", field("device", &PushRegistration::device),
              field("handle", &PushRegistration::handle), field("key", &PushRegistration::key),
              field("label", &PushRegistration::label), field("relay", &PushRegistration::relay),
              field("env", &PushRegistration::env))
CORVEX_RECORD(PushDevice, "push device", field("device", &PushDevice::device), field("label", &PushDevice::label),
              field("relay", &PushDevice::relay), field("env", &PushDevice::env),
              field("created", &PushDevice::created), field("last_error", &PushDevice::lastError))
CORVEX_RECORD(PushActivity, "push activity", field("pane", &PushActivity::pane),
              field("device", &PushActivity::device), field("created", &PushActivity::created),
              field("last_error", &PushActivity::lastError))
CORVEX_RECORD(CachedMachineState, "cached machine state", field("format", &CachedMachineState::format),
              field("state", &CachedMachineState::state), field("lastSeen", &CachedMachineState::lastSeen),
              field("daemonVersion", &CachedMachineState::daemonVersion),
              field("instance", &CachedMachineState::instance),
              field("featureNames", &CachedMachineState::featureNames))

#undef CORVEX_RECORD

template <typename T>
concept IsRecord = requires { Record<T>::fields; };

template <IsRecord T>
void read(const json& j, T& out);

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

// Enumerations travel as their wire words.

void read(const json& j, AgentInfo::State& out) {
    if (!j.is_string()) throw WrongType{"a string"};
    // An agent state this client doesn't know yet reads as the nearest one it does.
    out = parseAgentState(j.get_ref<const std::string&>());
}

void read(const json& j, Subscription::Mode& out) {
    if (!j.is_string()) throw WrongType{"a string"};
    const auto& word = j.get_ref<const std::string&>();
    auto mode = parseSubscriptionMode(word);
    if (!mode) throw DecodingError("unknown subscription mode " + word);
    out = *mode;
}


template <typename S, typename M>
void readField(const Fields& fields, const Field<S, M>& field, S& out) {
    if constexpr (IsOptional<M>::value) {
        out.*field.member = fields.optional<typename M::value_type>(field.key);
    } else {
        out.*field.member = field.defaulted ? fields.optional<M>(field.key).value_or(M{}) : fields.required<M>(field.key);
    }
}

// Keys are read in the table's order, so a document missing two keys names the first.
template <IsRecord T>
void read(const json& j, T& out) {
    Fields fields(j, Record<T>::name);
    std::apply([&](const auto&... each) { (readField(fields, each, out), ...); }, Record<T>::fields);
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

// The records that aren't plain.

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
    if constexpr (std::is_enum_v<T>) {
        out[key] = std::string(wireName(value));
    } else if constexpr (std::is_class_v<T> && !std::is_same_v<T, std::string>) {
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

template <IsRecord T>
json writeRecord(const T& value) {
    json out = json::object();
    std::apply([&](const auto&... each) { (put(out, each.key, value.*each.member), ...); }, Record<T>::fields);
    return out;
}

} // namespace

std::string colorText(RGB color) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "#%06" PRIx32, static_cast<uint32_t>(color & 0xFFFFFF));
    return buffer;
}

json toJSON(const Layout& v) {
    if (v.isLeaf()) return json{{"type", "pane"}, {"pane", v.leafPane()}};
    const auto& node = *v.splitNode();
    return json{{"type", "split"},         {"id", node.id},       {"axis", std::string(wireName(node.axis))},
                {"ratio", node.ratio},     {"a", toJSON(node.a)}, {"b", toJSON(node.b)}};
}

json toJSON(const PullRequest& v) {
    json out = json::object();
    put(out, "number", v.number);
    put(out, "state", v.state);
    put(out, "url", v.url);
    put(out, "title", v.title);
    return out;
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

#define CORVEX_RECORD_WRITER(T) \
    json toJSON(const T& v) { return writeRecord(v); }
CORVEX_RECORD_WRITER(Focus)
CORVEX_RECORD_WRITER(Tab)
CORVEX_RECORD_WRITER(Workspace)
CORVEX_RECORD_WRITER(PaneExit)
CORVEX_RECORD_WRITER(PaneRestore)
CORVEX_RECORD_WRITER(Worktree)
CORVEX_RECORD_WRITER(PaneGit)
CORVEX_RECORD_WRITER(PermissionRequest)
CORVEX_RECORD_WRITER(AgentInfo)
CORVEX_RECORD_WRITER(Pane)
CORVEX_RECORD_WRITER(ModelState)
CORVEX_RECORD_WRITER(Hello::Machine)
CORVEX_RECORD_WRITER(Hello::Holder)
CORVEX_RECORD_WRITER(Hello)
CORVEX_RECORD_WRITER(Size)
CORVEX_RECORD_WRITER(SpawnOptions)
CORVEX_RECORD_WRITER(CreatedWorkspace)
CORVEX_RECORD_WRITER(CreatedTab)
CORVEX_RECORD_WRITER(CreatedSplit)
CORVEX_RECORD_WRITER(Subscription)
CORVEX_RECORD_WRITER(DaemonSettings::Range)
CORVEX_RECORD_WRITER(DaemonSettings::Limits)
CORVEX_RECORD_WRITER(DaemonSettings)
CORVEX_RECORD_WRITER(DaemonSettings::Change)
CORVEX_RECORD_WRITER(DaemonService)
CORVEX_RECORD_WRITER(CellPosition)
CORVEX_RECORD_WRITER(PaneSearchMatch)
CORVEX_RECORD_WRITER(PaneSearchResult)
CORVEX_RECORD_WRITER(AgentHistoryEntry)
CORVEX_RECORD_WRITER(AgentHistory)
CORVEX_RECORD_WRITER(PushRegistration)
CORVEX_RECORD_WRITER(PushDevice)
CORVEX_RECORD_WRITER(PushActivity)
CORVEX_RECORD_WRITER(CachedMachineState)

#undef CORVEX_RECORD_WRITER

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
