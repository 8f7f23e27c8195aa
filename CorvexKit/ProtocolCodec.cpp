#include "CorvexKit/ProtocolJSON.h"

#include <limits>

namespace corvex::protocol {

using nlohmann::json;

namespace {

std::string quoted(const char* key) { return std::string("\"") + key + "\""; }

[[noreturn]] void wrong(const char* key, const char* expected) {
    throw DecodingError("param " + quoted(key) + " must be " + expected);
}

void readValue(const json& j, const char* key, uint64_t& out) {
    if (j.is_number_unsigned()) {
        out = j.get<uint64_t>();
    } else if (j.is_number_integer() && j.get<int64_t>() >= 0) {
        out = static_cast<uint64_t>(j.get<int64_t>());
    } else {
        wrong(key, "an unsigned integer");
    }
}

void readValue(const json& j, const char* key, int& out) {
    if (!j.is_number_integer()) wrong(key, "an integer");
    auto wide = j.get<int64_t>();
    if (j.is_number_unsigned() && j.get<uint64_t>() > uint64_t(std::numeric_limits<int>::max())) wrong(key, "an integer");
    if (wide < std::numeric_limits<int>::min() || wide > std::numeric_limits<int>::max()) wrong(key, "an integer");
    out = static_cast<int>(wide);
}

void readValue(const json& j, const char* key, double& out) {
    if (!j.is_number()) wrong(key, "a number");
    out = j.get<double>();
}

void readValue(const json& j, const char* key, bool& out) {
    if (!j.is_boolean()) wrong(key, "a boolean");
    out = j.get<bool>();
}

void readValue(const json& j, const char* key, std::string& out) {
    if (!j.is_string()) wrong(key, "a string");
    out = j.get<std::string>();
}

void readValue(const json& j, const char* key, std::vector<std::string>& out) {
    if (!j.is_array()) wrong(key, "a list of strings");
    out.clear();
    for (const auto& item : j) {
        if (!item.is_string()) wrong(key, "a list of strings");
        out.push_back(item.get<std::string>());
    }
}

void readValue(const json& j, const char* key, Direction& out) {
    if (!j.is_string()) wrong(key, "a direction");
    auto parsed = parseDirection(j.get<std::string>());
    if (!parsed) wrong(key, "left, right, up or down");
    out = *parsed;
}

void readValue(const json& j, const char* key, PermissionDecision& out) {
    if (!j.is_string()) wrong(key, "allow or deny");
    auto parsed = parsePermissionDecision(j.get<std::string>());
    if (!parsed) wrong(key, "allow or deny");
    out = *parsed;
}

template <typename T>
    requires std::is_class_v<T>
void readValue(const json& j, const char*, T& out) {
    out = decodeJSON<T>(j);
}

// The params object of a request. A required key must be there; an optional one may be
// absent or null; keys nobody asks for are ignored.
class Params {
public:
    explicit Params(const json& j) : j_(j) {
        if (!j.is_null() && !j.is_object()) throw DecodingError("params must be an object");
    }

    template <typename T>
    T required(const char* key) const {
        const json* found = find(key);
        if (!found || found->is_null()) throw DecodingError("missing " + std::string(key));
        T out{};
        readValue(*found, key, out);
        return out;
    }

    template <typename T>
    std::optional<T> optional(const char* key) const {
        const json* found = find(key);
        if (!found || found->is_null()) return std::nullopt;
        T out{};
        readValue(*found, key, out);
        return out;
    }

    bool has(const char* key) const {
        const json* found = find(key);
        return found && !found->is_null();
    }

    const json& whole() const { return j_; }

private:
    const json* find(const char* key) const {
        if (!j_.is_object()) return nullptr;
        auto it = j_.find(key);
        return it == j_.end() ? nullptr : &*it;
    }

