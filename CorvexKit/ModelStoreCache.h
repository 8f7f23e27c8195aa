#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CorvexKit/SessionBackend.h"
#include "CorvexKit/SessionModel.h"

namespace corvex {

// What the client remembers of a machine so that its workspaces and tabs can be shown,
// dimmed, before any connection exists.
struct CachedMachineState {
    static constexpr int currentFormat = 1;

    int format = currentFormat;
    ModelState state;
    double lastSeen = 0; // seconds since the Unix epoch
    std::optional<std::string> daemonVersion;
    std::optional<std::string> instance;
    std::vector<std::string> featureNames;

    // The known features among `featureNames`: what the machine could do while it's away.
    FeatureSet features() const { return Hello::features(featureNames); }
    bool operator==(const CachedMachineState&) const = default;
};

} // namespace corvex
