#include "corvexd/SessionService.h"

#include <chrono>

#include "CorvexFake/SessionCore.h"
#include "CorvexKit/Frame.h"
#include "CorvexKit/Layout.h"
#include "CorvexKit/SessionCodecJSON.h"
#include "Vellum/Terminal.h"
#include "Vellum/TerminalSnapshotStream.h"
#include "corvexd/PaneSearch.h"
#include "corvexd/SavedTree.h"
#include "corvexd/Server.h"
#include "corvexd/SettingsFile.h"

namespace corvexd {

using corvex::SessionEvent;
using nlohmann::json;

namespace {

// While a subscribe runs on the serving thread, the core's replay for that pane is caught
// here and sent to the subscriber alone, after the reply.
struct SubscribeCapture {
    uint64_t pane = 0;
    std::vector<std::string>* frames = nullptr;
    uint64_t next = 0; // where the subscriber's live stream begins
};
thread_local SubscribeCapture* capture = nullptr;

uint64_t idParam(const json& params, const char* key) {
    if (!params.contains(key)) throw MethodError{"bad_request", std::string("missing ") + key};
    return params.at(key).get<uint64_t>();
}

corvex::Direction directionParam(const json& params) {
    auto direction = corvex::parseDirection(params.at("direction").get<std::string>());
    if (!direction) throw MethodError{"bad_request", "bad direction"};
    return *direction;
}

std::optional<double> ratioParam(const json& params) {
    if (!params.contains("ratio") || params["ratio"].is_null()) return std::nullopt;
    return params["ratio"].get<double>();
}

corvex::SpawnOptions spawnParams(const json& params) { return corvex::decodeJSON<corvex::SpawnOptions>(params); }

corvex::Size sizeParams(const json& params) { return {params.at("cols").get<int>(), params.at("rows").get<int>()}; }

// Room for a snapshot's bytes in one frame, after its header.
constexpr size_t snapshotLimit = corvex::maxFramePayload - 20;

vellum::Color color(corvex::RGB rgb) {
    return vellum::Color::fromBytes(uint8_t(rgb >> 16), uint8_t(rgb >> 8), uint8_t(rgb));
}

void applyColors(vellum::Terminal& terminal, const corvex::TerminalColors& colors) {
    terminal.setForegroundColor(color(colors.foreground));
    terminal.setBackgroundColor(color(colors.background));
    if (colors.cursor) terminal.setCursorColorValue(color(*colors.cursor));
    if (colors.ansi) {
        for (size_t i = 0; i < colors.ansi->size() && i < terminal.ansiColors.size(); ++i) {
            terminal.ansiColors[i] = color((*colors.ansi)[i]);
        }
    }
}

void forward(Server& server, const SessionEvent& event) {
    if (auto* output = event.as<SessionEvent::Output>()) {
        if (capture && capture->pane == output->pane) {
            capture->frames->push_back(corvex::makeOutputFrame(output->pane, output->seq,
                std::string_view(reinterpret_cast<const char*>(output->bytes.data()), output->bytes.size())));
            capture->next = output->seq + output->bytes.size();
            return;
        }
        server.publishOutput(output->pane, output->seq,
                             std::string(reinterpret_cast<const char*>(output->bytes.data()), output->bytes.size()));
    } else if (auto* snapshot = event.as<SessionEvent::Snapshot>()) {
        if (capture && capture->pane == snapshot->pane) {
            capture->frames->push_back(corvex::makeSnapshotFrame(snapshot->pane, snapshot->seq,
                static_cast<uint16_t>(snapshot->cols), static_cast<uint16_t>(snapshot->rows),
                std::string_view(reinterpret_cast<const char*>(snapshot->bytes.data()), snapshot->bytes.size())));
            capture->next = snapshot->seq;
        }
    } else if (auto* state = event.as<SessionEvent::State>()) {
        server.broadcastEvent("state", corvex::toJSON(state->state));
    } else if (auto* pane = event.as<SessionEvent::PaneChanged>()) {
        json data = corvex::toJSON(pane->pane);
        data["rev"] = pane->rev;
        server.broadcastEvent("pane", std::move(data));
    } else if (auto* bell = event.as<SessionEvent::Bell>()) {
        server.broadcastEvent("bell", {{"pane", bell->pane}});
    } else if (auto* clipboard = event.as<SessionEvent::Clipboard>()) {
        json data = {{"pane", clipboard->pane}, {"text", clipboard->text}};
        if (clipboard->selection) data["target"] = "selection";
        server.broadcastEvent("pane.clipboard", std::move(data));
    } else if (auto* resized = event.as<SessionEvent::Resized>()) {
        server.publishPaneEvent(resized->pane, "pane.resized",
            {{"pane", resized->pane}, {"cols", resized->cols}, {"rows", resized->rows}, {"seq", resized->seq}});
    } else if (auto* resync = event.as<SessionEvent::Resync>()) {
        server.publishPaneEvent(resync->pane, "pane.resync", {{"pane", resync->pane}});
    } else if (auto* agent = event.as<SessionEvent::Agent>()) {
        json data = {{"pane", agent->pane}};
        if (agent->info) data["agent"] = corvex::toJSON(*agent->info);
        server.broadcastEvent("agent", std::move(data));
    } else if (auto* settings = event.as<SessionEvent::Settings>()) {
        server.broadcastEvent("settings", corvex::toJSON(settings->settings));
    }
}

} // namespace

void serveSession(Server& server, std::shared_ptr<corvex::SessionCore> core, const SessionServiceOptions& options) {
    std::shared_ptr<SavedTree> tree;
    if (!options.treePath.empty()) tree = std::make_shared<SavedTree>(options.treePath);
    std::weak_ptr<corvex::SessionCore> weakCore = core;
    core->setListener([&server, tree, weakCore](const SessionEvent& event) {
        forward(server, event);
        if (!tree || !(event.as<SessionEvent::State>() || event.as<SessionEvent::PaneChanged>())) return;
        if (auto live = weakCore.lock()) tree->save(live->state());
    });
    server.addFeatures({"pane.keys", "split.set_ratio", "move", "pane.move", "pane.focus", "pane.search", "settings",
                        "client.colors", "restore", "pane.clipboard"});
    if (tree) {
        if (auto saved = tree->load()) {
            double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
            core->restore(*saved, now);
        }
    }

    // Panes made after a client set its colours take them too.
    auto colors = std::make_shared<std::optional<corvex::TerminalColors>>();
    auto paint = [core, colors](uint64_t pane) {
        if (!*colors) return;
        try {
            core->withPaneTerminal(pane, [&](vellum::Terminal& terminal, uint64_t) { applyColors(terminal, **colors); });
        } catch (const corvex::BackendError&) {
            // The pane went meanwhile.
        }
    };

    auto& s = server;
    auto nothing = [](auto&& work) {
        return [work](MethodCall& call) {
            work(call.params);
            return json::object();
        };
    };
    s.addMethod("state.get", [core](MethodCall&) { return corvex::toJSON(core->state()); });
    s.addMethod("workspace.create", [core, paint](MethodCall& call) {
        std::optional<std::string> name;
        if (call.params.contains("name") && !call.params["name"].is_null()) name = call.params["name"].get<std::string>();
        auto created = core->createWorkspace(name, spawnParams(call.params));
        paint(created.pane);
        return corvex::toJSON(created);
    });
    s.addMethod("workspace.rename", nothing([core](const json& p) {
        core->renameWorkspace(idParam(p, "workspace"), p.at("name").get<std::string>());
    }));
    s.addMethod("workspace.close", nothing([core](const json& p) { core->closeWorkspace(idParam(p, "workspace")); }));
    s.addMethod("tab.create", [core, paint](MethodCall& call) {
        auto created = core->createTab(idParam(call.params, "workspace"), spawnParams(call.params));
        paint(created.pane);
        return corvex::toJSON(created);
    });
    s.addMethod("tab.rename", nothing([core](const json& p) {
        std::optional<std::string> title;
        if (p.contains("title") && !p["title"].is_null()) title = p["title"].get<std::string>();
        core->renameTab(idParam(p, "tab"), title);
    }));
    s.addMethod("tab.close", nothing([core](const json& p) { core->closeTab(idParam(p, "tab")); }));
    s.addMethod("pane.split", [core, paint](MethodCall& call) {
        const json& p = call.params;
        auto created = core->split(idParam(p, "pane"), directionParam(p), ratioParam(p), spawnParams(p));
        paint(created.pane);
        return corvex::toJSON(created);
    });
    s.addMethod("pane.close", nothing([core](const json& p) { core->closePane(idParam(p, "pane")); }));
    s.addMethod("split.set_ratio", nothing([core](const json& p) {
        core->setRatio(idParam(p, "split"), p.at("ratio").get<double>());
    }));
    s.addMethod("focus", nothing([core](const json& p) {
        int given = p.contains("pane") + p.contains("tab") + p.contains("workspace");
        if (given != 1) throw MethodError{"bad_request", "focus needs exactly one of pane, tab, workspace"};
        if (p.contains("pane")) core->focus(corvex::FocusTarget::pane(idParam(p, "pane")));
        if (p.contains("tab")) core->focus(corvex::FocusTarget::tab(idParam(p, "tab")));
        if (p.contains("workspace")) core->focus(corvex::FocusTarget::workspace(idParam(p, "workspace")));
    }));
    s.addMethod("workspace.move", nothing([core](const json& p) {
        core->move(corvex::MoveRequest::moveWorkspace(idParam(p, "workspace"), p.at("index").get<int>()));
    }));
    s.addMethod("tab.move", nothing([core](const json& p) {
        corvex::MoveRequest request;
        request.kind = corvex::MoveRequest::Kind::tab;
        request.id = idParam(p, "tab");
        request.index = p.at("index").get<int>();
        if (p.contains("workspace") && !p["workspace"].is_null()) request.workspace = p["workspace"].get<uint64_t>();
        request.focus = p.value("focus", false);
        core->move(request);
    }));
    auto graft = [core](corvex::MoveRequest::Kind kind, const char* key) {
        return [core, kind, key](const json& p) {
            corvex::MoveRequest request;
            request.kind = kind;
            request.id = idParam(p, key);
            request.beside = idParam(p, "to_pane");
            request.direction = directionParam(p);
            request.ratio = ratioParam(p);
            request.focus = p.value("focus", false);
            core->move(request);
        };
    };
    s.addMethod("pane.move", nothing(graft(corvex::MoveRequest::Kind::pane, "pane")));
    s.addMethod("tab.join", nothing(graft(corvex::MoveRequest::Kind::tabJoin, "tab")));

    s.addMethod("pane.subscribe", [core, &server](MethodCall& call) {
        const json& p = call.params;
        uint64_t pane = idParam(p, "pane");
        std::optional<uint64_t> have;
        if (p.contains("have_seq") && !p["have_seq"].is_null()) have = p["have_seq"].get<uint64_t>();
        std::optional<corvex::Size> viewport;
        if (p.contains("viewport") && p["viewport"].is_object()) viewport = sizeParams(p["viewport"]);
        int scrollback = 0;
        if (p.contains("scrollback") && !p["scrollback"].is_null()) scrollback = std::max(p["scrollback"].get<int>(), 0);
        SubscribeCapture caught{pane, &call.framesAfterReply, 0};
        capture = &caught;
        corvex::Subscription subscription;
        try {
            subscription = core->subscribe(pane, have, viewport);
        } catch (...) {
            capture = nullptr;
            throw;
        }
        capture = nullptr;
        if (subscription.mode == corvex::Subscription::Mode::snapshot) {
            // The screen is rebuilt from the pane's terminal rather than its raw output, which
            // may have lost its start. The terminal can be a chunk ahead of the core's count;
            // its own count is what the snapshot stands for, and the live stream starts there.
            call.framesAfterReply.clear();
            core->withPaneTerminal(pane, [&](vellum::Terminal& terminal, uint64_t parsed) {
                std::string bytes = vellum::snapshotStream(terminal, {scrollback, snapshotLimit});
                call.framesAfterReply.push_back(corvex::makeSnapshotFrame(pane, parsed,
                    static_cast<uint16_t>(terminal.cols()), static_cast<uint16_t>(terminal.rows()), bytes));
                caught.next = parsed;
                subscription.seq = parsed;
            });
        }
        if (caught.next == 0) caught.next = subscription.seq;
        server.subscribePane(call.client, pane, caught.next);
        return corvex::toJSON(subscription);
    });
    s.addMethod("pane.unsubscribe", [&server](MethodCall& call) {
        // Other clients may still watch the pane, so the core keeps streaming it.
        server.unsubscribePane(call.client, idParam(call.params, "pane"));
        return json::object();
    });
    s.addMethod("pane.viewport", nothing([core](const json& p) { core->setViewport(idParam(p, "pane"), sizeParams(p)); }));
    s.addMethod("pane.resize", nothing([core](const json& p) { core->resize(idParam(p, "pane"), sizeParams(p)); }));
    s.addMethod("pane.keys", nothing([core](const json& p) {
        std::optional<std::string> text;
        if (p.contains("text") && !p["text"].is_null()) text = p["text"].get<std::string>();
        std::vector<std::string> keys;
        if (p.contains("keys")) keys = p["keys"].get<std::vector<std::string>>();
        core->sendKeys(idParam(p, "pane"), text, keys);
    }));
    s.addMethod("pane.dismiss_restored", nothing([core](const json& p) { core->dismissRestored(idParam(p, "pane")); }));

    s.addMethod("pane.text", [core](MethodCall& call) {
        corvex::PaneText text;
        core->withPaneTerminal(idParam(call.params, "pane"), [&](vellum::Terminal& terminal, uint64_t parsed) {
            for (int row = 0; row < terminal.rows(); ++row) text.lines.push_back(terminal.lineText(row));
            text.cursorCol = std::min(terminal.buffer().x, terminal.cols() - 1);
            text.cursorRow = terminal.buffer().y;
            text.cols = terminal.cols();
            text.rows = terminal.rows();
            text.seq = parsed;
        });
        return corvex::toJSON(text);
    });
    s.addMethod("pane.search", [core](MethodCall& call) {
        const json& p = call.params;
        uint64_t pane = idParam(p, "pane");
        corvex::PaneSearchOptions options;
        options.regex = p.value("regex", false);
        options.caseSensitive = p.value("case_sensitive", false);
        if (p.contains("limit") && !p["limit"].is_null()) options.limit = p["limit"].get<int>();
        if (p.contains("before") && p["before"].is_object()) {
            options.before = corvex::CellPosition{p["before"].at("line").get<int>(), p["before"].at("col").get<int>()};
        }
        std::string query = p.at("query").get<std::string>();
        corvex::PaneSearchResult result;
        core->withPaneTerminal(pane, [&](vellum::Terminal& terminal, uint64_t parsed) {
            result = searchTerminal(terminal, query, options);
            result.seq = parsed;
        });
        return corvex::toJSON(result);
    });
    s.addMethod("pane.focus", nothing([core](const json& p) { core->requirePane(idParam(p, "pane")); }));
    s.addMethod("agent.ack", nothing([core](const json& p) { core->ackAgent(idParam(p, "pane")); }));
    s.addMethod("agent.mute", nothing([core](const json& p) {
        core->muteAgent(idParam(p, "pane"), p.at("muted").get<bool>());
    }));
    s.addMethod("agent.decide", nothing([core](const json& p) {
        std::string decision = p.at("decision").get<std::string>();
        if (decision != "allow" && decision != "deny") throw MethodError{"bad_request", "decision is allow or deny"};
        core->decide(idParam(p, "pane"), p.at("request").get<std::string>());
    }));

    auto settings = std::make_shared<SettingsFile>(options.settingsPath, options.configName);
    core->setScrollbackLines(settings->scrollbackLines());
    s.addMethod("settings.get", [settings](MethodCall&) { return corvex::toJSON(settings->current()); });
    s.addMethod("settings.set", [settings, core, &server](MethodCall& call) {
        auto change = corvex::decodeJSON<corvex::DaemonSettings::Change>(call.params);
        corvex::DaemonSettings result = settings->current();
        if (change.scrollbackLines) {
            int lines = *change.scrollbackLines;
            const auto& range = result.limits.scrollbackLines;
            if (lines < range.min || lines > range.max) {
                throw MethodError{"bad_request", "scrollback_lines must lie in " + std::to_string(range.min) + "..." +
                                                     std::to_string(range.max)};
            }
            settings->setScrollbackLines(lines);
            core->setScrollbackLines(lines);
            std::vector<uint64_t> applied;
            for (const auto& pane : core->state().panes) {
                try {
                    core->withPaneTerminal(pane.id, [&](vellum::Terminal& terminal, uint64_t) {
                        terminal.setScrollback(lines);
                    });
                    applied.push_back(pane.id);
                } catch (const corvex::BackendError&) {
                    // The pane went meanwhile.
                }
            }
            result = settings->current();
            server.broadcastEvent("settings", corvex::toJSON(result));
            result.appliedPanes = applied;
        }
        return corvex::toJSON(result);
    });

    s.addMethod("client.colors", [core, colors, paint](MethodCall& call) {
        // The panes' programs ask their terminal for its colours; they answer with the ones
        // the user sees.
        *colors = corvex::decodeJSON<corvex::TerminalColors>(call.params.at("colors"));
        for (const auto& pane : core->state().panes) paint(pane.id);
        return json::object();
    });
    server.setInputHandler([core](ClientID, uint64_t pane, std::string_view bytes) {
        try {
            core->sendInput(pane, corvex::ByteView(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
        } catch (const corvex::BackendError&) {
            // Input for a pane that has gone is dropped.
        }
    });
}

} // namespace corvexd
