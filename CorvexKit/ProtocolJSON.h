#pragma once

// Only codec translation units include this header: it brings in the JSON library.

#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "CorvexKit/FileCodecJSON.h"
#include "CorvexKit/Protocol.h"
#include "CorvexKit/SessionCodecJSON.h"

namespace corvex::protocol {

// Params of each method: written by the client, read by the daemon. A method without
// params writes null, so the request leaves `params` out. Reading raises DecodingError.
#define CORVEX_PROTOCOL_PARAMS(M)                                                                                    \
    nlohmann::json encodeParams(const M& call);                                                                      \
    void decodeParams(const nlohmann::json& params, M& call);
CORVEX_PROTOCOL_METHODS(CORVEX_PROTOCOL_PARAMS)
CORVEX_PROTOCOL_FILE_METHODS(CORVEX_PROTOCOL_PARAMS)
#undef CORVEX_PROTOCOL_PARAMS

template <typename M>
M decodeParams(const nlohmann::json& params) {
    M call;
    decodeParams(params, call);
    return call;
}

// Results: what the daemon answers, and how the client reads it back.
nlohmann::json encodeResultValue(const NoResult&);
nlohmann::json encodeResultValue(const std::vector<PushDevice>& devices);
nlohmann::json encodeResultValue(const std::vector<PushActivity>& activities);
nlohmann::json encodeResultValue(const AgentReport::Result& result);
nlohmann::json encodeResultValue(const AgentVerdict& verdict);
nlohmann::json encodeResultValue(const FileReadOpened& opened);
nlohmann::json encodeResultValue(const FileWriteOpened& opened);
nlohmann::json encodeResultValue(const FilePutOutcomes& outcomes);
template <typename T>
nlohmann::json encodeResultValue(const T& value) {
    return toJSON(value);
}

void decodeResultValue(const nlohmann::json& result, NoResult& out);
void decodeResultValue(const nlohmann::json& result, std::vector<PushDevice>& out);
void decodeResultValue(const nlohmann::json& result, std::vector<PushActivity>& out);
void decodeResultValue(const nlohmann::json& result, AgentReport::Result& out);
void decodeResultValue(const nlohmann::json& result, AgentVerdict& out);
void decodeResultValue(const nlohmann::json& result, FileReadOpened& out);
void decodeResultValue(const nlohmann::json& result, FileWriteOpened& out);
void decodeResultValue(const nlohmann::json& result, FilePutOutcomes& out);
template <typename T>
void decodeResultValue(const nlohmann::json& result, T& out) {
    out = decodeJSON<T>(result);
}

template <typename M>
nlohmann::json encodeResult(const typename M::Result& result) {
    return encodeResultValue(result);
}

template <typename M>
typename M::Result decodeResult(const nlohmann::json& result) {
    typename M::Result out{};
    decodeResultValue(result, out);
    return out;
}

// The envelopes: a request, its reply (a result or an error) and an event.
nlohmann::json requestEnvelope(int64_t id, std::string_view method, nlohmann::json params);
nlohmann::json resultEnvelope(const nlohmann::json& id, nlohmann::json result);
nlohmann::json errorEnvelope(const nlohmann::json& id, std::string_view code, std::string_view message);
nlohmann::json eventEnvelope(std::string_view name, nlohmann::json data);

// One event on the wire.
struct WireEvent {
    std::string_view name;
    nlohmann::json data;
    EventRoute route = EventRoute::everyone;
};

// The daemon's side: the wire form of a session event, or absent for the kinds that aren't
// events on the wire (connection news, which is the client's own, and pane data, which
// travels in frames of its own).
std::optional<WireEvent> encodeEvent(const SessionEvent& event);

// The client's side: an event as received, or absent when it is dropped (data that doesn't
// decode, a name this client doesn't know, the file layer's events).
std::optional<SessionEvent> decodeEvent(std::string_view name, const nlohmann::json& data);

// The file streams' messages. Reading is tolerant where the client must carry on: an
// "fs.error" without a code or message gets defaults; a missing stream number is absent.
nlohmann::json encodeFileMessage(const FsAck& ack);
nlohmann::json encodeFileMessage(const FsDone& done);
nlohmann::json encodeFileMessage(const FsError& error);
std::optional<uint64_t> fileStreamID(const nlohmann::json& data);
std::optional<FsAck> decodeFsAck(const nlohmann::json& data);
// An "fs.done" whose entry is missing or doesn't decode has neither entry nor `cancelled`.
std::optional<FsDone> decodeFsDone(const nlohmann::json& data);
std::optional<FsError> decodeFsError(const nlohmann::json& data);

} // namespace corvex::protocol
