#include "corvexd/Service.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <pwd.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "CorvexKit/SessionCodecJSON.h"
#include "Platform/System.h"
#include "corvexd/InstallCommand.h"
#include "corvexd/RuntimeDirectory.h"
#include "corvexd/ServeMethod.h"
#include "corvexd/SettingsFile.h"

namespace corvexd {

namespace {

bool exists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

std::optional<std::string> readWhole(const std::string& path) {
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A word of a unit's line, quoted where it holds what systemd would split or expand: "%"
// everywhere, "$" only in a command's arguments (its path isn't expanded).
std::string unitWord(const std::string& word, bool expanded) {
    if (!word.empty() && word.find_first_of(" \t\"'\\$%;") == std::string::npos) return word;
    std::string quoted = "\"";
    for (char c : word) {
        if (c == '"' || c == '\\') quoted.push_back('\\');
        if ((c == '$' && expanded) || c == '%') quoted.push_back(c);
        quoted.push_back(c);
    }
    return quoted + "\"";
}

std::optional<std::string> runSystemctl(const std::vector<std::string>& arguments) {
    std::string command = "systemctl --user";
    for (const auto& argument : arguments) command += " '" + argument + "'";
    command += " 2>/dev/null";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return std::nullopt;
    std::string out;
    char buffer[4096];
    while (size_t count = std::fread(buffer, 1, sizeof buffer, pipe)) out.append(buffer, count);
    int status = ::pclose(pipe);
    if (status != 0 && !(WIFEXITED(status) && WEXITSTATUS(status) == 1)) return std::nullopt;
    while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
    return out;
}

std::string userName() {
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_name) return entry->pw_name;
    return std::to_string(::getuid());
}

} // namespace

ServicePlace ServicePlace::current() {
    ServicePlace place;
    auto config = platform::environmentValue("XDG_CONFIG_HOME");
    if (config.empty()) config = platform::homeDirectory() + "/.config";
    place.unitDirectory = config + "/systemd/user";
    place.command = {installTargetPath(), "serve"};
    for (const char* name : {"CORVEXD_RUNTIME_DIR", "CORVEXD_INSTALL_DIR", "CORVEXD_CONFIG"}) {
        if (auto value = platform::environmentValue(name); !value.empty()) place.environment[name] = value;
    }
    place.user = userName();
    auto runtime = platform::environmentValue("XDG_RUNTIME_DIR");
    if (runtime.empty()) runtime = "/run/user/" + std::to_string(::getuid());
    place.managerRuns = exists(runtime + "/systemd/private");
    place.linger = exists("/var/lib/systemd/linger/" + place.user);
    place.systemctl = runSystemctl;
    return place;
}

std::string serviceUnitText(const ServicePlace& place) {
    std::string exec;
    for (const auto& word : place.command) exec += exec.empty() ? unitWord(word, false) : " " + unitWord(word, true);
    std::string text = "[Unit]\n"
                       "Description=Corvex session daemon: keeps your workspaces and shells running\n"
                       "\n"
                       "[Service]\n"
                       "Type=simple\n"
                       "ExecStart=" + exec + "\n";
    for (const auto& [name, value] : place.environment) text += "Environment=" + unitWord(name + "=" + value, false) + "\n";
    // Stopping the unit stops the server, which ends its shells itself; the holder and
    // the shells aren't killed from outside, so that an upgrade's new server (started
    // outside the unit) keeps them.
    text += "KillMode=process\n"
            "Restart=on-failure\n"
            "\n"
            "[Install]\n"
            "WantedBy=default.target\n";
    return text;
}

corvex::DaemonService serviceStatus(const ServicePlace& place) {
    corvex::DaemonService status;
    status.manager = "systemd";
    status.label = ServicePlace::unitName;
    status.file = place.unitPath();
    status.command = place.command;
    status.linger = place.linger;
    auto written = readWhole(place.unitPath());
    status.installed = written.has_value();
    status.upToDate = written && *written == serviceUnitText(place);
    status.supported = place.managerRuns;
    if (!place.managerRuns) {
        status.message = "No systemd user manager runs for " + place.user + ", so corvexd can't start at login here.";
        return status;
    }
    if (status.installed && place.systemctl) {
        auto state = place.systemctl({"show", "-p", "LoadState", "--value", ServicePlace::unitName});
        status.loaded = state && *state == "loaded";
    }
    // Without linger the user's manager, and the daemon with it, starts only at a login and
    // ends with the last session: said, never switched on behind the user's back.
    if (place.linger == false) status.needs.push_back("loginctl enable-linger " + place.user);
    return status;
}

corvex::DaemonService installService(const ServicePlace& place) {
    if (!place.managerRuns) return serviceStatus(place);
    try {
        std::string directory;
        for (size_t at = 1; at <= place.unitDirectory.size(); ++at) {
            if (at != place.unitDirectory.size() && place.unitDirectory[at] != '/') continue;
            ::mkdir(place.unitDirectory.substr(0, at).c_str(), 0755);
        }
        writeFileWhole(place.unitPath(), serviceUnitText(place));
    } catch (const DaemonError& error) {
        auto status = serviceStatus(place);
        status.message = error.what();
        return status;
    }
    if (place.systemctl) {
        place.systemctl({"daemon-reload"});
        place.systemctl({"enable", ServicePlace::unitName});
    }
    return serviceStatus(place);
}

corvex::DaemonService uninstallService(const ServicePlace& place) {
    if (place.managerRuns && place.systemctl && exists(place.unitPath())) {
        place.systemctl({"disable", ServicePlace::unitName});
    }
    ::unlink(place.unitPath().c_str());
    if (place.managerRuns && place.systemctl) place.systemctl({"daemon-reload"});
    return serviceStatus(place);
}

void serveService(Server& server) {
    namespace protocol = corvex::protocol;
    server.addFeatures({std::string(corvex::Hello::wireName(corvex::Hello::Feature::service))});
    serve<protocol::ServiceStatus>(server, [](const auto&, MethodCall&) { return serviceStatus(ServicePlace::current()); });
    serve<protocol::ServiceInstall>(server, [](const auto&, MethodCall&) { return installService(ServicePlace::current()); });
    serve<protocol::ServiceUninstall>(server, [](const auto&, MethodCall&) {
        return uninstallService(ServicePlace::current());
    });
}

int serviceCommand(const std::vector<std::string>& options) {
    if (options.size() != 1) {
        std::cerr << "usage: corvexd service status | install | uninstall\n";
        return 2;
    }
    auto place = ServicePlace::current();
    std::optional<corvex::DaemonService> status;
    if (options[0] == "status") status = serviceStatus(place);
    if (options[0] == "install") status = installService(place);
    if (options[0] == "uninstall") status = uninstallService(place);
    if (!status) {
        std::cerr << "usage: corvexd service status | install | uninstall\n";
        return 2;
    }
    std::cout << corvex::toJSON(*status).dump(2) << "\n";
    return status->supported || options[0] == "status" ? 0 : 1;
}

} // namespace corvexd
