#pragma once

#include <string>
#include <vector>

#include "CorvexKit/SessionBackend.h"

namespace corvex {

// Who answers a hello: the daemon's name ("corvexd", or "corvex-fake" in process), its
// version, this run's identity and the features it serves.
struct SessionIdentity {
    std::string daemon;
    std::string version;
    std::string instance;
    std::vector<std::string> features;
};

// The one hello, wherever sessions are served from: the protocol version, the identity, this
// process and this machine.
Hello sessionHello(const SessionIdentity& identity);

// The features the session engine serves by itself, by their wire names.
std::vector<std::string> engineFeatureNames();

// A fresh run identity: 64 random bits in hexadecimal.
std::string newInstanceID();

Hello::Machine thisMachine();

} // namespace corvex
