#include "corvexd/BuildInfo.h"

#include <climits>
#include <unistd.h>

namespace corvexd {

std::string buildVersion() { return CORVEXD_VERSION; }

std::string buildId() { return std::string(CORVEXD_VERSION) + "-" + CORVEXD_BUILD_HASH; }

std::string executablePath() {
    char path[PATH_MAX];
    ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0) return {};
    return std::string(path, static_cast<size_t>(length));
}

} // namespace corvexd
