#include "CorvexKit/ProtocolJSON.h"
#include "Platform/Overloaded.h"

namespace corvex::protocol {

using nlohmann::json;

namespace {

// Identifiers and positions: a JSON integer that isn't negative.
std::optional<uint64_t> unsignedField(const json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end() || !found->is_number_integer()) return std::nullopt;
    if (!found->is_number_unsigned() && found->get<int64_t>() < 0) return std::nullopt;
    return found->get<uint64_t>();
}

std::optional<int> intField(const json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end() || !found->is_number_integer()) return std::nullopt;
    return found->get<int>();
}

std::optional<std::string> stringField(const json& object, const char* key) {
    auto found = object.find(key);
    if (found == object.end() || !found->is_string()) return std::nullopt;
    return found->get<std::string>();
}

WireEvent everyone(std::string_view name, json data) { return {name, std::move(data), EventRoute::everyone}; }
WireEvent subscribers(std::string_view name, json data) { return {name, std::move(data), EventRoute::paneSubscribers}; }

} // namespace

json requestEnvelope(int64_t id, std::string_view method, json params) {
    json envelope{{"id", id}, {"method", method}};
    if (!params.is_null()) envelope["params"] = std::move(params);
    return envelope;
}

json resultEnvelope(const json& id, json result) { return json{{"id", id}, {"result", std::move(result)}}; }

json errorEnvelope(const json& id, std::string_view code, std::string_view message) {
    return json{{"id", id}, {"error", {{"code", code}, {"message", message}}}};
}

json eventEnvelope(std::string_view name, json data) { return json{{"event", name}, {"data", std::move(data)}}; }

// Every kind is named here, so a new one doesn't compile until it is given a wire form or
// declared local.
std::optional<WireEvent> encodeEvent(const SessionEvent& event) {
    using E = SessionEvent;
    using Out = std::optional<WireEvent>;
    return std::visit(
        platform::Overloaded{
            // The client's own news of its connection.
            [](const E::Connected&) -> Out { return std::nullopt; },
            [](const E::Disconnected&) -> Out { return std::nullopt; },
            [](const E::Progress&) -> Out { return std::nullopt; },
            [](const E::RetryPaused&) -> Out { return std::nullopt; },
            // A subscribe's reply and the pane data frames.
            [](const E::Subscribed&) -> Out { return std::nullopt; },
            [](const E::Output&) -> Out { return std::nullopt; },
            [](const E::Snapshot&) -> Out { return std::nullopt; },
            [](const E::State& e) -> Out { return everyone(event::state, toJSON(e.state)); },
            [](const E::PaneChanged& e) -> Out {
                json data = toJSON(e.pane);
                data["rev"] = e.rev;
                return everyone(event::pane, std::move(data));
            },
            [](const E::Bell& e) -> Out { return everyone(event::bell, json{{"pane", e.pane}}); },
            [](const E::Clipboard& e) -> Out {
                json data{{"pane", e.pane}, {"text", e.text}};
                if (e.selection) data["target"] = "selection";
                return everyone(event::clipboard, std::move(data));
            },
            [](const E::Settings& e) -> Out { return everyone(event::settings, toJSON(e.settings)); },
            [](const E::Service& e) -> Out { return everyone(event::service, toJSON(e.service)); },
            [](const E::Resized& e) -> Out {
                return subscribers(event::resized,
                                   json{{"pane", e.pane}, {"cols", e.cols}, {"rows", e.rows}, {"seq", e.seq}});
            },
            [](const E::Resync& e) -> Out { return subscribers(event::resync, json{{"pane", e.pane}}); },
            [](const E::Agent& e) -> Out {
                json data{{"pane", e.pane}};
                if (e.info) data["agent"] = toJSON(*e.info);
                return everyone(event::agent, std::move(data));
            },
        },
        event.value);
}

std::optional<SessionEvent> decodeEvent(std::string_view name, const json& data) {
    if (!data.is_object()) return std::nullopt;
    try {
        if (name == event::state) return SessionEvent::State{decodeJSON<ModelState>(data)};
        if (name == event::pane) return SessionEvent::PaneChanged{decodeJSON<Pane>(data), unsignedField(data, "rev").value_or(0)};
        if (name == event::settings) return SessionEvent::Settings{decodeJSON<DaemonSettings>(data)};
        if (name == event::service) return SessionEvent::Service{decodeJSON<DaemonService>(data)};
    } catch (const DecodingError&) {
        return std::nullopt;
    }
    auto pane = unsignedField(data, "pane");
    if (!pane) return std::nullopt;
    if (name == event::bell) return SessionEvent::Bell{*pane};
    if (name == event::resync) return SessionEvent::Resync{*pane};
    if (name == event::clipboard) {
        auto text = stringField(data, "text");
        if (!text) return std::nullopt;
        return SessionEvent::Clipboard{*pane, *text, stringField(data, "target") == "selection"};
    }
    if (name == event::resized) {
        auto cols = intField(data, "cols");
        auto rows = intField(data, "rows");
        auto seq = unsignedField(data, "seq");
        if (!cols || !rows || !seq) return std::nullopt;
        return SessionEvent::Resized{*pane, *cols, *rows, *seq};
    }
    if (name == event::agent) {
        std::optional<AgentInfo> info;
        if (auto agent = data.find("agent"); agent != data.end() && agent->is_object()) {
            try {
                info = decodeJSON<AgentInfo>(*agent);
            } catch (const DecodingError&) {
                // An agent this client can't read is no agent.
            }
        }
        return SessionEvent::Agent{*pane, std::move(info)};
    }
    return std::nullopt;
}

} // namespace corvex::protocol
