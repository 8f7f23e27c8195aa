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

// While a subscribe runs on the serving thread, live output of that pane that the serving
// thread itself delivers is caught here and sent to the subscriber alone, after the reply.
struct SubscribeCapture {
    uint64_t pane = 0;
    std::vector<std::string>* frames = nullptr;
    uint64_t next = 0; // where the subscriber's live stream begins
    bool opened = false; // the subscription's own first events have come
    size_t liveBytes = 0; // live output caught, to give back to the session's output budget
};
thread_local SubscribeCapture* capture = nullptr;

// A subscriber's opening: its snapshot or replay, as frames after the reply, then what the
// pane printed since. Output it already holds, still on its way from before the subscribe,
// is left out.
void captureOpening(SubscribeCapture& caught, const SessionEvent& event) {
    if (event.as<SessionEvent::Subscribed>()) caught.opened = true;
    if (!caught.opened) return;
    if (auto* output = event.as<SessionEvent::Output>()) {
        uint64_t end = output->seq + output->bytes.size();
        if (end <= caught.next && !output->bytes.empty()) return;
        uint64_t from = std::max(output->seq, caught.next);
        auto held = text(output->bytes).substr(from - output->seq);
        caught.frames->push_back(corvex::makeOutputFrame(output->pane, from, held));
        caught.next = end;
    } else if (auto* snapshot = event.as<SessionEvent::Snapshot>()) {
        caught.frames->push_back(corvex::makeSnapshotFrame(snapshot->pane, snapshot->seq,
                                                           static_cast<uint16_t>(snapshot->cols),
                                                           static_cast<uint16_t>(snapshot->rows), text(snapshot->bytes)));
        caught.next = snapshot->seq;
    }
}

void forward(Server& server, const SessionEvent& event) {
    if (auto* output = event.as<SessionEvent::Output>()) {
        if (capture && capture->pane == output->pane) {
            captureOpening(*capture, event);
            capture->liveBytes += output->bytes.size();
            return;
        }
        server.publishOutput(output->pane, output->seq, text(output->bytes));
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

// Opens a pane's stream for one client: the subscription, and in `frames` what must follow
// its reply. Returns the position the client's live stream goes on from.
uint64_t openStream(const Core& core, uint64_t pane, std::optional<uint64_t> haveSeq, std::optional<corvex::Size> viewport,
                    int scrollback, std::vector<std::string>& frames, corvex::Subscription& subscription) {
    SubscribeCapture caught{pane, &frames, 0};
    capture = &caught;
    try {
        subscription = core->subscribe(pane, haveSeq, viewport, scrollback,
                                       [&caught](const SessionEvent& event) { captureOpening(caught, event); });
    } catch (...) {
        capture = nullptr;
        throw;
    }
    capture = nullptr;
    core->releaseOutput(pane, caught.liveBytes);
    return caught.next == 0 ? subscription.seq : caught.next;
}

void serveSubscriptions(Server& server, const Core& core) {
    // The history each client asked for, so that a stream given up on comes back alike.
    auto scrollbacks = std::make_shared<std::map<std::pair<ClientID, uint64_t>, int>>();
    // Only the serving thread touches it: requests and a client's end both run there.
    auto sizes = std::make_shared<corvex::ClientSizes>();
    auto resize = [core](uint64_t pane, corvex::Size size) {
        try {
            core->resize(pane, size);
        } catch (const corvex::BackendError&) {
            // The pane has gone meanwhile; nothing to give room to.
        }
    };
    serve<protocol::PaneSubscribe>(server, [core, &server, scrollbacks, sizes](const auto& p, MethodCall& call) {
        corvex::Subscription subscription;
        int scrollback = p.scrollback.value_or(0);
        core->requirePane(p.pane);
        auto viewport = p.viewport;
        if (viewport) viewport = sizes->show(p.pane, call.client, *viewport);
        uint64_t from = openStream(core, p.pane, p.haveSeq, viewport, scrollback, call.framesAfterReply, subscription);
        server.subscribePane(call.client, p.pane, from);
        (*scrollbacks)[{call.client, p.pane}] = scrollback;
        return subscription;
    });
    server.setStreamReopener([core, scrollbacks](ClientID client, uint64_t pane) {
        auto asked = scrollbacks->find({client, pane});
        Server::ReopenedStream reopened;
        corvex::Subscription subscription;
        reopened.from = openStream(core, pane, std::nullopt, std::nullopt, asked == scrollbacks->end() ? 0 : asked->second,
                                   reopened.frames, subscription);
        return std::optional<Server::ReopenedStream>(std::move(reopened));
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
    server.setOutputReleased([weakCore](uint64_t pane, size_t bytes) {
        if (auto live = weakCore.lock()) live->releaseOutput(pane, bytes);
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
