#include "Tools/corvex/Commands.h"

#include <climits>
#include <iostream>
#include <iterator>
#include <unistd.h>

#include "CorvexKit/CorvexdBackend.h"
#include "CorvexKit/KeyNames.h"
#include "Tools/corvex/SessionTree.h"
#include "CorvexKit/SessionCodecJSON.h"

namespace corvex::cli {

using json = nlohmann::json;

namespace {

void printJSON(Streams& io, const json& value) { io.out << value.dump(-1, ' ', false, json::error_handler_t::replace) << "\n"; }

std::string currentFolder() {
    char buffer[PATH_MAX];
    return ::getcwd(buffer, sizeof buffer) ? std::string(buffer) : std::string();
}

// COLSxROWS, each a whole number of cells that a terminal can have.
Size parseSize(const std::string& text) {
    auto x = text.find('x');
    auto bad = [&] { return UsageError("bad --size: " + text + " (COLSxROWS, such as 120x40)"); };
    if (x == std::string::npos) throw bad();
    int cols = 0, rows = 0;
    try {
        cols = parseInt(text.substr(0, x), "--size");
        rows = parseInt(text.substr(x + 1), "--size");
    } catch (const UsageError&) {
        throw bad();
    }
    if (cols < 1 || rows < 1 || cols > 9999 || rows > 9999) {
        throw UsageError("bad --size: " + text + " (columns and rows from 1 to 9999)");
    }
    return {cols, rows};
}

// A split's share of the first pane: strictly between nothing and everything.
double parseRatio(const std::string& text) {
    double ratio = parseNumber(text, "ratio");
    if (ratio <= 0 || ratio >= 1) throw UsageError("bad ratio: " + text + " (a number between 0 and 1, such as 0.3)");
    return ratio;
}

std::string parseName(const std::string& text, const std::string& what) {
    if (text.find_first_not_of(" \t") == std::string::npos) throw UsageError("a " + what + " name can't be empty");
    return text;
}

} // namespace

// --cwd, --env NAME=VALUE (repeatable), --size COLSxROWS, and the program after "--".
SpawnOptions parseSpawn(Arguments& args, bool startHere) {
    SpawnOptions spawn;
    spawn.cwd = args.option("--cwd");
    if (spawn.cwd && spawn.cwd->empty()) throw UsageError("bad --cwd: an empty folder name");
    // New shells start where the user is, as a new tmux window does.
    if (!spawn.cwd && startHere && args.daemonIsLocal()) {
        if (auto here = currentFolder(); !here.empty()) spawn.cwd = here;
    }
    auto env = args.options("--env");
    if (!env.empty()) {
        spawn.env.emplace();
        for (const auto& item : env) {
            auto equals = item.find('=');
            if (equals == std::string::npos || equals == 0) throw UsageError("bad --env: " + item + " (NAME=VALUE)");
            (*spawn.env)[item.substr(0, equals)] = item.substr(equals + 1);
        }
    }
    if (auto size = args.option("--size")) {
        Size parsed = parseSize(*size);
        spawn.cols = parsed.cols;
        spawn.rows = parsed.rows;
    }
    if (auto program = args.trailing(); program && !program->empty()) spawn.command = *program;
    return spawn;
}

namespace {

Direction parseDirectionArgument(const std::string& text) {
    if (auto direction = parseDirection(text)) return *direction;
    throw UsageError("bad direction: " + text + " (right, down, left or up)");
}

enum class Kind { pane, tab, workspace };

Kind parseKind(Arguments& args) {
    std::string kind = args.positional("what (pane, tab or workspace)");
    if (kind == "pane") return Kind::pane;
    if (kind == "tab") return Kind::tab;
    if (kind == "workspace") return Kind::workspace;
    throw UsageError("bad kind: " + kind + " (pane, tab or workspace)");
}

// "\n", "\r", "\t", "\e", "\\", "\xHH" and "\0NNN", as echo -e reads them.
std::string unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 >= text.size()) {
            out += text[i];
            continue;
        }
        char next = text[++i];
        switch (next) {
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'e': out += '\x1b'; break;
        case 'a': out += '\a'; break;
        case 'b': out += '\b'; break;
        case '\\': out += '\\'; break;
        case 'x': {
            int value = 0, digits = 0;
            while (digits < 2 && i + 1 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1]))) {
                char c = text[++i];
                value = value * 16 + (std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : (std::tolower(c) - 'a' + 10));
                ++digits;
            }
            if (digits == 0) throw UsageError("bad escape: \\x needs hexadecimal digits");
            out += static_cast<char>(value);
            break;
        }
        case '0': {
            int value = 0, digits = 0;
            while (digits < 3 && i + 1 < text.size() && text[i + 1] >= '0' && text[i + 1] <= '7') {
                value = value * 8 + (text[++i] - '0');
                ++digits;
            }
            out += static_cast<char>(value);
            break;
        }
        default:
            out += '\\';
            out += next;
        }
    }
    return out;
}

