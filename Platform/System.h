#pragma once

#include <string>
#include <sys/types.h>

namespace platform {

// The user's home folder: HOME when set, else the password database.
std::string homeDirectory();
// TMPDIR when set and not empty, else "/tmp"; never ends in a slash.
std::string temporaryDirectory();
uid_t userId();
// The pretty host name when one is set, else gethostname.
std::string hostName();
// The user's shell from the password database, else "/bin/sh".
std::string userShell();
// The value of an environment variable, or empty when unset.
std::string environmentValue(const char* name);
// Whether this processor has instructions for AES and the carry-less multiply of GCM.
bool hasAESInstructions();

} // namespace platform