    const json& j_;
};

// Spawn options travel merged into their method's params.
json withSpawn(const SpawnOptions& spawn) {
    json out = toJSON(spawn);
    return out.is_object() ? out : json::object();
}

SpawnOptions spawnFrom(const Params& p) { return p.whole().is_object() ? decodeJSON<SpawnOptions>(p.whole()) : SpawnOptions{}; }

template <typename T>
void putOptional(json& out, const char* key, const std::optional<T>& value) {
    if (value) out[key] = *value;
}

json paneOnly(uint64_t pane) { return json{{"pane", pane}}; }

} // namespace

// ---------------------------------------------------------------- params

json encodeParams(const HelloCall& c) { return json{{"protocol", c.protocol}, {"client", c.client}}; }
void decodeParams(const json& j, HelloCall& c) {
    Params p(j);
    c.protocol = p.optional<int>("protocol").value_or(version);
    c.client = p.optional<std::string>("client").value_or("");
}

json encodeParams(const ClientColors& c) { return json{{"colors", toJSON(c.colors)}}; }
void decodeParams(const json& j, ClientColors& c) { c.colors = Params(j).required<TerminalColors>("colors"); }

json encodeParams(const EventsSubscribe&) { return json(); }
void decodeParams(const json&, EventsSubscribe&) {}
json encodeParams(const Ping&) { return json(); }
void decodeParams(const json&, Ping&) {}
json encodeParams(const StateGet&) { return json(); }
void decodeParams(const json&, StateGet&) {}

json encodeParams(const WorkspaceCreate& c) {
    json out = withSpawn(c.spawn);
    putOptional(out, "name", c.workspaceName);
    return out;
}
void decodeParams(const json& j, WorkspaceCreate& c) {
    Params p(j);
    c.spawn = spawnFrom(p);
    c.workspaceName = p.optional<std::string>("name");
}

json encodeParams(const WorkspaceRename& c) { return json{{"workspace", c.workspace}, {"name", c.workspaceName}}; }
void decodeParams(const json& j, WorkspaceRename& c) {
    Params p(j);
    c.workspace = p.required<uint64_t>("workspace");
    c.workspaceName = p.required<std::string>("name");
}

json encodeParams(const WorkspaceClose& c) { return json{{"workspace", c.workspace}}; }
void decodeParams(const json& j, WorkspaceClose& c) { c.workspace = Params(j).required<uint64_t>("workspace"); }

json encodeParams(const TabCreate& c) {
    json out = withSpawn(c.spawn);
    out["workspace"] = c.workspace;
    return out;
}
void decodeParams(const json& j, TabCreate& c) {
    Params p(j);
    c.workspace = p.required<uint64_t>("workspace");
    c.spawn = spawnFrom(p);
}

json encodeParams(const TabRename& c) {
    json out{{"tab", c.tab}};
    putOptional(out, "title", c.title);
    return out;
}
void decodeParams(const json& j, TabRename& c) {
    Params p(j);
    c.tab = p.required<uint64_t>("tab");
    c.title = p.optional<std::string>("title");
}

json encodeParams(const TabClose& c) { return json{{"tab", c.tab}}; }
void decodeParams(const json& j, TabClose& c) { c.tab = Params(j).required<uint64_t>("tab"); }

json encodeParams(const PaneSplit& c) {
    json out = withSpawn(c.spawn);
    out["pane"] = c.pane;
    out["direction"] = wireName(c.direction);
    putOptional(out, "ratio", c.ratio);
    return out;
}
void decodeParams(const json& j, PaneSplit& c) {
    Params p(j);
    c.pane = p.required<uint64_t>("pane");
    c.direction = p.required<Direction>("direction");
    c.ratio = p.optional<double>("ratio");
    c.spawn = spawnFrom(p);
}

json encodeParams(const PaneClose& c) { return paneOnly(c.pane); }
void decodeParams(const json& j, PaneClose& c) { c.pane = Params(j).required<uint64_t>("pane"); }

json encodeParams(const SplitSetRatio& c) { return json{{"split", c.split}, {"ratio", c.ratio}}; }
void decodeParams(const json& j, SplitSetRatio& c) {
    Params p(j);
    c.split = p.required<uint64_t>("split");
    c.ratio = p.required<double>("ratio");
}

json encodeParams(const FocusCall& c) {
    const char* key = c.target.kind == FocusTarget::Kind::pane  ? "pane"
                      : c.target.kind == FocusTarget::Kind::tab ? "tab"
                                                                : "workspace";
    return json{{key, c.target.id}};
}
void decodeParams(const json& j, FocusCall& c) {
    Params p(j);
    int given = p.has("pane") + p.has("tab") + p.has("workspace");
    if (given != 1) throw DecodingError("focus needs exactly one of pane, tab, workspace");
    if (p.has("pane")) c.target = FocusTarget::pane(p.required<uint64_t>("pane"));
    if (p.has("tab")) c.target = FocusTarget::tab(p.required<uint64_t>("tab"));
    if (p.has("workspace")) c.target = FocusTarget::workspace(p.required<uint64_t>("workspace"));
}

json encodeParams(const PaneSubscribe& c) {
    json out{{"pane", c.pane}};
    putOptional(out, "have_seq", c.haveSeq);
    putOptional(out, "scrollback", c.scrollback);
    if (c.viewport) out["viewport"] = toJSON(*c.viewport);
    return out;
}
void decodeParams(const json& j, PaneSubscribe& c) {
    Params p(j);
    c.pane = p.required<uint64_t>("pane");
    c.haveSeq = p.optional<uint64_t>("have_seq");
    c.scrollback = p.optional<int>("scrollback");
    c.viewport = p.optional<Size>("viewport");
}

json encodeParams(const PaneUnsubscribe& c) { return paneOnly(c.pane); }
void decodeParams(const json& j, PaneUnsubscribe& c) { c.pane = Params(j).required<uint64_t>("pane"); }

json encodeParams(const PaneViewport& c) { return json{{"pane", c.pane}, {"cols", c.size.cols}, {"rows", c.size.rows}}; }
void decodeParams(const json& j, PaneViewport& c) {
    Params p(j);
    c.pane = p.required<uint64_t>("pane");
    c.size = Size{p.required<int>("cols"), p.required<int>("rows")};
}

json encodeParams(const PaneResize& c) { return json{{"pane", c.pane}, {"cols", c.size.cols}, {"rows", c.size.rows}}; }
void decodeParams(const json& j, PaneResize& c) {
    Params p(j);
    c.pane = p.required<uint64_t>("pane");
    c.size = Size{p.required<int>("cols"), p.required<int>("rows")};
}

json encodeParams(const PaneFocus& c) { return paneOnly(c.pane); }
void decodeParams(const json& j, PaneFocus& c) { c.pane = Params(j).required<uint64_t>("pane"); }

json encodeParams(const PaneKeys& c) {
    json out{{"pane", c.pane}, {"keys", c.keys}};
    putOptional(out, "text", c.text);
    return out;
}
void decodeParams(const json& j, PaneKeys& c) {
    Params p(j);
    c.pane = p.required<uint64_t>("pane");
    c.keys = p.optional<std::vector<std::string>>("keys").value_or(std::vector<std::string>{});
    c.text = p.optional<std::string>("text");
}

json encodeParams(const PaneDismissRestored& c) { return paneOnly(c.pane); }
void decodeParams(const json& j, PaneDismissRestored& c) { c.pane = Params(j).required<uint64_t>("pane"); }

json encodeParams(const PaneTextCall& c) { return paneOnly(c.pane); }
void decodeParams(const json& j, PaneTextCall& c) { c.pane = Params(j).required<uint64_t>("pane"); }

json encodeParams(const PaneSearch& c) {
    json out{{"pane", c.pane},
             {"query", c.query},
             {"regex", c.options.regex},
             {"case_sensitive", c.options.caseSensitive}};
    putOptional(out, "limit", c.options.limit);
    if (c.options.before) out["before"] = toJSON(*c.options.before);
    return out;
}
void decodeParams(const json& j, PaneSearch& c) {
    Params p(j);
    c.pane = p.required<uint64_t>("pane");
    c.query = p.required<std::string>("query");
    c.options.regex = p.optional<bool>("regex").value_or(false);
    c.options.caseSensitive = p.optional<bool>("case_sensitive").value_or(false);
    c.options.limit = p.optional<int>("limit");
    c.options.before = p.optional<CellPosition>("before");
}

json encodeParams(const WorkspaceMove& c) { return json{{"workspace", c.workspace}, {"index", c.index}}; }
void decodeParams(const json& j, WorkspaceMove& c) {
    Params p(j);
    c.workspace = p.required<uint64_t>("workspace");
    c.index = p.required<int>("index");
}

json encodeParams(const TabMove& c) {
    json out{{"tab", c.tab}, {"index", c.index}};
    putOptional(out, "workspace", c.workspace);
    if (c.focus) out["focus"] = true;
    return out;
}
void decodeParams(const json& j, TabMove& c) {
    Params p(j);
    c.tab = p.required<uint64_t>("tab");
    c.index = p.required<int>("index");
    c.workspace = p.optional<uint64_t>("workspace");
    c.focus = p.optional<bool>("focus").value_or(false);
}

namespace {

template <typename M>
json graft(const M& c, const char* key, uint64_t id) {
    json out{{key, id}, {"to_pane", c.toPane}, {"direction", wireName(c.direction)}, {"focus", c.focus}};
    putOptional(out, "ratio", c.ratio);
    return out;
}

template <typename M>
uint64_t readGraft(const json& j, M& c, const char* key) {
    Params p(j);
    c.toPane = p.required<uint64_t>("to_pane");
    c.direction = p.required<Direction>("direction");
    c.focus = p.optional<bool>("focus").value_or(false);
    c.ratio = p.optional<double>("ratio");
    return p.required<uint64_t>(key);
}

} // namespace

json encodeParams(const PaneMove& c) { return graft(c, "pane", c.pane); }
void decodeParams(const json& j, PaneMove& c) { c.pane = readGraft(j, c, "pane"); }
json encodeParams(const TabJoin& c) { return graft(c, "tab", c.tab); }
void decodeParams(const json& j, TabJoin& c) { c.tab = readGraft(j, c, "tab"); }

json encodeParams(const AgentAck& c) { return paneOnly(c.pane); }
void decodeParams(const json& j, AgentAck& c) { c.pane = Params(j).required<uint64_t>("pane"); }

json encodeParams(const AgentMute& c) { return json{{"pane", c.pane}, {"muted", c.muted}}; }
void decodeParams(const json& j, AgentMute& c) {
    Params p(j);
    c.pane = p.required<uint64_t>("pane");
    c.muted = p.required<bool>("muted");
}

json encodeParams(const AgentDecide& c) {
    json out{{"pane", c.pane}, {"request", c.request}, {"decision", wireName(c.decision)}};
    putOptional(out, "message", c.message);
    return out;
}
void decodeParams(const json& j, AgentDecide& c) {
    Params p(j);
    c.pane = p.required<uint64_t>("pane");
    c.request = p.required<std::string>("request");
    c.decision = p.required<PermissionDecision>("decision");
    c.message = p.optional<std::string>("message");
}

json encodeParams(const AgentHistoryCall& c) {
    json out = paneOnly(c.pane);
    putOptional(out, "limit", c.limit);
    putOptional(out, "since", c.since);
    return out;
}
void decodeParams(const json& j, AgentHistoryCall& c) {
    Params p(j);
    c.pane = p.required<uint64_t>("pane");
    c.limit = p.optional<int>("limit");
    c.since = p.optional<double>("since");
}

json encodeParams(const AgentReport& c) {
    json out{{"pane", c.pane}, {"kind", c.kind}, {"event", c.event}};
    putOptional(out, "pid", c.pid);
    putOptional(out, "session", c.session);
    putOptional(out, "message", c.message);
    putOptional(out, "prompt", c.prompt);
    putOptional(out, "tool", c.tool);
    putOptional(out, "tool_input", c.toolInput);
    return out;
}
void decodeParams(const json& j, AgentReport& c) {
    Params p(j);
    c.pane = p.required<uint64_t>("pane");
    c.kind = p.required<std::string>("kind");
    c.event = p.required<std::string>("event");
    c.pid = p.optional<int>("pid");
    c.session = p.optional<std::string>("session");
    c.message = p.optional<std::string>("message");
    c.prompt = p.optional<std::string>("prompt");
    c.tool = p.optional<std::string>("tool");
    c.toolInput = p.optional<std::string>("tool_input");
}

json encodeParams(const AgentVerdictCall& c) { return json{{"pane", c.pane}, {"request", c.request}}; }
void decodeParams(const json& j, AgentVerdictCall& c) {
    Params p(j);
    c.pane = p.required<uint64_t>("pane");
    c.request = p.required<std::string>("request");
}

json encodeParams(const SettingsGet&) { return json(); }
void decodeParams(const json&, SettingsGet&) {}
json encodeParams(const SettingsSet& c) { return toJSON(c.change); }
void decodeParams(const json& j, SettingsSet& c) {
    c.change = j.is_null() ? DaemonSettings::Change{} : decodeJSON<DaemonSettings::Change>(j);
}

json encodeParams(const ServiceStatus&) { return json(); }
void decodeParams(const json&, ServiceStatus&) {}
json encodeParams(const ServiceInstall&) { return json(); }
void decodeParams(const json&, ServiceInstall&) {}
json encodeParams(const ServiceUninstall&) { return json(); }
void decodeParams(const json&, ServiceUninstall&) {}

json encodeParams(const PushRegister& c) { return toJSON(c.registration); }
void decodeParams(const json& j, PushRegister& c) { c.registration = decodeJSON<PushRegistration>(j); }

json encodeParams(const PushUnregister& c) { return json{{"device", c.device}}; }
void decodeParams(const json& j, PushUnregister& c) { c.device = Params(j).required<std::string>("device"); }

json encodeParams(const PushList&) { return json(); }
void decodeParams(const json&, PushList&) {}
json encodeParams(const PushActivities&) { return json(); }
void decodeParams(const json&, PushActivities&) {}

json encodeParams(const PushTest& c) { return json{{"device", c.device}}; }
void decodeParams(const json& j, PushTest& c) { c.device = Params(j).required<std::string>("device"); }

json encodeParams(const PushActivityStart& c) {
    json out{{"pane", c.pane}, {"device", c.device}, {"token", c.token}};
    putOptional(out, "env", c.env);
    return out;
}
void decodeParams(const json& j, PushActivityStart& c) {
    Params p(j);
    c.pane = p.required<uint64_t>("pane");
    c.device = p.required<std::string>("device");
    c.token = p.required<std::string>("token");
    c.env = p.optional<std::string>("env");
}

json encodeParams(const PushActivityEnd& c) { return json{{"pane", c.pane}, {"device", c.device}}; }
void decodeParams(const json& j, PushActivityEnd& c) {
    Params p(j);
    c.pane = p.required<uint64_t>("pane");
    c.device = p.required<std::string>("device");
}

// ---------------------------------------------------------------- results

namespace {

template <typename T>
json listUnder(const char* key, const std::vector<T>& items) {
    json list = json::array();
    for (const auto& item : items) list.push_back(toJSON(item));
    return json{{key, std::move(list)}};
}

template <typename T>
std::vector<T> listFrom(const json& result, const char* key) {
    std::vector<T> list;
    if (!result.is_object()) return list;
    auto found = result.find(key);
    if (found == result.end() || found->is_null()) return list;
    if (!found->is_array()) throw DecodingError(std::string("\"") + key + "\" is not a list");
    for (const auto& item : *found) list.push_back(decodeJSON<T>(item));
    return list;
}

} // namespace

json encodeResultValue(const NoResult&) { return json::object(); }
json encodeResultValue(const std::vector<PushDevice>& devices) { return listUnder("devices", devices); }
json encodeResultValue(const std::vector<PushActivity>& activities) { return listUnder("activities", activities); }
json encodeResultValue(const AgentReport::Result& result) {
    json out = json::object();
    putOptional(out, "request", result.request);
    return out;
}
json encodeResultValue(const AgentVerdict& verdict) {
    json out{{"open", verdict.open}};
    if (verdict.decision) out["decision"] = wireName(*verdict.decision);
    putOptional(out, "message", verdict.message);
    return out;
}
void decodeResultValue(const json&, NoResult&) {}
void decodeResultValue(const json& result, AgentReport::Result& out) {
    Params p(result);
    out.request = p.optional<std::string>("request");
}
void decodeResultValue(const json& result, AgentVerdict& out) {
    Params p(result);
    out.open = p.optional<bool>("open").value_or(false);
    out.decision = p.optional<PermissionDecision>("decision");
    out.message = p.optional<std::string>("message");
}
void decodeResultValue(const json& result, std::vector<PushDevice>& out) { out = listFrom<PushDevice>(result, "devices"); }
void decodeResultValue(const json& result, std::vector<PushActivity>& out) {
    out = listFrom<PushActivity>(result, "activities");
}

} // namespace corvex::protocol