CommandRun parseHello(Arguments& args) {
    args.finish();
    return [](CorvexdBackend& backend, Streams& io) {
        printJSON(io, toJSON(*backend.lastHello()));
        return 0;
    };
}

CommandRun parseState(Arguments& args) {
    args.finish();
    return [](CorvexdBackend& backend, Streams& io) {
        printJSON(io, toJSON(backend.getState()));
        return 0;
    };
}

CommandRun parseNewWorkspace(Arguments& args) {
    auto name = args.option("--name");
    if (name) parseName(*name, "workspace");
    SpawnOptions spawn = parseSpawn(args, true);
    args.finish();
    return [=](CorvexdBackend& backend, Streams& io) {
        printJSON(io, toJSON(backend.createWorkspace(name, spawn)));
        return 0;
    };
}

CommandRun parseNewTab(Arguments& args) {
    SpawnOptions spawn = parseSpawn(args, true);
    uint64_t workspace = parseID(args.positional("workspace"), "workspace");
    args.finish();
    return [=](CorvexdBackend& backend, Streams& io) {
        printJSON(io, toJSON(backend.createTab(workspace, spawn)));
        return 0;
    };
}

CommandRun parseSplit(Arguments& args) {
    Direction direction = parseDirectionArgument(args.option("--direction").value_or("right"));
    std::optional<double> ratio;
    if (auto text = args.option("--ratio")) ratio = parseRatio(*text);
    SpawnOptions spawn = parseSpawn(args, false);
    uint64_t pane = parseID(args.positional("pane"), "pane");
    args.finish();
    return [=](CorvexdBackend& backend, Streams& io) {
        printJSON(io, toJSON(backend.split(pane, direction, ratio, spawn)));
        return 0;
    };
}

CommandRun parseClose(Arguments& args) {
    Kind kind = parseKind(args);
    uint64_t id = parseID(args.positional("identifier"), "identifier");
    args.finish();
    return [=](CorvexdBackend& backend, Streams&) {
        switch (kind) {
        case Kind::pane: backend.closePane(id); break;
        case Kind::tab: backend.closeTab(id); break;
        case Kind::workspace: backend.closeWorkspace(id); break;
        }
        return 0;
    };
}

CommandRun parseRename(Arguments& args) {
    Kind kind = parseKind(args);
    if (kind == Kind::pane) throw UsageError("panes take their title from their program; rename a tab or workspace");
    uint64_t id = parseID(args.positional("identifier"), "identifier");
    std::optional<std::string> name = kind == Kind::workspace ? args.positional("name") : args.optionalPositional();
    if (name) parseName(*name, kind == Kind::workspace ? "workspace" : "tab");
    args.finish();
    return [=](CorvexdBackend& backend, Streams&) {
        if (kind == Kind::workspace) backend.renameWorkspace(id, *name);
        else backend.renameTab(id, name);
        return 0;
    };
}

CommandRun parseFocus(Arguments& args) {
    Kind kind = parseKind(args);
    uint64_t id = parseID(args.positional("identifier"), "identifier");
    args.finish();
    FocusTarget target = kind == Kind::pane ? FocusTarget::pane(id)
                         : kind == Kind::tab ? FocusTarget::tab(id)
                                             : FocusTarget::workspace(id);
    return [=](CorvexdBackend& backend, Streams&) {
        backend.focus(target);
        return 0;
    };
}

// An index past the last place is refused rather than quietly taken as the end.
void requireIndex(const ModelState& state, const MoveRequest& request) {
    size_t places = 0;
    std::string what;
    if (request.kind == MoveRequest::Kind::workspace) {
        places = state.workspaces.size();
        what = "workspaces";
    } else {
        const Workspace* target = nullptr;
        if (request.workspace) target = state.workspace(*request.workspace);
        else target = state.workspaceContaining(request.id);
        if (!target) return; // the daemon names what is missing
        bool within = false;
        for (const auto& tab : target->tabs) within = within || tab.id == request.id;
        places = target->tabs.size() + (within ? 0 : 1);
        what = "tabs in workspace " + std::to_string(target->id);
    }
    if (places > 0 && static_cast<size_t>(request.index) >= places) {
        throw BackendError("bad_request", "index " + std::to_string(request.index) + " is past the end: there are " +
                                              std::to_string(places) + " places for " + what + " (0 to " +
                                              std::to_string(places - 1) + ")");
    }
}

