#include "Tools/corvex/EventLines.h"

#include "CorvexKit/SessionCodecJSON.h"
#include "Platform/Overloaded.h"

namespace corvex::cli {

using json = nlohmann::json;

namespace {

std::string text(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

json describe(const SessionEvent& event) {
    using E = SessionEvent;
    return std::visit(
        platform::Overloaded{
            [](const E::Connected& e) { return json{{"event", "connected"}, {"hello", toJSON(e.hello)}}; },
            [](const E::Disconnected& e) { return json{{"event", "disconnected"}, {"reason", e.reason}}; },
            [](const E::Progress& e) { return json{{"event", "progress"}, {"text", e.text}}; },
            [](const E::RetryPaused& e) { return json{{"event", "retryPaused"}, {"reason", e.reason}}; },
            [](const E::State& e) { return json{{"event", "state"}, {"state", toJSON(e.state)}}; },
            [](const E::PaneChanged& e) { return json{{"event", "pane"}, {"pane", toJSON(e.pane)}, {"rev", e.rev}}; },
            [](const E::Bell& e) { return json{{"event", "bell"}, {"pane", e.pane}}; },
            [](const E::Clipboard& e) {
                return json{{"event", "clipboard"}, {"pane", e.pane}, {"text", e.text}, {"selection", e.selection}};
            },
            [](const E::Settings& e) { return json{{"event", "settings"}, {"settings", toJSON(e.settings)}}; },
            [](const E::Service& e) { return json{{"event", "service"}, {"service", toJSON(e.service)}}; },
            [](const E::Subscribed& e) {
                return json{{"event", "subscribed"}, {"pane", e.pane}, {"subscription", toJSON(e.subscription)}};
            },
            [](const E::Output& e) {
                return json{{"event", "output"}, {"pane", e.pane}, {"seq", e.seq}, {"size", e.bytes.size()}, {"text", text(e.bytes)}};
            },
            [](const E::Snapshot& e) {
                return json{{"event", "snapshot"}, {"pane", e.pane}, {"seq", e.seq},       {"cols", e.cols},
                            {"rows", e.rows},      {"size", e.bytes.size()}, {"text", text(e.bytes)}};
            },
            [](const E::Resized& e) {
                return json{{"event", "resized"}, {"pane", e.pane}, {"cols", e.cols}, {"rows", e.rows}, {"seq", e.seq}};
            },
            [](const E::Resync& e) { return json{{"event", "resync"}, {"pane", e.pane}}; },
            [](const E::Agent& e) {
                return json{{"event", "agent"}, {"pane", e.pane}, {"agent", e.info ? toJSON(*e.info) : json()}};
            },
        },
        event.value);
}

} // namespace

std::string eventLine(const SessionEvent& event) {
    return describe(event).dump(-1, ' ', false, json::error_handler_t::replace);
}

} // namespace corvex::cli
