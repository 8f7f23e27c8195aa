#include "Tools/corvex/Commands.h"

#include <iostream>
#include <iterator>

#include "CorvexKit/CorvexdBackend.h"
#include "CorvexKit/SessionCodecJSON.h"

namespace corvex::cli {

using json = nlohmann::json;

namespace {

void printJSON(Streams& io, const json& value) { io.out << value.dump(-1, ' ', false, json::error_handler_t::replace) << "\n"; }

// --cwd, --env NAME=VALUE (repeatable), --size COLSxROWS, and the program after "--".
SpawnOptions parseSpawn(Arguments& args) {
    SpawnOptions spawn;
    spawn.cwd = args.option("--cwd");
    auto env = args.options("--env");
    if (!env.empty()) {
        spawn.env.emplace();
        for (const auto& item : env) {
            auto equals = item.find('=');
            if (equals == std::string::npos || equals == 0) throw UsageError("bad --env: " + item);
            (*spawn.env)[item.substr(0, equals)] = item.substr(equals + 1);
        }
    }
    if (auto size = args.option("--size")) {
        auto x = size->find('x');
        if (x == std::string::npos) throw UsageError("bad --size: " + *size);
        spawn.cols = parseInt(size->substr(0, x), "--size");
        spawn.rows = parseInt(size->substr(x + 1), "--size");
    }
    if (auto program = args.trailing(); program && !program->empty()) spawn.command = *program;
    return spawn;
}

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
    SpawnOptions spawn = parseSpawn(args);
    args.finish();
    return [=](CorvexdBackend& backend, Streams& io) {
        printJSON(io, toJSON(backend.createWorkspace(name, spawn)));
        return 0;
    };
}

CommandRun parseNewTab(Arguments& args) {
    SpawnOptions spawn = parseSpawn(args);
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
    if (auto text = args.option("--ratio")) ratio = parseNumber(*text, "ratio");
    SpawnOptions spawn = parseSpawn(args);
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
        int index = parseInt(args.positional("index"), "index");
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
        if (ratioText) ratio = parseNumber(*ratioText, "ratio");
        request = kind == "pane" ? MoveRequest::movePane(id, to, side, ratio, focus)
                                 : MoveRequest::joinTab(id, to, side, ratio, focus);
    } else {
        throw UsageError("bad kind: " + kind + " (workspace, tab, pane or tab-join)");
    }
    args.finish();
    return [=](CorvexdBackend& backend, Streams&) {
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

const std::map<std::string, CommandSpec>& commands() {
    static const std::map<std::string, CommandSpec> table{
        {"hello", {parseHello}},
        {"state", {parseState}},
        {"new-workspace", {parseNewWorkspace}},
        {"new-tab", {parseNewTab}},
        {"split", {parseSplit}},
        {"close", {parseClose}},
        {"rename", {parseRename}},
        {"focus", {parseFocus}},
        {"move", {parseMove}},
        {"send", {parseSend}},
        {"keys", {parseKeys}},
        {"text", {parseText}},
        {"search", {parseSearch}},
        {"cat", {parseCat}},
        {"attach", {parseAttach, true}},
        {"run", {parseRun, true}},
        {"watch", {parseWatch}},
        {"agents", {parseAgents}},
        {"decide", {parseDecide}},
        {"ls", {parseLs}},
        {"stat", {parseStat}},
        {"cp", {parseCp}},
    };
    return table;
}

} // namespace corvex::cli
