#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "CorvexKit/SessionBackend.h"

namespace corvexd {

class Server;

// Where the login service lives and how the system is asked about it; the real one comes
// from `ServicePlace::current()`, tests make their own.
struct ServicePlace {
    std::string unitDirectory;              // the user's systemd unit folder
    std::vector<std::string> command;       // what the unit runs
    std::map<std::string, std::string> environment; // set in the unit
    std::string user;
    bool managerRuns = false;               // a systemd user manager answers
    std::optional<bool> linger;             // the user's manager outlives their sessions
    // Runs `systemctl --user ARGS...`; its standard output, or absent when it failed.
    std::function<std::optional<std::string>(const std::vector<std::string>&)> systemctl;

    static ServicePlace current();
    std::string unitPath() const { return unitDirectory + "/" + unitName; }
    static constexpr const char* unitName = "corvexd.service";
};

// The unit that starts this build's server at login.
std::string serviceUnitText(const ServicePlace& place);

corvex::DaemonService serviceStatus(const ServicePlace& place);
// Writes the unit and has the manager enable it; without a manager it changes nothing.
corvex::DaemonService installService(const ServicePlace& place);
corvex::DaemonService uninstallService(const ServicePlace& place);

// The "service" feature and its requests.
void serveService(Server& server);
// `corvexd service status|install|uninstall`: the record as JSON on standard output.
int serviceCommand(const std::vector<std::string>& options);

} // namespace corvexd