// move workspace ID INDEX | move tab ID INDEX [--workspace W] [--focus]
// move pane ID --beside PANE [--direction D] [--ratio R] [--focus] | move tab-join ID --beside PANE ...
CommandRun parseMove(Arguments& args) {
    bool focus = args.flag("--focus");
    auto workspace = args.option("--workspace");
    auto beside = args.option("--beside");
    auto direction = args.option("--direction");
    auto ratioText = args.option("--ratio");
    std::string kind = args.positional("what (workspace, tab, pane or tab-join)");
    uint64_t id = parseID(args.positional("identifier"), "identifier");
    MoveRequest request;
    if (kind == "workspace" || kind == "tab") {
        std::string indexText = args.positional("index");
        int index = parseInt(indexText, "index");
        if (index < 0) throw UsageError("bad index: " + indexText + " (0 is the first place)");
        if (beside || direction || ratioText) throw UsageError("--beside, --direction and --ratio move panes");
        if (kind == "workspace") {
            if (workspace || focus) throw UsageError("a workspace moves by index alone");
            request = MoveRequest::moveWorkspace(id, index);
        } else {
            std::optional<uint64_t> target;
            if (workspace) target = parseID(*workspace, "workspace");
            request = MoveRequest::moveTab(id, target, index, focus);
        }
    } else if (kind == "pane" || kind == "tab-join") {
        if (!beside) throw UsageError("missing --beside PANE");
        if (workspace) throw UsageError("--workspace moves tabs");
        uint64_t to = parseID(*beside, "pane");
        Direction side = parseDirectionArgument(direction.value_or("right"));
        std::optional<double> ratio;
        if (ratioText) ratio = parseRatio(*ratioText);
        if (kind == "pane" && to == id) throw UsageError("pane " + std::to_string(id) + " can't be moved beside itself");
        request = kind == "pane" ? MoveRequest::movePane(id, to, side, ratio, focus)
                                 : MoveRequest::joinTab(id, to, side, ratio, focus);
    } else {
        throw UsageError("bad kind: " + kind + " (workspace, tab, pane or tab-join)");
    }
    args.finish();
    return [=](CorvexdBackend& backend, Streams&) {
        if (request.kind == MoveRequest::Kind::workspace || request.kind == MoveRequest::Kind::tab) {
            requireIndex(backend.getState(), request);
        }
        backend.move(request);
        return 0;
    };
}

// send PANE [-e] [TEXT...]: the words joined by blanks, or standard input without words.
CommandRun parseSend(Arguments& args) {
    bool escapes = args.flag("-e");
    bool newline = args.flag("-n");
    uint64_t pane = parseID(args.positional("pane"), "pane");
    auto words = args.remainingPositionals();
    if (auto trailing = args.trailing()) words.insert(words.end(), trailing->begin(), trailing->end());
    args.finish();
    std::optional<std::string> text;
    if (!words.empty()) {
        std::string joined;
        for (size_t i = 0; i < words.size(); ++i) joined += (i ? " " : "") + words[i];
        text = escapes ? unescape(joined) : joined;
        if (newline) *text += '\r';
    }
    return [=](CorvexdBackend& backend, Streams& io) {
        // Input to a pane that isn't there would vanish without a word.
        if (!backend.getState().pane(pane)) throw BackendError("not_found", "no pane " + std::to_string(pane));
        std::string bytes = text ? *text : std::string(std::istreambuf_iterator<char>(io.in), {});
        backend.sendInput(pane, asBytes(bytes));
        // Input is fire and forget; an answered request behind it on the same stream tells
        // that the daemon has read it before this process goes.
        backend.ping();
        return 0;
    };
}

CommandRun parseKeys(Arguments& args) {
    auto text = args.option("--text");
    uint64_t pane = parseID(args.positional("pane"), "pane");
    auto keys = args.remainingPositionals();
    if (auto trailing = args.trailing()) keys.insert(keys.end(), trailing->begin(), trailing->end());
    args.finish();
    if (keys.empty() && !text) throw UsageError("missing keys");
    // All of the request is checked before any of it is typed.
    for (const auto& key : keys) {
        if (!keyBytes(key)) throw UsageError("unknown key " + key + " (such as Enter, Up, C-c, F5)");
    }
    return [=](CorvexdBackend& backend, Streams&) {
        backend.sendKeys(pane, text, keys);
        return 0;
    };
}

