#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "Support/RawClient.h"

// Reading a raw client's replies, and the panes the raw tests make.
namespace corvexd::testing {

// The error code of a reply, "" when it isn't an error.
inline std::string errorCode(const std::optional<json>& reply) {
    if (!reply || !reply->contains("error")) return "";
    return (*reply)["error"].value("code", "");
}

// The result of a reply that must have succeeded.
inline json result(const std::optional<json>& reply) {
    if (!reply) {
        ADD_FAILURE() << "no reply";
        return {};
    }
    EXPECT_TRUE(reply->contains("result")) << reply->dump();
    return reply->value("result", json::object());
}

// A plain shell that reads no start-up files, so that what it prints is what a test typed.
inline json shell(std::vector<std::string> command = {"/bin/sh"}) {
    return {{"command", command}, {"env", {{"PS1", "$ "}, {"ENV", ""}}}, {"cols", 40}, {"rows", 10}};
}

inline uint64_t createPane(RawClient& client, const json& spawn) {
    return result(client.request("workspace.create", spawn))["pane"].get<uint64_t>();
}

} // namespace corvexd::testing
