#pragma once

#include <optional>
#include <string>
#include <vector>

namespace corvex {

// The sets of ssh options each kind of ssh call is started with, as "-o VALUE" pairs.
struct SSHOptions {
    bool developmentBuild = false;
    // A development build may reach machines through a proxy command (SSHProxyCommand).
    std::optional<std::string> proxyCommand;
    // An ssh configuration file read instead of the user's own (CORVEX_SSH_CONFIG), so that
    // tests and benchmarks reach a server of their own without touching ~/.ssh.
    std::optional<std::string> configFile;
    std::string home;

    // Home from the environment, the configuration file from CORVEX_SSH_CONFIG.
    static SSHOptions fromEnvironment(bool developmentBuild = false, std::optional<std::string> proxyCommand = {});

    // One-off commands (probe, install, hooks) share a control master.
    std::vector<std::string> multiplex() const;
    // The long-lived bridge has no control master, so that closing it can't hang on one.
    std::vector<std::string> bridge() const;
    // Everything a one-off command is started with: the base set plus the multiplex set.
    std::vector<std::string> oneOff() const;
    // The machine check: a fresh connection, never a shared one.
    std::vector<std::string> check() const;

    std::string controlPath() const;
    // ssh won't make the folder of its control sockets; without it every command connects afresh.
    void ensureControlDirectory() const;

private:
    std::vector<std::string> common() const;
    std::vector<std::string> proxy() const;
};

} // namespace corvex
