#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace corvex {

// A failure of setting a machine up, with text meant for the user. When ssh itself failed,
// what it said is kept too, so that a caller can diagnose it (SSHDiagnosis).
struct RemoteFailure : std::runtime_error {
    explicit RemoteFailure(const std::string& message, std::optional<std::string> sshError = {})
        : std::runtime_error(message), sshError(std::move(sshError)) {}

    std::optional<std::string> sshError;
};

// What the user typed as an ssh destination ("you@host", an alias, an address).
struct SSHTarget {
    // Why the text can't be a target, or nothing when it can. A leading "-" would make ssh
    // read the target as an option.
    static std::optional<std::string> problem(std::string_view text);
    // Throws RemoteFailure with the problem's text.
    static void check(std::string_view text);
};

} // namespace corvex
