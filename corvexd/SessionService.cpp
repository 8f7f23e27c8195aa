#include "corvexd/SessionService.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <utility>

#include "CorvexKit/Frame.h"
#include "CorvexSession/ClientSizes.h"
#include "CorvexSession/SessionCore.h"
#include "corvexd/SavedTree.h"
#include "corvexd/ServeMethod.h"
#include "CorvexSession/SessionHello.h"
#include "corvexd/SettingsFile.h"

namespace corvexd {

using corvex::SessionCore;
using corvex::SessionEvent;
using nlohmann::json;
namespace protocol = corvex::protocol;

namespace {

using Core = std::shared_ptr<SessionCore>;

constexpr size_t queuedOutputBound = 16u << 20;

std::string_view text(const corvex::Bytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void forward(Server& server, const SessionEvent& event) {
    if (auto* output = event.as<SessionEvent::Output>()) {
        server.publishOutput(output->pane, output->seq, std::string(text(output->bytes)));
        return;
    }
    auto wire = protocol::encodeEvent(event);
    if (!wire) return;
    if (wire->route == protocol::EventRoute::paneSubscribers) {
        auto pane = wire->data.at("pane").get<uint64_t>();
        server.publishPaneEvent(pane, std::string(wire->name), std::move(wire->data));
    } else {
        server.broadcastEvent(std::string(wire->name), std::move(wire->data));
    }
}

corvex::MoveRequest graft(corvex::MoveRequest::Kind kind, uint64_t id, const auto& call) {
    corvex::MoveRequest request;
    request.kind = kind;
    request.id = id;
    request.beside = call.toPane;
    request.direction = call.direction;
    request.ratio = call.ratio;
    request.focus = call.focus;
    return request;
}

void serveTree(Server& s, const Core& core) {
    serve<protocol::StateGet>(s, [core](const auto&, MethodCall&) { return core->state(); });
    serve<protocol::WorkspaceCreate>(s, [core](const auto& p, MethodCall&) {
        return core->createWorkspace(p.workspaceName, p.spawn);
    });
    serve<protocol::WorkspaceRename>(s, [core](const auto& p, MethodCall&) {
        core->renameWorkspace(p.workspace, p.workspaceName);
    });
    serve<protocol::WorkspaceClose>(s, [core](const auto& p, MethodCall&) { core->closeWorkspace(p.workspace); });
    serve<protocol::TabCreate>(s, [core](const auto& p, MethodCall&) { return core->createTab(p.workspace, p.spawn); });
    serve<protocol::TabRename>(s, [core](const auto& p, MethodCall&) { core->renameTab(p.tab, p.title); });
    serve<protocol::TabClose>(s, [core](const auto& p, MethodCall&) { core->closeTab(p.tab); });
    serve<protocol::PaneSplit>(s, [core](const auto& p, MethodCall&) {
        return core->split(p.pane, p.direction, p.ratio, p.spawn);
    });
    serve<protocol::PaneClose>(s, [core](const auto& p, MethodCall&) { core->closePane(p.pane); });
    serve<protocol::SplitSetRatio>(s, [core](const auto& p, MethodCall&) { core->setRatio(p.split, p.ratio); });
    serve<protocol::FocusCall>(s, [core](const auto& p, MethodCall&) { core->focus(p.target); });
    serve<protocol::WorkspaceMove>(s, [core](const auto& p, MethodCall&) {
        core->move(corvex::MoveRequest::moveWorkspace(p.workspace, p.index));
    });
    serve<protocol::TabMove>(s, [core](const auto& p, MethodCall&) {
        core->move(corvex::MoveRequest::moveTab(p.tab, p.workspace, p.index, p.focus));
    });
    serve<protocol::PaneMove>(s, [core](const auto& p, MethodCall&) {
        core->move(graft(corvex::MoveRequest::Kind::pane, p.pane, p));
    });
    serve<protocol::TabJoin>(s, [core](const auto& p, MethodCall&) {
        core->move(graft(corvex::MoveRequest::Kind::tabJoin, p.tab, p));
    });
}

// What opens a pane's stream for one client: the subscription, the frames that follow its
// reply (a snapshot, or the bytes of a replay) and the position its live stream goes on from.
struct StreamOpening {
    corvex::Subscription subscription;
    std::vector<std::string> frames;
    uint64_t from = 0;
};

// Runs beside the serving thread, as a snapshot may carry a whole history; what the pane
// prints meanwhile is held for the client by the server and follows from `from` on.
StreamOpening openStream(const Core& core, uint64_t pane, std::optional<uint64_t> haveSeq, int scrollback) {
    StreamOpening opening;
    std::optional<uint64_t> next;
    opening.subscription = core->subscribe(pane, haveSeq, std::nullopt, scrollback, [&](const SessionEvent& event) {
        if (auto* output = event.as<SessionEvent::Output>()) {
            opening.frames.push_back(corvex::makeOutputFrame(output->pane, output->seq, text(output->bytes)));
            next = output->seq + output->bytes.size();
        } else if (auto* snapshot = event.as<SessionEvent::Snapshot>()) {
            opening.frames.push_back(corvex::makeSnapshotFrame(snapshot->pane, snapshot->seq,
                                                               static_cast<uint16_t>(snapshot->cols),
                                                               static_cast<uint16_t>(snapshot->rows), text(snapshot->bytes)));
            next = snapshot->seq;
        }
    });
    opening.from = next.value_or(opening.subscription.seq);
    return opening;
}

void serveSubscriptions(Server& server, const Core& core) {
    // The history each client asked for, so that a stream given up on comes back alike.
    auto scrollbacks = std::make_shared<std::map<std::pair<ClientID, uint64_t>, int>>();
    // Only the serving thread touches it: requests and a client's end both run there.
    auto sizes = std::make_shared<corvex::ClientSizes>();
    auto openings = std::make_shared<platform::WorkerPool>(2);
    auto resize = [core](uint64_t pane, corvex::Size size) {
        try {
            core->resize(pane, size);
        } catch (const corvex::BackendError&) {
            // The pane has gone meanwhile; nothing to give room to.
        }
    };
    server.addMethod(std::string(protocol::PaneSubscribe::name), [core, &server, scrollbacks, sizes, openings](MethodCall& call) {
        auto p = protocol::decodeParams<protocol::PaneSubscribe>(call.params);
        int scrollback = p.scrollback.value_or(0);
        core->requirePane(p.pane);
        // The size is settled here, in order with the client's other requests.
        if (p.viewport) core->setViewport(p.pane, sizes->show(p.pane, call.client, *p.viewport));
        (*scrollbacks)[{call.client, p.pane}] = scrollback;
        uint64_t token = server.holdPane(call.client, p.pane);
        call.deferred = true;
        openings->detach([core, &server, p, scrollback, token, client = call.client, id = call.requestID] {
            std::optional<StreamOpening> opening;
            auto reply = replyFrame<protocol::PaneSubscribe>(id, [&] {
                opening = openStream(core, p.pane, p.haveSeq, scrollback);
                return opening->subscription;
            });
            if (!opening) return server.releasePane(client, p.pane, token, std::move(reply), {}, std::nullopt);
            server.releasePane(client, p.pane, token, std::move(reply), std::move(opening->frames), opening->from);
        });
        return nlohmann::json();
    });
    server.setStreamReopener([core, &server, scrollbacks, openings](ClientID client, uint64_t pane, uint64_t token) {
        auto asked = scrollbacks->find({client, pane});
        int scrollback = asked == scrollbacks->end() ? 0 : asked->second;
        openings->detach([core, &server, client, pane, token, scrollback] {
            try {
                auto opening = openStream(core, pane, std::nullopt, scrollback);
                server.releasePane(client, pane, token, {}, std::move(opening.frames), opening.from);
            } catch (const std::exception&) {
                server.releasePane(client, pane, token, {}, {}, std::nullopt); // the pane has gone meanwhile
            }
        });
    });
    server.setClientGoneHandler([scrollbacks, sizes, resize](ClientID client) {
        std::erase_if(*scrollbacks, [client](const auto& entry) { return entry.first.first == client; });
        for (const auto& [pane, size] : sizes->leave(client)) resize(pane, size);
    });
    serve<protocol::PaneUnsubscribe>(server, [&server, scrollbacks, sizes, resize](const auto& p, MethodCall& call) {
        // Other clients may still watch the pane, so the core keeps streaming it.
        server.unsubscribePane(call.client, p.pane);
        scrollbacks->erase({call.client, p.pane});
        if (auto size = sizes->hide(p.pane, call.client)) resize(p.pane, *size);
    });
    serve<protocol::PaneViewport>(server, [core, sizes](const auto& p, MethodCall& call) {
        core->requirePane(p.pane);
        core->setViewport(p.pane, sizes->show(p.pane, call.client, p.size));
    });
    serve<protocol::PaneResize>(server, [core, sizes](const auto& p, MethodCall& call) {
        core->requirePane(p.pane);
        core->resize(p.pane, sizes->show(p.pane, call.client, p.size));
    });
}

void servePanes(Server& s, const Core& core) {
    serve<protocol::PaneKeys>(s, [core](const auto& p, MethodCall&) { core->sendKeys(p.pane, p.text, p.keys); });
    serve<protocol::PaneDismissRestored>(s, [core](const auto& p, MethodCall&) { core->dismissRestored(p.pane); });
    serve<protocol::PaneTextCall>(s, [core](const auto& p, MethodCall&) { return core->paneText(p.pane); });
    // A search may walk a whole history: it runs beside the serving thread, which goes on
    // answering everyone else. Its reply is matched by id, so nothing waits on its order.
    auto searches = std::make_shared<platform::WorkerPool>(2);
    serveDeferred<protocol::PaneSearch>(s, searches, [core](const protocol::PaneSearch& p) {
        return core->searchPane(p.pane, p.query, p.options);
    });
    serve<protocol::PaneFocus>(s, [core](const auto& p, MethodCall&) { core->requirePane(p.pane); });
    serve<protocol::ClientColors>(s, [core](const auto& p, MethodCall&) {
        // The panes' programs ask their terminal for its colours; they answer with the ones
        // the user sees.
        core->setTerminalColors(p.colors);
    });
    s.setInputHandler([core](ClientID, uint64_t pane, std::string_view bytes) {
        // Input for a pane that has gone is dropped by the core.
        core->sendInput(pane, corvex::ByteView(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
    });
}

void serveAgents(Server& s, const Core& core) {
    serve<protocol::AgentAck>(s, [core](const auto& p, MethodCall&) { core->ackAgent(p.pane); });
    serve<protocol::AgentMute>(s, [core](const auto& p, MethodCall&) { core->muteAgent(p.pane, p.muted); });
    serve<protocol::AgentDecide>(s, [core](const auto& p, MethodCall&) {
        core->decide(p.pane, p.request, p.decision, p.message);
    });
    serve<protocol::AgentHistoryCall>(s, [core](const auto& p, MethodCall&) {
        core->requirePane(p.pane);
        return core->agentHistory(p.pane, p.limit, p.since);
    });
    serve<protocol::AgentReport>(s, [core](const auto& p, MethodCall&) {
        return protocol::AgentReport::Result{core->reportAgent(p)};
    });
    serve<protocol::AgentVerdictCall>(s, [core](const auto& p, MethodCall&) {
        return core->agentVerdict(p.pane, p.request);
    });
    using F = corvex::Hello::Feature;
    std::vector<std::string> features;
    for (auto feature : {F::agents, F::agentReportPid, F::agentMute, F::agentHistory, F::agentDecide, F::git}) {
        features.emplace_back(corvex::Hello::wireName(feature));
    }
    s.addFeatures(features);
}

void serveSettings(Server& server, const Core& core, const SessionServiceOptions& options) {
    auto settings = std::make_shared<SettingsFile>(options.settingsPath, options.configName);
    core->setScrollbackLines(settings->scrollbackLines());
    serve<protocol::SettingsGet>(server, [settings](const auto&, MethodCall&) { return settings->current(); });
    serve<protocol::SettingsSet>(server, [settings, core, &server](const auto& p, MethodCall&) {
        corvex::DaemonSettings result = settings->current();
        if (!p.change.scrollbackLines) return result;
        int lines = *p.change.scrollbackLines;
        const auto& range = result.limits.scrollbackLines;
        if (lines < range.min || lines > range.max) {
            throw MethodError{"bad_request", "scrollback_lines must lie in " + std::to_string(range.min) + "..." +
                                                 std::to_string(range.max)};
        }
        settings->setScrollbackLines(lines);
        auto applied = core->setScrollbackLines(lines);
        result = settings->current();
        forward(server, SessionEvent::Settings{result});
        result.appliedPanes = applied;
        return result;
    });
}

} // namespace

void serveSession(Server& server, std::shared_ptr<SessionCore> core, const SessionServiceOptions& options) {
    std::shared_ptr<SavedTree> tree;
    if (!options.treePath.empty()) tree = std::make_shared<SavedTree>(options.treePath);
    std::weak_ptr<SessionCore> weakCore = core;
    core->setListener([&server, tree, weakCore](const SessionEvent& event) {
        forward(server, event);
        if (!tree || !(event.as<SessionEvent::State>() || event.as<SessionEvent::PaneChanged>())) return;
        if (auto live = weakCore.lock()) tree->save(live->state());
    });
    // Output the daemon holds for its clients is bounded in all; beyond it the panes'
    // programs wait at their terminals.
    core->boundOutput(queuedOutputBound);
    server.setOutputReleased([weakCore](size_t bytes) {
        if (auto live = weakCore.lock()) live->releaseOutput(bytes);
    });
    server.addFeatures(corvex::engineFeatureNames());
    server.addFeatures({std::string(corvex::Hello::wireName(corvex::Hello::Feature::settings))});
    if (tree) {
        if (auto saved = tree->load()) {
            double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
            core->restore(*saved, now);
        }
    }
    serveTree(server, core);
    serveSubscriptions(server, core);
    servePanes(server, core);
    serveAgents(server, core);
    serveSettings(server, core, options);
}

} // namespace corvexd
