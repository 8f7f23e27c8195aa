#pragma once

#include <optional>
#include <string>
#include <vector>

namespace corvexd {

// `corvexd install [--print-path]`: copies the running executable to
// "<base>/<build id>/corvexd" and points "<base>/current" at that build, so that the
// shells outlive updates of whatever shipped this copy. The base is CORVEXD_INSTALL_DIR,
// else the base this executable already sits in, else the per-user data folder.
int installCommand(const std::vector<std::string>& options);

// What `install` does: the installed executable's path, or absent after printing why not.
std::optional<std::string> installSelf();

// Where `install` puts this build.
std::string installTargetPath();

} // namespace corvexd
