#pragma once

// For the daemon's translation units that serve protocol methods; it brings in the JSON library.

#include <exception>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "CorvexKit/Frame.h"
#include "CorvexKit/ProtocolJSON.h"
#include "Platform/WorkerPool.h"
#include "corvexd/Server.h"

namespace corvexd {

// Serves one method of the protocol: its params are decoded (a wrong shape answers
// "bad_request"), the handler runs with them, and its result is encoded. A handler of a
// method without a result returns nothing.
template <typename M, typename Handler>
void serve(Server& server, Handler handler) {
    server.addMethod(std::string(M::name), [handler = std::move(handler)](MethodCall& call) -> nlohmann::json {
        auto params = corvex::protocol::decodeParams<M>(call.params);
        if constexpr (std::is_void_v<std::invoke_result_t<Handler&, const M&, MethodCall&>>) {
            handler(params, call);
            return corvex::protocol::encodeResult<M>(corvex::protocol::NoResult{});
        } else {
            return corvex::protocol::encodeResult<M>(handler(params, call));
        }
    });
}

// The reply frame to request `id` of method M, answered later and elsewhere: the encoded
// result of `work`, or the error it raised.
template <typename M, typename Work>
std::string replyFrame(uint64_t id, Work&& work) {
    nlohmann::json reply;
    try {
        reply = corvex::protocol::resultEnvelope(id, corvex::protocol::encodeResult<M>(work()));
    } catch (const corvex::BackendError& error) {
        reply = corvex::protocol::errorEnvelope(id, error.code(), error.message());
    } catch (const std::exception& error) {
        reply = corvex::protocol::errorEnvelope(id, "internal", error.what());
    }
    return corvex::makeJSONFrame(reply.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

// Serves a method whose work may take long, such as a search through a whole history, on
// `pool` rather than the serving thread, so other clients' requests are answered meanwhile.
// Params are decoded at once (a wrong shape answers "bad_request" as usual); the reply, or
// the error the work raised, follows by its id when the work is done. The method keeps the
// pool, and the server lets its methods go first when it ends, so work still under way
// finishes while its reply can be taken.
template <typename M, typename Work>
void serveDeferred(Server& server, std::shared_ptr<platform::WorkerPool> pool, Work work) {
    server.addMethod(std::string(M::name), [&server, pool = std::move(pool), work = std::move(work)](MethodCall& call) -> nlohmann::json {
        auto params = corvex::protocol::decodeParams<M>(call.params);
        call.deferred = true;
        pool->detach([&server, work, params = std::move(params), client = call.client, id = call.requestID] {
            server.sendFrames(client, {replyFrame<M>(id, [&] { return work(params); })});
        });
        return nlohmann::json();
    });
}

} // namespace corvexd