CommandRun parseText(Arguments& args) {
    bool asJSON = args.flag("--json");
    uint64_t pane = parseID(args.positional("pane"), "pane");
    args.finish();
    return [=](CorvexdBackend& backend, Streams& io) {
        PaneText text = backend.paneText(pane);
        if (asJSON) printJSON(io, toJSON(text));
        else io.out << text.text() << "\n";
        return 0;
    };
}

CommandRun parseSearch(Arguments& args) {
    PaneSearchOptions options;
    options.regex = args.flag("--regex");
    options.caseSensitive = args.flag("--case-sensitive");
    if (auto limit = args.option("--limit")) options.limit = parseInt(*limit, "limit");
    if (auto before = args.option("--before")) {
        auto colon = before->find(':');
        if (colon == std::string::npos) throw UsageError("bad --before: " + *before + " (LINE:COL)");
        options.before = CellPosition{parseInt(before->substr(0, colon), "--before"),
                                      parseInt(before->substr(colon + 1), "--before")};
    }
    uint64_t pane = parseID(args.positional("pane"), "pane");
    std::string query = args.positional("query");
    args.finish();
    return [=](CorvexdBackend& backend, Streams& io) {
        printJSON(io, toJSON(backend.searchPane(pane, query, options)));
        return 0;
    };
}

} // namespace

// ls: the tree for people. A path lists files on the daemon's machine instead.
CommandRun parseTree(Arguments& args) {
    args.finish();
    return [](CorvexdBackend& backend, Streams& io) {
        auto hello = backend.lastHello();
        std::string machine = hello && hello->machine ? hello->machine->hostname : "corvexd";
        std::string home = hello && hello->machine ? hello->machine->home.value_or("") : "";
        io.out << sessionTree(backend.getState(), machine, home);
        return 0;
    };
}

const std::map<std::string, CommandSpec>& commands() {
    static const std::map<std::string, CommandSpec> table{
        {"hello", {.parse = parseHello, .usage = "", .readOnly = true}},
        {"state", {.parse = parseState, .usage = "", .readOnly = true}},
        {"ls", {.parse = parseLs, .usage = "[[-a] [-l] PATH]", .readOnly = true}},
        {"new-workspace", {.parse = parseNewWorkspace, .usage = "[--name NAME] [SPAWN]"}},
        {"new-tab", {.parse = parseNewTab, .usage = "WORKSPACE [SPAWN]"}},
        {"split", {.parse = parseSplit, .usage = "PANE [--direction right|down|left|up] [--ratio R] [SPAWN]"}},
        {"close", {.parse = parseClose, .usage = "pane|tab|workspace ID"}},
        {"rename", {.parse = parseRename, .usage = "workspace ID NAME | rename tab ID [TITLE]"}},
        {"focus", {.parse = parseFocus, .usage = "pane|tab|workspace ID"}},
        {"move",
         {.parse = parseMove,
          .usage = "workspace ID INDEX | tab ID INDEX [--workspace W] [--focus] | pane|tab-join ID --beside PANE "
                   "[--direction D] [--ratio R] [--focus]"}},
        {"send", {.parse = parseSend, .usage = "PANE [-e] [-n] [TEXT...]"}},
        {"keys", {.parse = parseKeys, .usage = "PANE KEY... [--text TEXT]"}},
        {"text", {.parse = parseText, .usage = "PANE [--json]", .readOnly = true}},
        {"search",
         {.parse = parseSearch,
          .usage = "PANE QUERY [--regex] [--case-sensitive] [--limit N] [--before LINE:COL]",
          .readOnly = true}},
        {"cat", {.parse = parseCat, .usage = "PANE [--no-snapshot]", .readOnly = true}},
        {"attach", {.parse = parseAttach, .interactive = true, .usage = "PANE [--prefix KEY]"}},
        {"run", {.parse = parseRun, .interactive = true, .usage = "[--prefix KEY]"}},
        {"watch", {.parse = parseWatch, .usage = "[--count N]", .readOnly = true}},
        {"agents", {.parse = parseAgents, .usage = "", .readOnly = true}},
        {"decide", {.parse = parseDecide, .usage = "PANE allow|deny [--message TEXT]"}},
        {"stat", {.parse = parseStat, .usage = "PATH"}},
        {"cp", {.parse = parseCp, .usage = "[--skip | --overwrite] [--streams N] SOURCE... DEST"}},
    };
    return table;
}

} // namespace corvex::cli
