#pragma once

#include <string>

namespace corvexd {

// What the sub-commands share.

// Prints "corvexd: <message>" on standard error; returns the exit status of a failure.
int fail(const std::string& message);
// A socket connected to the daemon at the path, or -1 when nothing accepts there.
int connectTo(const std::string& path);
// Whether a daemon accepts at the path.
bool accepts(const std::string& path);

} // namespace corvexd
