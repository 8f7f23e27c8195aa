#pragma once

// For the daemon's translation units that serve protocol methods; it brings in the JSON library.

#include <string>
#include <type_traits>
#include <utility>

#include "CorvexKit/ProtocolJSON.h"
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

} // namespace corvexd
