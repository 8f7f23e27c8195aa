#include "CorvexKit/SSHOptions.h"

#include <sys/stat.h>

#include "CorvexKit/SSHDiagnosis.h"
#include "CorvexKit/SSHProcessTransport.h"
#include "Platform/System.h"

namespace corvex {

namespace {

void addOption(std::vector<std::string>& options, std::string value) {
    options.push_back("-o");
    options.push_back(std::move(value));
}

} // namespace

SSHOptions SSHOptions::fromEnvironment(bool developmentBuild, std::optional<std::string> proxyCommand) {
    SSHOptions options;
    options.developmentBuild = developmentBuild;
    options.proxyCommand = std::move(proxyCommand);
    options.home = platform::homeDirectory();
    if (auto config = platform::environmentValue("CORVEX_SSH_CONFIG"); !config.empty()) options.configFile = config;
    return options;
}

std::string SSHOptions::controlPath() const {
    std::string name = developmentBuild ? "cm-corvexdev" : "cm-corvexapp";
    if (proxyCommand) name += "-proxied";
    return home + "/.ssh/" + name + "-%C";
}

void SSHOptions::ensureControlDirectory() const {
    std::string folder = home + "/.ssh";
    ::mkdir(folder.c_str(), 0700);
}

std::vector<std::string> SSHOptions::common() const {
    if (!configFile) return {};
    return {"-F", *configFile};
}

std::vector<std::string> SSHOptions::proxy() const {
    std::vector<std::string> options;
    if (developmentBuild && proxyCommand) addOption(options, "ProxyCommand=" + *proxyCommand);
    return options;
}

std::vector<std::string> SSHOptions::multiplex() const {
    std::vector<std::string> options;
    // ssh makes the socket as "<path with %C expanded>.<16 random characters>" and fails
    // outright when that can't fit a socket address; a deep home goes without sharing.
    constexpr size_t socketPathLimit = 104, expansion = 40 + 17 - 2;
    if (controlPath().size() + expansion >= socketPathLimit) {
        addOption(options, "ControlMaster=no");
        addOption(options, "ControlPath=none");
        return options;
    }
    addOption(options, "ControlMaster=auto");
    addOption(options, "ControlPath=" + controlPath());
    addOption(options, "ControlPersist=600");
    return options;
}

std::vector<std::string> SSHOptions::bridge() const {
    // The transport puts the base set in front of these itself.
    std::vector<std::string> options = common();
    for (auto& option : proxy()) options.push_back(std::move(option));
    return options;
}

std::vector<std::string> SSHOptions::oneOff() const {
    std::vector<std::string> options = SSHProcessTransport::baseOptions();
    for (auto& option : common()) options.push_back(std::move(option));
    for (auto& option : multiplex()) options.push_back(std::move(option));
    for (auto& option : proxy()) options.push_back(std::move(option));
    return options;
}

std::vector<std::string> SSHOptions::check() const {
    std::vector<std::string> options = common();
    // The check's own set, without its "--", target and command.
    auto checkArguments = SSHCheck::arguments("");
    options.insert(options.end(), checkArguments.begin(), checkArguments.end() - 3);
    for (auto& option : proxy()) options.push_back(std::move(option));
    return options;
}

} // namespace corvex
