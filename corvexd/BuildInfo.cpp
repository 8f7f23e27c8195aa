#include "corvexd/BuildInfo.h"

namespace corvexd {

std::string buildVersion() { return CORVEXD_VERSION; }

std::string buildId() { return std::string(CORVEXD_VERSION) + "-" + CORVEXD_BUILD_HASH; }

} // namespace corvexd
