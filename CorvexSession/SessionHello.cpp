#include "CorvexSession/SessionHello.h"

#include <cctype>
#include <cstdio>
#include <random>
#include <sys/utsname.h>
#include <unistd.h>

#include "CorvexKit/Protocol.h"
#include "Platform/System.h"

namespace corvex {

namespace {

std::string lowercase(std::string text) {
    for (auto& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

} // namespace

Hello::Machine thisMachine() {
    Hello::Machine machine;
    machine.hostname = platform::hostName();
    if (machine.hostname.empty()) machine.hostname = "localhost";
    utsname names{};
    if (::uname(&names) == 0) {
        machine.os = lowercase(names.sysname);
        machine.arch = names.machine;
    }
    machine.home = platform::homeDirectory();
    return machine;
}

std::string newInstanceID() {
    std::random_device device;
    uint64_t value = (static_cast<uint64_t>(device()) << 32) ^ device();
    char text[17];
    std::snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(value));
    return text;
}

std::vector<std::string> engineFeatureNames() {
    using F = Hello::Feature;
    std::vector<std::string> names;
    for (auto feature : {F::paneKeys, F::splitSetRatio, F::move, F::paneMove, F::paneFocus, F::paneSearch,
                         F::clientColors, F::restore, F::paneClipboard}) {
        names.emplace_back(Hello::wireName(feature));
    }
    return names;
}

Hello sessionHello(const SessionIdentity& identity) {
    Hello hello;
    hello.protocol = protocol::version;
    hello.protocolMin = protocol::version;
    hello.protocolMax = protocol::version;
    hello.daemon = identity.daemon;
    hello.version = identity.version;
    hello.instance = identity.instance;
    hello.pid = static_cast<int32_t>(::getpid());
    hello.machine = thisMachine();
    hello.featureNames = identity.features;
    return hello;
}

} // namespace corvex
