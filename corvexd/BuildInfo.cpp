#include "corvexd/BuildInfo.h"

#include "Platform/System.h"

namespace corvexd {

std::string buildVersion() { return CORVEXD_VERSION; }

std::string buildId() {
    auto override = platform::environmentValue("CORVEXD_BUILD_ID_OVERRIDE");
    if (!override.empty()) return override;
    return std::string(CORVEXD_VERSION) + "-" + CORVEXD_BUILD_HASH;
}

} // namespace corvexd
