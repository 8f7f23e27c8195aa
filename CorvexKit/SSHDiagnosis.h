#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvex {

// What a failed plain `ssh` test call says about the way to the machine, with a title for
// a person and advice on what to do next. A password is never asked for and a host key is
// never accepted on the user's behalf; the advice says how to do either by hand.
struct SSHDiagnosis {
    // In this order; `other` carries the line to show.
    enum class Kind { other, noKey, authRejected, hostKeyUnknown, hostKeyChanged, unknownHost, refused, timedOut };

    Kind kind = Kind::other;
    std::string text; // only for `other`

    static SSHDiagnosis other(std::string line) { return {Kind::other, std::move(line)}; }
    static SSHDiagnosis of(Kind kind) { return {kind, {}}; }

    // Reads what ssh printed on its standard error; the first matching finding wins.
    static SSHDiagnosis classify(std::string_view stderrText, bool hasKeys);

    // Whether this computer has a key to offer: a private key file "id_*" in <home>/.ssh,
    // or else a key in the agent, as `ssh-add -l` (run from sshAddPath) tells.
    static bool hasKeys();
    static bool hasKeys(const std::string& home, const std::string& sshAddPath = "/usr/bin/ssh-add");

    std::string title() const;
    // The target goes into the commands the advice shows.
    std::string advice(std::string_view target) const;

    bool operator==(const SSHDiagnosis&) const = default;
};

// One plain ssh call that tells whether this computer reaches a machine without any
// prompt. It blocks until ssh has finished: run it on a background task.
struct SSHCheck {
    // Empty `failure` means ok: the connection was made, whatever the remote command did.
    struct Result {
        std::optional<SSHDiagnosis> failure;
        bool ok() const { return !failure; }
        bool operator==(const Result&) const = default;
    };

    // Batch mode forbids every prompt; no control master, so the answer is about a fresh
    // connection and not one that happens to be open.
    static std::vector<std::string> arguments(std::string_view target);
    static Result run(const std::string& target, const std::string& sshPath = "/usr/bin/ssh",
                      const std::function<bool()>& hasKeys = [] { return SSHDiagnosis::hasKeys(); });
};

} // namespace corvex
